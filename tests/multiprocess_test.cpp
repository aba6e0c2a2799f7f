// Several orvik-identity processes, and several pools of one process, writing to one
// store at once. Whatever any of them acknowledged must be in the file afterwards,
// and the file must pass SQLite's integrity check.
#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "host/HostServices.h"
#include "identity/IdentityRepository.h"
#include "store/Database.h"
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

    [[nodiscard]] std::unique_ptr<ChildProcess> startExec() const {
        std::vector<std::string> arguments{"exec", "--db", path_.string()};
        if (GetParam()) {
            arguments.insert(arguments.end(), {"--key", kTestKey});
        }
        return std::make_unique<ChildProcess>(ORVIK_IDENTITY_BIN, arguments);
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
    void linkInOwnProcess(int i) {
        auto session = startExec();
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
        EXPECT_EQ(present, acknowledged_);
    }

    TempDir dir_;
    std::filesystem::path path_ = dir_.path() / "shared.db";
    std::set<int> acknowledged_;
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
    linkInOwnProcess(4);
    EXPECT_TRUE(one.activeMembership(identityID(4)).has_value());
    first.reset();
    expectEverythingAcknowledgedIsThere();
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
