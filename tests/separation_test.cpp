#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <sstream>

#include "identity/IdentityRepository.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Witness = IdentityCorrectionWitness;
using Case = IdentityStoreError::Case;

std::string errorText(const std::function<void()>& fn) {
    try {
        fn();
    } catch (const IdentityStoreError& e) {
        return e.what();
    }
    return "no error";
}

std::set<std::string> lines(const std::string& dump) {
    std::set<std::string> out;
    std::istringstream in(dump);
    for (std::string line; std::getline(in, line);) {
        out.insert(line);
    }
    return out;
}

std::vector<std::string> minus(const std::set<std::string>& a, const std::set<std::string>& b) {
    std::vector<std::string> out;
    std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(out));
    return out;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class Separation : public ::testing::Test {
  protected:
    // Person P holds s, r1, r2 and r3 (inserted out of id order), an ended
    // membership of r0 and a "possible" membership of r4.
    void seedFamily() {
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
    }

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
    db_.addIdentity("loose", "email", "loose@example.com");
    db_.addMembership("m-loose", "loose", "Solo", "confirmed", "2020-06-01T00:00:00Z");
    // An owner handle is refused before its memberships are looked at.
    db_.addIdentity("mine", "email", "me@example.com");
    db_.exec(
        "INSERT INTO owner_alias (source_type, handle_normalized) VALUES ('email', "
        "'me@example.com')");
    const std::string before = db_.dump();

    EXPECT_EQ(errorText([&] { repo_.separateIdentity("only", "subj"); }),
              "cannotSeparateSoleIdentity");
    EXPECT_EQ(errorText([&] { repo_.separateIdentity("loose", "subj"); }),
              "cannotSeparateSoleIdentity");
    EXPECT_EQ(errorText([&] { repo_.separateIdentity("missing-id", "subj"); }),
              "notFound: missing-id");
    EXPECT_EQ(errorText([&] { repo_.separateIdentity("mine", "subj"); }),
              "ownerIdentityUnmergeable");

    EXPECT_EQ(db_.dump(), before);
    EXPECT_TRUE(events_.empty());
}

TEST_F(Separation, MovesIdentityToStubAndMarksTheOthersDifferent) {
    seedFamily();
    db_.addDifferent("pre-r2", "identity", "r2", "identity", "s");  // either orientation
    db_.addDifferent("old-r3", "identity", "s", "identity", "r3", "2020-03-01T00:00:00Z");

    const auto result = repo_.separateIdentity("s", "subj");

    ASSERT_EQ(result.mergeEventIDs.size(), 1u);
    const std::string& e = result.mergeEventIDs.front();
    const auto stub = repo_.person(result.personID);
    ASSERT_TRUE(stub);
    EXPECT_EQ(stub->tier, "stub");
    EXPECT_EQ(stub->createdFrom, "identity_correction");
    EXPECT_EQ(repo_.activeMembership("s")->canonicalPersonID, result.personID);
    EXPECT_EQ(repo_.activeMemberships("P").size(), 3u);

    // r2 was already marked; a revoked constraint does not count.
    const auto created = db_.rows(
        "SELECT id, a_type, a_id, b_type, b_id, decided_by, revoked_at FROM identity_constraint "
        "WHERE id NOT IN ('pre-r2', 'old-r3') ORDER BY rowid");
    ASSERT_EQ(created.size(), 2u);
    std::vector<std::string> createdIDs;
    for (const auto& row : created) {
        createdIDs.push_back(row.substr(0, row.find('|')));
    }
    EXPECT_EQ(created[0], createdIDs[0] + "|identity|s|identity|r1|user|NULL");
    EXPECT_EQ(created[1], createdIDs[1] + "|identity|s|identity|r3|user|NULL");
    EXPECT_EQ(db_.rows("SELECT target_type, target_id, action, subject_lineage, subject_id "
                       "FROM user_correction ORDER BY rowid"),
              (std::vector<std::string>{
                  "source_identity|s|different_person|person|subj",
                  "source_identity|r1|different_person|person|subj",
                  "source_identity|r3|different_person|person|subj",
              }));

    const auto event = repo_.mergeEvent(e);
    ASSERT_TRUE(event);
    EXPECT_EQ(event->because, "separated_by_user");
    EXPECT_EQ(event->survivingPersonID, result.personID);
    EXPECT_FALSE(event->absorbedPersonID);
    const auto snapshot = decodeMergePreState(event->preMergeStateJSON);
    ASSERT_TRUE(snapshot);
    EXPECT_EQ(snapshot->createdDifferentConstraintIDs, createdIDs);
    EXPECT_TRUE(snapshot->followUpOwnershipImages.empty());
    EXPECT_TRUE(snapshot->openLoopOwnershipImages.empty());
    EXPECT_TRUE(snapshot->dispositionKeyImages.empty());

    EXPECT_EQ(events_, (std::vector<Witness::Event>{{.kind = Witness::Kind::separateIdentity,
                                                     .identityCount = 1,
                                                     .mergeEventCount = 1,
                                                     .absorbedPersonCount = 0,
                                                     .restoredPersonCount = 0,
                                                     .restoredMembershipCount = 0,
                                                     .operationID = std::nullopt}}));

    // The stub holds a single identity now and cannot be separated from.
    EXPECT_EQ(errorText([&] { repo_.separateIdentity("s", "subj"); }),
              "cannotSeparateSoleIdentity");
}

