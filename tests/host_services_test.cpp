#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "host/HostServices.h"
#include "host/OrvikSchema.h"
#include "tests/support/TestSupport.h"

namespace orvik::host {
namespace {

using store::Connection;
using store::DatabaseError;
using test::TestDatabase;

constexpr int kSqliteConstraint = 19;

// The first column of every row, in statement order.
std::vector<std::string> firstColumn(TestDatabase& db, const std::string& sql) {
    return db.pool().read([&](Connection& c) {
        std::vector<std::string> values;
        c.query(sql, {}, [&](const store::Row& row) { values.push_back(row.text(0)); });
        return values;
    });
}

// 'h' stands for a lower-case hex digit, 'd' for a decimal digit, anything else for
// itself.
bool hasShape(std::string_view text, std::string_view shape) {
    if (text.size() != shape.size()) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const bool digit = c >= '0' && c <= '9';
        const bool ok = shape[i] == 'h'   ? digit || (c >= 'a' && c <= 'f')
                        : shape[i] == 'd' ? digit
                                          : c == shape[i];
        if (!ok) {
            return false;
        }
    }
    return true;
}

TEST(DerivedIdentifiers, StableIDMatchesKnownDigestsAndFreshValuesAreWellFormed) {
    EXPECT_EQ(stableID("owner-alias-exclusion", "p-1"), "e08c1c1f-ca8d-2e27-5119-4f813fa16bbb");
    EXPECT_EQ(stableID("constraint-remint", "c-1", "si-9"), "aa395e98-4f49-f1c2-d80d-361fab58e841");
    EXPECT_EQ(stableID("person-auto", "email", "dana@example.com"),
              "39700158-f20c-b564-39cf-056d1239aef4");
    EXPECT_EQ(stableID("a"), "ca978112-ca1b-bdca-fac2-31b39a23dc4d");
    // The separator keeps part boundaries significant.
    EXPECT_NE(stableID("ab", "c"), stableID("a", "bc"));

    const std::string first = newUUID();
    EXPECT_TRUE(hasShape(first, "hhhhhhhh-hhhh-4hhh-hhhh-hhhhhhhhhhhh")) << first;
    EXPECT_NE(first, newUUID());

    const std::string now = nowTimestamp();
    EXPECT_TRUE(hasShape(now, "dddd-dd-ddTdd:dd:ddZ")) << now;
}

TEST(SchemaRecords, RawValuesRoundTripAndOrdinalsAreBounded) {
    using schema::SubjectLineage;
    for (auto lineage :
         {SubjectLineage::grouping, SubjectLineage::person, SubjectLineage::sourceIdentity}) {
        EXPECT_EQ(schema::parseSubjectLineage(schema::rawValue(lineage)), lineage);
    }
    EXPECT_EQ(schema::rawValue(SubjectLineage::sourceIdentity), "source_identity");
    EXPECT_EQ(schema::parseSubjectLineage("Person"), std::nullopt);
    EXPECT_EQ(schema::parseSubjectLineage("sourceIdentity"), std::nullopt);

    EXPECT_EQ(schema::taxonomyFromOrdinal(3), schema::Taxonomy::notFound);
    EXPECT_EQ(schema::taxonomyFromOrdinal(-1), std::nullopt);
    EXPECT_EQ(schema::taxonomyFromOrdinal(5), std::nullopt);

    EXPECT_EQ(schema::rawValue(schema::LinkIdentityResponse::Status::belowThresholdQuestion),
              "below_threshold_question");
    EXPECT_EQ(schema::rawValue(schema::ProposeMergeResponse::Status::blockedDifferent),
              "blocked_different");
}

// One row per table, naming only the columns every writer is guaranteed to know.
constexpr const char* kMinimalRows = R"sql(
INSERT INTO source_identity (id, source_type, handle_normalized, first_seen_at, last_seen_at, created_at) VALUES ('si-1', 'email', 'dana@example.com', 't', 't', 't');
INSERT INTO person (id, tier, created_at) VALUES ('p-1', 'stub', 't');
INSERT INTO identity_membership (id, source_identity_id, canonical_person_id, state, decided_by, decided_at, created_at) VALUES ('m-1', 'si-1', 'p-1', 'confirmed', 'user', 't', 't');
INSERT INTO identity_constraint (id, a_type, a_id, b_type, b_id, kind, decided_by, created_at) VALUES ('c-1', 'person', 'p-1', 'person', 'p-2', 'different', 'user', 't');
INSERT INTO merge_event (id, surviving_person_id, pre_merge_state_json, decided_by, created_at) VALUES ('e-1', 'p-1', '{}', 'user', 't');
INSERT INTO user_correction (id, target_type, target_id, action, subject_lineage, subject_id, created_at) VALUES ('u-1', 'person', 'p-1', 'same_person', 'person', 'p-1', 't');
INSERT INTO claim (id, predicate, provenance) VALUES ('cl-1', 'display_name', 'user_stated');
INSERT INTO capture_person_association (source_object_id, person_id) VALUES ('o-1', 'p-1');
INSERT INTO follow_up (id, open_loop_id, person_id, state) VALUES ('f-1', 'l-1', 'p-1', 'scheduled');
INSERT INTO open_loop (id, person_id) VALUES ('l-1', 'p-1');
INSERT INTO relationship_attention_disposition (candidate_key, person_id) VALUES ('k-1', 'p-1');
INSERT INTO relationship_attention_candidate (candidate_key, person_id, open_loop_id) VALUES ('k-1', 'p-1', 'l-1');
INSERT INTO thread_participant (thread_id, source_identity_id) VALUES ('t-1', 'si-1');
INSERT INTO source_account (source_type, handle) VALUES ('email', 'me@example.com');
INSERT INTO owner_alias (source_type, handle_normalized) VALUES ('email', 'me@example.com');
INSERT INTO exclusion_rule (id, scope, target_id) VALUES ('x-1', 'person', 'p-9');
INSERT INTO owner_ego (person_id) VALUES ('p-1');
INSERT INTO relationship_projection_generation (id, generation) VALUES (1, 7);
)sql";

