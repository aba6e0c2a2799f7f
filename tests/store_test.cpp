#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <fstream>
#include <random>

#include <sys/wait.h>
#include <unistd.h>
#include <thread>

#include "store/Database.h"
#include "store/PageCipherInternal.h"
#include "tests/support/TestSupport.h"

namespace orvik::store {
namespace {

using test::TempDir;

std::shared_ptr<DatabasePool> openFresh(const std::filesystem::path& path,
                                        std::optional<std::string> key) {
    auto pool = DatabasePool::open(path, {.key = std::move(key), .create = true});
    pool->write([](Connection& db) { db.executeScript("CREATE TABLE t (k TEXT, v TEXT)"); });
    return pool;
}

std::int64_t countRows(DatabasePool& pool) {
    return pool.read([](Connection& db) { return *db.scalarInteger("SELECT count(*) FROM t"); });
}

class PoolTest : public ::testing::TestWithParam<bool> {
  protected:
    [[nodiscard]] std::optional<std::string> key() const {
        return GetParam() ? std::optional<std::string>("s3cret") : std::nullopt;
    }
    TempDir dir_;
    std::filesystem::path path_ = dir_.path() / "pool.db";
};

TEST_P(PoolTest, TransactionsCommitOnReturnAndRollBackOnAnyException) {
    auto pool = openFresh(path_, key());
    pool->write([](Connection& db) { db.run("INSERT INTO t VALUES (?, ?)", {"a", "1"}); });
    EXPECT_THROW(pool->write([](Connection& db) {
        db.run("INSERT INTO t VALUES (?, ?)", {"b", "2"});
        throw std::runtime_error("caller failed");
    }),
                 std::runtime_error);
    // An SQLite error in the middle of a transaction rolls back the earlier writes.
    EXPECT_THROW(pool->write([](Connection& db) {
        db.run("INSERT INTO t VALUES (?, ?)", {"c", "3"});
        db.run("INSERT INTO missing_table VALUES (1)");
    }),
                 DatabaseError);
    EXPECT_EQ(countRows(*pool), 1);
    // The connection is usable afterwards, outside any stale transaction.
    pool->write([](Connection& db) { db.run("INSERT INTO t VALUES (?, ?)", {"d", "4"}); });
    EXPECT_EQ(countRows(*pool), 2);

    // Reopened, the file holds what was committed.
    pool.reset();
    EXPECT_EQ(countRows(*DatabasePool::open(path_, {.key = key()})), 2);
}

TEST_P(PoolTest, ReadersSeeCommittedStateWhileAWriteIsOpen) {
    auto pool = openFresh(path_, key());
    pool->write([](Connection& db) { db.run("INSERT INTO t VALUES ('a', '1')"); });
    std::int64_t seenDuringWrite = -1;
    pool->write([&](Connection& db) {
        db.run("INSERT INTO t VALUES ('b', '2')");
        // Another thread reads while this write transaction is still open.
        std::thread reader([&] { seenDuringWrite = countRows(*pool); });
        reader.join();
    });
    EXPECT_EQ(seenDuringWrite, 1);
    EXPECT_EQ(countRows(*pool), 2);
}

INSTANTIATE_TEST_SUITE_P(EncryptedAndPlain, PoolTest,
#ifdef ORVIK_HAS_SQLCIPHER
                         ::testing::Values(true, false),
#else
                         ::testing::Values(false),
#endif
                         [](const auto& info) { return info.param ? "Encrypted" : "Plain"; });

#ifdef ORVIK_HAS_SQLCIPHER
TEST(PoolOpening, WrongKeyOrPlainFileFailsClearlyAndChangesNothing) {
    TempDir dir;
    const auto encrypted = dir.path() / "enc.db";
    openFresh(encrypted, "right")->write([](Connection& db) {
        db.run("INSERT INTO t VALUES ('a', '1')");
    });
    const auto sizeBefore = std::filesystem::file_size(encrypted);

    for (const std::optional<std::string>& key :
         {std::optional<std::string>("wrong"), std::optional<std::string>()}) {
        try {
            DatabasePool::open(encrypted, {.key = key});
            FAIL() << "opening with a wrong key succeeded";
        } catch (const DatabaseError& error) {
            EXPECT_EQ(error.primaryCode(), SQLITE_NOTADB);
            EXPECT_NE(std::string(error.what()).find("not a database"), std::string::npos);
        }
    }
    EXPECT_EQ(std::filesystem::file_size(encrypted), sizeBefore);
    EXPECT_EQ(countRows(*DatabasePool::open(encrypted, {.key = "right"})), 1);
}
#endif

TEST(PoolOpening, MissingFileOrGarbageIsRefused) {
    TempDir dir;
    EXPECT_THROW(DatabasePool::open(dir.path() / "absent.db"), DatabaseError);
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "absent.db"));