TEST_F(Separation, UndoRestoresTheStoreExceptWhatStaysByDesign) {
    seedFamily();
    db_.addDifferent("pre-r2", "identity", "s", "identity", "r2");
    const auto before = lines(db_.dump());

    const auto result = repo_.separateIdentity("s", "subj");
    const std::string& n = result.personID;
    const std::string& e = result.mergeEventIDs.front();
    repo_.undoMerge(e);

    const auto after = lines(db_.dump());
    // The only row that changed in place is the projection counter.
    for (const auto& line : minus(before, after)) {
        EXPECT_TRUE(line.starts_with("relationship_projection_generation(")) << line;
    }
    std::map<std::string, std::vector<std::string>> added;
    for (const auto& line : minus(after, before)) {
        added[line.substr(0, line.find('('))].push_back(line);
    }
    auto take = [&](const std::string& table) {
        auto rows = std::move(added[table]);
        added.erase(table);
        return rows;
    };

    const auto persons = take("person");
    ASSERT_EQ(persons.size(), 1u);
    EXPECT_TRUE(contains(persons[0], "id='" + n + "'"));

    // s's membership in P is back exactly as seeded (it is in `before`); the one
    // the separation wrote is ended.
    const auto memberships = take("identity_membership");
    ASSERT_EQ(memberships.size(), 1u);
    EXPECT_TRUE(contains(memberships[0], "canonical_person_id='" + n + "'"));
    EXPECT_TRUE(contains(memberships[0], "source_identity_id='s'"));
    EXPECT_FALSE(contains(memberships[0], "ended_at=NULL"));
    EXPECT_EQ(repo_.activeMembership("s")->id, "m-s");

    const auto mergeEvents = take("merge_event");
    ASSERT_EQ(mergeEvents.size(), 1u);
    EXPECT_TRUE(contains(mergeEvents[0], "id='" + e + "'"));
    EXPECT_FALSE(contains(mergeEvents[0], "reversed_at=NULL"));

    // The two created constraints are revoked; "pre-r2" is untouched.
    const auto constraints = take("identity_constraint");
    EXPECT_EQ(constraints.size(), 2u);
    for (const auto& line : constraints) {
        EXPECT_FALSE(contains(line, "revoked_at=NULL")) << line;
        EXPECT_FALSE(contains(line, "id='pre-r2'")) << line;
    }
    EXPECT_EQ(take("user_correction").size(), 3u);
    EXPECT_LE(take("relationship_projection_generation").size(), 1u);
    EXPECT_TRUE(added.empty()) << added.begin()->first;
}

}  // namespace
}  // namespace orvik::identity