TEST(ReferenceSchema, IsIdempotentAndAcceptsRowsWithOnlyTheKnownColumns) {
    TestDatabase db;
    db.exec(kMinimalRows);
    const std::string before = db.dump();
    db.pool().write([](Connection& c) { createReferenceSchema(c); });
    EXPECT_EQ(db.dump(), before);

    // Eighteen tables, each holding its one row; the history table keeps a rowid.
    EXPECT_EQ(firstColumn(db, "SELECT count(*) FROM sqlite_master WHERE type = 'table'"),
              std::vector<std::string>{"18"});
    EXPECT_EQ(firstColumn(db, "SELECT rowid FROM merge_event"), std::vector<std::string>{"1"});
}

TEST(ReferenceSchema, KeysAreTheOnlyUniquenessConstraints) {
    TestDatabase db;
    db.exec(kMinimalRows);

    // Shared handles and repeated values outside the keys are normal data.
    EXPECT_NO_THROW(db.exec(
        "INSERT INTO source_identity (id, source_type, handle_normalized, first_seen_at, "
        "last_seen_at, created_at) VALUES ('si-2', 'email', 'dana@example.com', 't', 't', 't');"
        "INSERT INTO identity_membership (id, source_identity_id, canonical_person_id, state, "
        "decided_by, decided_at, created_at) VALUES ('m-2', 'si-1', 'p-1', 'confirmed', 'user', "
        "'t', 't');"
        "INSERT INTO exclusion_rule (id, scope, target_id) VALUES ('x-2', 'person', 'p-9');"
        "INSERT INTO capture_person_association (source_object_id, person_id) VALUES ('o-1', "
        "'p-2');"
        "INSERT INTO merge_event (id, surviving_person_id, pre_merge_state_json, decided_by, "
        "created_at, operation_id) VALUES ('e-2', 'p-1', '{}', 'user', 't', NULL);"));

    const std::vector<std::string> duplicates = {
        "INSERT INTO source_identity (id, source_type, handle_normalized, first_seen_at, "
        "last_seen_at, created_at) VALUES ('si-1', 'phone', '+1', 't', 't', 't')",
        "INSERT INTO person (id, tier, created_at) VALUES ('p-1', 'full', 'u')",
        "INSERT INTO merge_event (id, surviving_person_id, pre_merge_state_json, decided_by, "
        "created_at) VALUES ('e-1', 'p-2', '{}', 'auto', 'u')",
        "INSERT INTO capture_person_association (source_object_id, person_id) VALUES ('o-1', "
        "'p-1')",
        "INSERT INTO thread_participant (thread_id, source_identity_id) VALUES ('t-1', 'si-1')",
        "INSERT INTO owner_alias (source_type, handle_normalized) VALUES ('email', "
        "'me@example.com')",
        "INSERT INTO relationship_attention_candidate (candidate_key, person_id, open_loop_id) "
        "VALUES ('k-1', 'p-2', 'l-2')",
        "INSERT INTO owner_ego (person_id) VALUES ('p-2')",
        "INSERT INTO relationship_projection_generation (id, generation) VALUES (1, 1)",
    };
    for (const auto& sql : duplicates) {
        try {
            db.exec(sql);
            ADD_FAILURE() << "accepted: " << sql;
        } catch (const DatabaseError& error) {
            EXPECT_EQ(error.primaryCode(), kSqliteConstraint) << sql;
        }
    }

    // Beyond the declared keys, only the single-row guard of owner_ego is unique.
    EXPECT_EQ(firstColumn(db,
                          "SELECT tbl_name FROM sqlite_master WHERE type = 'index' "
                          "AND sql LIKE 'CREATE UNIQUE%'"),
              std::vector<std::string>{"owner_ego"});

    // A missing NOT NULL column is refused rather than stored as NULL.
    EXPECT_THROW(db.exec("INSERT INTO person (id, created_at) VALUES ('p-3', 't')"), DatabaseError);
}

