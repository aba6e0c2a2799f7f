// SQLite plumbing: connections, cached statements, transactions and the pool.
//
// The application owns the database file. It opens one DatabasePool per file and
// hands it to the libraries that work inside it. Each library operation runs one
// closure inside one transaction of the pool:
//
//     pool.write([&](Connection& db) { ... });   // BEGIN IMMEDIATE ... COMMIT
//     pool.read([&](Connection& db) { ... });    // BEGIN ... COMMIT on a reader
//
// The closure's return value is passed back; any exception it throws rolls the
// transaction back and propagates unchanged. Nothing here catches errors of the
// caller.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <unordered_map>
#include <variant>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace orvik::store {

// Every failure reported by SQLite. `code()` is the extended result code,
// `sqliteMessage()` SQLite's own text and `statement()` the statement text that
// failed (empty when the failure was not tied to one statement, such as opening).
class DatabaseError : public std::runtime_error {
  public:
    DatabaseError(int code, std::string message, std::string statement = {});

    [[nodiscard]] int code() const noexcept { return code_; }
    [[nodiscard]] int primaryCode() const noexcept { return code_ & 0xff; }
    [[nodiscard]] const std::string& sqliteMessage() const noexcept { return message_; }
    [[nodiscard]] const std::string& statement() const noexcept { return statement_; }

  private:
    int code_;
    std::string message_;
    std::string statement_;
};

// One bound parameter: NULL, an integer, a real, a text, or a list of texts that
// expands to one binding per element (the statement text must carry one "?" per
// element, see placeholders()).
//
// Texts and lists given as named values (lvalues) are bound where they are, not
// copied: a Param, and the Params holding it, must not outlive them. Every caller
// builds its Params for the one statement it runs, within the same expression or
// block as the values. Temporaries are moved in and owned. Use owned() to keep
// parameters beyond that, as a recorder of statements does.
class Param {
  public:
    Param() = default;
    Param(std::nullptr_t) {}
    template <typename T>
    requires std::is_integral_v<T> Param(T value) : value_(static_cast<std::int64_t>(value)) {}
    Param(double value) : value_(value) {}
    Param(const char* text) : value_(std::string_view(text)) {}
    Param(std::string_view text) : value_(text) {}
    Param(const std::string& text) : value_(std::string_view(text)) {}
    Param(std::string&& text) : value_(std::move(text)) {}
    Param(const std::vector<std::string>& list) : value_(std::span<const std::string>(list)) {}
    Param(std::vector<std::string>&& list) : value_(std::move(list)) {}

    // Calls fn with the value as one of std::nullptr_t, std::int64_t, double,
    // std::string_view (a text) or std::span<const std::string> (a list), whether
    // it is owned or not.
    template <typename F>
    decltype(auto) visit(F&& fn) const {
        return std::visit(
            [&](const auto& value) -> decltype(auto) {
                using T = std::decay_t<decltype(value)>;
                if constexpr (std::is_same_v<T, std::string>) {
                    return fn(std::string_view(value));
                } else if constexpr (std::is_same_v<T, std::vector<std::string>>) {
                    return fn(std::span<const std::string>(value));
                } else {
                    return fn(value);
                }
            },
            value_);
    }

    // The same value, owning its text.
    [[nodiscard]] Param owned() const;

  private:
    std::variant<std::nullptr_t, std::int64_t, double, std::string_view,
                 std::span<const std::string>, std::string, std::vector<std::string>>
        value_;
};

// The parameters of one statement, bound by position in the order given. The
// first few are kept in place, without allocating.
class Params {
  public:
    Params() noexcept {}
    template <typename... T>
    requires(sizeof...(T) > 0 &&
             !(sizeof...(T) == 1 && (std::is_same_v<std::remove_cvref_t<T>, Params> && ...)))
        Params(T&&... values) {
        (add(std::forward<T>(values)), ...);
    }
    Params(const Params& other) { *this = other; }
    Params(Params&& other) noexcept;
    Params& operator=(const Params& other);
    Params& operator=(Params&& other) noexcept;
    ~Params() { clear(); }

    template <typename T>
    Params& add(T&& value) {
        if (size_ < kInline) {
            new (inlineAt(size_)) Param(std::forward<T>(value));
        } else {
            spill();
            more_.emplace_back(std::forward<T>(value));
        }
        ++size_;
        return *this;
    }
    [[nodiscard]] std::span<const Param> values() const noexcept {
        return size_ <= kInline ? std::span<const Param>(inlineAt(0), size_)
                                : std::span<const Param>(more_);
    }
    // A copy whose texts and lists are its own (see Param).
    [[nodiscard]] Params owned() const;

