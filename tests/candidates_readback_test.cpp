#include <gtest/gtest.h>

#include <set>
#include <stdexcept>

#include "identity/IdentityRepository.h"
#include "store/Database.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Ids = std::vector<std::string>;

// The identifiers the identity statement is run with while it is alive.
class IdentityReads {
  public:
    IdentityReads() {
        ids().clear();
        store::setStatementObserver([](const std::string& sql, const store::Params& params) {
            if (sql == "SELECT * FROM source_identity WHERE id = ?") {
                params.values()[0].visit([](const auto& value) {
                    if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::string_view>) {
                        ids().emplace(value);
                    }
                });
            }
        });
    }
    ~IdentityReads() { store::setStatementObserver(nullptr); }
    IdentityReads(const IdentityReads&) = delete;
    IdentityReads& operator=(const IdentityReads&) = delete;

    static std::set<std::string>& ids() {
        static std::set<std::string> read;
        return read;
    }
};

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
    Ids candidateIDs(std::int64_t limit) {
        Ids ids;
        for (const auto& candidate : repository_.exactKeyCandidates(limit)) {
            ids.push_back(candidate.id());
        }
        return ids;
    }

    test::TestDatabase db_;
    IdentityRepository repository_{db_.sharedPool(), nullptr};
};

using ExactKeyCandidates = CandidateStore;

TEST_F(ExactKeyCandidates, PairIsScoredCarriesTheFirstExistingPersonAndSumsItsContext) {
    db_.addIdentity("si-c", "gmail", "dana@example.com", "Dana");
    db_.addIdentity("si-r1", "imessage", "+15550100");
    db_.addIdentity("si-r2", "imessage", "dana@example.com");
    // si-c shares t1, t2 with r1 and t2, t3 with r2.
    db_.exec(
        "INSERT INTO thread_participant VALUES ('t1', 'si-c'), ('t1', 'si-r1'), ('t2', 'si-c'), "
        "('t2', 'si-r1'), ('t2', 'si-r2'), ('t3', 'si-c'), ('t3', 'si-r2'), ('t4', 'si-c')");

    const IdentityCandidate expected{*repository_.sourceIdentity("si-c"),
                                     *repository_.sourceIdentity("si-r2"), std::nullopt, 0.87,
                                     "same contact key; 2 shared threads"};
    EXPECT_EQ(repository_.exactKeyCandidates(10), std::vector{expected});
    db_.addMembership("m-b", "si-r2", "p-b");
    EXPECT_EQ(repository_.exactKeyCandidates(10).at(0).existingPersonID, "p-b");
    db_.addMembership("m-a", "si-c", "p-a", "high_conf");  // A's person wins over B's
    EXPECT_EQ(repository_.exactKeyCandidates(10).at(0).existingPersonID, "p-a");

    IdentityCandidateContext context{"si-c", "gmail", "Dana", 4, "2020-01-02T00:00:00Z", 4, true};
    // Missing entries and the identity itself are passed over.
    EXPECT_EQ(repository_.candidateContext("si-c", {"si-r1", "missing", "si-c", "si-r2"}), context);
    context.exactHandleMatch = false;
    context.sharedThreadCount = 2;
    EXPECT_EQ(repository_.candidateContext("si-c", {"si-r1"}), context);
    EXPECT_FALSE(repository_.candidateContext("missing", {"si-r1"}));
    db_.addDifferent("k1", "identity", "si-r1", "identity", "si-c");
    EXPECT_FALSE(repository_.candidateContext("si-c", {"si-r2", "si-r1"}));
}

TEST_F(ExactKeyCandidates, DecidedOwnAndHiddenPairsAreNeverOffered) {
    db_.addPerson("p-absorbed", "p-head");
    const auto pair = [&](const std::string& handle) {
        db_.addIdentity(handle + "-a", "gmail", handle);
        db_.addIdentity(handle + "-b", "imessage", handle);
    };
    pair("same");  // already one person
    db_.addMembership("m1", "same-a", "p-same");
    db_.addMembership("m2", "same-b", "p-same");
    pair("ident");  // marked different as identities
    db_.addDifferent("k1", "identity", "ident-b", "identity", "ident-a");
    pair("persons");  // marked different as persons, through A's absorbed person
    db_.addMembership("m3", "persons-a", "p-absorbed");
    db_.addMembership("m4", "persons-b", "p-1");
    db_.addDifferent("k2", "person", "p-head", "person", "p-1");
    pair("owner");  // one side is the user's own handle
    db_.exec("INSERT INTO owner_alias VALUES ('imessage', 'owner', NULL, NULL, NULL)");
    pair("hidden");  // one side hidden from presentation
    db_.exec("INSERT INTO exclusion_rule VALUES ('x1', 'source_identity', 'hidden-b', NULL, NULL)");
    pair("two-persons");  // still offered: no constraint between the two persons
    db_.addMembership("m5", "two-persons-a", "p-1");
    db_.addMembership("m6", "two-persons-b", "p-2");

    EXPECT_EQ(candidateIDs(50), (Ids{"two-persons-a|two-persons-b"}));
}

