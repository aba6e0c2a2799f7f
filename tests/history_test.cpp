#include <gtest/gtest.h>

#include <algorithm>

#include "identity/IdentityRepository.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Kind = IdentityHistoryEntry::Kind;
using Strings = std::vector<std::string>;
using test::sql;

// A snapshot whose prior memberships and post-images put each identity under a
// person.
std::string snapshot(const std::vector<std::pair<std::string, std::string>>& prior,
                     const std::vector<std::pair<std::string, std::string>>& post = {}) {
    MergePreState s;
    for (const auto& [identity, person] : prior) {
        s.priorActiveMemberships.push_back(
            {"pm-" + identity, identity, person, "confirmed", std::nullopt, "user", "t"});
    }
    for (const auto& [identity, person] : post) {
        s.membershipPostImages.push_back({"m-" + identity, identity, person, "confirmed",
                                          std::nullopt, "user", "t", std::nullopt});
    }
    return encodeJSON(s);
}

struct Store {
    test::TestDatabase db;
    std::vector<IdentityCorrectionWitness::Event> events;
    IdentityRepository repo{db.sharedPool(), [this](const auto& e) { events.push_back(e); }};

    void addEvent(const std::string& id, const std::string& survivor,
                  const std::optional<std::string>& absorbed, const std::string& json,
                  const std::string& createdAt, const std::optional<std::string>& op = {},
                  const std::optional<std::string>& because = "user confirmed") {
        db.exec("INSERT INTO merge_event VALUES (" + sql(id) + "," + sql(survivor) + "," +
                sql(absorbed) + "," + sql(json) + "," + sql(because) + ",'user'," + sql(createdAt) +
                ",NULL," + sql(op) + ")");
    }
};

Strings sorted(Strings values) {
    std::sort(values.begin(), values.end());
    return values;
}

TEST(History, ConfirmationIsOneEntryUntilEveryEventIsReversed) {
    Store s;
    s.db.addIdentity("A", "gmail", "ann@example.com");
    s.db.addIdentity("B", "apple_contacts", "ann@example.com");
    const auto confirmed = s.repo.confirmCandidate(
        {*s.repo.sourceIdentity("A"), *s.repo.sourceIdentity("B"), std::nullopt, 0.9, "same"},
        SubjectLineage::person, "subject-1");
    ASSERT_EQ(confirmed.mergeEventIDs.size(), 2u);
    EXPECT_TRUE(s.repo.identityHistory("nobody").empty());

    auto history = s.repo.identityHistory(confirmed.personID);
    ASSERT_EQ(history.size(), 1u);
    const auto first = *s.repo.mergeEvent(confirmed.mergeEventIDs[0]);
    auto entry = history[0];
    EXPECT_EQ(entry.mergeEventIDs, confirmed.mergeEventIDs);
    EXPECT_EQ(entry.mergeEventID, first.id);
    EXPECT_EQ(entry.occurredAt, first.createdAt);
    EXPECT_EQ(entry.operationID, s.events.at(0).operationID);
    EXPECT_EQ(entry.kind, Kind::linked);
    EXPECT_EQ(entry.survivingPersonID, confirmed.personID);
    EXPECT_EQ(sorted(entry.involvedSourceIdentityIDs), (Strings{"A", "B"}));
    EXPECT_EQ(entry.providers, (Strings{"apple_contacts", "gmail"}));
    EXPECT_FALSE(entry.reversedAt);

    s.repo.undoConfirmation(entry.mergeEventIDs);
    const auto undoneAt = s.repo.mergeEvent(first.id)->reversedAt;
    ASSERT_TRUE(undoneAt);
    EXPECT_EQ(s.repo.identityHistory(confirmed.personID).at(0).reversedAt, undoneAt);

    const auto reversedAt = [&](const std::string& firstValue) {
        s.db.exec("UPDATE merge_event SET reversed_at = " + firstValue +
                  " WHERE id = " + sql(first.id));
        return s.repo.identityHistory(confirmed.personID).at(0).reversedAt;
    };
    EXPECT_EQ(reversedAt("NULL"), std::nullopt);
    EXPECT_EQ(reversedAt("'2099-01-01T00:00:00Z'"), "2099-01-01T00:00:00Z");
    EXPECT_EQ(reversedAt("'2000-01-01T00:00:00Z'"), undoneAt);
}

