#include <gtest/gtest.h>

#include "identity/IdentityRepository.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Rows = std::vector<std::string>;

template <typename R>
R answer(std::string because, std::optional<std::string> message, Taxonomy taxonomy,
         typename R::Status status) {
    return R{std::move(because), std::move(message), taxonomy, std::nullopt, status};
}
template <typename R>
R err(const char* message, Taxonomy taxonomy = Taxonomy::notFound) {
    return answer<R>("", message, taxonomy, R::Status::error);
}
template <typename R>
R question(const char* because) {
    return answer<R>(because, std::nullopt, Taxonomy::unspecified,
                     R::Status::belowThresholdQuestion);
}
template <typename R>
R blocked() {
    return answer<R>("already marked different", std::nullopt, Taxonomy::unspecified,
                     R::Status::blockedDifferent);
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

struct Store {
    test::TestDatabase db;
    // Links and merges are programmatic: they report nothing to the witness.
    IdentityRepository repo{db.sharedPool(), [](const auto&) { ADD_FAILURE() << "witnessed"; }};
    // Persons a (members sa, sa2) and b (member sb), each with an absorbed person
    // ax / bx; the loose identity "own"; sa and sb share a thread.
    void seedPair(const std::string& setup) {
        for (const char* p : {"a", "b"}) {
            db.addPerson(p);
            db.addPerson(std::string(p) + "x", p);
        }
        for (const char* i : {"sa", "sa2", "sb"}) {
            db.addIdentity(i, "email", std::string(i) + "@x");
            db.addMembership(std::string("m-") + i, i, i[1] == 'a' ? "a" : "b");
        }
        db.addIdentity("own", "phone", "+9");
        db.exec(sharedThread("t", "sa", "sb") + setup);
    }
};

// A question's reason sums the threads over the members (1 + 2) unless a handle matches.
const std::string kThreeThreads = sharedThread("t2", "sb", "sa2") + sharedThread("t3", "sa2", "sb");
const std::string kSameHandle =
    kThreeThreads + "UPDATE source_identity SET handle_normalized = 'sb@x' WHERE id = 'sa2';";
const std::string kOwnAliasIn =
    "INSERT INTO owner_alias (source_type, handle_normalized) VALUES ('phone', '+9');"
    "INSERT INTO identity_membership VALUES ('m-own', 'own', ";

template <typename R>
struct Refusal {
    const char* name;
    std::string setup;
    const char* x;  // person, then identity (link); survivor, then absorbed (merge)
    const char* y;
    bool confirmed;
    std::optional<R> expected;  // absent: ownerIdentityUnmergeable
};

// Each request, on a fresh pair, answers exactly (or throws) and writes nothing.
template <typename R, typename Call>
void expectRefusals(const std::vector<Refusal<R>>& rows, Call call) {
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Store s;
        s.seedPair(row.setup);
        const std::string before = s.db.dump();
        try {
            EXPECT_EQ(std::optional(call(s.repo, row)), row.expected);
        } catch (const IdentityStoreError& e) {
            EXPECT_FALSE(row.expected);
            EXPECT_EQ(e.errorCase(), IdentityStoreError::Case::ownerIdentityUnmergeable);
        }
        EXPECT_EQ(s.db.dump(), before);
    }
}

TEST(Link, RefusalsAnswerExactlyAndWriteNothing) {
    using R = schema::LinkIdentityResponse;
    const std::string autoDifferent = different("person", "a", "identity", "sb", "auto");
    expectRefusals<R>(
        {
            {"missing identity", "", "a", "nope", true, err<R>("source identity not found")},
            {"missing person, unconfirmed", "", "nope", "sb", false,
             err<R>("person not found or absorbed")},
            {"absorbed person", "", "ax", "sb", true, err<R>("person not found or absorbed")},
            {"user constraint", different("identity", "sb", "person", "a", "user"), "a", "sb", true,
             blocked<R>()},
            {"agent+user constraint, unconfirmed",
             different("person", "a", "identity", "sb", "agent+user"), "a", "sb", false,
             blocked<R>()},
            {"auto constraint does not block the question", autoDifferent, "a", "sb", false,
             question<R>("1 shared thread")},
            {"threads summed over members", kThreeThreads, "a", "sb", false,
             question<R>("3 shared threads")},
            {"equal handles win", kSameHandle, "a", "sb", false, question<R>("same contact key")},
            {"connected account",
             autoDifferent + "INSERT INTO source_account VALUES ('email', 'sb@x');", "a", "sb",
             true, std::nullopt},
            {"person with an owner alias member",
             kOwnAliasIn + "'a', 'confirmed', NULL, 'user', 'x', NULL, 'x');", "a", "sb", true,
             std::nullopt},
        },
        [](IdentityRepository& repo, const Refusal<R>& row) {
            return repo.linkIdentity({row.x, row.y, row.confirmed});
        });
}

