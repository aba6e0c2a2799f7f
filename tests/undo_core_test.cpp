#include <gtest/gtest.h>

#include "identity/IdentityRepositoryInternal.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Case = IdentityStoreError::Case;
using Image = MergePreState::MembershipRowImage;
using Person = MergePreState::PersonRowImage;
using test::sql;

constexpr const char* kT = "2030-01-01T00:00:00Z";   // the undo's timestamp
constexpr const char* kT1 = "2025-06-01T00:00:00Z";  // the corrections' timestamp

// A store plus the events a link or merge would have left in it, built by hand.
struct Store {
    test::TestDatabase db;
    internal::RepositoryCore core{host::HostServices::reference()};

    std::vector<Image> images(const std::string& identity) {
        return db.pool().read([&](store::Connection& c) {
            std::vector<Image> out;
            c.query("SELECT * FROM identity_membership WHERE source_identity_id = ? ORDER BY id",
                    {identity}, [&](const store::Row& r) {
                        out.push_back({r.text("id"), r.text("source_identity_id"),
                                       r.text("canonical_person_id"), r.text("state"),
                                       r.optionalText("because"), r.text("decided_by"),
                                       r.text("decided_at"), r.optionalText("ended_at")});
                    });
            return out;
        });
    }

    std::optional<std::string> cell(const std::string& query) {
        return db.pool().read([&](store::Connection& c) {
            std::optional<std::string> v;
            c.query(query, {}, [&](const store::Row& r) { v = r.isNull(0) ? "NULL" : r.text(0); });
            return v;
        });
    }

    void addEvent(const std::string& id, const std::string& survivor,
                  const std::optional<std::string>& absorbed, const std::string& json,
                  const std::optional<std::string>& because = "user confirmed",
                  const std::optional<std::string>& reversedAt = {}) {
        db.exec("INSERT INTO merge_event VALUES (" + sql(id) + "," + sql(survivor) + "," +
                sql(absorbed) + "," + sql(json) + "," + sql(because) + ",'user','" + kT1 + "'," +
                sql(reversedAt) + ",'op')");
    }

    // Moves the identity's active membership (if any) to `person` as membership
    // `newID`, runs `extra`, and records the event.
    MergePreState link(const std::string& eventID, const std::string& identity,
                       const std::string& newID, const std::string& person,
                       const std::string& because = "user confirmed",
                       const std::string& extra = "") {
        MergePreState s;
        s.membershipPreimages = images(identity);
        for (const auto& m : s.membershipPreimages) {
            if (!m.endedAt) {
                s.priorActiveMemberships.push_back({m.id, m.sourceIdentityID, m.canonicalPersonID,
                                                    m.state, m.because, m.decidedBy, m.decidedAt});
            }
        }
        db.exec("UPDATE identity_membership SET ended_at = '" + std::string(kT1) +
                "' WHERE source_identity_id = " + sql(identity) + " AND ended_at IS NULL;" +
                "INSERT INTO identity_membership VALUES (" + sql(newID) + "," + sql(identity) +
                "," + sql(person) + ",'confirmed','user confirmed','user','" + kT1 + "',NULL,'" +
                kT1 + "');" + extra);
        s.writtenMembershipIDs = {newID};
        s.membershipPostImages = images(identity);
        addEvent(eventID, person, std::nullopt, encodeJSON(s), because);
        return s;
    }

    UndoMergeResult undo(const std::string& id) {
        return db.pool().write([&](store::Connection& c) { return core.undoMerge(id, kT, c); });
    }

    // The refusal, with the transaction committed so that a write made before it
    // would show.
    std::optional<Case> refusal(const std::string& id) {
        return db.pool().write([&](store::Connection& c) -> std::optional<Case> {
            try {
                core.undoMerge(id, kT, c);
            } catch (const IdentityStoreError& e) {
                return e.errorCase();
            }
            return std::nullopt;
        });
    }