class HostServicesTest : public ::testing::Test {
  protected:
    TestDatabase db;
    HostServices services = HostServices::reference();

    void seedMembership(const std::string& id, const std::string& identity,
                        const std::string& person, const std::string& state,
                        const std::string& endedAt = "NULL") {
        db.exec(
            "INSERT INTO identity_membership (id, source_identity_id, canonical_person_id, "
            "state, decided_by, decided_at, ended_at, created_at) VALUES ('" +
            id + "', '" + identity + "', '" + person + "', '" + state + "', 'auto', 't', " +
            endedAt + ", 't')");
    }

    OwnerAliasRegistry::Declaration declare(const std::string& handle,
                                            const std::string& identity) {
        return db.pool().write([&](Connection& c) {
            return services.ownerAliases->declareAliasAndExcludeBoundPerson(c, "email", handle,
                                                                            "subject-1", identity);
        });
    }
};

TEST_F(HostServicesTest, OwnerEgoIsReadFromItsTable) {
    auto read = [&] {
        return db.pool().read([&](Connection& c) { return services.ownerEgo->personID(c); });
    };
    EXPECT_EQ(read(), "");
    db.exec("INSERT INTO owner_ego (person_id) VALUES ('p-me')");
    EXPECT_EQ(read(), "p-me");
}

