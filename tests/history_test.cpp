#include <gtest/gtest.h>

#include <algorithm>

#include "identity/IdentityRepository.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Kind = IdentityHistoryEntry::Kind;
using Strings = std::vector<std::string>;
using test::sql;

using Placements = std::vector<std::pair<std::string, std::string>>;

// A snapshot whose prior memberships and post-images put each identity under a
// person.
std::string snapshot(const Placements& prior, const Placements& post = {}) {
    MergePreState s;
    for (const auto& [identity, person] : prior) {
        s.priorActiveMemberships.push_back({"pm", identity, person, "confirmed", {}, "user", "t"});
    }
    for (const auto& [identity, person] : post) {
        s.membershipPostImages.push_back({"m", identity, person, "confirmed", {}, "user", "t", {}});
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

TEST(History, EntriesGroupEventsByOperationAndKeepThePersonsOwn) {
    Store s;
    s.db.addIdentity("A", "gmail", "ann@example.com");
    s.db.addIdentity("B", "apple_contacts", "ann@example.com");
    // A confirmation writes two events under one operation: one linked entry.
    const auto confirmed = s.repo.confirmCandidate(
        {*s.repo.sourceIdentity("A"), *s.repo.sourceIdentity("B"), std::nullopt, 0.9, "same"},
        SubjectLineage::person, "subject-1");
    const auto linked = s.repo.identityHistory(confirmed.personID);
    EXPECT_EQ(linked.at(0).mergeEventIDs, confirmed.mergeEventIDs);
    EXPECT_EQ(linked.at(0).kind, Kind::linked);
    s.repo.undoConfirmation(confirmed.mergeEventIDs);
    EXPECT_TRUE(s.repo.identityHistory(confirmed.personID).at(0).reversedAt);

    // A link and a merge under one operation: one merged entry.
    s.addEvent("e1", "P", std::nullopt, snapshot({}, {{"A", "P"}}), "t1", "op1");
    s.addEvent("e2", "P", "Q", snapshot({}), "t2", "op1");
    // A separation that names P only as the identity's prior person.
    s.addEvent("e3", "S", std::nullopt,
               snapshot({{"A", "P"}}, {{"A", "S"}, {"B", "S"}, {"Z", "S"}, {"A", "S"}}), "t3",
               std::nullopt, "separated_by_user");
    // P appears in the snapshot text, but not as a prior person: not P's history.
    s.addEvent("e4", "Q", std::nullopt, snapshot({{"B", "Q"}}, {{"B", "P"}}), "t4");
    // An absorption outranks the separation reason; a snapshot that does not decode
    // contributes nothing.
    s.addEvent("e5", "P", "X", "not json", "t5", std::nullopt, "separated_by_user");

    const auto history = s.repo.identityHistory("P");
    ASSERT_EQ(history.size(), 3u);
    EXPECT_EQ(history[0].kind, Kind::merged);
    EXPECT_EQ(history[0].mergeEventIDs, (Strings{"e1", "e2"}));
    EXPECT_EQ(history[0].providers, (Strings{"gmail"}));

    EXPECT_EQ(history[1].kind, Kind::separated);
    EXPECT_EQ(history[1].involvedSourceIdentityIDs, (Strings{"A", "B", "Z"}));
    EXPECT_EQ(history[1].providers, (Strings{"apple_contacts", "gmail"}));

    EXPECT_EQ(history[2].kind, Kind::merged);
    EXPECT_EQ(history[2].absorbedPersonID, "X");
    EXPECT_TRUE(history[2].involvedSourceIdentityIDs.empty());

    // Q's history has the merge it was absorbed in and its own link.
    const auto ofQ = s.repo.identityHistory("Q");
    ASSERT_EQ(ofQ.size(), 2u);
    EXPECT_EQ((Strings{ofQ[0].mergeEventID, ofQ[1].mergeEventID}), (Strings{"e1", "e4"}));

    // An operation counts as reversed once all of its events are, at the latest time.
    const auto reversedAt = [&](const std::string& e1, const std::string& e2) {
        s.db.exec("UPDATE merge_event SET reversed_at = " + e1 + " WHERE id = 'e1';" +
                  "UPDATE merge_event SET reversed_at = " + e2 + " WHERE id = 'e2'");
        return s.repo.identityHistory("P").at(0).reversedAt;
    };
    EXPECT_EQ(reversedAt("NULL", "'r2'"), std::nullopt);
    EXPECT_EQ(reversedAt("'r1'", "'r2'"), "r2");
    EXPECT_EQ(reversedAt("'r2'", "'r1'"), "r2");
}

TEST(History, ShowsWhatEachSnapshotHoldsNowWhenShownAgain) {
    // A person's history is shown again and again; a snapshot rewritten in
    // place between two showings must be read as it is now.
    Store s;
    s.db.addIdentity("A", "gmail", "ann@example.com");
    s.db.addIdentity("B", "apple_contacts", "ann@example.com");
    s.addEvent("e1", "P", std::nullopt, snapshot({}, {{"A", "P"}}), "t1");
    // Names P only as a prior person.
    s.addEvent("e2", "S", std::nullopt, snapshot({{"B", "P"}}, {{"B", "S"}}), "t2");

    const auto setSnapshot = [&](const std::string& event, const std::string& json) {
        s.db.exec("UPDATE merge_event SET pre_merge_state_json = " + sql(json) +
                  " WHERE id = " + sql(event));
    };
    const auto shownAgain = [&] {
        // More than once on every reader connection: each keeps what it decoded.
        std::vector<IdentityHistoryEntry> history;
        for (int i = 0; i < 8; ++i) {
            auto again = s.repo.identityHistory("P");
            if (i > 0) {
                EXPECT_EQ(again.size(), history.size());
                for (std::size_t k = 0; k < std::min(again.size(), history.size()); ++k) {
                    EXPECT_EQ(again[k].involvedSourceIdentityIDs,
                              history[k].involvedSourceIdentityIDs);
                }
            }
            history = std::move(again);
        }
        return history;
    };

    auto history = shownAgain();
    ASSERT_EQ(history.size(), 2u);
    EXPECT_EQ(history[0].involvedSourceIdentityIDs, (Strings{"A"}));
    EXPECT_EQ(history[1].involvedSourceIdentityIDs, (Strings{"B"}));

    setSnapshot("e1", snapshot({}, {{"B", "P"}, {"A", "P"}}));
    setSnapshot("e2", snapshot({{"B", "R"}}, {{"B", "S"}}));
    history = shownAgain();
    ASSERT_EQ(history.size(), 1u);
    EXPECT_EQ(history[0].involvedSourceIdentityIDs, (Strings{"B", "A"}));
    EXPECT_EQ(history[0].providers, (Strings{"apple_contacts", "gmail"}));

    setSnapshot("e1", "not json");
    history = shownAgain();
    ASSERT_EQ(history.size(), 1u);
    EXPECT_TRUE(history[0].involvedSourceIdentityIDs.empty());

    setSnapshot("e1", snapshot({}, {{"A", "P"}}));
    setSnapshot("e2", snapshot({{"B", "P"}}, {{"B", "S"}}));
    history = shownAgain();
    ASSERT_EQ(history.size(), 2u);
    EXPECT_EQ(history[0].involvedSourceIdentityIDs, (Strings{"A"}));
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
