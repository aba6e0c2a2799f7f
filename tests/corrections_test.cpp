#include <gtest/gtest.h>

#include "identity/IdentityRepository.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Case = IdentityStoreError::Case;
using Event = IdentityCorrectionWitness::Event;
using Kind = IdentityCorrectionWitness::Kind;
using Rows = std::vector<std::string>;

Event witness(Kind kind, std::int64_t mergeEvents = 0, std::int64_t absorbed = 0,
              std::optional<std::string> operationID = std::nullopt) {
    return Event{.kind = kind,
                 .identityCount = 2,
                 .mergeEventCount = mergeEvents,
                 .absorbedPersonCount = absorbed,
                 .restoredPersonCount = 0,
                 .restoredMembershipCount = 0,
                 .operationID = std::move(operationID)};
}

schema::MarkDifferentResponse refused(const char* message, Taxonomy taxonomy) {
    return {
        .constraintID = std::nullopt, .refused = true, .message = message, .taxonomy = taxonomy};
}

schema::MarkDifferentRequest markDifferentRequest(const std::string& a, const std::string& b) {
    return {.reason = "not the same",
            .presetValue = 3000,
            .personIDA = a,
            .personIDB = b,
            .subjectID = "subj",
            .subjectLineage = SubjectLineage::person};
}

// Two identities a and b, persons pa and pb, and a repository that records its
// witness events. Each test seeds the memberships it needs.
struct Store {
    test::TestDatabase db;
    std::vector<Event> events;
    IdentityRepository repo{db.sharedPool(), [this](const Event& e) { events.push_back(e); }};

    Store() {
        db.addIdentity("a", "email", "a@x");
        db.addIdentity("b", "phone", "+2");
        db.addPerson("pa");
        db.addPerson("pb");
        db.exec("INSERT INTO thread_participant VALUES ('t', 'a'), ('t', 'b')");
    }

    IdentityCandidate candidate() {
        return {.sourceIdentityA = *repo.sourceIdentity("a"),
                .sourceIdentityB = *repo.sourceIdentity("b"),
                .existingPersonID = std::nullopt,
                .score = 0.9,
                .because = "same name"};
    }

    void attach(const char* personA, const char* personB) {
        if (personA) {
            db.addMembership("ma", "a", personA);
        }
        if (personB) {
            db.addMembership("mb", "b", personB);
        }
    }

    std::optional<std::string> personOf(const std::string& identity) {
        const auto m = repo.activeMembership(identity);
        return m ? std::optional(m->canonicalPersonID) : std::nullopt;
    }

    // Runs fn, which must throw `expected`, and checks that it left nothing behind.
    template <typename F>
    void expectFailure(F&& fn, const IdentityStoreError& expected) {
        const std::string before = db.dump();
        try {
            fn();
            ADD_FAILURE() << "no error";
        } catch (const IdentityStoreError& e) {
            EXPECT_EQ(e, expected) << e.what();
        }
        EXPECT_EQ(db.dump(), before);
        EXPECT_TRUE(events.empty());
    }
};

