// The repository under conditions that ordinary tests do not create: oversized
// searches, texts holding U+0000, a COMMIT that fails, and many threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "identity/IdentityRepository.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Strings = std::vector<std::string>;
using Event = IdentityCorrectionWitness::Event;

using test::ids;

void expectInvalidArgsNaming(const std::function<void()>& call, const std::string& limit) {
    try {
        call();
        FAIL() << "accepted";
    } catch (const IdentityStoreError& error) {
        EXPECT_EQ(error.errorCase(), IdentityStoreError::Case::invalidArgs);
        ASSERT_TRUE(error.message().has_value());
        EXPECT_NE(error.message()->find(limit), std::string::npos) << *error.message();
    }
}

TEST(SearchBounds, LongListsAndQueriesWorkUpToTheLimitAndAreRefusedBeyond) {
    test::TestDatabase db;
    IdentityRepository repo(db.sharedPool(), nullptr);
    db.addIdentity("i1", "gmail", "ann@example.com", "Ann");
    db.addPerson("p1", std::nullopt, "Ann");
    db.exec("INSERT INTO claim VALUES ('c1', 'p1', NULL, 'display_name', 'user_stated', NULL)");

    Strings many(IdentityRepository::maxSearchIdentityExclusions, "x");
    for (std::size_t i = 0; i < many.size(); ++i) {
        many[i] += std::to_string(i);
    }
    EXPECT_EQ(ids(repo.searchSourceIdentities("ann", 10, many)), Strings{"i1"});
    many.push_back("one-more");
    expectInvalidArgsNaming([&] { (void)repo.searchSourceIdentities("ann", 10, many); }, "400");

    Strings people(IdentityRepository::maxSearchPersonExclusions, "q");
    for (std::size_t i = 0; i < people.size(); ++i) {
        people[i] += std::to_string(i);
    }
    EXPECT_EQ(ids(repo.searchUserStatedPeople("ann", 10, people)), Strings{"p1"});
    people.push_back("one-more");
    expectInvalidArgsNaming([&] { (void)repo.searchUserStatedPeople("ann", 10, people); }, "900");

    const std::string longest(IdentityRepository::maxSearchQueryBytes, '%');
    EXPECT_TRUE(repo.searchSourceIdentities(longest, 10, {}).empty());
    expectInvalidArgsNaming([&] { (void)repo.searchSourceIdentities(longest + "%", 10, {}); },
                            "1000 bytes");
    expectInvalidArgsNaming(
        [&] { (void)repo.searchUserStatedPeople(std::string(50000, 'a'), 10, {}); }, "1000 bytes");
}

TEST(SearchBounds, AQueryHoldingUPlus0000IsMatchedLiterally) {
    test::TestDatabase db;
    IdentityRepository repo(db.sharedPool(), nullptr);
    const std::string nul("\0", 1);
    db.pool().write([&](store::Connection& c) {
        for (const auto& [id, name] : {std::pair{"with-nul", "Ann" + nul + "Lee"},
                                       std::pair{"prefix-only", std::string("Ann")},
                                       std::pair{"other-case", "ANN" + nul + "LEE x"}}) {
            c.run(
                "INSERT INTO source_identity (id, source_type, handle_normalized, display_name, "
                "first_seen_at, last_seen_at, created_at) VALUES (?, 'gmail', ?, ?, 'a', 'a', 'a')",
                {std::string(id), std::string(id) + "@x", name});
        }
    });
    EXPECT_EQ(ids(repo.searchSourceIdentities("ann" + nul + "lee", 10, {})),
              (Strings{"other-case", "with-nul"}));
    EXPECT_EQ(ids(repo.searchSourceIdentities("ann" + nul + "lee", 1, {})), Strings{"other-case"});
    EXPECT_TRUE(repo.searchSourceIdentities(nul, 10, {}).size() == 2);
}

// A correction whose COMMIT fails has changed nothing, emits nothing, and the
// repository goes on.
TEST(FailedCommit, RollsBackAndTheNextCorrectionRuns) {
    test::TestDatabase db;
    std::vector<Event> events;
    IdentityRepository repo(db.sharedPool(), [&](const Event& e) { events.push_back(e); });
    db.addIdentity("a", "gmail", "x@example.com");
    db.addIdentity("b", "outlook", "x@example.com");
    const auto a = *repo.sourceIdentity("a");
    const auto b = *repo.sourceIdentity("b");
    const std::string before = db.dump();
    db.pool().armFault({.failAtStatement = store::FaultPlan::atCommit,
                        .code = 5 /* SQLITE_BUSY */,
                        .writesOnly = true,
                        .fired = false});
    EXPECT_THROW(repo.confirmManualLink(a, b, SubjectLineage::person, "s"), store::DatabaseError);
    EXPECT_TRUE(db.pool().faultFired());
    EXPECT_EQ(db.dump(), before);
    EXPECT_TRUE(events.empty());
    const auto linked = repo.confirmManualLink(a, b, SubjectLineage::person, "s");
    EXPECT_EQ(events.size(), 1U);
    EXPECT_EQ(repo.resolveCanonicalPerson("a")->personID, linked.personID);
}

// Corrections and reads from several threads at once: each correction is applied
// whole, every event matches a commit, and the store keeps its invariants.
TEST(Threads, CorrectionsAndReadsFromSeveralThreadsAtOnce) {
#ifdef ORVIK_HAS_SQLCIPHER
    test::TestDatabase db(true);
#else
    test::TestDatabase db(false);
#endif
    std::mutex eventsMutex;
    std::vector<Event> events;
    IdentityRepository repo(db.sharedPool(), [&](const Event& e) {
        std::lock_guard lock(eventsMutex);
        events.push_back(e);
    });
    constexpr int kPairs = 24;
    for (int i = 0; i < kPairs; ++i) {
        db.addIdentity("a" + std::to_string(i), "gmail", "h" + std::to_string(i) + "@x");
        db.addIdentity("b" + std::to_string(i), "outlook", "h" + std::to_string(i) + "@x");
    }
    std::atomic<int> failures = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            try {
                for (int i = t; i < kPairs; i += 4) {
                    const auto a = *repo.sourceIdentity("a" + std::to_string(i));
                    const auto b = *repo.sourceIdentity("b" + std::to_string(i));
                    const auto result = repo.confirmManualLink(a, b, SubjectLineage::person, "s");
                    if (i % 3 == 0) {
                        repo.separateIdentity(b.id, "s");
                    }
                    (void)result;
                }
            } catch (const std::exception&) {
                ++failures;
            }
        });
    }
    threads.emplace_back([&] {
        for (int k = 0; k < 40; ++k) {
            (void)repo.searchSourceIdentities("h", 100, {});
            (void)repo.identityCorrectionsReadback();
        }
    });
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(events.size(), std::size_t{kPairs + kPairs / 3});
    for (int i = 0; i < kPairs; ++i) {
        const auto a = repo.resolveCanonicalPerson("a" + std::to_string(i));
        const auto b = repo.resolveCanonicalPerson("b" + std::to_string(i));
        ASSERT_TRUE(a && b);
        EXPECT_EQ(a->personID == b->personID, i % 3 != 0) << i;
    }
    EXPECT_EQ(db.rows("SELECT count(*) FROM (SELECT source_identity_id FROM identity_membership "
                      "WHERE ended_at IS NULL GROUP BY source_identity_id HAVING count(*) > 1)"),
              Strings{"0"});
}

}  // namespace
}  // namespace orvik::identity
