#include "store/Database.h"

#include <openssl/evp.h>
#include <sqlite3.h>

#include <array>
#include <cstring>
#include <fstream>

namespace orvik::store {

namespace {

std::string describe(int code, const std::string& message, const std::string& statement) {
    std::string text = "database error " + std::to_string(code) + ": " + message;
    if (!statement.empty()) {
        text += " (in: " + statement + ")";
    }
    return text;
}

#ifdef ORVIK_HAS_SQLCIPHER
std::string hex(const unsigned char* bytes, std::size_t n) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(n * 2);
    for (std::size_t i = 0; i < n; ++i) {
        out.push_back(digits[bytes[i] >> 4]);
        out.push_back(digits[bytes[i] & 0xf]);
    }
    return out;
}
#endif

// Quotes a text as an SQL string literal.
std::string sqlLiteral(const std::string& text) {
    std::string out = "'";
    for (char c : text) {
        if (c == '\'') {
            out += "''";
        } else {
            out.push_back(c);
        }
    }
    out += "'";
    return out;
}

}  // namespace

DatabaseError::DatabaseError(int code, std::string message, std::string statement)
    : std::runtime_error(describe(code, message, statement)),
      code_(code),
      message_(std::move(message)),
      statement_(std::move(statement)) {}

Param optionalText(const std::optional<std::string>& value) {
    if (value) {
        return *value;
    }
    return nullptr;
}

std::string placeholders(std::size_t n) {
    std::string out;
    out.reserve(n * 2);
    for (std::size_t i = 0; i < n; ++i) {
        if (i > 0) {
            out.push_back(',');
        }
        out.push_back('?');
    }
    return out;
}

// ---------------------------------------------------------------------------
// Row

int Row::indexOf(std::string_view column) const {
    const int count = sqlite3_column_count(stmt_);
    for (int i = 0; i < count; ++i) {
        const char* name = sqlite3_column_name(stmt_, i);
        if (name != nullptr && column == name) {
            return i;
        }
    }
    return -1;
}

int Row::requireIndex(std::string_view column) const {
    const int index = indexOf(column);
    if (index < 0) {
        throw DatabaseError(SQLITE_RANGE, "no column named " + std::string(column),
                            sqlite3_sql(stmt_) ? sqlite3_sql(stmt_) : "");
    }
    return index;
}

std::string Row::columnName(int index) const {
    const char* name = sqlite3_column_name(stmt_, index);
    return name ? name : "";
}

int Row::columnCount() const {
    return sqlite3_column_count(stmt_);
}

bool Row::isNull(int index) const {
    return sqlite3_column_type(stmt_, index) == SQLITE_NULL;
}

std::string Row::text(int index) const {
    const auto* data = sqlite3_column_text(stmt_, index);
    if (data == nullptr) {
        return {};
    }
    return std::string(reinterpret_cast<const char*>(data),
                       static_cast<std::size_t>(sqlite3_column_bytes(stmt_, index)));
}

std::int64_t Row::integer(int index) const {
    return sqlite3_column_int64(stmt_, index);
}

double Row::real(int index) const {
    return sqlite3_column_double(stmt_, index);
}

bool Row::isNull(std::string_view column) const {
    return isNull(requireIndex(column));
}

std::string Row::text(std::string_view column) const {
    return text(requireIndex(column));
}

std::optional<std::string> Row::optionalText(std::string_view column) const {
    const int index = requireIndex(column);
    if (isNull(index)) {
        return std::nullopt;
    }
    return text(index);
}

std::int64_t Row::integer(std::string_view column) const {
    return integer(requireIndex(column));
}

std::optional<std::int64_t> Row::optionalInteger(std::string_view column) const {
    const int index = requireIndex(column);
    if (isNull(index)) {
        return std::nullopt;
    }
    return integer(index);
}

double Row::real(std::string_view column) const {
    return real(requireIndex(column));
}

// ---------------------------------------------------------------------------
// Statement

Statement::Statement(sqlite3* db, std::string sql) : db_(db), sql_(std::move(sql)) {
    const int rc =
        sqlite3_prepare_v2(db_, sql_.c_str(), static_cast<int>(sql_.size()), &stmt_, nullptr);
    if (rc != SQLITE_OK) {
        const int code = sqlite3_extended_errcode(db_);
        std::string message = sqlite3_errmsg(db_);
        sqlite3_finalize(stmt_);
        stmt_ = nullptr;
        throw DatabaseError(code, std::move(message), sql_);
    }
}

