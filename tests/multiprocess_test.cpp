// Several orvik-identity processes, and several pools of one process, writing to one
// store at once. Whatever any of them acknowledged must be in the file afterwards,
// and the file must pass SQLite's integrity check.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/HostServices.h"
#include "identity/IdentityRepository.h"
#include "store/Database.h"
#include "store/PageCipherInternal.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TestSupport.h"

namespace orvik::test {
namespace {

using Json = nlohmann::json;

constexpr int kSubjects = 200;

std::string identityID(int i) {
    return "si-" + std::to_string(i);
}
std::string personID(int i) {
    return "p-" + std::to_string(i);
}

class MultiProcess : public ::testing::TestWithParam<bool> {
  protected:
    MultiProcess() {
        auto pool = openPool(true);
        pool->write([](store::Connection& db) {
            host::createReferenceSchema(db);
            for (int i = 0; i < kSubjects; ++i) {
                db.run(
                    "INSERT INTO source_identity (id, source_type, handle_normalized, "
                    "first_seen_at, last_seen_at, created_at) VALUES (?, 'gmail', ?, "
                    "'2020-01-01T00:00:00Z', '2020-01-01T00:00:00Z', '2020-01-01T00:00:00Z')",
                    {identityID(i), "h" + std::to_string(i) + "@example.com"});
                db.run(
                    "INSERT INTO person (id, tier, created_from, created_at) VALUES (?, "
                    "'user_stated', 'manual', '2020-01-01T00:00:00Z')",
                    {personID(i)});
            }
        });
    }

    [[nodiscard]] std::shared_ptr<store::DatabasePool> openPool(bool create = false) const {
        store::PoolOptions options;
        options.create = create;
        if (GetParam()) {
            options.key = kTestKey;
        }
        return store::DatabasePool::open(path_, options);
    }

    [[nodiscard]] std::unique_ptr<ChildProcess> startExec(const ChildOptions& options = {}) const {
        std::vector<std::string> arguments{"exec", "--db", path_.string()};
        if (GetParam()) {
            arguments.insert(arguments.end(), {"--key", kTestKey});
        }
        return std::make_unique<ChildProcess>(ORVIK_IDENTITY_BIN, arguments, options);
    }

    static std::string linkRequest(int i) {
        const Json request{{"id", i},
                           {"op", "linkIdentity"},
                           {"args",
                            {{"request",
                              {{"personID", personID(i)},
                               {"sourceIdentityID", identityID(i)},
                               {"confirmed", true}}}}}};
        return request.dump() + "\n";
    }

    // Records the link as acknowledged when the answer says so.
    void expectLinked(const std::optional<std::string>& line, int i) {
        ASSERT_TRUE(line.has_value()) << "no answer for link " << i;
        const Json answer = Json::parse(*line);
        ASSERT_TRUE(answer.contains("ok")) << *line;
        EXPECT_EQ(answer["ok"]["status"], "linked") << *line;
        acknowledged_.insert(i);
    }

    // One request on a running session.
    void linkThrough(ChildProcess& session, int i) {
        ASSERT_TRUE(session.send(linkRequest(i)));
        expectLinked(session.readLine(), i);
    }

    // A process that links one identity and exits.
    void linkInOwnProcess(int i, const ChildOptions& options = {}) {
        auto session = startExec(options);
        ASSERT_TRUE(session->send(linkRequest(i)));
        auto [lines, exitCode] = session->finish();
        EXPECT_EQ(exitCode, 0) << session->errorOutput();
        ASSERT_EQ(lines.size(), 1U);
        expectLinked(lines[0], i);
    }

    // Every acknowledged link is in the file, and the file is sound.
    void expectEverythingAcknowledgedIsThere() {
        auto pool = openPool();
        const auto check = pool->read([](store::Connection& db) {
            std::vector<std::string> lines;
            db.query("PRAGMA integrity_check", {},
                     [&](const store::Row& row) { lines.push_back(row.text(0)); });
            return lines;
        });
        EXPECT_EQ(check, std::vector<std::string>{"ok"});
        std::set<int> present;
        pool->read([&](store::Connection& db) {
            for (int i = 0; i < kSubjects; ++i) {
                if (db.scalarFlag("SELECT EXISTS(SELECT 1 FROM identity_membership WHERE "
                                  "source_identity_id = ? AND canonical_person_id = ? AND "
                                  "ended_at IS NULL)",
                                  {identityID(i), personID(i)})) {
                    present.insert(i);
                }
            }
        });
        if (killed_) {
            // A killed process may have committed what it had not yet answered.
            EXPECT_TRUE(std::includes(present.begin(), present.end(), acknowledged_.begin(),
                                      acknowledged_.end()));
        } else {
            EXPECT_EQ(present, acknowledged_);
        }
    }