  private:
    static constexpr std::size_t kInline = 6;
    Param* inlineAt(std::size_t i) noexcept {
        return std::launder(reinterpret_cast<Param*>(inline_)) + i;
    }
    const Param* inlineAt(std::size_t i) const noexcept {
        return std::launder(reinterpret_cast<const Param*>(inline_)) + i;
    }
    // Moves the inline parameters to more_ once there are more than fit.
    void spill();
    void clear() noexcept;

    // Up to kInline parameters live here, constructed in order; past that, all
    // of them live in more_.
    alignas(Param) std::byte inline_[kInline * sizeof(Param)];
    std::vector<Param> more_;
    std::size_t size_ = 0;
};

// Converts optional text to a parameter: NULL when absent.
Param optionalText(const std::optional<std::string>& value);

// "?,?,?" for n elements: the inside of an IN list for a list parameter.
std::string placeholders(std::size_t n);

// A statement with one IN list: head, "?,?,?" for the list's elements, tail. The
// texts for short lists are built once, so that each keeps one address and the
// connection finds its prepared statement again without building the text.
class InListStatement {
  public:
    InListStatement(std::string_view head, std::string_view tail);
    // The text for a list of n elements; a longer list's is built into storage.
    [[nodiscard]] const std::string& text(std::size_t n, std::string& storage) const;

  private:
    static constexpr std::size_t kBuilt = 8;
    std::string head_;
    std::string tail_;
    std::array<std::string, kBuilt + 1> texts_;
};

class Statement;

// Sees every statement run through Connection::run, query, queryWhile and the
// scalar reads (not BEGIN, COMMIT or scripts), with its parameters, as it is
// bound. Process-wide and meant for benchmarks that count or replay what an
// operation executes; it must not throw. Null, the default, costs one relaxed
// atomic load per statement.
using StatementObserver = void (*)(const std::string& sql, const Params& params);
void setStatementObserver(StatementObserver observer) noexcept;

// The columns a decoder reads, by name, resolved to positions once per prepared
// statement (see Row::positions). Define one per record type, with static
// storage duration: the statement's cache is keyed by the set's identity.
class ColumnSet {
  public:
    ColumnSet(std::initializer_list<std::string_view> names);
    ColumnSet(const ColumnSet&) = delete;
    ColumnSet& operator=(const ColumnSet&) = delete;

    [[nodiscard]] const std::vector<std::string_view>& names() const noexcept { return names_; }
    [[nodiscard]] std::uint64_t serial() const noexcept { return serial_; }

  private:
    std::vector<std::string_view> names_;
    std::uint64_t serial_;
};

// The current row of a running statement. Columns are read by position, by a
// ColumnSet resolved once per statement, or by name; a name that the statement
// does not return is a programming error and throws DatabaseError with
// SQLITE_RANGE.
class Row {
  public:
    explicit Row(sqlite3_stmt* stmt, Statement* statement = nullptr)
        : stmt_(stmt), statement_(statement) {}

    // The positions of the set's columns, in the set's order. Resolved on the
    // statement's first row and cached with the prepared statement.
    [[nodiscard]] const std::vector<int>& positions(const ColumnSet& columns) const;
    [[nodiscard]] std::optional<std::string> optionalText(int index) const;

    [[nodiscard]] bool isNull(std::string_view column) const;
    // Text of a column; NULL reads as the empty string.
    [[nodiscard]] std::string text(std::string_view column) const;
    [[nodiscard]] std::optional<std::string> optionalText(std::string_view column) const;
    [[nodiscard]] std::int64_t integer(std::string_view column) const;
    [[nodiscard]] std::optional<std::int64_t> optionalInteger(std::string_view column) const;
    [[nodiscard]] double real(std::string_view column) const;

    // Positional access, for single-value statements such as "SELECT count(*) ...".
    [[nodiscard]] int columnCount() const;
    [[nodiscard]] bool isNull(int index) const;
    [[nodiscard]] std::string text(int index) const;
    // The text of a column where SQLite keeps it: valid until the statement steps
    // again or ends. NULL reads as the empty string.
    [[nodiscard]] std::string_view view(int index) const;
    // The column copied into a string the caller keeps, which keeps its storage
    // when that is large enough: for records read again and again.
    void textInto(int index, std::string& to) const { to.assign(view(index)); }
    void optionalTextInto(int index, std::optional<std::string>& to) const;
    [[nodiscard]] std::int64_t integer(int index) const;
    [[nodiscard]] double real(int index) const;