TEST_F(HostServicesTest, DeclaringAnAliasExcludesTheBoundPersonOnce) {
    seedMembership("m-1", "si-1", "p-1", "confirmed");
    seedMembership("m-2", "si-2", "p-1", "high_conf");

    using Declaration = OwnerAliasRegistry::Declaration;
    EXPECT_EQ(declare("me@example.com", "si-1"), (Declaration{true, "p-1", true}));
    EXPECT_EQ(
        firstColumn(db,
                    "SELECT id || '|' || scope || '|' || target_id || '|' || reason || '|' || "
                    "length(created_at) FROM exclusion_rule"),
        std::vector<std::string>{"e08c1c1f-ca8d-2e27-5119-4f813fa16bbb|person|p-1|owner_alias|20"});
    EXPECT_EQ(firstColumn(db,
                          "SELECT subject_id || '|' || source_identity_id || '|' || "
                          "length(created_at) FROM owner_alias"),
              std::vector<std::string>{"subject-1|si-1|20"});

    // Known alias, and a second alias of the same person: the rule is already there.
    EXPECT_EQ(declare("me@example.com", "si-1"), (Declaration{false, "p-1", false}));
    EXPECT_EQ(declare("me2@example.com", "si-2"), (Declaration{true, "p-1", false}));
    EXPECT_EQ(firstColumn(db, "SELECT count(*) FROM exclusion_rule"),
              std::vector<std::string>{"1"});

    db.pool().write([&](Connection& c) {
        EXPECT_TRUE(services.ownerAliases->isAlias(c, "email", "me2@example.com"));
        EXPECT_FALSE(services.ownerAliases->isAlias(c, "phone", "me2@example.com"));
        services.ownerAliases->removeAlias(c, "email", "me2@example.com");
        EXPECT_FALSE(services.ownerAliases->isAlias(c, "email", "me2@example.com"));
        EXPECT_TRUE(services.ownerAliases->isAlias(c, "email", "me@example.com"));
    });
}

TEST_F(HostServicesTest, OnlyAnActiveMembershipBindsAPerson) {
    seedMembership("m-1", "si-1", "p-1", "possible");
    seedMembership("m-2", "si-1", "p-2", "confirmed", "'2024-01-01T00:00:00Z'");

    using Declaration = OwnerAliasRegistry::Declaration;
    EXPECT_EQ(declare("me@example.com", "si-1"), (Declaration{true, std::nullopt, false}));
    EXPECT_EQ(declare("other@example.com", "si-unknown"), (Declaration{true, std::nullopt, false}));
    EXPECT_EQ(db.dump({"exclusion_rule"}), "");
}

TEST_F(HostServicesTest, ProjectionGenerationStartsAtOneAndAdvances) {
    auto bumpAndRead = [&] {
        db.pool().write([&](Connection& c) { services.projectionGeneration->bump(c); });
        return firstColumn(
            db, "SELECT id || ':' || generation FROM relationship_projection_generation");
    };
    EXPECT_EQ(bumpAndRead(), std::vector<std::string>{"1:1"});
    EXPECT_EQ(bumpAndRead(), std::vector<std::string>{"1:2"});

    db.exec("UPDATE relationship_projection_generation SET generation = 41");
    EXPECT_EQ(bumpAndRead(), std::vector<std::string>{"1:42"});
}

TEST_F(HostServicesTest, EligibilityFragmentsFilterByExclusionScope) {
    db.exec(R"sql(
        INSERT INTO source_identity (id, source_type, handle_normalized, first_seen_at, last_seen_at, created_at)
            VALUES ('si-1', 'email', 'a', 't', 't', 't'), ('si-2', 'email', 'b', 't', 't', 't');
        INSERT INTO person (id, tier, created_at) VALUES ('p-1', 'stub', 't'), ('p-2', 'stub', 't');
        INSERT INTO exclusion_rule (id, scope, target_id) VALUES
            ('x-1', 'source_identity', 'si-2'), ('x-2', 'person', 'si-1'),
            ('x-3', 'person', 'p-2'), ('x-4', 'source_identity', 'p-1');
    )sql");

    const auto& shown = services.presentationEligibility;
    for (const auto& predicate :
         {shown->presentationPredicateSQL("s.id", "s.source_type", std::nullopt),
          shown->presentationPredicateSQL("s.id", "s.source_type", std::string("p.id")),
          shown->manualCorrectionPredicateSQL("s.id", "s.source_type", "s.handle_normalized")}) {
        EXPECT_EQ(firstColumn(db, "SELECT s.id FROM source_identity s WHERE " + predicate +
                                      " ORDER BY s.id"),
                  std::vector<std::string>{"si-1"})
            << predicate;
    }

    for (auto policy : {SourceEligibility::Policy::any, SourceEligibility::Policy::presentation,
                        SourceEligibility::Policy::identityCorrection}) {
        const auto predicate = services.sourceEligibility->personPredicateSQL(policy, "p.id");
        EXPECT_EQ(
            firstColumn(db, "SELECT p.id FROM person p WHERE " + predicate + " ORDER BY p.id"),
            std::vector<std::string>{"p-1"})
            << predicate;
    }
}