TEST(ConfirmCandidate, JoinsTheTwoIdentitiesInEachOfTheFiveSituations) {
    struct Row {
        const char* name;
        const char *personA, *personB;  // seeded memberships
        const char* expectedPerson;     // null: a new stub person
        std::int64_t events, absorbed;
    };
    const std::vector<Row> rows = {
        {"neither attached", nullptr, nullptr, nullptr, 2, 0},
        {"only b attached", nullptr, "pb", "pb", 1, 0},
        {"only a attached", "pa", nullptr, "pa", 1, 0},
        {"same person", "pa", "pa", "pa", 0, 0},
        {"different persons: a's survives", "pa", "pb", "pa", 1, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Store s;
        s.attach(row.personA, row.personB);
        const std::string before = s.db.dump();

        const auto result = s.repo.confirmCandidate(s.candidate(), SubjectLineage::person, "subj");
        EXPECT_EQ(result.personID, row.expectedPerson ? row.expectedPerson : result.personID);
        EXPECT_EQ(
            s.db.rows("SELECT id, tier, created_from FROM person WHERE id NOT IN ('pa', 'pb')"),
            row.expectedPerson ? Rows{} : Rows{result.personID + "|stub|identity_correction"});
        EXPECT_EQ(s.personOf("a"), result.personID);
        EXPECT_EQ(s.personOf("b"), result.personID);

        ASSERT_EQ(s.events.size(), 1u);
        const auto& op = s.events[0].operationID;
        ASSERT_TRUE(op && op->size() == 36);
        EXPECT_EQ(s.events[0], witness(Kind::confirmCandidate, row.events, row.absorbed, op));
        // Every event carries the operation id; the result lists them in order.
        EXPECT_EQ(s.db.rows("SELECT id FROM merge_event ORDER BY rowid"), result.mergeEventIDs);
        EXPECT_EQ(s.db.rows("SELECT DISTINCT operation_id FROM merge_event"),
                  row.events ? Rows{*op} : Rows{});
        if (row.events == 0) {
            EXPECT_EQ(s.db.dump(), before);
        } else if (row.events == 2) {  // a's link comes first
            EXPECT_EQ(s.db.rows("SELECT because FROM merge_event ORDER BY rowid"),
                      (Rows{"user confirmed", "1 shared thread"}));
        } else if (row.absorbed == 1) {
            EXPECT_EQ(s.db.rows("SELECT merged_into_person_id FROM person WHERE id = 'pb'"),
                      Rows{"pa"});
            EXPECT_EQ(s.db.rows("SELECT target_id, subject_lineage, subject_id FROM "
                                "user_correction"),
                      Rows{"pb|person|subj"});
        }
    }
}

TEST(ConfirmCandidate, FailuresRollBackEverythingAndEmitNothing) {
    struct Row {
        const char* name;
        const char *personA, *personB;
        std::string setup;
        IdentityStoreError expected;
    };
    const auto owner = IdentityStoreError(Case::ownerIdentityUnmergeable);
    const auto blocked = IdentityStoreError(Case::blockedDifferent);
    const std::vector<Row> rows = {
        // Checked before the stub person of the neither-attached case is created.
        {"a is a connected account", nullptr, nullptr,
         "INSERT INTO source_account VALUES ('email', 'a@x');", owner},
        // Refused although two members of one person would need no write.
        {"b is an owner alias", "pa", "pa",
         "INSERT INTO owner_alias (source_type, handle_normalized) VALUES ('phone', '+2');", owner},
        {"link into the user's own person", "pa", nullptr, "INSERT INTO owner_ego VALUES ('pa');",
         owner},
        {"link blocked", nullptr, "pb",
         "INSERT INTO identity_constraint VALUES ('k', 'identity', 'a', 'person', 'pb', "
         "'different', 'user', 'x', NULL);",
         blocked},
        {"link into an absorbed person", nullptr, "pb",
         "UPDATE person SET merged_into_person_id = 'pa' WHERE id = 'pb';",
         IdentityStoreError::notFound("person not found or absorbed")},
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
         IdentityStoreError::excluded("One of these people is you. To change that, remove the "
                                      "handle from your own handles.")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Store s;
        s.attach(row.personA, row.personB);
        s.db.exec(row.setup);
        s.expectFailure(
            [&] { s.repo.confirmCandidate(s.candidate(), SubjectLineage::person, "subj"); },
            row.expected);
    }
}

// Between the persons when a and b have two, else between the identities, which
// keep their memberships.
TEST(RejectCandidate, RecordsTheConstraintAtTheRightLevel) {
    struct Row {
        const char* name;
        const char *personA, *personB;
        const char* constraint;
        const char* correction;
    };
    const std::vector<Row> rows = {
        {"different persons", "pa", "pb", "person|pa|person|pb", "person|pb"},
        {"neither attached", nullptr, nullptr, "identity|a|identity|b", "source_identity|b"},
        {"only a attached", "pa", nullptr, "identity|a|identity|b", "source_identity|b"},
        {"same person", "pa", "pa", "identity|a|identity|b", "source_identity|b"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Store s;
        s.attach(row.personA, row.personB);
        const auto untouched = s.db.dump({"identity_membership", "person", "merge_event"});
        s.repo.rejectCandidate(s.candidate(), SubjectLineage::grouping, "subj");
        EXPECT_EQ(s.db.rows("SELECT a_type, a_id, b_type, b_id FROM identity_constraint WHERE "
                            "kind = 'different' AND decided_by = 'user' AND revoked_at IS NULL"),
                  Rows{row.constraint});
        EXPECT_EQ(s.db.rows("SELECT count(*) FROM identity_constraint"), Rows{"1"});
        EXPECT_EQ(s.db.rows("SELECT target_type, target_id FROM user_correction WHERE action = "
                            "'different_person' AND subject_lineage = 'grouping' AND subject_id = "
                            "'subj'"),
                  Rows{row.correction});
        EXPECT_EQ(s.db.dump({"identity_membership", "person", "merge_event"}), untouched);
        EXPECT_EQ(s.events, std::vector<Event>{witness(Kind::rejectCandidate)});
    }
}

TEST(RejectCandidate, RefusedMarkDifferentBecomesAnError) {
    {
        SCOPED_TRACE("one person at present, with no merge event between them");
        Store s;
        s.db.addPerson("pc");
        s.db.exec("UPDATE person SET merged_into_person_id = 'pc' WHERE id IN ('pa', 'pb')");
        s.attach("pa", "pb");
        s.expectFailure(
            [&] { s.repo.rejectCandidate(s.candidate(), SubjectLineage::person, "subj"); },
            IdentityStoreError::invalidArgs("reject failed: error"));
    }
    {
        SCOPED_TRACE("membership to a missing person");
        Store s;
        s.attach("pa", "gone");
        s.expectFailure(
            [&] { s.repo.rejectCandidate(s.candidate(), SubjectLineage::person, "subj"); },
            IdentityStoreError::notFound("person_id_b not found"));
    }
}

TEST(MarkDifferent, RefusalsAnswerExactlyAndWriteNothing) {
    struct Row {
        const char* name;
        const char* a;
        const char* b;
        schema::MarkDifferentResponse expected;
    };
    const std::vector<Row> rows = {
        {"same id", "pa", "pa",
         refused("person_id_a and person_id_b must differ", Taxonomy::invalidArguments)},
        {"missing first", "nope", "pb", refused("person_id_a not found", Taxonomy::notFound)},
        {"missing second", "pa", "nope", refused("person_id_b not found", Taxonomy::notFound)},
        // px and py are absorbed (and so found) but joined by no unreversed merge.
        {"absorbed into one, merge reversed", "pa", "px",
         refused("no reversible merge connects these people", Taxonomy::invalidArguments)},
        {"both absorbed into a third", "px", "py",
         refused("no reversible merge connects these people", Taxonomy::invalidArguments)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Store s;
        s.db.addPerson("px", "pa");
        s.db.addPerson("py", "pa");
        s.db.exec(
            "INSERT INTO merge_event VALUES ('e', 'pa', 'px', '{}', NULL, 'user', 'x', 'y', NULL)");
        const std::string before = s.db.dump();
        EXPECT_EQ(s.repo.markDifferent(markDifferentRequest(row.a, row.b)), row.expected);
        EXPECT_EQ(s.db.dump(), before);
        EXPECT_TRUE(s.events.empty());
    }
}

TEST(MarkDifferent, SplitsAMergedPairByUndoingTheMergeFirst) {
    Store s;
    s.attach("pa", "pb");
    const auto merged =
        s.repo.proposeMerge({3000, "pa", "pb", "subj", SubjectLineage::person, true});
    ASSERT_TRUE(merged.mergeEventID);

    // Named the other way round from the merge.
    const auto response = s.repo.markDifferent(markDifferentRequest("pb", "pa"));
    ASSERT_TRUE(response.constraintID);
    EXPECT_FALSE(response.refused);
    EXPECT_EQ(s.db.rows("SELECT merged_into_person_id FROM person WHERE id = 'pb'"), Rows{"NULL"});
    EXPECT_EQ(s.db.rows("SELECT reversed_at IS NOT NULL FROM merge_event"), Rows{"1"});
    EXPECT_EQ(s.personOf("b"), "pb");
    EXPECT_EQ(s.db.rows("SELECT id, a_id, b_id, revoked_at FROM identity_constraint WHERE kind = "
                        "'different'"),
              Rows{*response.constraintID + "|pb|pa|NULL"});
    EXPECT_EQ(s.db.rows("SELECT count(*) FROM identity_constraint WHERE kind = 'same' AND "
                        "revoked_at IS NULL"),
              Rows{"0"});
    EXPECT_EQ(s.db.rows("SELECT target_id, action FROM user_correction ORDER BY action"),
              (Rows{"pa|different_person", "pb|same_person"}));
    EXPECT_EQ(s.events, std::vector<Event>{witness(Kind::markDifferent)});
}

TEST(MarkDifferent, UndoErrorsAndFailedPostConditionsLeaveNoWitness) {
    {
        SCOPED_TRACE("the connecting merge was superseded");
        Store s;
        s.db.addMembership("mb", "b", "pb");
        ASSERT_TRUE(s.repo.proposeMerge({3000, "pa", "pb", "subj", SubjectLineage::person, true})
                        .mergeEventID);
        s.db.exec("UPDATE person SET display_name = 'renamed' WHERE id = 'pb'");
        s.expectFailure([&] { s.repo.markDifferent(markDifferentRequest("pa", "pb")); },
                        IdentityStoreError(Case::supersededByLaterCorrection));
    }
    {
        SCOPED_TRACE("post-condition refusal commits its rows");
        Store s;
        s.db.exec(
            "CREATE TRIGGER revoke_at_once AFTER INSERT ON identity_constraint BEGIN "
            "UPDATE identity_constraint SET revoked_at = 'x' WHERE id = NEW.id; END;");
        EXPECT_EQ(s.repo.markDifferent(markDifferentRequest("pa", "pb")),
                  refused("post-condition failed", Taxonomy::invalidArguments));
        EXPECT_EQ(s.db.rows("SELECT count(*) FROM identity_constraint"), Rows{"1"});
        EXPECT_EQ(s.db.rows("SELECT count(*) FROM user_correction"), Rows{"1"});
        EXPECT_TRUE(s.events.empty());
    }
}

}  // namespace
}  // namespace orvik::identity