    [[nodiscard]] std::string columnName(int index) const;

    // Index of a named column, or -1.
    [[nodiscard]] int indexOf(std::string_view column) const;

  private:
    [[nodiscard]] int requireIndex(std::string_view column) const;
    sqlite3_stmt* stmt_;
    Statement* statement_;
};

// Makes the Nth statement executed inside a transaction fail with an SQLite error,
// or its COMMIT, so that tests can prove a failed operation leaves nothing behind.
// Armed on a pool (DatabasePool::armFault); it fires once, in the next transaction
// that executes that many statements (or reaches its COMMIT), and then disarms
// itself. BEGIN is not counted. Safe to arm, disarm and query from any thread while
// other threads run transactions: one transaction at a time holds the armed plan.
struct FaultPlan {
    // failAtStatement for a fault in the COMMIT, after every statement ran. The
    // transaction is left open, as SQLite leaves it after a COMMIT that failed
    // with SQLITE_BUSY, and must be rolled back by its owner.
    static constexpr int atCommit = 0;

    // 1-based: the first statement of the transaction is 1.
    int failAtStatement = 1;
    // The extended result code reported (SQLITE_IOERR by default).
    int code = 10;
    // Restrict the fault to write transactions (the usual case) or to reads.
    bool writesOnly = true;
    // Set by the seam when the fault fired.
    bool fired = false;
};

class Connection;

// A prepared statement, cached by its connection. Use it through Connection.
class Statement {
  public:
    Statement(sqlite3* db, std::string sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    [[nodiscard]] const std::string& sql() const noexcept { return sql_; }

  private:
    friend class Connection;
    friend class Row;
    void bind(const Params& params);
    const std::vector<int>& positions(const ColumnSet& columns);
    // Steps once: true when a row is available.
    bool step();
    void reset() noexcept;

    sqlite3* db_;
    sqlite3_stmt* stmt_ = nullptr;
    std::string sql_;
    bool busy_ = false;
    // Column names as prepared, and ColumnSet positions by set serial.
    std::vector<std::string> columnNames_;
    std::vector<std::pair<std::uint64_t, std::vector<int>>> positions_;
};

// One open SQLite connection with its statement cache. Not thread-safe: the pool
// hands a connection to one transaction at a time.
class Connection {
  public:
    Connection(const std::filesystem::path& path, int openFlags, const char* vfs = nullptr);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Runs a statement to completion and returns sqlite3_changes() after it.
    int run(const std::string& sql, const Params& params = {});

    // Runs a statement and calls onRow for each result row, in SQLite's order.
    void query(const std::string& sql, const Params& params,
               const std::function<void(const Row&)>& onRow);

    // As query, but stops reading as soon as onRow returns false.
    void queryWhile(const std::string& sql, const Params& params,
                    const std::function<bool(const Row&)>& onRow);

    // The first row's first column as an integer; absent when there is no row or
    // the value is NULL. Useful for "SELECT EXISTS(...)" and "SELECT count(*) > 0".
    std::optional<std::int64_t> scalarInteger(const std::string& sql, const Params& params = {});

    // True when scalarInteger gives a non-zero value; no row and NULL count as false.
    bool scalarFlag(const std::string& sql, const Params& params = {});

    // sqlite3_changes() of the last statement.
    [[nodiscard]] int changes() const;

    // Runs one or more statements without parameters and without caching (DDL,
    // PRAGMA). Not counted by the fault seam.
    void executeScript(const std::string& sql);

    // Runs one statement without parameters from the cache, uncounted by the fault
    // seam: BEGIN and COMMIT, prepared once per connection.
    void executeCached(const std::string& sql);

    // Statements run through run/query/scalar since the connection opened (BEGIN
    // and COMMIT not included): what the benchmarks report per operation.
    [[nodiscard]] std::uint64_t statementCount() const noexcept { return statementCount_; }

    // Rows changed in `table` (INSERT, UPDATE, DELETE) since the connection
    // opened, as SQLite's update hook reports them. Readers use it to tell whether
    // something they memoised within a transaction may have changed.
    [[nodiscard]] std::uint64_t tableChanges(std::string_view table) const noexcept;
    // Rows changed in any table since the connection opened: while it stays the
    // same, so does every tableChanges().
    [[nodiscard]] std::uint64_t rowChanges() const noexcept { return rowChanges_; }