    TempDir dir_;
    std::filesystem::path path_ = dir_.path() / "shared.db";
    std::set<int> acknowledged_;
    bool killed_ = false;
};

// A long-lived process keeps the store open while short-lived ones come and go.
TEST_P(MultiProcess, ShortLivedProcessesBesideALongLivedOneLoseNothing) {
    auto a = startExec();
    int next = 0;
    for (int round = 0; round < 3; ++round) {
        linkThrough(*a, next++);
        linkInOwnProcess(next++);
    }
    linkThrough(*a, next++);
    auto [lines, exitCode] = a->finish();
    EXPECT_EQ(exitCode, 0) << a->errorOutput();
    expectEverythingAcknowledgedIsThere();
}

// Pages encrypted by this library's page cipher and by SQLCipher's own provider
// (a process told to keep it) are read by the other: a process of each kind reads
// and extends what the others wrote, and this process checks every page at the end.
TEST_P(MultiProcess, PagesOfEitherPageCipherReadWithTheOther) {
    if (!GetParam()) {
        GTEST_SKIP() << "a plain store has no page cipher";
    }
#ifdef ORVIK_HAS_SQLCIPHER
    EXPECT_TRUE(store::pageCipherInstalled());
#endif
    ChildOptions sqlciphersOwn;
    sqlciphersOwn.environment["ORVIK_SQLCIPHER_OWN_PAGE_CIPHER"] = "1";
    auto ours = startExec();
    int next = 0;
    for (int round = 0; round < 3; ++round) {
        linkInOwnProcess(next++, sqlciphersOwn);
        linkThrough(*ours, next++);
        linkInOwnProcess(next++);
    }
    EXPECT_EQ(ours->finish().second, 0) << ours->errorOutput();
    expectEverythingAcknowledgedIsThere();
    // And SQLCipher's own provider reads the store as this process left it.
    auto check = runChild(ORVIK_IDENTITY_BIN, {"exec", "--db", path_.string(), "--key", kTestKey},
                          R"({"id":1,"op":"identityCorrectionsReadback"})"
                          "\n",
                          sqlciphersOwn);
    EXPECT_EQ(check.exitCode, 0) << check.errors;
    ASSERT_EQ(check.lines.size(), 1U);
    EXPECT_TRUE(Json::parse(check.lines[0]).contains("ok")) << check.lines[0];
}

// Writers in four processes at once, readers beside them, while other processes
// open and close the store.
TEST_P(MultiProcess, ConcurrentWritersAndReadersLoseNothingAndNeverFail) {
    constexpr int kWriters = 4;
    constexpr int kPerWriter = 12;
    std::vector<std::unique_ptr<ChildProcess>> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.push_back(startExec());
    }
    auto reader = startExec();
    // Each writer gets its whole stream at once; they run side by side.
    for (int w = 0; w < kWriters; ++w) {
        std::string stream;
        for (int k = 0; k < kPerWriter; ++k) {
            stream += linkRequest(w * kPerWriter + k);
        }
        ASSERT_TRUE(writers[w]->send(stream));
    }
    for (int k = 0; k < 10; ++k) {
        ASSERT_TRUE(reader->send(R"({"id":"r","op":"identityCorrectionsReadback"})"
                                 "\n"));
        const auto line = reader->readLine();
        ASSERT_TRUE(line.has_value());
        EXPECT_TRUE(Json::parse(*line).contains("ok")) << *line;
        linkInOwnProcess(kWriters * kPerWriter + k);
    }
    for (int w = 0; w < kWriters; ++w) {
        for (int k = 0; k < kPerWriter; ++k) {
            expectLinked(writers[w]->readLine(), w * kPerWriter + k);
        }
        EXPECT_EQ(writers[w]->finish().second, 0) << writers[w]->errorOutput();
    }
    EXPECT_EQ(reader->finish().second, 0);
    EXPECT_EQ(acknowledged_.size(), std::size_t{kWriters * kPerWriter + 10});
    expectEverythingAcknowledgedIsThere();
}

// Two pools of this process on one file, one of them opened and closed while the
// other holds the store, with another process writing in between.
TEST_P(MultiProcess, TwoPoolsOfOneProcessAndAnotherProcessLoseNothing) {
    auto first = openPool();
    identity::IdentityRepository one(first, [](const auto&) {});
    EXPECT_EQ(one.linkIdentity({personID(0), identityID(0), true}).status,
              schema::LinkIdentityResponse::Status::linked);
    acknowledged_.insert(0);
    {
        auto second = openPool();
        identity::IdentityRepository two(second, [](const auto&) {});
        EXPECT_EQ(two.linkIdentity({personID(1), identityID(1), true}).status,
                  schema::LinkIdentityResponse::Status::linked);
        acknowledged_.insert(1);
        // Reads through the first pool keep its readers open meanwhile.
        EXPECT_TRUE(one.activeMembership(identityID(1)).has_value());
    }
    linkInOwnProcess(2);
    EXPECT_EQ(one.linkIdentity({personID(3), identityID(3), true}).status,
              schema::LinkIdentityResponse::Status::linked);
    acknowledged_.insert(3);
    // Asked twice, the first pool's repository keeps the (empty) history; the
    // other process's commit must still show through.
    EXPECT_TRUE(one.identityHistory(personID(4)).empty());
    EXPECT_TRUE(one.identityHistory(personID(4)).empty());
    linkInOwnProcess(4);
    EXPECT_TRUE(one.activeMembership(identityID(4)).has_value());
    EXPECT_EQ(one.identityHistory(personID(4)).size(), 1U);
    first.reset();
    expectEverythingAcknowledgedIsThere();
}

// A process streaming corrections is killed at a random point, again and again:
// every correction it acknowledged survives, and the store stays sound. The number
// of kills is ORVIK_CRASH_RUNS (default 6; scripts/crash-sweep.sh runs hundreds).
TEST_P(MultiProcess, KilledMidStreamLosesNoAcknowledgedCorrection) {
    const char* configured = std::getenv("ORVIK_CRASH_RUNS");
    const int runs = configured != nullptr ? std::max(1, std::atoi(configured)) : 6;
    std::mt19937 random(std::random_device{}());
    killed_ = true;
    int next = 0;
    for (int run = 0; run < runs && next + 20 <= kSubjects; ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        auto session = startExec();
        std::string stream;
        for (int k = 0; k < 20; ++k) {
            stream += linkRequest(next + k);
        }
        ASSERT_TRUE(session->send(stream));
        const int waitFor = std::uniform_int_distribution<int>(0, 19)(random);
        for (int k = 0; k < waitFor; ++k) {
            expectLinked(session->readLine(), next + k);
        }
        std::this_thread::sleep_for(
            std::chrono::microseconds(std::uniform_int_distribution<int>(0, 3000)(random)));
        session->kill();
        next += 20;
        if (next + 20 > kSubjects) {
            // Start over on a fresh set of subjects: end the links made so far.
            expectEverythingAcknowledgedIsThere();
            openPool()->write([](store::Connection& db) {
                db.executeScript("UPDATE identity_membership SET ended_at = 'x'");
            });
            acknowledged_.clear();
            next = 0;
        }
    }
    expectEverythingAcknowledgedIsThere();
    std::vector<std::string> arguments{"check", "--db", path_.string()};
    if (GetParam()) {
        arguments.insert(arguments.end(), {"--key", kTestKey});
    }
    ChildProcess check(ORVIK_IDENTITY_BIN, arguments);
    const auto [lines, exitCode] = check.finish();
    std::string report;
    for (const auto& line : lines) {
        report += line + "\n";
    }
    EXPECT_EQ(exitCode, 0) << report << check.errorOutput();
}

INSTANTIATE_TEST_SUITE_P(EncryptedAndPlain, MultiProcess,
#ifdef ORVIK_HAS_SQLCIPHER
                         ::testing::Values(true, false),
#else
                         ::testing::Values(false),
#endif
                         [](const auto& info) { return info.param ? "Encrypted" : "Plain"; });

}  // namespace
}  // namespace orvik::test