TEST(FollowUpScheduler, AttentionItemNeedsADetectionTime) {
    const auto services = HostServices::reference();
    auto& scheduler = *services.followUps;
    EXPECT_EQ(scheduler.attentionItem("p-1", "l-1", std::nullopt), std::nullopt);
    EXPECT_EQ(scheduler.attentionItem("p-1", "l-1", std::string()), std::nullopt);
    EXPECT_EQ(scheduler.attentionItem("p-1", "l-1", std::string("2024-05-01T10:00:00Z")),
              (FollowUpScheduler::AttentionCatchUpItem{"follow-up|p-1|l-1|2024-05-01T10:00:00Z",
                                                       "p-1", "l-1", "2024-05-01T10:00:00Z"}));
}

TEST_F(HostServicesTest, ReprojectionRebuildsThePersonsCandidatesFromScheduledFollowUps) {
    db.exec(R"sql(
        INSERT INTO open_loop (id, person_id, detected_at) VALUES
            ('l-1', 'p-1', 'd1'), ('l-2', 'p-1', 'd2'), ('l-3', 'p-1', 'd3'),
            ('l-4', 'p-1', NULL), ('l-5', 'p-1', ''), ('l-9', 'p-9', 'd9');
        INSERT INTO follow_up (id, open_loop_id, person_id, state) VALUES
            ('f-2', 'l-2', 'p-1', 'scheduled'), ('f-1', 'l-1', 'p-1', 'scheduled'),
            ('f-3', 'l-3', 'p-1', 'done'), ('f-4', 'l-4', 'p-1', 'scheduled'),
            ('f-5', 'l-5', 'p-1', 'scheduled'), ('f-6', 'l-missing', 'p-1', 'scheduled'),
            ('f-9', 'l-9', 'p-9', 'scheduled');
        INSERT INTO relationship_attention_candidate (candidate_key, person_id, open_loop_id, detected_at) VALUES
            ('stale', 'p-1', 'l-3', 'd3'), ('follow-up|p-1|l-1|d1', 'p-1', 'l-1', 'old'),
            ('follow-up|p-9|l-9|d9', 'p-9', 'l-9', 'd9');
    )sql");

    db.pool().write([&](Connection& c) { services.followUps->reprojectCandidatesCore(c, "p-1"); });
    EXPECT_EQ(db.dump({"relationship_attention_candidate"}),
              "relationship_attention_candidate(candidate_key='follow-up|p-1|l-1|d1',"
              "detected_at='d1',open_loop_id='l-1',person_id='p-1')\n"
              "relationship_attention_candidate(candidate_key='follow-up|p-1|l-2|d2',"
              "detected_at='d2',open_loop_id='l-2',person_id='p-1')\n"
              "relationship_attention_candidate(candidate_key='follow-up|p-9|l-9|d9',"
              "detected_at='d9',open_loop_id='l-9',person_id='p-9')\n");

    db.pool().write([&](Connection& c) { services.followUps->retractCandidate(c, "l-2"); });
    EXPECT_EQ(firstColumn(db,
                          "SELECT open_loop_id FROM relationship_attention_candidate "
                          "ORDER BY open_loop_id"),
              (std::vector<std::string>{"l-1", "l-9"}));
}

}  // namespace
}  // namespace orvik::host