    // Scratch space that lives for one transaction on this connection and is
    // emptied when the transaction begins and ends: memoisation within one
    // operation, never across operations. T must be default-constructible without
    // allocating and have clear(), which empties it. The object itself stays
    // allocated for the next transaction: allocating it anew each time (it is
    // larger than glibc's small-request limit) made every operation sweep the
    // allocator's free lists.
    template <typename T>
    T& transactionMemo() {
        if (transactionMemoType_ != &typeid(T)) {
            transactionMemo_ = std::make_shared<T>();
            transactionMemoType_ = &typeid(T);
            emptyTransactionMemo_ = [](void* memo) noexcept { static_cast<T*>(memo)->clear(); };
        }
        transactionMemoUsed_ = true;
        return *static_cast<T*>(transactionMemo_.get());
    }

    // Where this connection's database stands, read in the open transaction (whose
    // snapshot it begins when it is the transaction's first statement). It moves
    // when any other connection, of this process or another, committed since the
    // connection's last snapshot (SQLite's data version), and when this connection
    // changed rows. While it stays the same, every read gives the same answer. Like
    // BEGIN and COMMIT, it is not counted as a statement nor by the fault seam.
    struct Stamp {
        std::uint64_t connection = 0;
        std::int64_t dataVersion = 0;
        std::int64_t ownChanges = 0;

        bool operator==(const Stamp&) const = default;
    };
    [[nodiscard]] Stamp stamp();

    // True while the fault seam has a plan for the open transaction.
    [[nodiscard]] bool faultPlanned() const noexcept { return fault_ != nullptr; }

    [[nodiscard]] bool autocommit() const;
    [[nodiscard]] sqlite3* handle() const noexcept { return db_; }
    [[nodiscard]] std::size_t cachedStatementCount() const noexcept { return cache_.size(); }

    // Transaction bookkeeping used by Transaction and the fault seam.
    void beginCounting(FaultPlan* plan) noexcept;
    void endCounting() noexcept;
    // Throws the planned fault when it targets the COMMIT.
    void checkCommitFault();

    [[noreturn]] void fail(int code, const std::string& sql) const;

  private:
    // A cached statement, or a fresh one when the cached one is still running
    // (a statement used again from inside its own row callback).
    class Lease;
    Lease acquire(const std::string& sql);
    // The cached statement of the text, prepared on first use.
    Statement& cached(const std::string& sql);
    void countStatement(const std::string& sql);

    void emptyTransactionMemo() noexcept;

    static void onUpdate(void* self, int operation, const char* database, const char* table,
                         long long rowid);

    sqlite3* db_ = nullptr;
    // No other connection of the process has had it.
    std::uint64_t serial_;
    std::unordered_map<std::string, std::unique_ptr<Statement>> cache_;
    // The statements last looked up, by the address of their text.
    struct RecentStatement {
        const std::string* text = nullptr;
        Statement* statement = nullptr;
    };
    std::array<RecentStatement, 64> recent_{};
    FaultPlan* fault_ = nullptr;
    int statementsInTransaction_ = 0;
    std::uint64_t statementCount_ = 0;
    std::vector<std::pair<std::string, std::uint64_t>> tableChanges_;
    std::uint64_t rowChanges_ = 0;
    std::shared_ptr<void> transactionMemo_;
    const std::type_info* transactionMemoType_ = nullptr;
    void (*emptyTransactionMemo_)(void*) noexcept = nullptr;
    bool transactionMemoUsed_ = false;
};

// Begins a transaction in its constructor and rolls it back in its destructor
// unless commit() succeeded. The destructor never throws. After an SQLite error
// inside the transaction it checks autocommit: SQLite may already have rolled back.
class Transaction {
  public:
    enum class Mode { deferred, immediate };
    // fault: the fault seam's plan claimed for this transaction, if any; released
    // (and reported back to the pool) when the transaction ends.
    Transaction(Connection& db, Mode mode, std::shared_ptr<FaultPlan> fault = nullptr);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    // Commits; on failure rolls back and throws DatabaseError. Calling it twice
    // is a no-op the second time.
    void commit();

