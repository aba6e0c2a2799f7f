// Undo of merge events written by hand: what a real correction never leaves in
// the store (unusable snapshots), what happens to constraints a link or a
// separation created, and the no-reabsorption guard.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <tuple>

#include "identity/IdentityRepositoryInternal.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using test::sql;

const std::string kT = "2030-01-01T00:00:00Z";   // the undo's timestamp
const std::string kT1 = "2025-06-01T00:00:00Z";  // the corrections' timestamp

struct Store {
    test::TestDatabase db;
    internal::RepositoryCore core{host::HostServices::reference()};

    void addEvent(const std::string& id, const std::optional<std::string>& absorbed,
                  const std::string& json, const std::string& because = "user confirmed",
                  const std::optional<std::string>& reversedAt = {}) {
        db.exec("INSERT INTO merge_event VALUES (" + sql(id) + ",'A'," + sql(absorbed) + "," +
                sql(json) + "," + sql(because) + ",'user','" + kT1 + "'," + sql(reversedAt) +
                ",'op')");
    }

    // The undo's error as what() reports it, "" when it succeeded.
    std::string refusal(const std::string& id) {
        try {
            db.pool().write([&](store::Connection& c) { core.undoMerge(id, kT, c); });
        } catch (const IdentityStoreError& e) {
            return e.what();
        }
        return "";
    }
};

TEST(UndoMerge, UnusableEventsAreRefusedWithoutWriting) {
    Store s;
    s.db.addPerson("A");
    s.db.addPerson("B");
    MergePreState noSame;  // a merge snapshot without the "same" constraint it created
    noSame.personPostImages = {{"A", {}, "stub", "user_stated", {}}};
    noSame.membershipPostImages = {{"m", "X", "A", "confirmed", {}, "user", kT1, {}}};
    const std::string threeKeys =
        R"({"priorActiveMemberships":[],"priorClaimPersonID":{},"writtenMembershipIDs":[]})";
    s.addEvent("e-corrupt", std::nullopt, "{not json");
    s.addEvent("e-old-link", std::nullopt, threeKeys);
    s.addEvent("e-old-merge", "B", threeKeys);
    s.addEvent("e-no-same", "B", encodeJSON(noSame));
    s.addEvent("e-reversed", std::nullopt, encodeJSON(noSame), "user confirmed", kT1);
    const std::string before = s.db.dump();

    EXPECT_EQ(s.refusal("e-missing"), "notFound: e-missing");
    EXPECT_EQ(s.refusal("e-corrupt"), "corruptRestoreMap");
    EXPECT_EQ(s.refusal("e-old-link"), "restoreSnapshotIncomplete");
    EXPECT_EQ(s.refusal("e-old-merge"), "restoreSnapshotIncomplete");
    EXPECT_EQ(s.refusal("e-no-same"), "restoreSnapshotIncomplete");
    EXPECT_EQ(s.refusal("e-reversed"), "alreadyReversed");
    EXPECT_EQ(s.db.dump(), before);
}