    const auto garbage = dir.path() / "garbage.db";
    std::ofstream(garbage, std::ios::binary) << std::string(4096, 'x');
    EXPECT_THROW(DatabasePool::open(garbage), DatabaseError);
    EXPECT_EQ(std::filesystem::file_size(garbage), 4096u);
}

TEST(Statements, BindListsAndNullsReadByNameAndReenterFromARowCallback) {
    TempDir dir;
    auto pool = openFresh(dir.path() / "s.db", std::nullopt);
    pool->write([](Connection& db) {
        const std::string insert = "INSERT INTO t VALUES (?, ?)";
        db.run(insert, {"a", nullptr});
        const auto cached = db.cachedStatementCount();
        for (const char* k : {"b", "c", "d"}) {
            db.run(insert, {k, nullptr});
        }
        EXPECT_EQ(db.cachedStatementCount(), cached);  // prepared once

        // Lists shorter and longer than those whose texts are built in advance.
        const InListStatement selectIn("SELECT v, k FROM t WHERE k IN (",
                                       ") AND v IS ? ORDER BY k");
        for (std::size_t n = 1; n <= 12; ++n) {
            std::vector<std::string> wanted{"a", "c"};
            wanted.resize(n, "zz");
            std::vector<std::string> got;
            std::string built;
            db.query(selectIn.text(wanted.size(), built), Params{wanted, nullptr},
                     [&](const Row& row) {
                         EXPECT_FALSE(row.optionalText("v").has_value());
                         got.push_back(row.text("k"));
                     });
            EXPECT_EQ(got, (std::vector<std::string>(
                               wanted.begin(), wanted.begin() + std::min<std::size_t>(n, 2))));
        }
        EXPECT_EQ(db.run("UPDATE t SET v = ? WHERE k IN (?, ?)", {"x", "a", "b"}), 2);
        // A wrong number of parameters and an unknown column are errors, not silence.
        EXPECT_THROW(db.run("UPDATE t SET v = ? WHERE k = ?", {"x"}), DatabaseError);
        EXPECT_THROW(
            db.query("SELECT k FROM t", {}, [](const Row& row) { (void)row.text("nope"); }),
            DatabaseError);

        // The same statement used again while its first run is still stepping.
        const std::string select = "SELECT k FROM t WHERE k >= ? ORDER BY k";
        std::vector<std::string> pairs;
        db.query(select, {"b"}, [&](const Row& outer) {
            db.query(select, {outer.text("k")},
                     [&](const Row& inner) { pairs.push_back(outer.text("k") + inner.text("k")); });
        });
        EXPECT_EQ(pairs, (std::vector<std::string>{"bb", "bc", "bd", "cc", "cd", "dd"}));
    });
}

// Every parameter of a statement, read back in order as text (NULL as "NULL").
std::vector<std::string> echo(Connection& db, const Params& params) {
    std::string sql = "SELECT ";
    for (std::size_t i = 0; i < params.values().size(); ++i) {
        params.values()[i].visit([&](const auto& value) {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, std::span<const std::string>>) {
                sql += placeholders(value.size());
            } else {
                sql += "?";
            }
        });
        sql += i + 1 < params.values().size() ? ", " : "";
    }
    std::vector<std::string> out;
    db.query(sql, params, [&](const Row& row) {
        for (int c = 0; c < row.columnCount(); ++c) {
            out.push_back(row.isNull(c) ? "NULL" : row.text(c));
        }
    });
    return out;
}