    // B absorbed into A, moving XB's membership, claim c1, a capture association
    // with its state, one without, a follow-up with its open loop and candidate,
    // and a disposition key. cpre is A's own claim on XB from before.
    void seedMerge() {
        for (const char* p : {"A", "B", "C"}) {
            db.addPerson(p);
        }
        db.addIdentity("XB", "imessage", "+15550002");
        db.addMembership("mb", "XB", "B", "high_conf", {}, "agent+user", "same contact key");
        db.addDifferent("kd", "person", "A", "person", "B");
        db.exec(R"(
INSERT INTO claim VALUES ('c1','B','XB','phone','inferred','1'), ('cpre','A','XB','phone','inferred','2');
INSERT INTO capture_person_association VALUES ('so1','B','active',NULL), ('so2','B','active',NULL);
INSERT INTO open_loop VALUES ('ol1','B','D');
INSERT INTO follow_up VALUES ('f1','ol1','B','scheduled');
INSERT INTO relationship_attention_disposition VALUES ('follow-up|B|ol1|D','B','dismissed');
INSERT INTO relationship_attention_candidate VALUES ('follow-up|B|ol1|D','B','ol1','D');)");
    }

    MergePreState applyMerge() {
        MergePreState s;
        s.membershipPreimages = images("XB");
        s.priorActiveMemberships = {{"mb", "XB", "B", "high_conf", "same contact key", "agent+user",
                                     "2020-01-01T00:00:00Z"}};
        s.priorClaimPersonID = {{"c1", "B"}};
        s.writtenMembershipIDs = {"mn"};
        s.revokedDifferentConstraintIDs = {"kd"};
        s.preExistingSurvivorClaimIDs = {"cpre"};
        s.personPreimages = {Person{"A", {}, "stub", "user_stated", {}},
                             Person{"B", {}, "stub", "user_stated", {}}};
        // Out of id order on purpose: the comparison sorts them.
        s.personPostImages = {Person{"B", {}, "stub", "user_stated", "A"},
                              Person{"A", {}, "stub", "user_stated", {}}};
        s.claimOwnershipImages = {{"c1", "B", "A"}};
        s.createdSameConstraintID = "ks";
        s.captureAssociationImages = {{"so1", "B", "A", "active", {}}, {"so2", "B", "A", {}, {}}};
        s.followUpOwnershipImages = {{"f1", "B", "A"}};
        s.openLoopOwnershipImages = {{"ol1", "B", "A"}};
        s.dispositionKeyImages = {{"follow-up|B|ol1|D", "follow-up|A|ol1|D", "B", "A"}};
        db.exec(std::string(R"(
UPDATE person SET merged_into_person_id = 'A' WHERE id = 'B';
UPDATE identity_membership SET ended_at = 'T1' WHERE id = 'mb';
INSERT INTO identity_membership VALUES ('mn','XB','A','confirmed','merged','user','T1',NULL,'T1');
UPDATE claim SET person_id = 'A' WHERE id = 'c1';
INSERT INTO identity_constraint VALUES ('ks','person','A','person','B','same','user','T1',NULL);
UPDATE identity_constraint SET revoked_at = 'T1' WHERE id = 'kd';
UPDATE capture_person_association SET person_id = 'A', state = 'ended', ended_at = 'T1' WHERE source_object_id = 'so1';
UPDATE capture_person_association SET person_id = 'A' WHERE source_object_id = 'so2';
UPDATE follow_up SET person_id = 'A';
UPDATE open_loop SET person_id = 'A';
UPDATE relationship_attention_disposition SET candidate_key = 'follow-up|A|ol1|D', person_id = 'A';
UPDATE relationship_attention_candidate SET candidate_key = 'follow-up|A|ol1|D', person_id = 'A';)"));
        s.membershipPostImages = images("XB");
        addEvent("em", "A", "B", encodeJSON(s));
        return s;
    }

    // Removes what a successful undo leaves behind on purpose, so that the rest
    // can be compared with the store before the correction.
    void dropUndoTraces(const std::string& extra) {
        db.exec("DELETE FROM merge_event; DELETE FROM relationship_projection_generation;" + extra);
    }
};

TEST(UndoMerge, MergeUndoRestoresEveryMovedRowExactly) {
    Store s;
    s.seedMerge();
    const std::string before = s.db.dump();
    s.applyMerge();

    EXPECT_EQ(s.undo("em"), (UndoMergeResult{"em", "B", 1, 1}));
    EXPECT_EQ(s.cell("SELECT ended_at FROM identity_membership WHERE id = 'mn'"), kT);
    EXPECT_EQ(s.cell("SELECT revoked_at FROM identity_constraint WHERE id = 'ks'"), kT);
    EXPECT_EQ(s.cell("SELECT reversed_at FROM merge_event"), kT);
    EXPECT_EQ(s.cell("SELECT generation FROM relationship_projection_generation"), "1");
    EXPECT_EQ(s.refusal("em"), Case::alreadyReversed);
    s.dropUndoTraces(
        "DELETE FROM identity_membership WHERE id = 'mn';"
        "DELETE FROM identity_constraint WHERE id = 'ks';");
    EXPECT_EQ(s.db.dump(), before);
}

TEST(UndoMerge, ClaimHandBackSparesUserStatedAndSurvivorsOwnClaims) {
    Store s;
    s.seedMerge();
    s.db.addIdentity("XA", "imessage", "+15550001");
    s.applyMerge();
    // Claims that reached A after the merge.
    s.db.exec(
        "INSERT INTO claim VALUES ('cu','A','XB','name','user_stated','x'),"
        "('cl','A','XB','name','inferred','y'), ('ca','A','XA','name','inferred','z')");
    s.undo("em");
    EXPECT_EQ(s.cell("SELECT group_concat(id || ':' || person_id, ' ') FROM "
                     "(SELECT * FROM claim ORDER BY id)"),
              "c1:B ca:A cl:B cpre:A cu:A");
}

TEST(UndoMerge, AnyLaterChangeRefusesBeforeWritingAnything) {
    const std::vector<std::string> laterChanges = {
        "INSERT INTO identity_membership VALUES ('mz','XB','C','confirmed',NULL,'user','T2',NULL,"
        "'T2')",
        "DELETE FROM identity_membership WHERE id = 'mb'",
        "UPDATE identity_membership SET because = 'other' WHERE id = 'mn'",
        "UPDATE identity_membership SET ended_at = 'T2' WHERE id = 'mn'",
        "UPDATE claim SET person_id = 'C' WHERE id = 'c1'",
        "UPDATE claim SET person_id = NULL WHERE id = 'c1'",
        "DELETE FROM claim WHERE id = 'c1'",
        "UPDATE person SET display_name = 'Dana' WHERE id = 'A'",
        "UPDATE identity_constraint SET revoked_at = 'T2' WHERE id = 'ks'",
    };
    for (const auto& change : laterChanges) {
        SCOPED_TRACE(change);
        Store s;
        s.seedMerge();
        s.applyMerge();
        s.db.exec(change);
        const std::string before = s.db.dump();
        EXPECT_EQ(s.refusal("em"), Case::supersededByLaterCorrection);
        EXPECT_EQ(s.db.dump(), before);
    }
}

TEST(UndoMerge, UnusableEventsAreRefused) {
    Store s;
    s.db.addPerson("A");
    s.db.addPerson("B");
    MergePreState noSame;
    noSame.personPostImages = {Person{"A", {}, "stub", "user_stated", {}}};
    noSame.membershipPostImages = {{"m", "X", "A", "confirmed", {}, "user", kT1, {}}};
    const std::string threeKeys =
        R"({"priorActiveMemberships":[],"priorClaimPersonID":{},"writtenMembershipIDs":[]})";
    s.addEvent("e-corrupt", "A", std::nullopt, "{not json");
    s.addEvent("e-old-link", "A", std::nullopt, threeKeys);
    s.addEvent("e-old-merge", "A", "B", threeKeys);
    s.addEvent("e-no-same", "A", "B", encodeJSON(noSame));
    s.addEvent("e-reversed", "A", std::nullopt, encodeJSON(noSame), "user confirmed", kT1);
    const std::string before = s.db.dump();

    EXPECT_EQ(s.refusal("e-corrupt"), Case::corruptRestoreMap);
    EXPECT_EQ(s.refusal("e-old-link"), Case::restoreSnapshotIncomplete);
    EXPECT_EQ(s.refusal("e-old-merge"), Case::restoreSnapshotIncomplete);
    EXPECT_EQ(s.refusal("e-no-same"), Case::restoreSnapshotIncomplete);
    EXPECT_EQ(s.refusal("e-reversed"), Case::alreadyReversed);
    try {
        s.undo("e-missing");
        ADD_FAILURE() << "undo of a missing event succeeded";
    } catch (const IdentityStoreError& e) {
        EXPECT_EQ(e, IdentityStoreError::notFound("e-missing"));
    }
    EXPECT_EQ(s.db.dump(), before);
}

// A link and a separation differ only in what happens to the constraints the
// event created.
TEST(UndoMerge, LinkAndSeparationRestoreTheEndedMembership) {
    for (const std::string because : {"user confirmed", "separated_by_user"}) {
        SCOPED_TRACE(because);
        Store s;
        s.db.addIdentity("X", "imessage", "+15550003");
        s.db.addMembership("m1", "X", "P1", "high_conf", {}, "agent+user", "2 shared threads");
        s.db.addDifferent("kr", "identity", "X", "person", "P2", {}, "auto");
        const std::string before = s.db.dump();
        auto snapshot = s.link("e1", "X", "m2", "P2", because,
                               "UPDATE identity_constraint SET revoked_at = 'T1';"
                               "INSERT INTO identity_constraint VALUES "
                               "('kc','identity','X','person','P1','different','user','T1',NULL);");
        snapshot.revokedDifferentConstraintIDs = {"kr"};
        snapshot.createdDifferentConstraintIDs = {"kc"};
        s.db.exec("UPDATE merge_event SET pre_merge_state_json = " + sql(encodeJSON(snapshot)));

        EXPECT_EQ(s.undo("e1"), (UndoMergeResult{"e1", std::nullopt, 1, 0}));
        EXPECT_EQ(s.cell("SELECT ended_at FROM identity_membership WHERE id = 'm2'"), kT);
        EXPECT_EQ(s.cell("SELECT revoked_at FROM identity_constraint WHERE id = 'kc'"),
                  because == "separated_by_user" ? kT : "NULL");
        s.dropUndoTraces(
            "DELETE FROM identity_membership WHERE id = 'm2';"
            "DELETE FROM identity_constraint WHERE id = 'kc';");
        EXPECT_EQ(s.db.dump(), before);
    }
}

TEST(UndoMerge, SeparationWhoseConstraintWasRevokedSinceRollsBack) {
    Store s;
    s.db.addIdentity("X", "imessage", "+15550003");
    s.db.addMembership("m1", "X", "P1");
    auto snapshot = s.link("e1", "X", "m2", "P2", "separated_by_user");
    snapshot.createdDifferentConstraintIDs = {"kc"};
    s.db.exec("UPDATE merge_event SET pre_merge_state_json = " + sql(encodeJSON(snapshot)));
    s.db.addDifferent("kc", "identity", "X", "person", "P1", "T2");
    const std::string before = s.db.dump();
    EXPECT_THROW(s.undo("e1"), IdentityStoreError);
    EXPECT_EQ(s.db.dump(), before);
}

TEST(UndoConfirmation, UndoesTheListInOrderAllOrNothing) {
    Store s;
    s.db.addIdentity("X", "imessage", "+15550004");
    s.db.addIdentity("Y", "imessage", "+15550006");
    s.db.addMembership("mx1", "X", "P1");
    s.db.addMembership("my1", "Y", "Q1");
    const std::string before = s.db.dump({"identity_membership"});
    s.link("ex", "X", "mx2", "P2");
    s.link("ey", "Y", "my2", "Q2");
    // Z was alone until it was linked into its own automatic person.
    s.db.addIdentity("Z", "imessage", "+15550005");
    const std::string autoZ = host::stableID("person-auto", "phone", "+15550005");
    s.link("ez", "Z", "mz1", autoZ);
    s.addEvent("e-done", "P3", std::nullopt, "{}", "user confirmed", kT1);
    const std::string linked = s.db.dump();
    auto undo = [&](const std::vector<std::string>& ids) {
        return s.db.pool().write(
            [&](store::Connection& c) { return s.core.undoConfirmationCore(ids, c); });
    };

    try {
        undo({"ex", "ez", "e-done"});
        ADD_FAILURE() << "a reversed event was undone";
    } catch (const IdentityStoreError& e) {
        EXPECT_EQ(e.errorCase(), Case::alreadyReversed);
    }
    EXPECT_EQ(s.db.dump(), linked);

    const auto results = undo({"ez", "ey", "ex"});
    ASSERT_EQ(results.size(), 3u);
    EXPECT_EQ(results[0].mergeEventID, "ez");
    EXPECT_EQ(results[2].mergeEventID, "ex");
    s.db.exec("DELETE FROM identity_membership WHERE id IN ('mx2','my2','mz1')");
    EXPECT_EQ(s.db.dump({"identity_membership"}), before);
    // One current timestamp for the whole call.
    EXPECT_EQ(s.cell("SELECT group_concat(DISTINCT reversed_at LIKE '____-__-__T__:__:__Z') "
                     "FROM merge_event WHERE id <> 'e-done'"),
              "1");
    // Only Z is left outside its automatic person; P1 and Q1 are no such persons.
    EXPECT_EQ(s.cell("SELECT a_type || a_id || b_type || b_id || kind || decided_by || "
                     "(created_at = (SELECT reversed_at FROM merge_event WHERE id = 'ez')) || "
                     "ifnull(revoked_at, '-') FROM identity_constraint"),
              "identityZperson" + autoZ + "differentauto1-");
    EXPECT_EQ(s.cell("SELECT count(*) FROM identity_constraint"), "1");
}

TEST(UndoConfirmation, GuardWritesOnlyForAnUnboundIdentityWhosePersonWasItsAutomaticOne) {
    Store s;
    auto autoID = [](const char* kind, const char* handle) {
        return host::stableID("person-auto", kind, handle);
    };
    s.db.addIdentity("i-phone", "imessage", "+1555");
    s.db.addIdentity("i-gmail", "gmail", "dana");  // no "@", still an address
    s.db.addIdentity("i-at", "sms", "x@y");
    s.db.addIdentity("i-other", "imessage", "+1556");
    s.db.addIdentity("i-live", "imessage", "+1557");
    s.db.addIdentity("i-revoked", "imessage", "+1558");
    s.db.addIdentity("i-bound", "imessage", "+1559");
    s.db.addIdentity("i-nobefore", "imessage", "+1560");
    s.db.addDifferent("k-live", "person", autoID("phone", "+1557"), "identity", "i-live");
    s.db.addDifferent("k-old", "identity", "i-revoked", "person", autoID("phone", "+1558"), kT1);
    s.db.addMembership("m", "i-bound", "P9");
    const std::map<std::string, std::string> preBatch = {
        {"i-phone", autoID("phone", "+1555")}, {"i-gmail", autoID("email", "dana")},
        {"i-at", autoID("phone", "x@y")},      {"i-other", "P7"},
        {"i-live", autoID("phone", "+1557")},  {"i-revoked", autoID("phone", "+1558")},
        {"i-bound", autoID("phone", "+1559")}, {"i-missing", "P8"},
    };
    std::set<std::string> affected;
    for (const auto& [identity, person] : preBatch) {
        affected.insert(identity);
    }
    affected.insert("i-nobefore");
    s.db.pool().write(
        [&](store::Connection& c) { s.core.applyNoReabsorptionGuard(affected, preBatch, kT, c); });
    EXPECT_EQ(s.cell("SELECT group_concat(a_id, ' ') FROM (SELECT a_id FROM identity_constraint "
                     "WHERE decided_by = 'auto' AND created_at = '" +
                     std::string(kT) + "' ORDER BY a_id)"),
              "i-gmail i-phone i-revoked");
}

}  // namespace
}  // namespace orvik::identity
