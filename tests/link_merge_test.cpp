#include <gtest/gtest.h>

#include <algorithm>

#include "identity/IdentityRepository.h"
#include "identity/IdentityRepositoryInternal.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Case = IdentityStoreError::Case;
using LinkResponse = schema::LinkIdentityResponse;
using LinkStatus = LinkResponse::Status;
using MergeResponse = schema::ProposeMergeResponse;
using MergeStatus = MergeResponse::Status;
using Rows = std::vector<std::string>;
using Image = MergePreState::MembershipRowImage;

constexpr const char* kSeeded = "2020-01-01T00:00:00Z";  // what TestDatabase stamps

template <typename Response, typename Status>
Response response(std::string because, std::optional<std::string> message, Taxonomy taxonomy,
                  Status status) {
    return Response{.because = std::move(because),
                    .message = std::move(message),
                    .taxonomy = taxonomy,
                    .mergeEventID = std::nullopt,
                    .status = status};
}

std::string exclusionRule(const std::string& personID) {
    return "INSERT INTO exclusion_rule (id, scope, target_id) VALUES ('" +
           host::stableID("owner-alias-exclusion", personID) + "', 'person', '" + personID + "');";
}

std::string different(const std::string& aType, const std::string& aID, const std::string& bType,
                      const std::string& bID, const std::string& decidedBy) {
    return "INSERT INTO identity_constraint VALUES ('k', '" + aType + "', '" + aID + "', '" +
           bType + "', '" + bID + "', 'different', '" + decidedBy + "', 'x', NULL);";
}

std::string sharedThread(const std::string& thread, const std::string& x, const std::string& y) {
    return "INSERT INTO thread_participant VALUES ('" + thread + "','" + x + "'),('" + thread +
           "','" + y + "');";
}

std::string candidateKey(const std::string& person, const std::string& loop,
                         const std::string& detectedAt) {
    return host::HostServices::reference()
        .followUps->attentionItem(person, loop, detectedAt)
        ->candidateKey;
}

template <typename T, typename By>
std::vector<T> sortedBy(std::vector<T> values, By by) {
    std::sort(values.begin(), values.end(), [&](const T& x, const T& y) { return by(x) < by(y); });
    return values;
}

struct Store {
    test::TestDatabase db;
    std::vector<IdentityCorrectionWitness::Event> events;
    IdentityRepository repo{db.sharedPool(), [this](const IdentityCorrectionWitness::Event& e) {
                                events.push_back(e);
                            }};

    // The membership rows of the identities, read straight from the table.
    std::vector<Image> images(const std::string& inList) {
        std::vector<Image> out;
        db.pool().read([&](store::Connection& c) {
            c.query("SELECT * FROM identity_membership WHERE source_identity_id IN (" + inList +
                        ") ORDER BY id",
                    {}, [&](const store::Row& r) {
                        out.push_back({r.text("id"), r.text("source_identity_id"),
                                       r.text("canonical_person_id"), r.text("state"),
                                       r.optionalText("because"), r.text("decided_by"),
                                       r.text("decided_at"), r.optionalText("ended_at")});
                    });
        });
        return out;
    }

    // Runs a refused request: its response must equal `expected`, or, when that is
    // absent, it must throw ownerIdentityUnmergeable. Either way nothing is written.
    template <typename Response, typename F>
    void expectRefusal(F&& call, const std::optional<Response>& expected) {
        const std::string before = db.dump();
        if (expected) {
            EXPECT_EQ(call(), *expected);
        } else {
            try {
                (void)call();
                ADD_FAILURE() << "no error";
            } catch (const IdentityStoreError& e) {
                EXPECT_EQ(e.errorCase(), Case::ownerIdentityUnmergeable);
            }
        }
        EXPECT_EQ(db.dump(), before);
    }

    MergePreState snapshot(const std::string& eventID) {
        const auto event = repo.mergeEvent(eventID);
        EXPECT_TRUE(event.has_value());
        const auto state = decodeMergePreState(event ? event->preMergeStateJSON : "");
        EXPECT_TRUE(state.has_value());
        return state.value_or(MergePreState{});
    }
};