TEST(Statements, ParametersBindInOrderWhetherKeptInPlaceSpilledCopiedOrOwned) {
    TempDir dir;
    auto pool = openFresh(dir.path() / "p.db", std::nullopt);
    pool->write([](Connection& db) {
        const std::string named(40, 'n');  // longer than any small-string buffer
        const std::vector<std::string> list{"l1", "l2"};
        const std::vector<std::string> expected{
            named, std::string(40, 't'), "7", "l1", "l2", "NULL", "", "lit", "2.5", "", "9"};
        auto make = [&] {
            return Params{named,   std::string(40, 't'), 7,     list,
                          nullptr, std::string_view{},   "lit", 2.5,
                          "",      std::int64_t{9}};
        };
        // Ten parameters: more than fit in place.
        const Params params = make();
        EXPECT_EQ(echo(db, params), expected);
        Params copied(params);
        Params moved(make());
        EXPECT_EQ(echo(db, copied), expected);
        EXPECT_EQ(echo(db, moved), expected);
        moved = copied;
        EXPECT_EQ(echo(db, moved), expected);
        const Params few{named, 1};
        Params assigned;
        assigned = few;
        EXPECT_EQ(echo(db, assigned), (std::vector<std::string>{named, "1"}));

        // Named values are bound where they are, so a statement recorder keeps an
        // owned copy: it must not change with them.
        std::string changing = "before";
        std::vector<std::string> changingList{"a"};
        const Params kept = Params{changing, changingList}.owned();
        changing = "after, and long enough to leave the old buffer behind";
        changingList = {"b"};
        EXPECT_EQ(echo(db, kept), (std::vector<std::string>{"before", "a"}));
    });
}

TEST(FaultSeam, FailsTheNthStatementOnceAndRollsBack) {
    TempDir dir;
    auto pool = openFresh(dir.path() / "f.db", std::nullopt);
    auto threeInserts = [&] {
        pool->write([](Connection& db) {
            db.run("INSERT INTO t VALUES ('1', NULL)");
            db.run("INSERT INTO t VALUES ('2', NULL)");
            db.run("INSERT INTO t VALUES ('3', NULL)");
        });
    };
    pool->armFault(FaultPlan{
        .failAtStatement = 3, .code = SQLITE_IOERR_WRITE, .writesOnly = true, .fired = false});
    // A shorter transaction leaves it armed, and the count starts again in the next.
    pool->write([](Connection& db) { db.run("INSERT INTO t VALUES ('0', NULL)"); });
    EXPECT_FALSE(pool->faultFired());
    try {
        threeInserts();
        FAIL() << "the fault did not fire";
    } catch (const DatabaseError& error) {
        EXPECT_EQ(error.code(), SQLITE_IOERR_WRITE);
        EXPECT_EQ(error.statement(), "INSERT INTO t VALUES ('3', NULL)");
    }
    EXPECT_TRUE(pool->faultFired());
    EXPECT_EQ(countRows(*pool), 1);
    // Fired once: the next transaction runs normally.
    threeInserts();
    EXPECT_EQ(countRows(*pool), 4);
}

// A COMMIT that fails leaves nothing pending: the writes are gone and the writer
// is free for the next transaction.
TEST(FaultSeam, AFailedCommitRollsBack) {
    TempDir dir;
    auto pool = openFresh(dir.path() / "c.db", std::nullopt);
    pool->armFault(FaultPlan{.failAtStatement = FaultPlan::atCommit,
                             .code = SQLITE_BUSY,
                             .writesOnly = true,
                             .fired = false});
    EXPECT_THROW(pool->write([](Connection& db) { db.run("INSERT INTO t VALUES ('lost', NULL)"); }),
                 DatabaseError);
    EXPECT_TRUE(pool->faultFired());
    pool->write([](Connection& db) {
        EXPECT_EQ(*db.scalarInteger("SELECT count(*) FROM t"), 0);
        db.run("INSERT INTO t VALUES ('kept', NULL)");
    });
    EXPECT_EQ(countRows(*pool), 1);
}