Statement::~Statement() {
    sqlite3_finalize(stmt_);
}

void Statement::bind(const Params& params) {
    int position = 1;
    auto check = [&](int rc) {
        if (rc != SQLITE_OK) {
            throw DatabaseError(sqlite3_extended_errcode(db_), sqlite3_errmsg(db_), sql_);
        }
    };
    auto bindText = [&](const std::string& text) {
        check(sqlite3_bind_text(stmt_, position++, text.data(), static_cast<int>(text.size()),
                                SQLITE_TRANSIENT));
    };
    for (const Param& param : params.values()) {
        if (std::holds_alternative<std::nullptr_t>(param)) {
            check(sqlite3_bind_null(stmt_, position++));
        } else if (const auto* i = std::get_if<std::int64_t>(&param)) {
            check(sqlite3_bind_int64(stmt_, position++, *i));
        } else if (const auto* d = std::get_if<double>(&param)) {
            check(sqlite3_bind_double(stmt_, position++, *d));
        } else if (const auto* s = std::get_if<std::string>(&param)) {
            bindText(*s);
        } else {
            for (const std::string& element : std::get<std::vector<std::string>>(param)) {
                bindText(element);
            }
        }
    }
    if (position - 1 != sqlite3_bind_parameter_count(stmt_)) {
        throw DatabaseError(SQLITE_RANGE,
                            "statement expects " +
                                std::to_string(sqlite3_bind_parameter_count(stmt_)) +
                                " parameters, got " + std::to_string(position - 1),
                            sql_);
    }
}

bool Statement::step() {
    const int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) {
        return true;
    }
    if (rc == SQLITE_DONE) {
        return false;
    }
    const int code = sqlite3_extended_errcode(db_);
    std::string message = sqlite3_errmsg(db_);
    throw DatabaseError(code, std::move(message), sql_);
}

void Statement::reset() noexcept {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
}

// ---------------------------------------------------------------------------
// Connection

class Connection::Lease {
  public:
    Lease(Statement* cached, std::unique_ptr<Statement> owned)
        : statement_(cached ? cached : owned.get()), owned_(std::move(owned)) {
        statement_->busy_ = true;
    }
    ~Lease() {
        statement_->reset();
        statement_->busy_ = false;
    }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    Statement* operator->() { return statement_; }

  private:
    Statement* statement_;
    std::unique_ptr<Statement> owned_;
};

Connection::Connection(const std::filesystem::path& path, int openFlags) {
    const int rc = sqlite3_open_v2(path.c_str(), &db_, openFlags, nullptr);
    if (rc != SQLITE_OK) {
        const int code = db_ ? sqlite3_extended_errcode(db_) : rc;
        std::string message = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
        sqlite3_close_v2(db_);
        db_ = nullptr;
        throw DatabaseError(code, "cannot open " + path.string() + ": " + message);
    }
    sqlite3_extended_result_codes(db_, 1);
}

Connection::~Connection() {
    cache_.clear();
    sqlite3_close_v2(db_);
}

Connection::Lease Connection::acquire(const std::string& sql) {
    countStatement(sql);
    auto it = cache_.find(sql);
    if (it == cache_.end()) {
        it = cache_.emplace(sql, std::make_unique<Statement>(db_, sql)).first;
    }
    if (it->second->busy_) {
        return Lease(nullptr, std::make_unique<Statement>(db_, sql));
    }
    return Lease(it->second.get(), nullptr);
}

void Connection::countStatement(const std::string& sql) {
    if (fault_ == nullptr) {
        return;
    }
    ++statementsInTransaction_;
    if (!fault_->fired && statementsInTransaction_ == fault_->failAtStatement) {
        fault_->fired = true;
        throw DatabaseError(fault_->code,
                            std::string("injected fault: ") + sqlite3_errstr(fault_->code), sql);
    }
}

void Connection::beginCounting(FaultPlan* plan) noexcept {
    fault_ = plan;
    statementsInTransaction_ = 0;
}

void Connection::endCounting() noexcept {
    fault_ = nullptr;
    statementsInTransaction_ = 0;
}

int Connection::run(const std::string& sql, const Params& params) {
    auto statement = acquire(sql);
    statement->bind(params);
    while (statement->step()) {
    }
    return sqlite3_changes(db_);
}