// Every refusal answers with its exact response and leaves the store as it was;
// the owner refusals throw instead.
TEST(Link, RefusalsAnswerExactlyAndWriteNothing) {
    const auto missing = response<LinkResponse>("", "source identity not found", Taxonomy::notFound,
                                                LinkStatus::error);
    const auto noPerson = response<LinkResponse>("", "person not found or absorbed",
                                                 Taxonomy::notFound, LinkStatus::error);
    const auto blocked =
        response<LinkResponse>("already marked different", std::nullopt, Taxonomy::unspecified,
                               LinkStatus::blockedDifferent);
    const auto question = response<LinkResponse>(
        "user confirmed", std::nullopt, Taxonomy::unspecified, LinkStatus::belowThresholdQuestion);
    const std::string autoDifferent = different("person", "p", "identity", "s", "auto");
    struct Row {
        const char* name;
        std::string setup;
        schema::LinkIdentityRequest request;
        std::optional<LinkResponse> expected;  // absent: ownerIdentityUnmergeable
    };
    const std::vector<Row> rows = {
        {"missing identity", "", {"p", "nope", true}, missing},
        {"missing person, unconfirmed", "", {"nope", "s", false}, noPerson},
        {"absorbed person", "", {"px", "s", true}, noPerson},
        {"user constraint",
         different("identity", "s", "person", "p", "user"),
         {"p", "s", true},
         blocked},
        {"agent+user constraint, unconfirmed",
         different("person", "p", "identity", "s", "agent+user"),
         {"p", "s", false},
         blocked},
        {"auto constraint does not block the question", autoDifferent, {"p", "s", false}, question},
        {"connected account",
         autoDifferent + "INSERT INTO source_account VALUES ('email', 's@x');",
         {"p", "s", true},
         std::nullopt},
        {"the user's own person",
         "INSERT INTO owner_ego VALUES ('p');",
         {"p", "s", true},
         std::nullopt},
        {"person with an owner alias member",
         "INSERT INTO owner_alias (source_type, handle_normalized) VALUES ('phone', '+1');"
         "INSERT INTO identity_membership VALUES ('m', 'own', 'p', 'confirmed', NULL, 'user', "
         "'x', NULL, 'x');",
         {"p", "s", true},
         std::nullopt},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Store s;
        s.db.addPerson("p");
        s.db.addPerson("px", "p");
        s.db.addIdentity("s", "email", "s@x");
        s.db.addIdentity("own", "phone", "+1");
        s.db.exec(row.setup);
        s.expectRefusal([&] { return s.repo.linkIdentity(row.request); }, row.expected);
    }
}

TEST(Link, EndsOtherMembershipsUpgradesInPlaceAndRecordsTheSnapshot) {
    Store s;
    for (const char* p : {"p", "q", "r"}) {
        s.db.addPerson(p);
    }
    s.db.addIdentity("s", "email", "s@x");
    s.db.addMembership("m-q", "s", "q", "confirmed", {}, "auto", "old");
    s.db.addMembership("m-p", "s", "p", "possible");
    s.db.addMembership("m-r", "s", "r", "possible");
    s.db.addMembership("m-old", "s", "r", "confirmed", "2021-01-01T00:00:00Z");
    s.db.addDifferent("k-auto", "identity", "s", "person", "p", {}, "auto");
    s.db.addDifferent("k-old", "identity", "s", "person", "p", "2021-01-01T00:00:00Z");
    s.db.exec("INSERT INTO claim VALUES ('c1', 'p', NULL, 'display_name', 'inferred', NULL)");
    const auto preimages = s.images("'s'");

    // Through the core, to pass constraints the caller revoked beforehand.
    internal::RepositoryCore core{host::HostServices::reference()};
    const auto linked = s.db.pool().write([&](store::Connection& c) {
        return core.linkIdentityCore({"p", "s", true}, "op-1", {"k-prev"}, c);
    });
    ASSERT_TRUE(linked.mergeEventID);
    EXPECT_EQ(linked, (LinkResponse{.because = "user confirmed",
                                    .message = std::nullopt,
                                    .taxonomy = Taxonomy::unspecified,
                                    .mergeEventID = linked.mergeEventID,
                                    .status = LinkStatus::linked}));

    // The possible row to p is upgraded and keeps its id and created_at; the active
    // row elsewhere ends; the possible row to r and the ended row stay.
    EXPECT_EQ(s.db.rows("SELECT id, canonical_person_id, state, decided_by, because, ended_at IS "
                        "NULL, created_at FROM identity_membership ORDER BY id"),
              (Rows{"m-old|r|confirmed|user|NULL|0|2020-01-01T00:00:00Z",
                    "m-p|p|confirmed|user|user confirmed|1|2020-01-01T00:00:00Z",
                    "m-q|q|confirmed|auto|old|0|2020-01-01T00:00:00Z",
                    "m-r|r|possible|user|NULL|1|2020-01-01T00:00:00Z"}));
    EXPECT_EQ(s.db.rows("SELECT id, revoked_at IS NULL, revoked_at = '2021-01-01T00:00:00Z' FROM "
                        "identity_constraint ORDER BY id"),
              (Rows{"k-auto|0|0", "k-old|0|1"}));
    EXPECT_EQ(s.db.rows("SELECT generation FROM relationship_projection_generation"), Rows{"1"});
    EXPECT_EQ(s.db.rows("SELECT surviving_person_id, absorbed_person_id, because, decided_by, "
                        "reversed_at, operation_id FROM merge_event"),
              Rows{"p|NULL|user confirmed|user|NULL|op-1"});

    MergePreState expected;
    expected.priorActiveMemberships = {{"m-q", "s", "q", "confirmed", "old", "auto", kSeeded}};
    expected.writtenMembershipIDs = {"m-p"};
    expected.revokedDifferentConstraintIDs = {"k-prev", "k-auto"};
    expected.membershipPreimages = preimages;
    expected.membershipPostImages = s.images("'s'");
    expected.preExistingSurvivorClaimIDs = {"c1"};
    EXPECT_EQ(s.snapshot(*linked.mergeEventID), expected);
}

