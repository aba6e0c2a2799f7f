#include <gtest/gtest.h>

#include <ctime>

#include "host/StoreSeeder.h"
#include "identity/IdentityRepository.h"
#include "tests/support/TestSupport.h"

namespace orvik {
namespace {

using namespace std::chrono;
using test::TestDatabase;

TEST(SeedTimestamp, CrossesDayMonthYearAndLeapDayBoundaries) {
    const auto text = [](sys_seconds t) { return seed::timestamp(t); };
    EXPECT_EQ(text(sys_seconds{}), "1970-01-01T00:00:00Z");
    EXPECT_EQ(text(sys_seconds{} - 1s), "1969-12-31T23:59:59Z");
    EXPECT_EQ(text(sys_days{1999y / December / 31} + 23h + 59min + 59s), "1999-12-31T23:59:59Z");
    EXPECT_EQ(text(sys_days{1999y / December / 31} + 24h), "2000-01-01T00:00:00Z");
    EXPECT_EQ(text(sys_days{2024y / February / 28} + 24h + 5s), "2024-02-29T00:00:05Z");
    EXPECT_EQ(text(sys_days{2023y / February / 28} + days{1}), "2023-03-01T00:00:00Z");
    EXPECT_EQ(text(sys_days{2000y / February / 28} + days{1}), "2000-02-29T00:00:00Z");
    EXPECT_EQ(text(sys_days{2100y / February / 28} + days{1}), "2100-03-01T00:00:00Z");
    EXPECT_EQ(text(sys_days{2025y / April / 30} + 12h + days{1}), "2025-05-01T12:00:00Z");
    EXPECT_EQ(text(sys_days{0y / January / 1}), "0000-01-01T00:00:00Z");
    EXPECT_EQ(text(sys_days{9999y / December / 31} + 86399s), "9999-12-31T23:59:59Z");
    EXPECT_THROW((void)text(sys_days{10000y / January / 1}), std::out_of_range);
    EXPECT_THROW((void)text(sys_days{year{-1} / December / 31}), std::out_of_range);
}

TEST(SeedTimestamp, AgreesWithTheCLibraryAcrossTwoCenturies) {
    char expected[32];
    // An odd stride visits every hour, minute and second and every day of the
    // month over the years.
    for (std::int64_t s = -2'208'988'800; s < 4'102'444'800; s += 86'399 * 7 + 1'234) {
        const std::time_t t = s;
        std::tm utc{};
        ASSERT_NE(gmtime_r(&t, &utc), nullptr);
        std::strftime(expected, sizeof expected, "%Y-%m-%dT%H:%M:%SZ", &utc);
        ASSERT_EQ(seed::timestamp(sys_seconds{seconds{s}}), expected) << s;
    }
}

// Every column lands where its name says: a swapped pair of parameters would show
// here, as a value under the wrong column.
TEST(StoreSeeder, WritesEachFieldIntoItsColumn) {
    TestDatabase db;
    db.pool().write([](store::Connection& c) {
        seed::insert(c, seed::Person{.id = "p1",
                                     .displayName = "Ana",
                                     .tier = "named",
                                     .compiledStateJSON = "{}",
                                     .createdFrom = "auto_grouping",
                                     .mergedIntoPersonID = "p2",
                                     .createdAt = "t-person"});
        seed::insert(c, seed::SourceIdentity{.id = "s1",
                                             .sourceType = "gmail",
                                             .handleNormalized = "ana@example.com",
                                             .displayName = std::nullopt,
                                             .firstSeenAt = "t-first",
                                             .lastSeenAt = "t-last",
                                             .createdAt = "t-created"});
        seed::insert(c, seed::Membership{.id = "m1",
                                         .sourceIdentityID = "s1",
                                         .canonicalPersonID = "p1",
                                         .state = "possible",
                                         .because = "why",
                                         .decidedBy = "auto",
                                         .decidedAt = "t-decided",
                                         .endedAt = "t-ended",
                                         .createdAt = "t-created"});
        seed::insert(c, seed::Constraint{.id = "k1",
                                         .aType = "identity",
                                         .aID = "s1",
                                         .bType = "person",
                                         .bID = "p1",
                                         .kind = "same",
                                         .decidedBy = "auto",
                                         .createdAt = "t-created",
                                         .revokedAt = "t-revoked"});
        seed::insert(c, seed::MergeEvent{.id = "e1",
                                         .survivingPersonID = "p2",
                                         .absorbedPersonID = "p1",
                                         .preMergeStateJSON = "{\"x\":1}",
                                         .because = "why",
                                         .decidedBy = "auto",
                                         .createdAt = "t-created",
                                         .reversedAt = "t-reversed",
                                         .operationID = "op"});
        seed::insert(c, seed::UserCorrection{.id = "u1",
                                             .targetType = "person",
                                             .targetID = "p1",
                                             .action = "merge",
                                             .subjectLineage = "grouping",
                                             .subjectID = "g",
                                             .createdAt = "t-created"});
        seed::insert(c, seed::Claim{.id = "c1",
                                    .personID = "p1",
                                    .sourceIdentityID = "s1",
                                    .predicate = "display_name",
                                    .provenance = "user_stated",
                                    .value = "Ana"});
        seed::insert(
            c,
            seed::CaptureAssociation{
                .sourceObjectID = "o1", .personID = "p1", .state = "ended", .endedAt = "t-ended"});
        seed::insert(c, seed::OpenLoop{.id = "l1", .personID = "p1", .detectedAt = "t-det"});
        seed::insert(
            c, seed::FollowUp{.id = "f1", .openLoopID = "l1", .personID = "p1", .state = "open"});
        seed::insert(c, seed::AttentionDisposition{
                            .candidateKey = "p1|l1", .personID = "p1", .disposition = "snoozed"});
        seed::insert(c, seed::AttentionCandidate{.candidateKey = "p1|l1",
                                                 .personID = "p1",
                                                 .openLoopID = "l1",
                                                 .detectedAt = "t-det"});
        seed::insert(c, seed::ThreadParticipant{.threadID = "th", .sourceIdentityID = "s1"});
        seed::insert(c, seed::SourceAccount{.sourceType = "gmail", .handle = "me@example.com"});
        seed::insert(c, seed::OwnerAlias{.sourceType = "gmail",
                                         .handleNormalized = "me@example.com",
                                         .subjectID = "sub",
                                         .sourceIdentityID = "s1",
                                         .createdAt = "t-created"});
        seed::insert(c, seed::ExclusionRule{.id = "x1",
                                            .scope = "person",
                                            .targetID = "p1",
                                            .reason = "owner",
                                            .createdAt = "t-created"});
        seed::insert(c, seed::OwnerEgo{.personID = "p2"});
    });
    EXPECT_EQ(
        db.dump(),
        "capture_person_association(ended_at='t-ended',person_id='p1',source_object_id='o1',"
        "state='ended')\n"
        "claim(id='c1',person_id='p1',predicate='display_name',provenance='user_stated',"
        "source_identity_id='s1',value='Ana')\n"
        "exclusion_rule(created_at='t-created',id='x1',reason='owner',scope='person',"
        "target_id='p1')\n"
        "follow_up(id='f1',open_loop_id='l1',person_id='p1',state='open')\n"
        "identity_constraint(a_id='s1',a_type='identity',b_id='p1',b_type='person',"
        "created_at='t-created',decided_by='auto',id='k1',kind='same',revoked_at='t-revoked')\n"
        "identity_membership(because='why',canonical_person_id='p1',created_at='t-created',"
        "decided_at='t-decided',decided_by='auto',ended_at='t-ended',id='m1',"
        "source_identity_id='s1',state='possible')\n"
        "merge_event(absorbed_person_id='p1',because='why',created_at='t-created',"
        "decided_by='auto',id='e1',operation_id='op',pre_merge_state_json='{\"x\":1}',"
        "reversed_at='t-reversed',surviving_person_id='p2')\n"
        "open_loop(detected_at='t-det',id='l1',person_id='p1')\n"
        "owner_alias(created_at='t-created',handle_normalized='me@example.com',"
        "source_identity_id='s1',source_type='gmail',subject_id='sub')\n"
        "owner_ego(person_id='p2')\n"
        "person(compiled_state_json='{}',created_at='t-person',created_from='auto_grouping',"
        "display_name='Ana',id='p1',merged_into_person_id='p2',tier='named')\n"
        "relationship_attention_candidate(candidate_key='p1|l1',detected_at='t-det',"
        "open_loop_id='l1',person_id='p1')\n"
        "relationship_attention_disposition(candidate_key='p1|l1',disposition='snoozed',"
        "person_id='p1')\n"
        "source_account(handle='me@example.com',source_type='gmail')\n"
        "source_identity(created_at='t-created',display_name=NULL,first_seen_at='t-first',"
        "handle_normalized='ana@example.com',id='s1',last_seen_at='t-last',source_type='gmail')\n"
        "thread_participant(source_identity_id='s1',thread_id='th')\n"
        "user_correction(action='merge',created_at='t-created',id='u1',subject_id='g',"
        "subject_lineage='grouping',target_id='p1',target_type='person')\n");
}

TEST(StoreSeeder, RefusesAMissingRequiredTimeAndPreparesEachInsertOnce) {
    TestDatabase db;
    EXPECT_THROW(db.pool().write([](store::Connection& c) {
        seed::insert(c, seed::Person{.id = "p1", .createdAt = ""});
    }),
                 std::invalid_argument);
    EXPECT_THROW(db.pool().write([](store::Connection& c) {
        seed::insert(c, seed::Membership{.id = "m1",
                                         .sourceIdentityID = "s1",
                                         .canonicalPersonID = "p1",
                                         .decidedAt = "t",
                                         .createdAt = ""});
    }),
                 std::invalid_argument);
    EXPECT_EQ(db.rows("SELECT count(*) FROM person"), std::vector<std::string>{"0"});

    const auto cached = db.pool().write([](store::Connection& c) {
        const std::string at = seed::timestamp(sys_days{2024y / March / 1});
        for (int i = 0; i < 200; ++i) {
            seed::insert(c, seed::Person{.id = "p" + std::to_string(i), .createdAt = at});
        }
        const auto afterFirst = c.cachedStatementCount();
        for (int i = 200; i < 400; ++i) {
            seed::insert(c, seed::Person{.id = "p" + std::to_string(i), .createdAt = at});
        }
        return c.cachedStatementCount() - afterFirst;
    });
    EXPECT_EQ(cached, 0U);
    EXPECT_EQ(db.rows("SELECT count(*) FROM person"), std::vector<std::string>{"400"});
}

// A seeded store is one the library reads as it reads its own: absorption chains
// resolve to the live head, the membership's decision comes through.
TEST(StoreSeeder, SeededStoreReadsBackThroughTheRepository) {
    TestDatabase db;
    const std::string at = seed::timestamp(sys_days{2024y / June / 30} + 23h);
    db.pool().write([&](store::Connection& c) {
        for (const char* id : {"p-old", "p-mid", "p-head"}) {
            const std::string next = std::string(id) == "p-old"   ? "p-mid"
                                     : std::string(id) == "p-mid" ? "p-head"
                                                                  : "";
            seed::insert(c, seed::Person{.id = id,
                                         .displayName = std::string("Name of ") + id,
                                         .mergedIntoPersonID =
                                             next.empty() ? std::nullopt : std::optional(next),
                                         .createdAt = at});
        }
        seed::insert(c, seed::SourceIdentity{.id = "s1",
                                             .sourceType = "gmail",
                                             .handleNormalized = "ana@example.com",
                                             .displayName = "Ana",
                                             .firstSeenAt = at,
                                             .lastSeenAt = at,
                                             .createdAt = at});
        seed::insert(c, seed::Membership{.id = "m1",
                                         .sourceIdentityID = "s1",
                                         .canonicalPersonID = "p-old",
                                         .state = "high_conf",
                                         .because = "same contact key",
                                         .decidedBy = "auto",
                                         .decidedAt = at,
                                         .createdAt = at});
    });
    identity::IdentityRepository repository(db.sharedPool(), nullptr);
    const auto resolved = repository.resolveCanonicalPerson("s1");
    ASSERT_TRUE(resolved);
    EXPECT_EQ(resolved->personID, "p-head");
    EXPECT_EQ(resolved->displayName, "Name of p-head");
    EXPECT_EQ(resolved->membershipState, identity::MembershipState::highConf);
    EXPECT_EQ(resolved->decidedBy, identity::DecidedBy::automatic);
    EXPECT_EQ(resolved->because, "same contact key");
    const auto identity = repository.sourceIdentity("s1");
    ASSERT_TRUE(identity);
    EXPECT_EQ(identity->lastSeenAt, "2024-06-30T23:00:00Z");
}

}  // namespace
}  // namespace orvik
