#include <gtest/gtest.h>

#include <atomic>

#include "identity/IdentityRepository.h"
#include "store/Database.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

std::atomic<int> statementsSeen{0};

// Counts the statements the store runs while it is alive.
class StatementCount {
  public:
    StatementCount() {
        statementsSeen = 0;
        store::setStatementObserver(
            [](const std::string&, const store::Params&) { ++statementsSeen; });
    }
    ~StatementCount() { store::setStatementObserver(nullptr); }
    StatementCount(const StatementCount&) = delete;
    StatementCount& operator=(const StatementCount&) = delete;

    int take() { return statementsSeen.exchange(0); }
};

// Two identities sharing a handle (an exact-key candidate), a person with a
// linked history and a person the user named.
class KeptAnswers : public ::testing::Test {
  protected:
    KeptAnswers() {
        db_.addIdentity("si-a", "gmail", "ann@example.com", "Ann");
        db_.addIdentity("si-b", "apple_contacts", "ann@example.com", "Ann B");
        db_.addIdentity("si-c", "imessage", "+15550100", "Anna");
        db_.addPerson("p-named", std::nullopt, "Annette");
        db_.exec(
            "INSERT INTO claim VALUES ('c-named','p-named',NULL,'display_name','user_stated',"
            "'Annette')");
        const auto linked = repository_.linkIdentity({"p-named", "si-c", true});
        EXPECT_EQ(linked.status, schema::LinkIdentityResponse::Status::linked);
    }

    IdentityCandidate candidate() {
        return {*repository_.sourceIdentity("si-a"), *repository_.sourceIdentity("si-b"),
                std::nullopt, 0.87, "same contact key"};
    }

    // Every read that keeps its answers, asked once.
    struct Answers {
        std::vector<SourceIdentityRow> identities;
        std::vector<LinkablePersonRow> people;
        std::vector<IdentityCandidate> candidates;
        std::vector<IdentityHistoryEntry> history;
        std::optional<std::int64_t> readbackPairs;

        bool operator==(const Answers&) const = default;
    };
    Answers ask(IdentityRepository& repository) {
        return {repository.searchSourceIdentities("ann", 10, {}),
                repository.searchUserStatedPeople("ann", 10, {}), repository.exactKeyCandidates(50),
                repository.identityHistory("p-named"),
                repository.identityCorrectionsReadback().exactKeyCandidatePairs};
    }
    // Asked until kept: the first time reads, the second keeps.
    Answers askTwice(IdentityRepository& repository) {
        const Answers first = ask(repository);
        EXPECT_EQ(ask(repository), first);
        return first;
    }

    test::TestDatabase db_;
    IdentityRepository repository_{db_.sharedPool(), nullptr};
};

TEST_F(KeptAnswers, AskedAgainWithNothingCommittedTheyRunNoStatement) {
    StatementCount count;
    const Answers read = askTwice(repository_);
    ASSERT_EQ(read.identities.size(), 3U);
    ASSERT_EQ(read.people.size(), 1U);
    ASSERT_EQ(read.candidates.size(), 1U);
    ASSERT_EQ(read.history.size(), 1U);
    EXPECT_GT(count.take(), 0);

    EXPECT_EQ(ask(repository_), read);
    // The readback's counts are read every time; only its candidate section is kept.
    const int readbackCounts = count.take();
    repository_.identityCorrectionsReadback();
    EXPECT_EQ(count.take(), readbackCounts);

    // Other arguments are other answers.
    EXPECT_EQ(repository_.searchSourceIdentities("ann", 1, {}).size(), 1U);
    EXPECT_EQ(repository_.searchSourceIdentities("ann", 2, {}).size(), 2U);
    EXPECT_TRUE(repository_.searchSourceIdentities("annx", 10, {}).empty());
    EXPECT_TRUE(repository_.exactKeyCandidates(0).size() <= 1U);
    EXPECT_TRUE(repository_.identityHistory("p-other").empty());
    EXPECT_GT(count.take(), 0);
}

TEST_F(KeptAnswers, EveryCommitIsSeenWhoeverMadeIt) {
    askTwice(repository_);

    // A correction through the repository.
    repository_.rejectCandidate(candidate(), SubjectLineage::person, "subject");
    Answers read = ask(repository_);
    EXPECT_TRUE(read.candidates.empty());
    EXPECT_EQ(read.readbackPairs, 0);
    askTwice(repository_);

    // A commit on the pool's writer, outside the repository.
    db_.addIdentity("si-d", "gmail", "annabel@example.com");
    EXPECT_EQ(ask(repository_).identities.size(), 4U);
    askTwice(repository_);

    // A commit through another connection to the file, as another process makes.
    auto other = store::DatabasePool::open(db_.path());
    other->write([](store::Connection& db) {
        db.run("UPDATE person SET display_name = 'Ann Marie' WHERE id = 'p-named'");
    });
    EXPECT_EQ(ask(repository_).people.at(0).displayName, "Ann Marie");
    askTwice(repository_);

    // A second repository over the same pool keeps answers of its own.
    IdentityRepository second{db_.sharedPool(), nullptr};
    EXPECT_EQ(ask(second), ask(repository_));
}

TEST_F(KeptAnswers, PlannedFaultsAndARepositoryThatKeepsNothingReadTheStore) {
    askTwice(repository_);
    StatementCount count;

    // A read fault meets its statement even when the answer is kept.
    db_.pool().armFault({.failAtStatement = 1, .code = 10, .writesOnly = false, .fired = false});
    EXPECT_THROW(repository_.exactKeyCandidates(50), store::DatabaseError);
    EXPECT_TRUE(db_.pool().faultFired());
    EXPECT_EQ(repository_.exactKeyCandidates(50).size(), 1U);

    IdentityRepository unkept{db_.sharedPool(), nullptr, host::HostServices::reference(),
                              IdentityRepositoryOptions{.keepRepeatedAnswers = false}};
    const Answers read = ask(unkept);
    count.take();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(ask(unkept), read);
        EXPECT_GT(count.take(), 0);
    }
}

}  // namespace
}  // namespace orvik::identity