// Armed and disarmed while other threads run transactions, the seam fires at most
// once per arming and only where it was meant to.
TEST(FaultSeam, IsSafeToUseFromSeveralThreads) {
    TempDir dir;
    auto pool = openFresh(dir.path() / "th.db", std::nullopt);
    std::atomic<int> failures = 0;
    std::atomic<bool> stop = false;
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t) {
        workers.emplace_back([&, t] {
            while (!stop) {
                try {
                    if (t % 2 == 0) {
                        pool->write([](Connection& db) {
                            db.run("INSERT INTO t VALUES ('w', NULL)");
                            db.run("DELETE FROM t WHERE k = 'w'");
                        });
                    } else {
                        (void)countRows(*pool);
                    }
                } catch (const DatabaseError& error) {
                    EXPECT_EQ(error.code(), SQLITE_IOERR_WRITE);
                    ++failures;
                }
            }
        });
    }
    int fired = 0;
    for (int round = 0; round < 200; ++round) {
        pool->armFault(FaultPlan{
            .failAtStatement = 2, .code = SQLITE_IOERR_WRITE, .writesOnly = true, .fired = false});
        std::this_thread::yield();
        fired += pool->faultFired() ? 1 : 0;
        pool->disarmFault();
    }
    stop = true;
    for (auto& worker : workers) {
        worker.join();
    }
    EXPECT_LE(failures.load(), 200);
    EXPECT_LE(fired, failures.load());
    EXPECT_EQ(countRows(*pool), 0);
}

#ifdef ORVIK_HAS_SQLCIPHER
// The pool derives the key once and keys every connection with the raw key and
// the file's salt; a connection given only the passphrase reads the same file.
TEST(PoolOpening, APoolsStoreOpensWithThePassphraseAlone) {
    TempDir dir;
    const auto path = dir.path() / "k.db";
    openFresh(path, "pass phrase")->write([](Connection& db) {
        db.run("INSERT INTO t VALUES ('a', '1')");
    });
    Connection plain(path, SQLITE_OPEN_READWRITE);
    plain.executeScript("PRAGMA key = 'pass phrase'");
    EXPECT_EQ(*plain.scalarInteger("SELECT count(*) FROM t"), 1);
}

// The page cipher must encrypt, decrypt and authenticate byte for byte as
// SQLCipher's own provider does, on the page sizes SQLCipher uses (the usable
// part of a 1 KiB page is 976 bytes) and with keys and IVs changing between calls
// on one thread's reused contexts.
TEST(PageCipher, AgreesWithSqlciphersOwnProviderByteForByte) {
    TempDir dir;
    openFresh(dir.path() / "c.db", "pass phrase");  // installs it
    ASSERT_TRUE(pageCipherInstalled());
    std::mt19937 random(7);
    auto fill = [&](unsigned char* bytes, std::size_t n) {
        for (std::size_t i = 0; i < n; ++i) {
            bytes[i] = static_cast<unsigned char>(random());
        }
    };
    for (const std::size_t size : {16U, 976U, 4048U, 65488U}) {
        // One key for several pages, as a database uses it, then another and back
        // again, as two databases on one thread do.
        unsigned char keys[2][32];
        fill(keys[0], sizeof keys[0]);
        fill(keys[1], sizeof keys[1]);
        for (int round = 0; round < 5; ++round) {
            std::vector<unsigned char> page(size);
            unsigned char iv[16];
            fill(page.data(), size);
            fill(iv, sizeof iv);
            EXPECT_EQ(comparePageCipherWithSqlcipher(page.data(), size, keys[round / 2 % 2], iv,
                                                     static_cast<unsigned>(random())),
                      "")
                << "page of " << size << " bytes, round " << round;
        }
    }
}

// IVs are drawn ahead; a forked child must not hand out the ones its parent will.
TEST(PageCipher, AForkedChildDrawsOtherIVsThanItsParent) {
    TempDir dir;
    openFresh(dir.path() / "c.db", "pass phrase");
    std::array<unsigned char, 16> first{}, parents{}, childs{};
    ASSERT_TRUE(drawPageRandom(first.data(), first.size()));
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(fds[0]);
        const bool drawn = drawPageRandom(childs.data(), childs.size());
        const auto written = write(fds[1], childs.data(), drawn ? childs.size() : 0);
        _exit(written == static_cast<ssize_t>(childs.size()) ? 0 : 1);
    }
    close(fds[1]);
    ASSERT_TRUE(drawPageRandom(parents.data(), parents.size()));
    ASSERT_EQ(read(fds[0], childs.data(), childs.size()), static_cast<ssize_t>(childs.size()));
    close(fds[0]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_NE(parents, childs);
    EXPECT_NE(first, parents);
}
#endif

}  // namespace
}  // namespace orvik::store
