#include <stdexcept>

#include <gtest/gtest.h>

#include "identity/IdentityRepository.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Event = IdentityCorrectionWitness::Event;
using Kind = IdentityCorrectionWitness::Kind;
using Rows = std::vector<std::string>;

schema::MarkDifferentResponse refused(const char* message, Taxonomy taxonomy) {
    return {std::nullopt, true, message, taxonomy};
}
schema::MarkDifferentRequest markDifferent(const std::string& a, const std::string& b) {
    return {"not the same", 3000, a, b, "subj", SubjectLineage::person};
}

// Two identities a and b, persons pa and pb, the memberships given, and a
// repository that records its witness events.
struct Store {
    test::TestDatabase db;
    std::vector<Event> events;
    IdentityRepository repo{db.sharedPool(), [this](const Event& e) { events.push_back(e); }};
    explicit Store(const char* personA = nullptr, const char* personB = nullptr) {
        db.addIdentity("a", "email", "a@x");
        db.addIdentity("b", "phone", "+2");
        db.addPerson("pa");
        db.addPerson("pb");
        for (const auto& [id, person] : {std::pair{"a", personA}, {"b", personB}}) {
            if (person) {
                db.addMembership(std::string("m") + id, id, person);
            }
        }
    }

    IdentityCandidate candidate() {
        return {*repo.sourceIdentity("a"), *repo.sourceIdentity("b"), std::nullopt, 0.9, "why"};
    }
    // The persons a and b belong to now.
    Rows persons() {
        return db.rows(
            "SELECT canonical_person_id FROM identity_membership WHERE ended_at IS "
            "NULL AND state = 'confirmed' ORDER BY source_identity_id");
    }
};

// Confirming joins a and b. Rejecting records "different" between the persons
// when a and b have two, else between the identities, which keep their memberships.
TEST(ConfirmOrRejectCandidate, EachOfTheFiveSituations) {
    struct Row {
        const char *name, *personA, *personB, *expectedPerson;  // null person: a new stub
        std::int64_t events, absorbed;
        const char* rejected;  // the constraint and the correction's target a reject records
    };
    const char* identities = "identity|a|identity|b|source_identity|b";
    for (const Row& row : std::vector<Row>{
             {"neither attached", nullptr, nullptr, nullptr, 2, 0, identities},
             {"only b attached", nullptr, "pb", "pb", 1, 0, identities},
             {"only a attached", "pa", nullptr, "pa", 1, 0, identities},
             {"same person", "pa", "pa", "pa", 0, 0, identities},
             {"different persons", "pa", "pb", "pa", 1, 1, "person|pa|person|pb|person|pb"},
         }) {
        SCOPED_TRACE(row.name);
        Store s(row.personA, row.personB);
        const auto result = s.repo.confirmCandidate(s.candidate(), SubjectLineage::person, "subj");
        EXPECT_EQ(result.personID, row.expectedPerson ? row.expectedPerson : result.personID);
        EXPECT_EQ(
            s.db.rows("SELECT created_from FROM person WHERE id = " + test::sql(result.personID)),
            Rows{row.expectedPerson ? "user_stated" : "identity_correction"});
        EXPECT_EQ(s.persons(), Rows(2, result.personID));
        EXPECT_EQ(s.db.rows("SELECT count(*) FROM person WHERE merged_into_person_id = 'pa'"),
                  Rows{std::to_string(row.absorbed)});
        // One witness event; every merge event carries its operation id, in order.
        const auto op = s.events.empty() ? std::nullopt : s.events[0].operationID;
        ASSERT_TRUE(op);
        EXPECT_EQ(
            s.events,
            (std::vector<Event>{{Kind::confirmCandidate, 2, row.events, row.absorbed, 0, 0, op}}));
        EXPECT_EQ(s.db.rows("SELECT id FROM merge_event WHERE operation_id = " + test::sql(*op) +
                            " ORDER BY rowid"),
                  result.mergeEventIDs);
        EXPECT_EQ(s.db.rows("SELECT count(*) FROM merge_event"), Rows{std::to_string(row.events)});
        Store r(row.personA, row.personB);  // the same pair, rejected instead
        const auto untouched = r.db.dump({"identity_membership", "person", "merge_event"});
        r.repo.rejectCandidate(r.candidate(), SubjectLineage::grouping, "subj");
        EXPECT_EQ(
            r.db.rows("SELECT c.a_type, c.a_id, c.b_type, c.b_id, u.target_type, u.target_id, "
                      "c.kind, c.decided_by, c.revoked_at, u.action, u.subject_lineage "
                      "FROM identity_constraint c, user_correction u"),
            Rows{row.rejected + std::string("|different|user|NULL|different_person|grouping")});
        EXPECT_EQ(r.db.dump({"identity_membership", "person", "merge_event"}), untouched);
        EXPECT_EQ(r.events, (std::vector<Event>{{Kind::rejectCandidate, 2, 0, 0, 0, 0, {}}}));
    }
}

// A sink that throws cannot turn a committed correction into a reported failure
// (a caller would retry it and confirm twice).
TEST(ConfirmOrRejectCandidate, ASinkThatThrowsDoesNotFailTheCommittedCorrection) {
    test::TestDatabase db;
    db.addIdentity("a", "email", "a@x");
    db.addIdentity("b", "phone", "+2");
    int calls = 0;
    IdentityRepository repo(db.sharedPool(), [&](const Event&) {
        ++calls;
        throw std::runtime_error("log is full");
    });
    const IdentityCandidate candidate{*repo.sourceIdentity("a"), *repo.sourceIdentity("b"),
                                      std::nullopt, 0.9, "why"};
    const auto result = repo.confirmCandidate(candidate, SubjectLineage::person, "subj");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(repo.resolveCanonicalPerson("b")->personID, result.personID);
    EXPECT_NO_THROW(repo.undoConfirmation(result.mergeEventIDs));
    EXPECT_FALSE(repo.resolveCanonicalPerson("b"));
}