TEST(Link, RelinkingAnActiveMemberUpdatesTheSameRowAndStillWritesAnEvent) {
    Store s;
    s.db.addPerson("p");
    s.db.addIdentity("s", "email", "s@x");
    s.db.addIdentity("t", "phone", "+1");
    s.db.addMembership("m1", "s", "p", "high_conf", {}, "auto", "why");
    s.db.addMembership("m2", "t", "p");
    s.db.exec(sharedThread("th", "s", "t"));

    const auto linked = s.repo.linkIdentity({"p", "s", true});
    EXPECT_EQ(linked.status, LinkStatus::linked);
    // The identity matches itself before any thread is counted.
    EXPECT_EQ(linked.because, "same contact key");
    EXPECT_EQ(s.db.rows("SELECT id, canonical_person_id, state, decided_by, because, ended_at FROM "
                        "identity_membership WHERE source_identity_id = 's'"),
              Rows{"m1|p|confirmed|user|same contact key|NULL"});
    EXPECT_EQ(s.snapshot(*linked.mergeEventID).writtenMembershipIDs, Rows{"m1"});
    EXPECT_TRUE(s.events.empty());  // a programmatic link has no witness
}

TEST(LinkMerge, ReasonTextsCountSharedThreadsUnlessAHandleMatches) {
    struct Row {
        const char* name;
        std::string setup;
        const char* linkBecause;   // linking s to p
        const char* mergeBecause;  // merging q into p
    };
    // p has members m1, m2, m3; q has member s (and n, sharing nothing).
    const std::vector<Row> rows = {
        {"no shared thread", "", "user confirmed", "user confirmed"},
        {"one", sharedThread("t1", "s", "m1"), "1 shared thread", "1 shared thread"},
        {"1 + 0 + 2",
         sharedThread("t1", "s", "m1") + sharedThread("t2", "s", "m3") +
             sharedThread("t3", "m3", "s"),
         "3 shared threads", "3 shared threads"},
        {"equal handles win",
         sharedThread("t1", "s", "m1") + "UPDATE source_identity SET "
                                         "handle_normalized = 's@x' WHERE id = 'm2';",
         "same contact key", "same contact key"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Store s;
        s.db.addPerson("p");
        s.db.addPerson("q");
        s.db.addIdentity("s", "email", "s@x");
        s.db.addIdentity("n", "email", "n@x");
        for (const char* m : {"m1", "m2", "m3"}) {
            s.db.addIdentity(m, "phone", m);
            s.db.addMembership(std::string("in-") + m, m, "p");
        }
        s.db.addMembership("in-s", "s", "q");
        s.db.addMembership("in-n", "n", "q");
        s.db.exec(row.setup);
        EXPECT_EQ(s.repo.linkIdentity({"p", "s", false}).because, row.linkBecause);
        EXPECT_EQ(
            s.repo.proposeMerge({3000, "p", "q", "subj", SubjectLineage::person, false}).because,
            row.mergeBecause);
    }
}

TEST(Merge, RefusalsAnswerExactlyAndWriteNothing) {
    const auto err = [](const char* message, Taxonomy taxonomy) {
        return response<MergeResponse>("", message, taxonomy, MergeStatus::error);
    };
    const auto blocked =
        response<MergeResponse>("already marked different", std::nullopt, Taxonomy::unspecified,
                                MergeStatus::blockedDifferent);
    const std::string autoDifferent = different("person", "b", "person", "a", "auto");
    struct Row {
        const char* name;
        std::string setup;
        const char* a;
        const char* b;
        bool confirmed;
        std::optional<MergeResponse> expected;  // absent: ownerIdentityUnmergeable
    };
    const std::vector<Row> rows = {
        {"same person", "", "a", "a", true,
         err("person_id_a and person_id_b must differ", Taxonomy::invalidArguments)},
        {"missing survivor", "", "nope", "b", false,
         err("person_id_a not found or absorbed", Taxonomy::notFound)},
        {"absorbed survivor", "", "ax", "b", true,
         err("person_id_a not found or absorbed", Taxonomy::notFound)},
        {"absorbed second", "", "a", "bx", true,
         err("person_id_b not found or absorbed", Taxonomy::notFound)},
        {"auto constraint blocks a merge", autoDifferent, "a", "b", true, blocked},
        {"constraint against absorbed persons", different("person", "ax", "person", "bx", "user"),
         "a", "b", true, blocked},
        {"block before question", autoDifferent, "a", "b", false, blocked},
        {"unconfirmed", "", "a", "b", false,
         response<MergeResponse>("1 shared thread", std::nullopt, Taxonomy::unspecified,
                                 MergeStatus::belowThresholdQuestion)},
        {"owner person absorbed", "INSERT INTO owner_ego VALUES ('b');", "a", "b", true,
         std::nullopt},
        {"survivor holds a connected account",
         "INSERT INTO source_account VALUES ('email', 'sa@x');", "a", "b", true, std::nullopt},
        {"only the absorbed person is excluded",
         exclusionRule("b") +
             "INSERT INTO owner_alias (source_type, handle_normalized) VALUES ('phone', '+9');"
             "INSERT INTO identity_membership VALUES ('m-own', 'own', 'b', 'confirmed', NULL, "
             "'user', 'x', 'x', 'x');",
         "a", "b", true,
         err("You told Orvik that +9 is you. To change that, remove it from your own handles.",
             Taxonomy::excluded)},
        {"only the survivor is excluded, no handle", exclusionRule("a"), "a", "b", true,
         err("One of these people is you. To change that, remove the handle from your own "
             "handles.",
             Taxonomy::excluded)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Store s;
        s.db.addPerson("a");
        s.db.addPerson("b");
        s.db.addPerson("ax", "a");
        s.db.addPerson("bx", "b");
        s.db.addIdentity("sa", "email", "sa@x");
        s.db.addIdentity("sb", "email", "sb@x");
        s.db.addIdentity("own", "phone", "+9");
        s.db.addMembership("ma", "sa", "a");
        s.db.addMembership("mb", "sb", "b");
        s.db.exec(sharedThread("t", "sa", "sb") + row.setup);
        const schema::ProposeMergeRequest request{
            3000, row.a, row.b, "subj", SubjectLineage::person, row.confirmed};
        s.expectRefusal([&] { return s.repo.proposeMerge(request); }, row.expected);
    }
}

TEST(Merge, MovesEverythingTheAbsorbedPersonOwnsAndSnapshotsIt) {
    // p2 survives and p1 is absorbed, so that id order differs from role order.
    Store s;
    s.db.addPerson("p2");
    s.db.addPerson("p1");
    s.db.addIdentity("sa", "email", "sa@x");
    s.db.addIdentity("sb1", "email", "sb1@x");
    s.db.addIdentity("sb2", "email", "sb2@x");
    s.db.addMembership("ma", "sa", "p2");
    s.db.addMembership("mb1", "sb1", "p1");
    s.db.addMembership("mb2", "sb2", "p1", "high_conf", {}, "auto");
    s.db.addMembership("mb2p", "sb2", "p2", "possible");
    const std::string d = "2024-01-01T00:00:00Z";
    const std::string ended = "2021-01-01T00:00:00Z";
    // Both carry the owner-alias exclusion, which lets the merge proceed.
    s.db.exec(sharedThread("t", "sa", "sb1") + exclusionRule("p1") + exclusionRule("p2") +
              "INSERT INTO claim VALUES ('c-a', 'p2', 'sa', 'note', 'inferred', NULL),"
              "('c-b1', 'p1', 'sb1', 'display_name', 'user_stated', NULL),"
              "('c-b2', 'p1', 'sb2', 'note', 'inferred', NULL);"
              "INSERT INTO capture_person_association VALUES ('o1', 'p1', 'confirmed', NULL),"
              "('o2', 'p1', 'confirmed', NULL), ('o2', 'p2', 'suggested', '" +
              ended +
              "'),"
              "('o3', 'p1', 'confirmed', NULL), ('o3', 'p2', 'confirmed', NULL);"
              "INSERT INTO open_loop VALUES ('l1', 'p1', '" +
              d + "'), ('l2', 'p1', '" + d + "'), ('l3', 'p1', '" + d +
              "');"
              "INSERT INTO follow_up VALUES ('f1', 'l1', 'p1', 'scheduled'),"
              "('f2', 'l2', 'p1', 'scheduled'), ('f3', 'l3', 'p1', 'done');"
              "INSERT INTO relationship_attention_disposition VALUES ('" +
              candidateKey("p1", "l1", d) + "', 'p1', 'dismissed'), ('" +
              candidateKey("p1", "l3", d) +
              "', 'p1', 'dismissed');"
              "INSERT INTO relationship_attention_candidate VALUES ('" +
              candidateKey("p1", "l1", d) + "', 'p1', 'l1', '" + d + "'), ('" +
              candidateKey("p1", "l2", d) + "', 'p1', 'l2', '" + d + "');");
    const auto preimages = s.images("'sb1','sb2'");
    const Rows dependents = {"claim",
                             "capture_person_association",
                             "follow_up",
                             "open_loop",
                             "person",
                             "relationship_attention_disposition",
                             "relationship_attention_candidate"};
    const std::string beforeMerge = s.db.dump(dependents);

    const auto merged =
        s.repo.proposeMerge({std::nullopt, "p2", "p1", "subj", SubjectLineage::grouping, true});
    ASSERT_TRUE(merged.mergeEventID);
    EXPECT_EQ(merged, (MergeResponse{.because = "1 shared thread",
                                     .message = std::nullopt,
                                     .taxonomy = Taxonomy::unspecified,
                                     .mergeEventID = merged.mergeEventID,
                                     .status = MergeStatus::merged}));

    EXPECT_EQ(s.db.rows("SELECT id = 'mb2p', source_identity_id, canonical_person_id, state, "
                        "decided_by, because, ended_at IS NULL FROM identity_membership "
                        "ORDER BY source_identity_id, canonical_person_id"),
              (Rows{"0|sa|p2|confirmed|user|NULL|1", "0|sb1|p1|confirmed|user|NULL|0",
                    "0|sb1|p2|confirmed|user|1 shared thread|1", "0|sb2|p1|high_conf|auto|NULL|0",
                    "1|sb2|p2|confirmed|user|1 shared thread|1"}));
    EXPECT_EQ(s.db.rows("SELECT id, person_id FROM claim ORDER BY id"),
              (Rows{"c-a|p2", "c-b1|p2", "c-b2|p2"}));
    EXPECT_EQ(s.db.rows("SELECT merged_into_person_id FROM person WHERE id = 'p1'"), Rows{"p2"});
    const auto same = s.db.rows("SELECT id FROM identity_constraint");
    EXPECT_EQ(s.db.rows("SELECT a_type, a_id, b_type, b_id, kind, decided_by, revoked_at FROM "
                        "identity_constraint"),
              Rows{"person|p2|person|p1|same|user|NULL"});
    EXPECT_EQ(s.db.rows("SELECT target_type, target_id, action, subject_lineage, subject_id FROM "
                        "user_correction"),
              Rows{"person|p1|same_person|grouping|subj"});
    EXPECT_EQ(s.db.rows("SELECT generation FROM relationship_projection_generation"), Rows{"1"});
    // o1 moves; o2 promotes the survivor's row and leaves the absorbed one; o3
    // stays as it was.
    EXPECT_EQ(s.db.rows("SELECT source_object_id, person_id, state, ended_at FROM "
                        "capture_person_association ORDER BY 1, 2"),
              (Rows{"o1|p2|confirmed|NULL", "o2|p1|confirmed|NULL", "o2|p2|confirmed|NULL",
                    "o3|p1|confirmed|NULL", "o3|p2|confirmed|NULL"}));
    EXPECT_EQ(
        s.db.rows("SELECT person_id FROM follow_up UNION ALL SELECT person_id FROM open_loop"),
        (Rows(6, "p2")));
    // Only the scheduled follow-up's existing disposition is rekeyed.
    EXPECT_EQ(s.db.rows("SELECT candidate_key, person_id FROM relationship_attention_disposition "
                        "ORDER BY person_id"),
              (Rows{candidateKey("p1", "l3", d) + "|p1", candidateKey("p2", "l1", d) + "|p2"}));
    EXPECT_EQ(s.db.rows("SELECT candidate_key, person_id FROM relationship_attention_candidate "
                        "ORDER BY open_loop_id"),
              (Rows{candidateKey("p2", "l1", d) + "|p2", candidateKey("p2", "l2", d) + "|p2"}));

    auto snapshot = s.snapshot(*merged.mergeEventID);
    const auto newRow = s.db.rows(
        "SELECT id FROM identity_membership WHERE source_identity_id = 'sb1' AND "
        "canonical_person_id = 'p2'");
    ASSERT_EQ(newRow.size(), 1u);
    EXPECT_EQ(sortedBy(snapshot.writtenMembershipIDs, [](const auto& x) { return x; }),
              sortedBy(Rows{newRow[0], "mb2p"}, [](const auto& x) { return x; }));
    snapshot.writtenMembershipIDs.clear();
    const auto byID = [](const auto& x) { return x.id; };
    snapshot.priorActiveMemberships = sortedBy(snapshot.priorActiveMemberships, byID);
    snapshot.claimOwnershipImages = sortedBy(snapshot.claimOwnershipImages, byID);
    snapshot.captureAssociationImages =
        sortedBy(snapshot.captureAssociationImages, [](const auto& x) { return x.sourceObjectID; });

    MergePreState expected;
    expected.priorActiveMemberships = {{"mb1", "sb1", "p1", "confirmed", {}, "user", kSeeded},
                                       {"mb2", "sb2", "p1", "high_conf", {}, "auto", kSeeded}};
    expected.priorClaimPersonID = {{"c-b1", "p1"}, {"c-b2", "p1"}};
    expected.membershipPreimages = preimages;
    expected.membershipPostImages = s.images("'sb1','sb2'");
    expected.preExistingSurvivorClaimIDs = {"c-a"};
    expected.personPreimages = {{"p1", {}, "stub", "user_stated", {}},
                                {"p2", {}, "stub", "user_stated", {}}};
    expected.personPostImages = {{"p1", {}, "stub", "user_stated", "p2"},
                                 {"p2", {}, "stub", "user_stated", {}}};
    expected.claimOwnershipImages = {{"c-b1", "p1", "p2"}, {"c-b2", "p1", "p2"}};
    expected.createdSameConstraintID = same.at(0);
    expected.captureAssociationImages = {{"o1", "p1", "p2", "confirmed", {}},
                                         {"o2", "p2", "p2", "suggested", ended}};
    expected.followUpOwnershipImages = {{"f1", "p1", "p2"}, {"f2", "p1", "p2"}, {"f3", "p1", "p2"}};
    expected.openLoopOwnershipImages = {{"l1", "p1", "p2"}, {"l2", "p1", "p2"}, {"l3", "p1", "p2"}};
    expected.dispositionKeyImages = {
        {candidateKey("p1", "l1", d), candidateKey("p2", "l1", d), "p1", "p2"}};
    EXPECT_EQ(snapshot, expected);
    EXPECT_TRUE(s.events.empty());

    // The images are exact: undoing the merge puts every dependent row back.
    EXPECT_EQ(s.repo.undoMerge(*merged.mergeEventID).restoredPersonID, "p1");
    EXPECT_EQ(s.db.dump(dependents), beforeMerge);
}

}  // namespace
}  // namespace orvik::identity