  private:
    Connection& db_;
    std::shared_ptr<FaultPlan> fault_;
    bool open_ = true;
};

struct PoolOptions {
    // The SQLCipher passphrase. Absent: the file is a plain SQLite database.
    std::optional<std::string> key;
    // Create the file when it does not exist.
    bool create = false;
    // How many reader connections read() may use at once.
    int readerCount = 4;
    // How long a connection waits for a lock that another process holds before it
    // fails with SQLITE_BUSY. Readers of a WAL database wait for nobody; writers
    // take turns.
    std::chrono::milliseconds busyTimeout{30000};
    // The page cache of each connection, in KiB. The pool's connections live as
    // long as the application: a cache that holds the hot part of the identity
    // tables spares re-reading (and, encrypted, re-decrypting) their pages.
    int cacheSizeKiB = 32 * 1024;
    // The SQLite VFS to open the file with; empty: the default. For tests that
    // inject I/O errors.
    std::string vfs{};
};

// One database file: one writer connection (writes serialised, BEGIN IMMEDIATE)
// and up to readerCount reader connections reading committed snapshots in WAL
// mode, concurrently with the writer.
//
// open() fails with DatabaseError when the file cannot be opened, is not a
// database, or the key is wrong; it then changes nothing in the file.
class DatabasePool {
  public:
    static std::shared_ptr<DatabasePool> open(const std::filesystem::path& path,
                                              PoolOptions options = {});
    ~DatabasePool();
    DatabasePool(const DatabasePool&) = delete;
    DatabasePool& operator=(const DatabasePool&) = delete;

    // Runs fn(connection) inside BEGIN IMMEDIATE ... COMMIT on the writer. Writes are
    // serialised. Any exception rolls back and propagates.
    template <typename F>
    auto write(F&& fn) -> decltype(fn(std::declval<Connection&>())) {
        std::unique_lock lock(writerMutex_);
        Transaction tx(*writer_, Transaction::Mode::immediate, takeFault(true));
        if constexpr (std::is_void_v<decltype(fn(*writer_))>) {
            fn(*writer_);
            tx.commit();
        } else {
            auto result = fn(*writer_);
            tx.commit();
            return result;
        }
    }

    // Runs fn(connection) inside BEGIN ... COMMIT on a reader connection: it sees the
    // database as last committed when its first statement runs.
    template <typename F>
    auto read(F&& fn) -> decltype(fn(std::declval<Connection&>())) {
        ReaderLease reader(*this);
        Transaction tx(reader.connection(), Transaction::Mode::deferred, takeFault(false));
        if constexpr (std::is_void_v<decltype(fn(reader.connection()))>) {
            fn(reader.connection());
            tx.commit();
        } else {
            auto result = fn(reader.connection());
            tx.commit();
            return result;
        }
    }

    // Runs a passive WAL checkpoint on the writer.
    void checkpoint();

    // Arms the fault seam: see FaultPlan.
    void armFault(FaultPlan plan);
    void disarmFault();
    // True when the last armed fault fired.
    [[nodiscard]] bool faultFired() const;

    [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }
    [[nodiscard]] bool encrypted() const noexcept { return keyed_; }

  private:
    DatabasePool(std::filesystem::path path, PoolOptions options);
    std::unique_ptr<Connection> openConnection(bool writer);
    std::unique_ptr<Connection> newConnection(int flags, const char* vfs);
    // Keys a new writer connection, replacing it when the first attempt failed.
    void keyWriter(std::unique_ptr<Connection>& db, int flags, const char* vfs);
    void verifyReadable(Connection& db) const;
    // Claims the armed fault for one transaction: no other transaction sees it
    // until this one ends. It is reported fired, or returned, when released.
    std::shared_ptr<FaultPlan> takeFault(bool forWrite);

    class ReaderLease {
      public:
        explicit ReaderLease(DatabasePool& pool);
        ~ReaderLease();
        Connection& connection() { return *connection_; }

      private:
        DatabasePool& pool_;
        std::unique_ptr<Connection> connection_;
    };

    std::filesystem::path path_;
    PoolOptions options_;
    bool keyed_ = false;
    // The key every connection of the pool is given: the raw key with its salt,
    // derived once when the writer opened (or the passphrase when that failed).
    std::string keyPragma_;

    std::mutex writerMutex_;
    std::unique_ptr<Connection> writer_;

    std::mutex readersMutex_;
    std::condition_variable readerAvailable_;
    std::vector<std::unique_ptr<Connection>> idleReaders_;
    int openReaders_ = 0;

    mutable std::mutex faultMutex_;
    std::optional<FaultPlan> armedFault_;
    // Counts armings, so that a claim released after a new arming leaves it alone.
    std::uint64_t faultGeneration_ = 0;
    bool faultClaimed_ = false;
    bool faultFired_ = false;
    std::atomic<bool> faultArmed_ = false;
};

}  // namespace orvik::store
