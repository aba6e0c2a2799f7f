#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "identity/IdentityRepository.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Ids = std::vector<std::string>;

Ids candidateIDs(const std::vector<IdentityCandidate>& candidates) {
    Ids ids;
    for (const auto& candidate : candidates) {
        ids.push_back(candidate.id());
    }
    return ids;
}

class FailingEligibility final : public host::SourceIdentityPresentationEligibility {
  public:
    std::string presentationPredicateSQL(const std::string&, const std::string&,
                                         const std::optional<std::string>&) override {
        throw std::runtime_error("eligibility unavailable");
    }
    std::string manualCorrectionPredicateSQL(const std::string&, const std::string&,
                                             const std::string&) override {
        return "1";
    }
};

class CandidateStore : public ::testing::Test {
  protected:
    void addThread(const std::string& threadID, const Ids& identities) {
        for (const auto& identity : identities) {
            db_.exec("INSERT INTO thread_participant (thread_id, source_identity_id) VALUES (" +
                     test::sql(threadID) + ", " + test::sql(identity) + ")");
        }
    }

    // Pairs "pair-NNN-a"/"pair-NNN-b" sharing the handle "pair-NNN".
    void addPairs(int count) {
        db_.exec("WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i + 1 < " +
                 std::to_string(count) +
                 ")\nINSERT INTO source_identity (id, source_type, handle_normalized, "
                 "first_seen_at, last_seen_at, created_at)\n"
                 "SELECT printf('pair-%03d', i) || side, 'gmail', printf('pair-%03d', i), 't', "
                 "'t', 't' FROM n, (SELECT '-a' AS side UNION ALL SELECT '-b')");
    }

    test::TestDatabase db_;
    IdentityRepository repository_{db_.sharedPool(), nullptr};
};

using ExactKeyCandidates = CandidateStore;

TEST_F(ExactKeyCandidates, PairIsScoredAndCarriesTheFirstExistingPerson) {
    db_.addIdentity("si-a", "gmail", "dana@example.com");
    db_.addIdentity("si-b", "imessage", "dana@example.com");
    db_.addIdentity("si-other", "gmail", "someone@example.com");
    addThread("t1", {"si-a", "si-b", "si-other"});
    addThread("t2", {"si-a", "si-b"});

    const IdentityCandidate expected{.sourceIdentityA = *repository_.sourceIdentity("si-a"),
                                     .sourceIdentityB = *repository_.sourceIdentity("si-b"),
                                     .existingPersonID = std::nullopt,
                                     .score = 0.87,
                                     .because = "same contact key; 2 shared threads"};
    EXPECT_EQ(repository_.exactKeyCandidates(10), std::vector{expected});

    db_.addPerson("p-b");
    db_.addMembership("m-b", "si-b", "p-b");
    EXPECT_EQ(repository_.exactKeyCandidates(10).at(0).existingPersonID, "p-b");
    // A's person wins over B's.
    db_.addPerson("p-a");
    db_.addMembership("m-a", "si-a", "p-a", "high_conf");
    EXPECT_EQ(repository_.exactKeyCandidates(10).at(0).existingPersonID, "p-a");
}

TEST_F(ExactKeyCandidates, DecidedOwnAndHiddenPairsAreNeverOffered) {
    for (const char* p : {"p-same", "p-1", "p-2", "p-head"}) {
        db_.addPerson(p);
    }
    db_.addPerson("p-absorbed", "p-head");
    const auto pair = [&](const std::string& handle) {
        db_.addIdentity(handle + "-a", "gmail", handle);
        db_.addIdentity(handle + "-b", "imessage", handle);
    };
    // Already one person.
    pair("same");
    db_.addMembership("m1", "same-a", "p-same");
    db_.addMembership("m2", "same-b", "p-same");
    // Marked different as identities.
    pair("ident");
    db_.addDifferent("k1", "identity", "ident-b", "identity", "ident-a");
    // Marked different as persons, through the absorption of A's person.
    pair("persons");
    db_.addMembership("m3", "persons-a", "p-absorbed");
    db_.addMembership("m4", "persons-b", "p-1");
    db_.addDifferent("k2", "person", "p-head", "person", "p-1");
    // One side is the user's own handle.
    pair("owner");
    db_.exec(
        "INSERT INTO owner_alias (source_type, handle_normalized, created_at) "
        "VALUES ('imessage', 'owner', 't')");
    // One side hidden from presentation.
    pair("hidden");
    db_.exec(
        "INSERT INTO exclusion_rule (id, scope, target_id, reason, created_at) "
        "VALUES ('x1', 'source_identity', 'hidden-b', 'test', 't')");
    // Still offered: two persons without a constraint between them.
    pair("two-persons");
    db_.addMembership("m5", "two-persons-a", "p-1");
    db_.addMembership("m6", "two-persons-b", "p-2");

    EXPECT_EQ(candidateIDs(repository_.exactKeyCandidates(50)),
              (Ids{"two-persons-a|two-persons-b"}));
}