TEST_F(ExactKeyCandidates, LimitIsAppliedAfterFilteringWithinTheOverFetchedRows) {
    // Sixty pairs "pair-NN-a"/"pair-NN-b" sharing the handle "pair-NN".
    db_.exec(
        "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 59)\n"
        "INSERT INTO source_identity SELECT printf('pair-%02d', i) || side, 'gmail', "
        "printf('pair-%02d', i), NULL, 't', 't', 't' FROM n, (SELECT '-a' AS side UNION ALL "
        "SELECT '-b')");
    EXPECT_TRUE(repository_.exactKeyCandidates(0).empty());
    EXPECT_EQ(repository_.exactKeyCandidates(100).size(), 60u);  // each unordered pair once
    EXPECT_EQ(repository_.identityCorrectionsReadback().exactKeyCandidatePairs, 50);
    // The pairs in the order the candidate statement returns them.
    auto eligibility = host::HostServices::reference().presentationEligibility;
    const Ids rowOrder = db_.rows(
        "SELECT a.id AS a_id, b.id AS b_id\nFROM source_identity a\nJOIN source_identity b\n"
        "  ON a.handle_normalized = b.handle_normalized AND a.id < b.id\nWHERE " +
        eligibility->presentationPredicateSQL("a.id", "a.source_type", std::nullopt) + "\n  AND " +
        eligibility->presentationPredicateSQL("b.id", "b.source_type", std::nullopt));
    ASSERT_EQ(rowOrder.size(), 60u);

    // Every pair passes: a limit of 2 reads the identities of the first two rows
    // and of no row after them.
    {
        const IdentityReads reads;
        EXPECT_EQ(candidateIDs(2), (Ids{rowOrder[0], rowOrder[1]}));
        std::set<std::string> expected;
        for (const auto& row : {rowOrder[0], rowOrder[1]}) {
            const auto bar = row.find('|');
            expected.insert(row.substr(0, bar));
            expected.insert(row.substr(bar + 1));
        }
        EXPECT_EQ(IdentityReads::ids(), expected);
    }

    // Only the 20th and 21st rows survive the filters: a limit of 5 reads 20 rows.
    for (std::size_t i = 0; i < rowOrder.size(); ++i) {
        if (i != 19 && i != 20) {
            const auto bar = rowOrder[i].find('|');
            db_.addDifferent("k" + std::to_string(i), "identity", rowOrder[i].substr(0, bar),
                             "identity", rowOrder[i].substr(bar + 1));
        }
    }
    EXPECT_EQ(candidateIDs(5), (Ids{rowOrder[19]}));
    EXPECT_EQ(candidateIDs(6), (Ids{rowOrder[19], rowOrder[20]}));
}

using CorrectionReadback = CandidateStore;

TEST_F(CorrectionReadback, CountsTheirJSONFormAndAnUnavailableCandidateSection) {
    EXPECT_EQ(encodeJSON(repository_.identityCorrectionsReadback()),
              R"({"source_identity_total":0,"source_identity_by_type":{},)"
              R"("exact_key_candidate_pairs":0,"active_memberships":0,"membership_states":{},)"
              R"("merge_events":0,"absorbed_persons":0,"unavailable_sections":[]})");

    db_.addIdentity("si-1", "gmail", "a@example.com");
    db_.addIdentity("si-2", "imessage", "a@example.com");
    db_.addIdentity("si-3", "gmail", "b@example.com");
    db_.addPerson("p-gone", "p-1");
    db_.addMembership("m-1", "si-1", "p-1");
    db_.addMembership("m-2", "si-3", "p-2", "high_conf");
    db_.addMembership("m-3", "si-2", "p-2", "possible");
    db_.addMembership("m-4", "si-2", "p-2", "confirmed", "2021-01-01T00:00:00Z");
    db_.exec(
        "INSERT INTO merge_event VALUES ('e-1', 'p-1', NULL, '{}', NULL, 'user', 't', NULL, "
        "NULL), ('e-2', 'p-1', NULL, '{}', NULL, 'user', 't', 't2', NULL)");

    auto services = host::HostServices::reference();
    services.presentationEligibility = std::make_shared<FailingEligibility>();
    IdentityRepository failing(db_.sharedPool(), nullptr, services);
    const std::string json = encodeJSON(failing.identityCorrectionsReadback());
    EXPECT_EQ(json, R"({"source_identity_total":3,"source_identity_by_type":{"gmail":2,)"
                    R"("imessage":1},"active_memberships":2,"membership_states":{"confirmed":1,)"
                    R"("high_conf":1},"merge_events":2,"absorbed_persons":1,)"
                    R"("unavailable_sections":["exact_key_candidates"]})");
    // The decoded form, with the candidate section, is what a working service reads.
    auto counts = decodeIdentityCorrectionCounts(json).value();
    counts.exactKeyCandidatePairs = 1;
    counts.unavailableSections.clear();
    EXPECT_EQ(repository_.identityCorrectionsReadback(), counts);
    EXPECT_FALSE(decodeIdentityCorrectionCounts(R"({"source_identity_total":1.5)" +
                                                json.substr(json.find(','))));

    // The count section's errors are raised, not reported as unavailable.
    db_.pool().armFault({.failAtStatement = 1, .code = 10, .writesOnly = false, .fired = false});
    EXPECT_THROW(failing.identityCorrectionsReadback(), store::DatabaseError);
    EXPECT_TRUE(db_.pool().faultFired());
}

}  // namespace
}  // namespace orvik::identity
