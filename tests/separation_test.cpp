#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "identity/IdentityRepository.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Witness = IdentityCorrectionWitness;
using Rows = std::vector<std::string>;

std::set<std::string> lines(const std::string& dump) {
    return test::dumpLines(dump);
}

class Separation : public ::testing::Test {
  protected:
    test::TestDatabase db_;
    std::vector<Witness::Event> events_;
    IdentityRepository repo_{db_.sharedPool(),
                             [this](const Witness::Event& e) { events_.push_back(e); }};
};

TEST_F(Separation, RefusalsWriteNothing) {
    db_.addPerson("Solo");
    db_.addIdentity("only", "email", "only@example.com");
    db_.addMembership("m-only", "only", "Solo");
    // A "possible" member does not count as a second identity.
    db_.addIdentity("maybe", "email", "maybe@example.com");
    db_.addMembership("m-maybe", "maybe", "Solo", "possible");
    // An owner handle is refused before its memberships are looked at.
    db_.addIdentity("mine", "email", "me@x");
    db_.exec("INSERT INTO owner_alias (source_type, handle_normalized) VALUES ('email', 'me@x')");
    const std::string before = db_.dump();

    for (const auto& [identity, error] : std::vector<std::pair<std::string, std::string>>{
             {"only", "cannotSeparateSoleIdentity"},
             {"missing-id", "notFound: missing-id"},
             {"mine", "ownerIdentityUnmergeable"},
         }) {
        try {
            repo_.separateIdentity(identity, "subj");
            ADD_FAILURE() << identity;
        } catch (const IdentityStoreError& e) {
            EXPECT_EQ(e.what(), error);
        }
    }
    EXPECT_EQ(db_.dump(), before);
    EXPECT_TRUE(events_.empty());
}

// s moves to a new stub person and is marked different from the other active
// members; the undo puts every seeded row back.
TEST_F(Separation, MovesIdentityToStubMarksTheOthersDifferentAndUndoes) {
    // Person P holds s, r1, r2 and r3 (inserted out of id order), an ended
    // membership of r0 and a "possible" membership of r4.
    db_.addPerson("P");
    for (const char* id : {"s", "r0", "r1", "r2", "r3", "r4"}) {
        db_.addIdentity(id, "email", std::string(id) + "@example.com");
    }
    db_.addMembership("m-r3", "r3", "P");
    db_.addMembership("m-s", "s", "P", "high_conf", {}, "auto", "same contact key");
    db_.addMembership("m-r1", "r1", "P");
    db_.addMembership("m-r2", "r2", "P");
    db_.addMembership("m-r0", "r0", "P", "confirmed", "2020-06-01T00:00:00Z");
    db_.addMembership("m-r4", "r4", "P", "possible");
    db_.addDifferent("pre-r2", "identity", "r2", "identity", "s");  // either orientation
    db_.addDifferent("old-r3", "identity", "s", "identity", "r3", "2020-03-01T00:00:00Z");
    const auto before = lines(db_.dump());

    const auto result = repo_.separateIdentity("s", "subj");
    ASSERT_EQ(result.mergeEventIDs.size(), 1u);
    EXPECT_EQ(
        db_.rows("SELECT tier, created_from FROM person WHERE id = " + test::sql(result.personID)),
        Rows{"stub|identity_correction"});
    EXPECT_EQ(repo_.activeMembership("s")->canonicalPersonID, result.personID);
    EXPECT_EQ(repo_.activeMemberships("P").size(), 3u);
    // r2 was already marked; a revoked constraint does not count.
    const auto event = repo_.mergeEvent(result.mergeEventIDs.front());
    ASSERT_TRUE(event);
    const auto created =
        decodeMergePreState(event->preMergeStateJSON)->createdDifferentConstraintIDs;
    ASSERT_EQ(created.size(), 2u);
    EXPECT_EQ(
        db_.rows("SELECT id, a_id, b_id, kind, decided_by, revoked_at FROM identity_constraint "
                 "WHERE id NOT IN ('pre-r2', 'old-r3') ORDER BY rowid"),
        (Rows{created[0] + "|s|r1|different|user|NULL", created[1] + "|s|r3|different|user|NULL"}));
    EXPECT_EQ(db_.rows("SELECT target_type, target_id, action, subject_lineage, subject_id FROM "
                       "user_correction ORDER BY rowid"),
              (Rows{"source_identity|s|different_person|person|subj",
                    "source_identity|r1|different_person|person|subj",
                    "source_identity|r3|different_person|person|subj"}));
    EXPECT_EQ(event->because, "separated_by_user");
    EXPECT_EQ(events_, (std::vector<Witness::Event>{
                           {Witness::Kind::separateIdentity, 1, 1, 0, 0, 0, std::nullopt}}));

    repo_.undoMerge(result.mergeEventIDs.front());
    const auto after = lines(db_.dump());
    // Every seeded row is back as it was.
    for (const auto& line : before) {
        EXPECT_TRUE(after.contains(line)) << line;
    }
    // New: the stub person, the user corrections, and the separation's membership,
    // event and constraints, now ended, reversed and revoked.
    Rows added;
    for (const auto& line : after) {
        if (!before.contains(line)) {
            added.push_back(line.substr(0, line.find('(')));
            EXPECT_EQ(line.find("_at=NULL"), std::string::npos) << line;
        }
    }
    EXPECT_EQ(added, (Rows{"identity_constraint", "identity_constraint", "identity_membership",
                           "merge_event", "person", "user_correction", "user_correction",
                           "user_correction"}));
}

}  // namespace
}  // namespace orvik::identity