TEST_F(ExactKeyCandidates, EachUnorderedPairOnceWithinTheOverFetchedRows) {
    for (const char* id : {"x3", "x1", "x2"}) {
        db_.addIdentity(id, "gmail", "shared");
    }
    auto ids = candidateIDs(repository_.exactKeyCandidates(10));
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids, (Ids{"x1|x2", "x1|x3", "x2|x3"}));
    EXPECT_TRUE(repository_.exactKeyCandidates(0).empty());
    EXPECT_TRUE(repository_.exactKeyCandidates(-3).empty());

    db_.exec("DELETE FROM source_identity");
    addPairs(30);
    // The pairs in the order the candidate statement returns them.
    auto eligibility = host::HostServices::reference().presentationEligibility;
    const Ids rowOrder = db_.rows(
        "SELECT a.id AS a_id, b.id AS b_id\nFROM source_identity a\nJOIN source_identity b\n"
        "  ON a.handle_normalized = b.handle_normalized AND a.id < b.id\nWHERE " +
        eligibility->presentationPredicateSQL("a.id", "a.source_type", std::nullopt) + "\n  AND " +
        eligibility->presentationPredicateSQL("b.id", "b.source_type", std::nullopt));
    ASSERT_EQ(rowOrder.size(), 30u);
    EXPECT_EQ(repository_.exactKeyCandidates(5).size(), 5u);

    // Only the 20th and 21st rows survive the filters: a limit of 5 reads 20 rows.
    for (std::size_t i = 0; i < rowOrder.size(); ++i) {
        if (i != 19 && i != 20) {
            const auto bar = rowOrder[i].find('|');
            db_.addDifferent("k" + std::to_string(i), "identity", rowOrder[i].substr(0, bar),
                             "identity", rowOrder[i].substr(bar + 1));
        }
    }
    EXPECT_EQ(candidateIDs(repository_.exactKeyCandidates(5)), (Ids{rowOrder[19]}));
    EXPECT_EQ(candidateIDs(repository_.exactKeyCandidates(6)), (Ids{rowOrder[19], rowOrder[20]}));
}

using CandidateContext = CandidateStore;

TEST_F(CandidateContext, SumsSharedThreadsAndLooksForTheSameHandle) {
    db_.addIdentity("si-c", "gmail", "dana@example.com", "Dana");
    db_.addIdentity("si-r1", "imessage", "+15550100");
    db_.addIdentity("si-r2", "imessage", "dana@example.com");
    // si-c shares t1, t2 with r1 and t2, t3, t4 with r2.
    addThread("t1", {"si-c", "si-r1"});
    addThread("t2", {"si-c", "si-r1", "si-r2"});
    addThread("t3", {"si-c", "si-r2"});
    addThread("t4", {"si-c", "si-r2"});
    addThread("t5", {"si-c"});

    const IdentityCandidateContext expected{
        .sourceIdentityID = "si-c",
        .provider = "gmail",
        .displayName = "Dana",
        .conversationCount = 5,
        .lastSeenAt = "2020-01-02T00:00:00Z",
        .sharedThreadCount = 5,
        .exactHandleMatch = true,
    };
    // Missing entries are passed over.
    EXPECT_EQ(repository_.candidateContext("si-c", {"si-r1", "missing", "si-r2"}), expected);

    auto noMatch = expected;
    noMatch.exactHandleMatch = false;
    noMatch.sharedThreadCount = 0;
    EXPECT_EQ(repository_.candidateContext("si-c", {}), noMatch);
    noMatch.sharedThreadCount = 2;
    EXPECT_EQ(repository_.candidateContext("si-c", {"si-r1"}), noMatch);
    // The identity itself adds no shared threads.
    EXPECT_EQ(repository_.candidateContext("si-c", {"si-c", "si-r1"})->sharedThreadCount, 2);

    EXPECT_FALSE(repository_.candidateContext("missing", {"si-r1"}));
    db_.addDifferent("k1", "identity", "si-r1", "identity", "si-c");
    EXPECT_FALSE(repository_.candidateContext("si-c", {"si-r2", "si-r1"}));
    EXPECT_TRUE(repository_.candidateContext("si-c", {"si-r2"}));
}

using CorrectionReadback = CandidateStore;

TEST_F(CorrectionReadback, EmptyStore) {
    const auto counts = repository_.identityCorrectionsReadback();
    EXPECT_EQ(encodeJSON(counts),
              R"({"source_identity_total":0,"source_identity_by_type":{},)"
              R"("exact_key_candidate_pairs":0,"active_memberships":0,"membership_states":{},)"
              R"("merge_events":0,"absorbed_persons":0,"unavailable_sections":[]})");
}