TEST(Link, EndsOtherMembershipsUpgradesInPlaceAndRevokesAutomaticConstraints) {
    Store s;
    for (const char* p : {"p", "q", "r"}) {
        s.db.addPerson(p);
    }
    s.db.addIdentity("s", "email", "s@x");
    s.db.addMembership("m-q", "s", "q", "confirmed", {}, "auto", "old");
    s.db.addMembership("m-p", "s", "p", "possible");
    s.db.addMembership("m-r", "s", "r", "possible");
    s.db.addDifferent("k-auto", "identity", "s", "person", "p", {}, "auto");
    s.db.addDifferent("k-old", "identity", "s", "person", "p", "2021-01-01T00:00:00Z");

    EXPECT_EQ(s.repo.linkIdentity({"p", "s", true}).status,
              schema::LinkIdentityResponse::Status::linked);
    // The possible row to p is upgraded and keeps its id and created_at; the active
    // row elsewhere ends; the possible row to r stays.
    EXPECT_EQ(s.db.rows("SELECT id, canonical_person_id, state, decided_by, because, ended_at IS "
                        "NULL, created_at FROM identity_membership ORDER BY id"),
              (Rows{"m-p|p|confirmed|user|user confirmed|1|2020-01-01T00:00:00Z",
                    "m-q|q|confirmed|auto|old|0|2020-01-01T00:00:00Z",
                    "m-r|r|possible|user|NULL|1|2020-01-01T00:00:00Z"}));
    EXPECT_EQ(s.db.rows("SELECT id, revoked_at IS NULL, revoked_at = '2021-01-01T00:00:00Z' FROM "
                        "identity_constraint ORDER BY id"),
              (Rows{"k-auto|0|0", "k-old|0|1"}));
}

TEST(Merge, RefusalsAnswerExactlyAndWriteNothing) {
    using R = schema::ProposeMergeResponse;
    const std::string autoDifferent = different("person", "b", "person", "a", "auto");
    expectRefusals<R>(
        {
            {"same person", "", "a", "a", true,
             err<R>("person_id_a and person_id_b must differ", Taxonomy::invalidArguments)},
            {"absorbed survivor", "", "ax", "b", false,
             err<R>("person_id_a not found or absorbed")},
            {"absorbed second", "", "a", "bx", true, err<R>("person_id_b not found or absorbed")},
            {"auto constraint blocks a merge", autoDifferent, "a", "b", true, blocked<R>()},
            {"constraint against absorbed persons",
             different("person", "ax", "person", "bx", "user"), "a", "b", true, blocked<R>()},
            {"block before question", autoDifferent, "a", "b", false, blocked<R>()},
            {"unconfirmed", "", "a", "b", false, question<R>("1 shared thread")},
            {"threads summed over members", kThreeThreads, "a", "b", false,
             question<R>("3 shared threads")},
            {"equal handles win", kSameHandle, "a", "b", false, question<R>("same contact key")},
            {"owner person absorbed", "INSERT INTO owner_ego VALUES ('b');", "a", "b", true,
             std::nullopt},
            {"survivor holds a connected account",
             "INSERT INTO source_account VALUES ('email', 'sa@x');", "a", "b", true, std::nullopt},
            {"only the absorbed person is excluded",
             exclusionRule("b") + kOwnAliasIn + "'b', 'confirmed', NULL, 'user', 'x', 'x', 'x');",
             "a", "b", true,
             err<R>(
                 "You told Orvik that +9 is you. To change that, remove it from your own handles.",
                 Taxonomy::excluded)},
            {"only the survivor is excluded, no handle", exclusionRule("a"), "a", "b", true,
             err<R>("One of these people is you. To change that, remove the handle from your own "
                    "handles.",
                    Taxonomy::excluded)},
        },
        [](IdentityRepository& repo, const Refusal<R>& row) {
            return repo.proposeMerge(
                {3000, row.x, row.y, "subj", SubjectLineage::person, row.confirmed});
        });
}