TEST(History, KindsRelevanceAndProviders) {
    Store s;
    s.db.addIdentity("A", "gmail", "ann@example.com");
    s.db.addIdentity("B", "apple_contacts", "ann@example.com");
    // A link and a merge under one operation: merged, fields from the link.
    s.addEvent("e1", "P", std::nullopt, snapshot({}, {{"A", "P"}}), "2024-01-01T00:00:01Z", "op1");
    s.addEvent("e2", "P", "Q", snapshot({}), "2024-01-01T00:00:02Z", "op1");
    // A separation that names P only as the identity's prior person.
    s.addEvent("e3", "S", std::nullopt,
               snapshot({{"A", "P"}}, {{"A", "S"}, {"Z", "S"}, {"B", "S"}, {"A", "S"}}),
               "2024-01-01T00:00:03Z", std::nullopt, "separated_by_user");
    // P appears in the snapshot text, but not as a prior person: not P's history.
    s.addEvent("e4", "Q", std::nullopt, snapshot({{"B", "Q"}}, {{"B", "P"}}),
               "2024-01-01T00:00:04Z");
    // An absorption outranks the separation reason; a snapshot that does not decode
    // contributes nothing.
    s.addEvent("e5", "P", "X", "not json", "2024-01-01T00:00:05Z", std::nullopt,
               "separated_by_user");

    const auto history = s.repo.identityHistory("P");
    ASSERT_EQ(history.size(), 3u);
    EXPECT_EQ(history[0].kind, Kind::merged);
    EXPECT_EQ(history[0].mergeEventIDs, (Strings{"e1", "e2"}));
    EXPECT_EQ(history[0].absorbedPersonID, std::nullopt);
    EXPECT_EQ(history[0].because, "user confirmed");
    EXPECT_EQ(history[0].providers, (Strings{"gmail"}));

    EXPECT_EQ(history[1].kind, Kind::separated);
    EXPECT_EQ(history[1].survivingPersonID, "S");
    EXPECT_EQ(history[1].involvedSourceIdentityIDs.size(), 3u);
    EXPECT_EQ(sorted(history[1].involvedSourceIdentityIDs), (Strings{"A", "B", "Z"}));
    EXPECT_EQ(history[1].providers, (Strings{"apple_contacts", "gmail"}));
    EXPECT_EQ(history[1].operationID, std::nullopt);
    EXPECT_EQ(history[1].id(), "e3");

    EXPECT_EQ(history[2].kind, Kind::merged);
    EXPECT_EQ(history[2].absorbedPersonID, "X");
    EXPECT_TRUE(history[2].involvedSourceIdentityIDs.empty());

    // Q's history has the merge it was absorbed in and its own link.
    const auto ofQ = s.repo.identityHistory("Q");
    ASSERT_EQ(ofQ.size(), 2u);
    EXPECT_EQ(ofQ[0].mergeEventID, "e1");
    EXPECT_EQ(ofQ[1].mergeEventID, "e4");
}

TEST(History, NewestThousandEventsStillShowWholeOperations) {
    Store s;
    // op-x has one event before and one after 1000 lone events of P; a lone event
    // before them falls out of the window too.
    s.addEvent("x-old", "P", std::nullopt, "{}", "2021-01-01T00:00:00Z", "op-x");
    s.addEvent("lone-old", "P", std::nullopt, "{}", "2021-01-01T00:00:01Z");
    s.db.exec(
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1000)\n"
        "INSERT INTO merge_event SELECT printf('f%04d', i), 'P', NULL, '{}', NULL, 'user',\n"
        "  '2022-01-01T00:00:00Z', NULL, NULL FROM n");
    s.addEvent("x-new", "P", std::nullopt, "{}", "2023-01-01T00:00:00Z", "op-x");

    const auto history = s.repo.identityHistory("P");
    ASSERT_EQ(history.size(), 1000u);
    EXPECT_EQ(history.front().mergeEventID, "f0002");  // f0001 is the 1001st newest
    EXPECT_EQ(history.back().mergeEventIDs, (Strings{"x-old", "x-new"}));
    EXPECT_EQ(history.back().occurredAt, "2021-01-01T00:00:00Z");
}

}  // namespace
}  // namespace orvik::identity