// X moves from P1 to P2, revoking kr and creating kc against P1. The undo of a link
// keeps kc; the undo of a separation revokes it, and once kc was revoked it is
// refused and its transaction rolls back.
TEST(UndoMerge, OnlySeparationUndoRevokesTheConstraintsItCreated) {
    const std::vector<std::pair<std::string, bool>> cases = {
        {"user confirmed", false}, {"separated_by_user", false}, {"separated_by_user", true}};
    for (const auto& [because, revokedSince] : cases) {
        SCOPED_TRACE(because + (revokedSince ? ", kc revoked since" : ""));
        Store s;
        s.db.addIdentity("X", "imessage", "+15550003");
        s.db.addMembership("m1", "X", "P1", "high_conf", {}, "agent+user", "2 threads");
        s.db.addDifferent("kr", "identity", "X", "person", "P2", {}, "auto");
        const std::string before = s.db.dump();
        MergePreState snapshot;
        MergePreState::MembershipRowImage m1{
            "m1", "X", "P1", "high_conf", "2 threads", "agent+user", "2020-01-01T00:00:00Z", {}};
        snapshot.membershipPreimages = {m1};
        snapshot.priorActiveMemberships = {
            {"m1", "X", "P1", "high_conf", "2 threads", "agent+user", m1.decidedAt}};
        m1.endedAt = kT1;
        snapshot.membershipPostImages = {
            m1, {"m2", "X", "P2", "confirmed", "user confirmed", "user", "T1", {}}};
        snapshot.writtenMembershipIDs = {"m2"};
        snapshot.revokedDifferentConstraintIDs = {"kr"};
        snapshot.createdDifferentConstraintIDs = {"kc"};
        s.db.exec("UPDATE identity_membership SET ended_at = '" + kT1 +
                  "'; INSERT INTO identity_membership VALUES ('m2','X','P2','confirmed',"
                  "'user confirmed','user','T1',NULL,'T1'); "
                  "UPDATE identity_constraint SET revoked_at = 'T1'; "
                  "INSERT INTO identity_constraint VALUES ('kc','identity','X','person','P1',"
                  "'different','user','T1'," +
                  (revokedSince ? "'T2'" : "NULL") + ")");
        s.addEvent("e1", std::nullopt, encodeJSON(snapshot), because);

        const std::string corrected = s.db.dump();
        EXPECT_EQ(s.refusal("e1"), revokedSince ? "supersededByLaterCorrection" : "");
        if (revokedSince) {
            EXPECT_EQ(s.db.dump(), corrected);
            continue;
        }
        EXPECT_EQ(s.db.rows("SELECT revoked_at FROM identity_constraint WHERE id = 'kc'"),
                  std::vector<std::string>{because == "user confirmed" ? "NULL" : kT});
        EXPECT_EQ(s.db.rows("SELECT ended_at FROM identity_membership WHERE id = 'm2'"),
                  std::vector<std::string>{kT});
        s.db.exec(
            "DELETE FROM merge_event; DELETE FROM relationship_projection_generation;"
            "DELETE FROM identity_membership WHERE id = 'm2';"
            "DELETE FROM identity_constraint WHERE id = 'kc';");
        EXPECT_EQ(s.db.dump(), before);
    }
}

// The guard is written only for an identity left without an active membership
// whose person before the batch was its own automatic one, and not when a live
// guard exists already.
TEST(UndoConfirmation, GuardWritesOnlyForAnUnboundIdentityWhosePersonWasItsAutomaticOne) {
    Store s;
    auto autoID = [](const char* kind, const char* handle) {
        return host::stableID("person-auto", kind, handle);
    };
    const std::vector<std::tuple<std::string, std::string, std::string, std::string>> cases = {
        {"i-phone", "imessage", "+1555", autoID("phone", "+1555")},
        {"i-gmail", "gmail", "dana", autoID("email", "dana")},  // no "@", still an address
        {"i-at", "sms", "x@y", autoID("phone", "x@y")},         // the address is no phone
        {"i-other", "imessage", "+1556", "P7"},
        {"i-live", "imessage", "+1557", autoID("phone", "+1557")},
        {"i-revoked", "imessage", "+1558", autoID("phone", "+1558")},
        {"i-bound", "imessage", "+1559", autoID("phone", "+1559")},
        {"i-nobefore", "imessage", "+1560", ""},
    };
    std::map<std::string, std::string> preBatch = {{"i-missing", "P8"}};
    std::set<std::string> affected = {"i-missing"};
    for (const auto& [id, type, handle, person] : cases) {
        s.db.addIdentity(id, type, handle);
        affected.insert(id);
        if (!person.empty()) {
            preBatch[id] = person;
        }
    }
    s.db.addDifferent("k-live", "person", autoID("phone", "+1557"), "identity", "i-live");
    s.db.addDifferent("k-old", "identity", "i-revoked", "person", autoID("phone", "+1558"), kT1);
    s.db.addMembership("m", "i-bound", "P9");
    s.db.pool().write(
        [&](store::Connection& c) { s.core.applyNoReabsorptionGuard(affected, preBatch, kT, c); });
    EXPECT_EQ(s.db.rows("SELECT a_id FROM identity_constraint WHERE decided_by = 'auto' AND "
                        "created_at = '" +
                        kT + "' ORDER BY a_id"),
              (std::vector<std::string>{"i-gmail", "i-phone", "i-revoked"}));
}

}  // namespace
}  // namespace orvik::identity