void Connection::query(const std::string& sql, const Params& params,
                       const std::function<void(const Row&)>& onRow) {
    auto statement = acquire(sql);
    statement->bind(params);
    const Row row(statement->stmt_);
    while (statement->step()) {
        onRow(row);
    }
}

void Connection::queryWhile(const std::string& sql, const Params& params,
                            const std::function<bool(const Row&)>& onRow) {
    auto statement = acquire(sql);
    statement->bind(params);
    const Row row(statement->stmt_);
    while (statement->step() && onRow(row)) {
    }
}

std::optional<std::int64_t> Connection::scalarInteger(const std::string& sql,
                                                      const Params& params) {
    auto statement = acquire(sql);
    statement->bind(params);
    if (!statement->step()) {
        return std::nullopt;
    }
    const Row row(statement->stmt_);
    if (row.columnCount() == 0 || row.isNull(0)) {
        return std::nullopt;
    }
    return row.integer(0);
}

bool Connection::scalarFlag(const std::string& sql, const Params& params) {
    const auto value = scalarInteger(sql, params);
    return value.has_value() && *value != 0;
}

int Connection::changes() const {
    return sqlite3_changes(db_);
}

void Connection::executeScript(const std::string& sql) {
    char* error = nullptr;
    const int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error);
    if (rc != SQLITE_OK) {
        std::string message = error ? error : sqlite3_errstr(rc);
        sqlite3_free(error);
        throw DatabaseError(sqlite3_extended_errcode(db_), std::move(message), sql);
    }
}

bool Connection::autocommit() const {
    return sqlite3_get_autocommit(db_) != 0;
}

void Connection::fail(int code, const std::string& sql) const {
    throw DatabaseError(code, sqlite3_errmsg(db_), sql);
}

// ---------------------------------------------------------------------------
// Transaction

Transaction::Transaction(Connection& db, Mode mode, FaultPlan* fault) : db_(db) {
    db_.executeScript(mode == Mode::immediate ? "BEGIN IMMEDIATE" : "BEGIN");
    db_.beginCounting(fault);
}

