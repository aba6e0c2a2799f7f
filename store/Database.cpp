#include "store/Database.h"

#include "store/PageCipherInternal.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>

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
[[maybe_unused]] std::string sqlLiteral(const std::string& text) {
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

Param Param::owned() const {
    return visit([](const auto& value) -> Param {
        using T = std::decay_t<decltype(value)>;
        if constexpr (std::is_same_v<T, std::string_view>) {
            return std::string(value);
        } else if constexpr (std::is_same_v<T, std::span<const std::string>>) {
            return std::vector<std::string>(value.begin(), value.end());
        } else {
            return value;
        }
    });
}

Params::Params(Params&& other) noexcept {
    *this = std::move(other);
}

Params& Params::operator=(const Params& other) {
    if (this != &other) {
        clear();
        for (const Param& param : other.values()) {
            add(param);
        }
    }
    return *this;
}

Params& Params::operator=(Params&& other) noexcept {
    if (this != &other) {
        clear();
        if (other.size_ <= kInline) {
            for (std::size_t i = 0; i < other.size_; ++i) {
                new (inlineAt(i)) Param(std::move(*other.inlineAt(i)));
            }
        } else {
            more_ = std::move(other.more_);
        }
        size_ = other.size_;
        other.clear();
    }
    return *this;
}

void Params::clear() noexcept {
    if (size_ <= kInline) {
        for (std::size_t i = 0; i < size_; ++i) {
            inlineAt(i)->~Param();
        }
    }
    more_.clear();
    size_ = 0;
}

void Params::spill() {
    if (size_ == kInline) {
        more_.reserve(2 * kInline);
        for (std::size_t i = 0; i < kInline; ++i) {
            more_.push_back(std::move(*inlineAt(i)));
            inlineAt(i)->~Param();
        }
    }
}

Params Params::owned() const {
    Params copy;
    for (const Param& param : values()) {
        copy.add(param.owned());
    }
    return copy;
}

// Owns its text: callers pass optional fields of records they may not keep.
Param optionalText(const std::optional<std::string>& value) {
    if (value) {
        return std::string(*value);
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

InListStatement::InListStatement(std::string_view head, std::string_view tail)
    : head_(head), tail_(tail) {
    for (std::size_t n = 0; n < texts_.size(); ++n) {
        texts_[n] = head_ + placeholders(n) + tail_;
    }
}

const std::string& InListStatement::text(std::size_t n, std::string& storage) const {
    if (n < texts_.size()) {
        return texts_[n];
    }
    storage = head_ + placeholders(n) + tail_;
    return storage;
}

// ---------------------------------------------------------------------------
// Row

namespace {
std::atomic<std::uint64_t> nextColumnSetSerial{1};
}

ColumnSet::ColumnSet(std::initializer_list<std::string_view> names)
    : names_(names), serial_(nextColumnSetSerial.fetch_add(1)) {}

const std::vector<int>& Row::positions(const ColumnSet& columns) const {
    if (statement_ != nullptr) {
        return statement_->positions(columns);
    }
    // A row without its statement (not one the connection handed out): resolved
    // each time, kept per thread.
    thread_local std::vector<int> resolved;
    resolved.clear();
    for (const auto name : columns.names()) {
        resolved.push_back(requireIndex(name));
    }
    return resolved;
}

std::optional<std::string> Row::optionalText(int index) const {
    // SQLite answers NULL with no text at all, which spares asking for the type
    // first; only then is the type asked, as a failed conversion looks the same.
    const std::string_view text = view(index);
    if (text.data() == nullptr && isNull(index)) {
        return std::nullopt;
    }
    return std::string(text);
}

void Row::optionalTextInto(int index, std::optional<std::string>& to) const {
    const std::string_view text = view(index);
    if (text.data() == nullptr && isNull(index)) {
        to.reset();
    } else if (to) {
        to->assign(text);
    } else {
        to.emplace(text);
    }
}

int Row::indexOf(std::string_view column) const {
    if (statement_ != nullptr) {
        if (statement_->columnNames_.empty()) {
            const int count = sqlite3_column_count(stmt_);
            for (int i = 0; i < count; ++i) {
                const char* name = sqlite3_column_name(stmt_, i);
                statement_->columnNames_.emplace_back(name ? name : "");
            }
        }
        const auto& names = statement_->columnNames_;
        for (std::size_t i = 0; i < names.size(); ++i) {
            if (names[i] == column) {
                return static_cast<int>(i);
            }
        }
        return -1;
    }
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
    return std::string(view(index));
}

std::string_view Row::view(int index) const {
    const auto* data = sqlite3_column_text(stmt_, index);
    if (data == nullptr) {
        return {};  // no data: NULL (or a failed conversion)
    }
    return {reinterpret_cast<const char*>(data),
            static_cast<std::size_t>(sqlite3_column_bytes(stmt_, index))};
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

const std::vector<int>& Statement::positions(const ColumnSet& columns) {
    for (const auto& [serial, positions] : positions_) {
        if (serial == columns.serial()) {
            return positions;
        }
    }
    const Row row(stmt_, this);
    std::vector<int> resolved;
    resolved.reserve(columns.names().size());
    for (const auto name : columns.names()) {
        const int index = row.indexOf(name);
        if (index < 0) {
            throw DatabaseError(SQLITE_RANGE, "no column named " + std::string(name), sql_);
        }
        resolved.push_back(index);
    }
    positions_.emplace_back(columns.serial(), std::move(resolved));
    return positions_.back().second;
}

namespace {
std::atomic<StatementObserver> statementObserver{nullptr};
}  // namespace

void setStatementObserver(StatementObserver observer) noexcept {
    statementObserver.store(observer, std::memory_order_relaxed);
}

void Statement::bind(const Params& params) {
    if (const auto observer = statementObserver.load(std::memory_order_relaxed)) {
        observer(sql_, params);
    }
    int position = 1;
    auto check = [&](int rc) {
        if (rc != SQLITE_OK) {
            throw DatabaseError(sqlite3_extended_errcode(db_), sqlite3_errmsg(db_), sql_);
        }
    };
    // The parameters outlive the statement's run: every run ends in reset(), which
    // clears the bindings, before the caller's Params go away. SQLite reads the
    // text in place instead of copying it.
    auto bindText = [&](std::string_view text) {
        // An empty view may have no data at all, which SQLite would bind as NULL.
        check(sqlite3_bind_text(stmt_, position++, text.data() != nullptr ? text.data() : "",
                                static_cast<int>(text.size()), SQLITE_STATIC));
    };
    for (const Param& param : params.values()) {
        param.visit([&](const auto& value) {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, std::nullptr_t>) {
                check(sqlite3_bind_null(stmt_, position++));
            } else if constexpr (std::is_same_v<T, std::int64_t>) {
                check(sqlite3_bind_int64(stmt_, position++, value));
            } else if constexpr (std::is_same_v<T, double>) {
                check(sqlite3_bind_double(stmt_, position++, value));
            } else if constexpr (std::is_same_v<T, std::string_view>) {
                bindText(value);
            } else {
                for (const std::string& element : value) {
                    bindText(element);
                }
            }
        });
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

namespace {

// SQLite keeps a running total of its memory for sqlite3_memory_used(), updated
// under one process-wide mutex on every allocation and free; the packaged
// SQLCipher is built without lookaside memory, so every small allocation of a
// statement pays for a lock and an unlock. Nothing here reads the total (nor sets
// a soft heap limit, which needs it), so it is switched off once, before SQLite
// initialises. When something else in the process initialised SQLite first, the
// call is refused and nothing changes. The page cipher goes in after that, before
// the first encrypted connection opens (see store/PageCipherInternal.h).
void configureSqliteOnce() {
    static std::once_flag once;
    std::call_once(once, [] {
        (void)sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
        (void)installPageCipher();
    });
}

}  // namespace

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
    Statement* get() { return statement_; }

  private:
    Statement* statement_;
    std::unique_ptr<Statement> owned_;
};

namespace {
std::atomic<std::uint64_t> nextConnectionSerial{1};
const std::string kDataVersion = "PRAGMA data_version";
}  // namespace

Connection::Connection(const std::filesystem::path& path, int openFlags, const char* vfs)
    : serial_(nextConnectionSerial.fetch_add(1)) {
    configureSqliteOnce();
    const int rc = sqlite3_open_v2(path.c_str(), &db_, openFlags, vfs);
    if (rc != SQLITE_OK) {
        const int code = db_ ? sqlite3_extended_errcode(db_) : rc;
        std::string message = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
        sqlite3_close_v2(db_);
        db_ = nullptr;
        throw DatabaseError(code, "cannot open " + path.string() + ": " + message);
    }
    sqlite3_extended_result_codes(db_, 1);
    sqlite3_update_hook(db_, &Connection::onUpdate, this);
}

void Connection::onUpdate(void* self, int, const char*, const char* table, sqlite3_int64) {
    ++static_cast<Connection*>(self)->rowChanges_;
    auto& changes = static_cast<Connection*>(self)->tableChanges_;
    for (auto& [name, count] : changes) {
        if (name == table) {
            ++count;
            return;
        }
    }
    changes.emplace_back(table, 1);
}

std::uint64_t Connection::tableChanges(std::string_view table) const noexcept {
    for (const auto& [name, count] : tableChanges_) {
        if (name == table) {
            return count;
        }
    }
    return 0;
}

Statement& Connection::cached(const std::string& sql) {
    // The library's statement texts are constants: the same text at the same
    // address is found again without hashing it. The text is still compared, as
    // a text built for one call may come back at an address another text had.
    auto& recent = recent_[(reinterpret_cast<std::uintptr_t>(&sql) >> 5) % recent_.size()];
    if (recent.text == &sql && recent.statement->sql_ == sql) {
        return *recent.statement;
    }
    auto it = cache_.find(sql);
    if (it == cache_.end()) {
        it = cache_.emplace(sql, std::make_unique<Statement>(db_, sql)).first;
    }
    recent = {&sql, it->second.get()};
    return *it->second;
}

void Connection::executeCached(const std::string& sql) {
    // Reset at once, also after a failure: a COMMIT left pending would hold its
    // transaction open.
    Lease statement(&cached(sql), nullptr);
    while (statement->step()) {
    }
}

Connection::Stamp Connection::stamp() {
    Lease statement(&cached(kDataVersion), nullptr);
    if (!statement->step()) {
        fail(SQLITE_ERROR, kDataVersion);
    }
    return Stamp{serial_, sqlite3_column_int64(statement->stmt_, 0), sqlite3_total_changes(db_)};
}

Connection::~Connection() {
    cache_.clear();
    sqlite3_close_v2(db_);
}

Connection::Lease Connection::acquire(const std::string& sql) {
    countStatement(sql);
    ++statementCount_;
    Statement& statement = cached(sql);
    if (statement.busy_) {
        return Lease(nullptr, std::make_unique<Statement>(db_, sql));
    }
    return Lease(&statement, nullptr);
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

void Connection::checkCommitFault() {
    if (fault_ != nullptr && !fault_->fired && fault_->failAtStatement == FaultPlan::atCommit) {
        fault_->fired = true;
        throw DatabaseError(
            fault_->code, std::string("injected fault: ") + sqlite3_errstr(fault_->code), "COMMIT");
    }
}

void Connection::emptyTransactionMemo() noexcept {
    if (transactionMemoUsed_) {
        emptyTransactionMemo_(transactionMemo_.get());
        transactionMemoUsed_ = false;
    }
}

void Connection::beginCounting(FaultPlan* plan) noexcept {
    fault_ = plan;
    statementsInTransaction_ = 0;
    emptyTransactionMemo();
}

void Connection::endCounting() noexcept {
    fault_ = nullptr;
    statementsInTransaction_ = 0;
    emptyTransactionMemo();
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
    const Row row(statement->stmt_, statement.get());
    while (statement->step()) {
        onRow(row);
    }
}

void Connection::queryWhile(const std::string& sql, const Params& params,
                            const std::function<bool(const Row&)>& onRow) {
    auto statement = acquire(sql);
    statement->bind(params);
    const Row row(statement->stmt_, statement.get());
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

Transaction::Transaction(Connection& db, Mode mode, std::shared_ptr<FaultPlan> fault)
    : db_(db), fault_(std::move(fault)) {
    static const std::string kBeginImmediate = "BEGIN IMMEDIATE";
    static const std::string kBegin = "BEGIN";
    db_.executeCached(mode == Mode::immediate ? kBeginImmediate : kBegin);
    db_.beginCounting(fault_.get());
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
        static const std::string kCommit = "COMMIT";
        db_.checkCommitFault();
        db_.executeCached(kCommit);
    } catch (...) {
        // A COMMIT that failed may leave the transaction open (SQLITE_BUSY does):
        // nothing of it may stay pending on the connection.
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

using Salt = std::array<unsigned char, kSaltLength>;

// The salt of the main database of an open connection, read through SQLite's own
// handle of the file. Another descriptor of the file must never be opened and
// closed here: closing it would drop every POSIX lock this process holds on the
// file, and another process could then delete the WAL that we are still using.
// Absent when the file is empty (a new database) or shorter than a salt.
std::optional<Salt> saltOf(sqlite3* db) {
    sqlite3_file* file = nullptr;
    if (sqlite3_file_control(db, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK ||
        file == nullptr || file->pMethods == nullptr) {
        return std::nullopt;
    }
    sqlite3_int64 size = 0;
    if (file->pMethods->xFileSize(file, &size) != SQLITE_OK || size < kSaltLength) {
        return std::nullopt;
    }
    Salt salt{};
    if (file->pMethods->xRead(file, salt.data(), kSaltLength, 0) != SQLITE_OK) {
        return std::nullopt;
    }
    return salt;
}

// The database file has no byte yet: its salt is ours to choose.
bool emptyFile(sqlite3* db) {
    sqlite3_file* file = nullptr;
    if (sqlite3_file_control(db, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK ||
        file == nullptr || file->pMethods == nullptr) {
        return false;
    }
    sqlite3_int64 size = -1;
    return file->pMethods->xFileSize(file, &size) == SQLITE_OK && size == 0;
}

// "PRAGMA key" with the raw key derived from the passphrase and the salt: a
// connection keyed this way skips SQLCipher's own derivation.
std::optional<std::string> rawKeyPragma(const std::string& passphrase, const Salt& salt) {
    std::array<unsigned char, kKeyLength> key{};
    if (PKCS5_PBKDF2_HMAC_SHA1(passphrase.data(), static_cast<int>(passphrase.size()), salt.data(),
                               kSaltLength, kKdfIterations, kKeyLength, key.data()) != 1) {
        return std::nullopt;
    }
    std::string pragma =
        "PRAGMA key = \"x'" + hex(key.data(), key.size()) + hex(salt.data(), salt.size()) + "'\"";
    OPENSSL_cleanse(key.data(), key.size());
    return pragma;
}
#endif

// Waits for a lock held by another connection in short, slightly random naps up to
// the timeout. SQLite's own handler naps up to 100 ms at a time, long enough for
// other writers to take the lock again and again in between.
int waitForLock(void* context, int attempt) {
    const auto* timeout = static_cast<const std::chrono::milliseconds*>(context);
    thread_local std::uint32_t seed =
        0x9e3779b9u ^ static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&seed));
    seed = seed * 1664525u + 1013904223u;
    // About 2 ms per attempt on average.
    const int napMicros = 500 + static_cast<int>((seed >> 8) % 3000);
    const auto waited = std::chrono::microseconds(static_cast<std::int64_t>(attempt) * 2000);
    if (waited >= *timeout) {
        return 0;
    }
    sqlite3_sleep((napMicros + 999) / 1000);
    return 1;
}

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
    writer_ = openConnection(true);
}

DatabasePool::~DatabasePool() = default;

std::unique_ptr<Connection> DatabasePool::openConnection(bool writer) {
    int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
    if (writer && options_.create) {
        flags |= SQLITE_OPEN_CREATE;
    }
    const char* vfs = options_.vfs.empty() ? nullptr : options_.vfs.c_str();
    auto db = newConnection(flags, vfs);
    if (writer) {
        keyWriter(db, flags, vfs);
    } else if (keyed_) {
        // The key must be the first statement on a new connection.
        db->executeScript(keyPragma_);
    }
    // The first read of the schema fails with SQLITE_NOTADB on a wrong key or a file
    // that is not a database; nothing has been written yet.
    verifyReadable(*db);
    if (writer) {
        db->executeScript("PRAGMA journal_mode = WAL");
        db->executeScript("PRAGMA synchronous = NORMAL");
    } else {
        db->executeScript("PRAGMA query_only = 1");
    }
    db->executeScript("PRAGMA cache_size = -" + std::to_string(std::max(options_.cacheSizeKiB, 0)));
    return db;
}

std::unique_ptr<Connection> DatabasePool::newConnection(int flags, const char* vfs) {
    auto db = std::make_unique<Connection>(path_, flags, vfs);
    // Set before anything touches the file, the key check included.
    sqlite3_busy_handler(db->handle(), &waitForLock, &options_.busyTimeout);
    return db;
}

void DatabasePool::verifyReadable(Connection& db) const {
    try {
        db.executeScript("SELECT count(*) FROM sqlite_master");
    } catch (const DatabaseError& error) {
        if (error.primaryCode() == SQLITE_NOTADB) {
            throw DatabaseError(error.code(),
                                keyed_ ? "file is not a database, or the key is wrong"
                                       : "file is not a database (or it is encrypted)",
                                error.statement());
        }
        throw;
    }
}

void DatabasePool::keyWriter([[maybe_unused]] std::unique_ptr<Connection>& db,
                             [[maybe_unused]] int flags, [[maybe_unused]] const char* vfs) {
    if (!keyed_) {
        return;
    }
#ifdef ORVIK_HAS_SQLCIPHER
    // The key is derived once per pool, here: the salt is read through the writer's
    // own file handle (or chosen for a new file), and every connection, the writer
    // included, is keyed with the raw key and that salt.
    std::optional<Salt> salt = saltOf(db->handle());
    if (!salt && emptyFile(db->handle())) {
        Salt fresh{};
        if (RAND_bytes(fresh.data(), kSaltLength) == 1) {
            salt = fresh;
        }
    }
    if (salt) {
        if (auto raw = rawKeyPragma(*options_.key, *salt)) {
            db->executeScript(*raw);
            try {
                verifyReadable(*db);
                keyPragma_ = std::move(*raw);
                return;
            } catch (const DatabaseError& error) {
                if (error.primaryCode() != SQLITE_NOTADB) {
                    throw;
                }
            }
            // A wrong passphrase, cipher settings other than the defaults, or a
            // file that another process created meanwhile with its own salt: start
            // over with the passphrase and let SQLCipher decide. Closing a
            // connection is safe; SQLite keeps its locks consistent.
            db = newConnection(flags, vfs);
        }
    }
    keyPragma_ = "PRAGMA key = " + sqlLiteral(*options_.key);
    db->executeScript(keyPragma_);
#endif
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
    armedFault_ = plan;
    ++faultGeneration_;
    faultClaimed_ = false;
    faultFired_ = false;
    faultArmed_ = true;
}

void DatabasePool::disarmFault() {
    std::lock_guard lock(faultMutex_);
    armedFault_.reset();
    ++faultGeneration_;
    faultClaimed_ = false;
    faultArmed_ = false;
}

bool DatabasePool::faultFired() const {
    std::lock_guard lock(faultMutex_);
    return faultFired_;
}

std::shared_ptr<FaultPlan> DatabasePool::takeFault(bool forWrite) {
    if (!faultArmed_.load(std::memory_order_acquire)) {
        return nullptr;
    }
    std::lock_guard lock(faultMutex_);
    if (!armedFault_ || faultClaimed_ || (armedFault_->writesOnly && !forWrite)) {
        return nullptr;
    }
    faultClaimed_ = true;
    const std::uint64_t generation = faultGeneration_;
    // The transaction counts on its own copy; the deleter reports back.
    return std::shared_ptr<FaultPlan>(new FaultPlan(*armedFault_),
                                      [this, generation](FaultPlan* claimed) {
                                          std::lock_guard released(faultMutex_);
                                          if (generation == faultGeneration_) {
                                              faultClaimed_ = false;
                                              if (claimed->fired) {
                                                  faultFired_ = true;
                                                  armedFault_.reset();
                                                  faultArmed_ = false;
                                              }
                                          }
                                          delete claimed;
                                      });
}

}  // namespace orvik::store