TEST_F(CorrectionReadback, CountsOfASeededStore) {
    db_.addIdentity("si-1", "gmail", "a@example.com");
    db_.addIdentity("si-2", "imessage", "a@example.com");
    db_.addIdentity("si-3", "gmail", "b@example.com");
    db_.addIdentity("si-4", "gmail", "c@example.com");
    db_.addPerson("p-1");
    db_.addPerson("p-2");
    db_.addPerson("p-gone", "p-1");
    db_.addMembership("m-1", "si-1", "p-1");
    db_.addMembership("m-3", "si-3", "p-2", "high_conf");
    db_.addMembership("m-4", "si-4", "p-2", "possible");
    db_.addMembership("m-5", "si-4", "p-1", "confirmed", "2021-01-01T00:00:00Z");
    db_.exec(
        "INSERT INTO merge_event (id, surviving_person_id, absorbed_person_id, "
        "pre_merge_state_json, decided_by, created_at, reversed_at) VALUES "
        "('e-1', 'p-1', 'p-gone', '{}', 'user', 't', NULL), "
        "('e-2', 'p-1', NULL, '{}', 'user', 't', 't2')");

    const IdentityCorrectionCounts expected{
        .sourceIdentityTotal = 4,
        .sourceIdentityByType = {{"gmail", 3}, {"imessage", 1}},
        .exactKeyCandidatePairs = 1,
        .activeMemberships = 2,
        .membershipStates = {{"confirmed", 1}, {"high_conf", 1}},
        .mergeEvents = 2,
        .absorbedPersons = 1,
        .unavailableSections = {},
    };
    EXPECT_EQ(repository_.identityCorrectionsReadback(), expected);

    db_.exec("DELETE FROM source_identity");
    addPairs(120);
    EXPECT_EQ(repository_.identityCorrectionsReadback().exactKeyCandidatePairs, 50);
}

TEST_F(CorrectionReadback, FailingCandidateSectionIsReportedButCountErrorsRaise) {
    db_.addIdentity("si-1", "gmail", "a@example.com");
    auto services = host::HostServices::reference();
    services.presentationEligibility = std::make_shared<FailingEligibility>();
    IdentityRepository failing(db_.sharedPool(), nullptr, services);

    EXPECT_EQ(encodeJSON(failing.identityCorrectionsReadback()),
              R"({"source_identity_total":1,"source_identity_by_type":{"gmail":1},)"
              R"("active_memberships":0,"membership_states":{},"merge_events":0,)"
              R"("absorbed_persons":0,"unavailable_sections":["exact_key_candidates"]})");

    // The candidate section runs one statement here, so the fourth statement is in
    // the count section.
    db_.pool().armFault({.failAtStatement = 4, .code = 10, .writesOnly = false, .fired = false});
    EXPECT_THROW(repository_.identityCorrectionsReadback(), store::DatabaseError);
    EXPECT_TRUE(db_.pool().faultFired());
}

TEST(CorrectionReadbackJSON, DecodesItsOwnFormAndRejectsOthers) {
    IdentityCorrectionCounts counts{
        .sourceIdentityTotal = 7,
        .sourceIdentityByType = {{"gmail", 5}, {"im\"essage", 2}},
        .exactKeyCandidatePairs = std::nullopt,
        .activeMemberships = 3,
        .membershipStates = {{"confirmed", 3}},
        .mergeEvents = 4,
        .absorbedPersons = 1,
        .unavailableSections = {"exact_key_candidates"},
    };
    EXPECT_EQ(decodeIdentityCorrectionCounts(encodeJSON(counts)), counts);

    const std::string valid =
        R"({"source_identity_total":1,"source_identity_by_type":{},"active_memberships":0,)"
        R"("membership_states":{},"merge_events":0,"absorbed_persons":0,"unavailable_sections":[])";
    ASSERT_TRUE(decodeIdentityCorrectionCounts(valid + "}"));
    EXPECT_FALSE(decodeIdentityCorrectionCounts(valid + R"(,"exact_key_candidate_pairs":null})")
                     ->exactKeyCandidatePairs);
    for (const std::string& bad : {
             std::string("[]"),
             std::string(R"({"source_identity_total":1})"),
             R"({"source_identity_total":1.5)" + valid.substr(valid.find(',')) + "}",
             valid + R"(,"exact_key_candidate_pairs":"5"})",
             valid.substr(0, valid.find("[]")) + "[1]}",
         }) {
        EXPECT_FALSE(decodeIdentityCorrectionCounts(bad)) << bad;
    }
}

}  // namespace
}  // namespace orvik::identity