Transaction::~Transaction() {
    db_.endCounting();
    if (open_ && !db_.autocommit()) {
        // Errors here cannot be reported; SQLite leaves the connection in
        // autocommit mode either way.
        sqlite3_exec(db_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

void Transaction::commit() {
    if (!open_) {
        return;
    }
    try {
        db_.executeScript("COMMIT");
    } catch (...) {
        if (!db_.autocommit()) {
            sqlite3_exec(db_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
        }
        open_ = false;
        throw;
    }
    open_ = false;
}

// ---------------------------------------------------------------------------
// DatabasePool

namespace {

#ifdef ORVIK_HAS_SQLCIPHER
constexpr int kSaltLength = 16;
constexpr int kKeyLength = 32;
// SQLCipher 3's default key derivation: PBKDF2-HMAC-SHA1, 64000 iterations.
constexpr int kKdfIterations = 64000;

std::optional<std::array<unsigned char, kSaltLength>> readSalt(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::array<unsigned char, kSaltLength> salt{};
    if (!in.read(reinterpret_cast<char*>(salt.data()), kSaltLength)) {
        return std::nullopt;
    }
    return salt;
}
#endif

}  // namespace

std::shared_ptr<DatabasePool> DatabasePool::open(const std::filesystem::path& path,
                                                 PoolOptions options) {
    std::shared_ptr<DatabasePool> pool(new DatabasePool(path, std::move(options)));
    return pool;
}

DatabasePool::DatabasePool(std::filesystem::path path, PoolOptions options)
    : path_(std::move(path)), options_(std::move(options)) {
    if (options_.readerCount < 1) {
        options_.readerCount = 1;
    }
    keyed_ = options_.key.has_value();
#ifndef ORVIK_HAS_SQLCIPHER
    if (keyed_) {
        throw DatabaseError(SQLITE_MISUSE,
                            "this build uses plain SQLite and cannot open an encrypted database");
    }
#endif
    if (keyed_) {
        readerKeyPragma_ = "PRAGMA key = " + sqlLiteral(*options_.key);
    }
    writer_ = openConnection(true);
}

DatabasePool::~DatabasePool() = default;

void DatabasePool::applyKey(Connection& db) {
    // The key must be the first statement on a new connection.
    if (keyed_) {
        db.executeScript(readerKeyPragma_);
    }
}

std::unique_ptr<Connection> DatabasePool::openConnection(bool writer) {
    int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
    if (writer && options_.create) {
        flags |= SQLITE_OPEN_CREATE;
    }
    auto db = std::make_unique<Connection>(path_, flags);
    applyKey(*db);
    db->executeScript("PRAGMA busy_timeout = " + std::to_string(options_.busyTimeout.count()));
    // The first read of the schema fails with SQLITE_NOTADB on a wrong key or a file
    // that is not a database; nothing has been written yet.
    try {
        db->executeScript("SELECT count(*) FROM sqlite_master");
    } catch (const DatabaseError& error) {
        if (error.primaryCode() == SQLITE_NOTADB) {
            throw DatabaseError(error.code(),
                                keyed_ ? "file is not a database, or the key is wrong"
                                       : "file is not a database (or it is encrypted)",
                                error.statement());
        }
        throw;
    }
    if (writer) {
        db->executeScript("PRAGMA journal_mode = WAL");
        db->executeScript("PRAGMA synchronous = NORMAL");
#ifdef ORVIK_HAS_SQLCIPHER
        if (keyed_) {
            // Derive the key once here; readers get the raw key and the file's salt
            // and skip the costly derivation.
            if (auto salt = readSalt(path_)) {
                std::array<unsigned char, kKeyLength> key{};
                if (PKCS5_PBKDF2_HMAC_SHA1(
                        options_.key->data(), static_cast<int>(options_.key->size()), salt->data(),
                        kSaltLength, kKdfIterations, kKeyLength, key.data()) == 1) {
                    const std::string raw = "PRAGMA key = \"x'" + hex(key.data(), key.size()) +
                                            hex(salt->data(), salt->size()) + "'\"";
                    // Keep the raw key only when a connection really opens with it
                    // (a database with non-default cipher settings would not).
                    try {
                        Connection probe(path_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX);
                        probe.executeScript(raw);
                        probe.executeScript("SELECT count(*) FROM sqlite_master");
                        readerKeyPragma_ = raw;
                    } catch (const DatabaseError&) {
                    }
                }
            }
        }
#endif
    } else {
        db->executeScript("PRAGMA query_only = 1");
    }
    return db;
}

DatabasePool::ReaderLease::ReaderLease(DatabasePool& pool) : pool_(pool) {
    std::unique_lock lock(pool_.readersMutex_);
    pool_.readerAvailable_.wait(lock, [&] {
        return !pool_.idleReaders_.empty() || pool_.openReaders_ < pool_.options_.readerCount;
    });
    if (!pool_.idleReaders_.empty()) {
        connection_ = std::move(pool_.idleReaders_.back());
        pool_.idleReaders_.pop_back();
        return;
    }
    ++pool_.openReaders_;
    lock.unlock();
    try {
        connection_ = pool_.openConnection(false);
    } catch (...) {
        lock.lock();
        --pool_.openReaders_;
        pool_.readerAvailable_.notify_one();
        throw;
    }
}

DatabasePool::ReaderLease::~ReaderLease() {
    std::lock_guard lock(pool_.readersMutex_);
    pool_.idleReaders_.push_back(std::move(connection_));
    pool_.readerAvailable_.notify_one();
}

void DatabasePool::checkpoint() {
    std::lock_guard lock(writerMutex_);
    writer_->executeScript("PRAGMA wal_checkpoint(PASSIVE)");
}

void DatabasePool::armFault(FaultPlan plan) {
    std::lock_guard lock(faultMutex_);
    plan.fired = false;
    armedFault_ = std::make_unique<FaultPlan>(plan);
    faultArmed_ = true;
}

void DatabasePool::disarmFault() {
    std::lock_guard lock(faultMutex_);
    armedFault_.reset();
    faultArmed_ = false;
}

bool DatabasePool::faultFired() const {
    std::lock_guard lock(faultMutex_);
    return armedFault_ && armedFault_->fired;
}

FaultPlan* DatabasePool::takeFault(bool forWrite) {
    if (!faultArmed_.load(std::memory_order_relaxed)) {
        return nullptr;
    }
    std::lock_guard lock(faultMutex_);
    if (!armedFault_ || armedFault_->fired) {
        return nullptr;
    }
    if (armedFault_->writesOnly && !forWrite) {
        return nullptr;
    }
    return armedFault_.get();
}

}  // namespace orvik::store
