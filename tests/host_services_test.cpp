#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/HostServices.h"
#include "tests/support/TestSupport.h"

namespace orvik::host {
namespace {

using store::Connection;
using store::DatabaseError;
using test::TestDatabase;
using Rows = std::vector<std::string>;

TEST(DerivedIdentifiers, StableIDMatchesKnownDigestsAndFreshValuesAreWellFormed) {
    EXPECT_EQ(stableID("owner-alias-exclusion", "p-1"), "e08c1c1f-ca8d-2e27-5119-4f813fa16bbb");
    EXPECT_EQ(stableID("constraint-remint", "c-1", "si-9"), "aa395e98-4f49-f1c2-d80d-361fab58e841");
    EXPECT_EQ(stableID("person-auto", "email", "dana@example.com"),
              "39700158-f20c-b564-39cf-056d1239aef4");
    EXPECT_EQ(stableID("a"), "ca978112-ca1b-bdca-fac2-31b39a23dc4d");
    // The separator keeps part boundaries significant.
    EXPECT_NE(stableID("ab", "c"), stableID("a", "bc"));

    const std::string uuid = newUUID();
    EXPECT_TRUE(std::regex_match(uuid, std::regex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-"
                                                  "[0-9a-f]{4}-[0-9a-f]{12}")))
        << uuid;
    EXPECT_NE(uuid, newUUID());
    EXPECT_TRUE(std::regex_match(nowTimestamp(), std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")));
}

TEST(HostServices, IdentifiersAreVersion4AndAForkedChildDrawsItsOwn) {
    const std::regex v4("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    std::set<std::string> seen;
    for (int i = 0; i < 2000; ++i) {  // several refills of the random buffer
        const std::string id = newUUID();
        ASSERT_TRUE(std::regex_match(id, v4)) << id;
        ASSERT_TRUE(seen.insert(id).second) << id;
    }
    // Random bytes are drawn ahead: a child must not hand out the ones its parent
    // will hand out next.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const std::string id = newUUID();
        _exit(write(fds[1], id.data(), id.size()) == static_cast<ssize_t>(id.size()) ? 0 : 1);
    }
    const std::string parents = newUUID();
    char buffer[36];
    ASSERT_EQ(read(fds[0], buffer, sizeof buffer), 36);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    close(fds[0]);
    close(fds[1]);
    EXPECT_NE(std::string(buffer, 36), parents);
}

TEST(HostServices, NowIsTheCurrentSecondAlsoAfterTheSecondsPass) {
    using namespace std::chrono;
    // The text of one second is kept: it must move on with the clock.
    for (int i = 0; i < 3; ++i) {
        const auto before = floor<seconds>(system_clock::now());
        const std::string now = nowTimestamp();
        const auto after = floor<seconds>(system_clock::now());
        EXPECT_TRUE(now == timestampText(before) || now == timestampText(after)) << now;
        if (i < 2) {
            std::this_thread::sleep_for(milliseconds(600));
        }
    }
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

TEST(ReferenceSchema, IsIdempotentAcceptsMinimalRowsAndKeysAreTheOnlyUniqueness) {
    TestDatabase db;
    db.exec(kMinimalRows);
    const std::string before = db.dump();
    db.pool().write([](Connection& c) { createReferenceSchema(c); });
    EXPECT_EQ(db.dump(), before);
    // Eighteen tables, each holding its one row; the history table keeps a rowid.
    EXPECT_EQ(db.rows("SELECT count(*) FROM sqlite_master WHERE type = 'table'"), Rows{"18"});
    EXPECT_EQ(db.rows("SELECT rowid FROM merge_event"), Rows{"1"});

    // Shared handles and repeated values outside the keys are normal data.
    EXPECT_NO_THROW(db.exec(
        "INSERT INTO source_identity VALUES ('si-2', 'email', 'dana@example.com', NULL, 't', 't', "
        "'t'); INSERT INTO identity_membership VALUES ('m-2', 'si-1', 'p-1', 'confirmed', NULL, "
        "'user', 't', NULL, 't'); INSERT INTO exclusion_rule VALUES ('x-2', 'person', 'p-9', "
        "NULL, NULL); INSERT INTO capture_person_association VALUES ('o-1', 'p-2', NULL, NULL);"));

    for (const char* duplicate : {
             "INSERT INTO person (id, tier, created_at) VALUES ('p-1', 'full', 'u')",
             "INSERT INTO capture_person_association VALUES ('o-1', 'p-1', 'x', NULL)",
             "INSERT INTO thread_participant VALUES ('t-1', 'si-1')",
             "INSERT INTO owner_alias VALUES ('email', 'me@example.com', 's', NULL, NULL)",
             "INSERT INTO relationship_attention_candidate VALUES ('k-1', 'p-2', 'l-2', NULL)",
             "INSERT INTO owner_ego VALUES ('p-2')",
             "INSERT INTO relationship_projection_generation VALUES (1, 1)",
         }) {
        try {
            db.exec(duplicate);
            ADD_FAILURE() << "accepted: " << duplicate;
        } catch (const DatabaseError& error) {
            EXPECT_EQ(error.primaryCode(), 19 /* SQLITE_CONSTRAINT */) << duplicate;
        }
    }
    // A missing NOT NULL column is refused rather than stored as NULL.
    EXPECT_THROW(db.exec("INSERT INTO person (id, created_at) VALUES ('p-3', 't')"), DatabaseError);
}

class HostServicesTest : public ::testing::Test {
  protected:
    TestDatabase db;
    HostServices services = HostServices::reference();

    OwnerAliasRegistry::Declaration declare(const std::string& handle,
                                            const std::string& identity) {
        return db.pool().write([&](Connection& c) {
            return services.ownerAliases->declareAliasAndExcludeBoundPerson(c, "email", handle,
                                                                            "subject-1", identity);
        });
    }
};

TEST_F(HostServicesTest, DeclaringAnAliasExcludesThePersonOfAnActiveMembershipOnce) {
    db.addMembership("m-1", "si-1", "p-1");
    db.addMembership("m-2", "si-2", "p-1", "high_conf");
    db.addMembership("m-3", "si-3", "p-3", "possible");
    db.addMembership("m-4", "si-3", "p-4", "confirmed", "2024-01-01T00:00:00Z");

    using Declaration = OwnerAliasRegistry::Declaration;
    EXPECT_EQ(declare("me@example.com", "si-1"), (Declaration{true, "p-1", true}));

    // Known alias, and a second alias of the same person: the rule is already there.
    EXPECT_EQ(declare("me@example.com", "si-1"), (Declaration{false, "p-1", false}));
    EXPECT_EQ(declare("me2@example.com", "si-2"), (Declaration{true, "p-1", false}));
    // Neither a possible nor an ended membership binds a person.
    EXPECT_EQ(declare("me3@example.com", "si-3"), (Declaration{true, std::nullopt, false}));
    EXPECT_EQ(db.rows("SELECT id, scope, target_id, reason FROM exclusion_rule"),
              Rows{"e08c1c1f-ca8d-2e27-5119-4f813fa16bbb|person|p-1|owner_alias"});

    db.pool().write([&](Connection& c) {
        services.ownerAliases->removeAlias(c, "email", "me2@example.com");
        EXPECT_FALSE(services.ownerAliases->isAlias(c, "email", "me2@example.com"));
        EXPECT_TRUE(services.ownerAliases->isAlias(c, "email", "me@example.com"));
    });
}

TEST_F(HostServicesTest, EligibilityFragmentsFilterByExclusionScope) {
    db.addIdentity("si-1", "email", "a");
    db.addIdentity("si-2", "email", "b");
    db.addPerson("p-1");
    db.addPerson("p-2");
    db.exec(
        "INSERT INTO exclusion_rule (id, scope, target_id) VALUES ('x-1', 'source_identity', "
        "'si-2'), ('x-2', 'person', 'si-1'), ('x-3', 'person', 'p-2'), ('x-4', "
        "'source_identity', 'p-1')");

    const auto& shown = services.presentationEligibility;
    for (const auto& predicate :
         {shown->presentationPredicateSQL("s.id", "s.source_type", std::string("p.id")),
          shown->manualCorrectionPredicateSQL("s.id", "s.source_type", "s.handle_normalized")}) {
        EXPECT_EQ(db.rows("SELECT s.id FROM source_identity s WHERE " + predicate), Rows{"si-1"});
    }
    const auto predicate = services.sourceEligibility->personPredicateSQL(
        SourceEligibility::Policy::identityCorrection, "p.id");
    EXPECT_EQ(db.rows("SELECT p.id FROM person p WHERE " + predicate), Rows{"p-1"});
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
    EXPECT_EQ(db.rows("SELECT * FROM relationship_attention_candidate ORDER BY 1"),
              (Rows{"follow-up|p-1|l-1|d1|p-1|l-1|d1", "follow-up|p-1|l-2|d2|p-1|l-2|d2",
                    "follow-up|p-9|l-9|d9|p-9|l-9|d9"}));

    db.pool().write([&](Connection& c) { services.followUps->retractCandidate(c, "l-2"); });
    EXPECT_EQ(db.rows("SELECT open_loop_id FROM relationship_attention_candidate ORDER BY 1"),
              (Rows{"l-1", "l-9"}));
}

}  // namespace
}  // namespace orvik::host