TEST(Merge, MovesEverythingTheAbsorbedPersonOwns) {
    // p2 survives and p1 is absorbed, so that id order differs from role order.
    Store s;
    s.db.addPerson("p2");
    s.db.addPerson("p1");
    for (const char* i : {"sa", "sb1", "sb2"}) {
        s.db.addIdentity(i, "email", std::string(i) + "@x");
    }
    s.db.addMembership("ma", "sa", "p2");
    s.db.addMembership("mb1", "sb1", "p1");
    s.db.addMembership("mb2", "sb2", "p1", "high_conf", {}, "auto");
    s.db.addMembership("mb2p", "sb2", "p2", "possible");
    const auto services = host::HostServices::reference();
    const auto key = [&](const char* person, const char* loop) {
        return test::sql(services.followUps->attentionItem(person, loop, "2024")->candidateKey);
    };
    // Both carry the owner-alias exclusion, which lets the merge proceed. Loop l1's
    // follow-up is scheduled, l3's is done.
    s.db.exec(sharedThread("t", "sa", "sb1") + exclusionRule("p1") + exclusionRule("p2") +
              "INSERT INTO claim VALUES ('c', 'p1', 'sb1', 'note', 'inferred', NULL);"
              "INSERT INTO capture_person_association VALUES ('o1', 'p1', 'confirmed', NULL),"
              "('o2', 'p1', 'confirmed', NULL), ('o2', 'p2', 'suggested', 'x'),"
              "('o3', 'p1', 'confirmed', NULL), ('o3', 'p2', 'confirmed', NULL);"
              "INSERT INTO open_loop VALUES ('l1', 'p1', '2024'), ('l3', 'p1', '2024');"
              "INSERT INTO follow_up VALUES ('f1', 'l1', 'p1', 'scheduled'),"
              "('f3', 'l3', 'p1', 'done');"
              "INSERT INTO relationship_attention_disposition VALUES (" +
              key("p1", "l1") + ", 'p1', 'dismissed'), (" + key("p1", "l3") +
              ", 'p1', 'dismissed');"
              "INSERT INTO relationship_attention_candidate VALUES (" +
              key("p1", "l1") + ", 'p1', 'l1', '2024');");

    EXPECT_EQ(s.repo.proposeMerge({{}, "p2", "p1", "subj", SubjectLineage::grouping, true}).status,
              schema::ProposeMergeResponse::Status::merged);
    EXPECT_EQ(s.db.rows("SELECT id = 'mb2p', source_identity_id, canonical_person_id, state, "
                        "decided_by, because, ended_at IS NULL FROM identity_membership "
                        "ORDER BY source_identity_id, canonical_person_id"),
              (Rows{"0|sa|p2|confirmed|user|NULL|1", "0|sb1|p1|confirmed|user|NULL|0",
                    "0|sb1|p2|confirmed|user|1 shared thread|1", "0|sb2|p1|high_conf|auto|NULL|0",
                    "1|sb2|p2|confirmed|user|1 shared thread|1"}));
    EXPECT_EQ(s.db.rows("SELECT merged_into_person_id FROM person WHERE id = 'p1' UNION ALL "
                        "SELECT person_id FROM claim UNION ALL SELECT person_id FROM follow_up "
                        "UNION ALL SELECT person_id FROM open_loop"),
              Rows(6, "p2"));
    EXPECT_EQ(s.db.rows("SELECT a_id, b_id, kind, revoked_at FROM identity_constraint UNION ALL "
                        "SELECT target_id, action, subject_lineage, NULL FROM user_correction"),
              (Rows{"p2|p1|same|NULL", "p1|same_person|grouping|NULL"}));
    // o1 moves; o2 promotes the survivor's row and leaves the absorbed one; o3
    // stays as it was.
    EXPECT_EQ(s.db.rows("SELECT source_object_id, person_id, state, ended_at FROM "
                        "capture_person_association ORDER BY 1, 2"),
              (Rows{"o1|p2|confirmed|NULL", "o2|p1|confirmed|NULL", "o2|p2|confirmed|NULL",
                    "o3|p1|confirmed|NULL", "o3|p2|confirmed|NULL"}));
    // Only the scheduled follow-up's disposition is rekeyed; candidates all are.
    EXPECT_EQ(s.db.rows("SELECT quote(candidate_key), person_id FROM relationship_attention_"
                        "disposition UNION ALL SELECT quote(candidate_key), person_id FROM "
                        "relationship_attention_candidate ORDER BY 2"),
              (Rows{key("p1", "l3") + "|p1", key("p2", "l1") + "|p2", key("p2", "l1") + "|p2"}));
}

}  // namespace
}  // namespace orvik::identity