// Confirm and reject failures roll everything back and emit nothing.
TEST(ConfirmOrRejectCandidate, FailuresRollBackEverythingAndEmitNothing) {
    const auto owner = IdentityStoreError(IdentityStoreError::Case::ownerIdentityUnmergeable);
    const auto blocked = IdentityStoreError(IdentityStoreError::Case::blockedDifferent);
    struct Row {
        const char *name, *personA, *personB;
        std::string setup;
        IdentityStoreError expected;
        bool reject = false;
    };
    for (const Row& row : std::vector<Row>{
             // Refused although two members of one person would need no write.
             {"b is an owner alias", "pa", "pa",
              "INSERT INTO owner_alias (source_type, handle_normalized) VALUES ('phone', '+2');",
              owner},
             {"link blocked", nullptr, "pb",
              "INSERT INTO identity_constraint VALUES ('k', 'identity', 'a', 'person', 'pb', "
              "'different', 'user', 'x', NULL);",
              blocked},
             {"link post-condition fails", nullptr, nullptr,
              "CREATE TRIGGER undo_link AFTER INSERT ON merge_event BEGIN "
              "UPDATE identity_membership SET ended_at = 'x'; END;",
              IdentityStoreError::invalidArgs("confirm failed: error")},
             {"merge blocked by an automatic constraint", "pa", "pb",
              "INSERT INTO identity_constraint VALUES ('k', 'person', 'pa', 'person', 'pb', "
              "'different', 'auto', 'x', NULL);",
              blocked},
             {"merge excluded", "pa", "pb",
              "INSERT INTO exclusion_rule (id, scope, target_id) VALUES ('" +
                  host::stableID("owner-alias-exclusion", "pb") + "', 'person', 'pb');",
              IdentityStoreError::excluded("One of these people is you. To change that, remove "
                                           "the handle from your own handles.")},
             {"reject: one person at present, no merge event between them", "pa", "pb",
              "INSERT INTO person VALUES ('pc', NULL, 'stub', NULL, NULL, NULL, 'x');"
              "UPDATE person SET merged_into_person_id = 'pc' WHERE id IN ('pa', 'pb');",
              IdentityStoreError::invalidArgs("reject failed: error"), true},
             {"reject: membership to a missing person", "pa", "gone", "",
              IdentityStoreError::notFound("person_id_b not found"), true},
         }) {
        SCOPED_TRACE(row.name);
        Store s(row.personA, row.personB);
        s.db.exec(row.setup);
        const std::string before = s.db.dump();
        try {
            row.reject
                ? s.repo.rejectCandidate(s.candidate(), SubjectLineage::person, "subj")
                : (void)s.repo.confirmCandidate(s.candidate(), SubjectLineage::person, "subj");
            ADD_FAILURE() << "no error";
        } catch (const IdentityStoreError& e) {
            EXPECT_EQ(e, row.expected) << e.what();
        }
        EXPECT_EQ(s.db.dump(), before);
        EXPECT_TRUE(s.events.empty());
    }
}

TEST(MarkDifferent, RefusalsAnswerExactlyAndWriteNothing) {
    const auto unconnected =
        refused("no reversible merge connects these people", Taxonomy::invalidArguments);
    struct Row {
        const char *name, *a, *b;
        schema::MarkDifferentResponse expected;
    };
    for (const Row& row : std::vector<Row>{
             {"same id", "pa", "pa",
              refused("person_id_a and person_id_b must differ", Taxonomy::invalidArguments)},
             {"missing first", "nope", "pb", refused("person_id_a not found", Taxonomy::notFound)},
             {"missing second", "pa", "nope", refused("person_id_b not found", Taxonomy::notFound)},
             // px and py are absorbed (and so found) but joined by no unreversed merge.
             {"absorbed into one, merge reversed", "pa", "px", unconnected},
             {"both absorbed into a third", "px", "py", unconnected},
         }) {
        SCOPED_TRACE(row.name);
        Store s;
        s.db.addPerson("px", "pa");
        s.db.addPerson("py", "pa");
        s.db.exec(
            "INSERT INTO merge_event VALUES ('e', 'pa', 'px', '{}', NULL, 'user', 'x', 'y', NULL)");
        const std::string before = s.db.dump();
        EXPECT_EQ(s.repo.markDifferent(markDifferent(row.a, row.b)), row.expected);
        EXPECT_EQ(s.db.dump(), before);
        EXPECT_TRUE(s.events.empty());
    }
}

TEST(MarkDifferent, SplitsAMergedPairByUndoingTheMergeFirst) {
    Store s("pa", "pb");
    ASSERT_TRUE(
        s.repo.proposeMerge({3000, "pa", "pb", "subj", SubjectLineage::person, true}).mergeEventID);
    // Named the other way round from the merge.
    const auto response = s.repo.markDifferent(markDifferent("pb", "pa"));
    ASSERT_TRUE(response.constraintID);
    EXPECT_EQ(s.persons(), (Rows{"pa", "pb"}));
    EXPECT_EQ(s.db.rows("SELECT merged_into_person_id FROM person"), (Rows{"NULL", "NULL"}));
    // The merge's "same" constraint is revoked.
    EXPECT_EQ(s.db.rows("SELECT id, a_id, b_id FROM identity_constraint WHERE kind = "
                        "'different' OR revoked_at IS NULL"),
              Rows{*response.constraintID + "|pb|pa"});
    EXPECT_EQ(s.events, (std::vector<Event>{{Kind::markDifferent, 2, 0, 0, 0, 0, {}}}));
}

}  // namespace
}  // namespace orvik::identity
