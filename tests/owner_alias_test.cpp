#include <gtest/gtest.h>

#include <regex>

#include "identity/IdentityRepository.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Witness = IdentityCorrectionWitness;
using Alias = OwnerAliasMutation::InsertedAlias;
using Exclusion = OwnerAliasMutation::InsertedExclusion;
using Results = std::vector<DeclareOwnerAliasResult>;
using Rows = std::vector<std::string>;

Witness::Event witness(Witness::Kind kind, std::int64_t identities) {
    return {kind, identities, 0, 0, 0, 0, std::nullopt};
}

// I1 and I4 are bound to P and Q; I2 and I3 are bound to no one. I3's handle is
// already the user's, and Q already carries its exclusion.
struct Store {
    test::TestDatabase db;
    std::vector<Witness::Event> events;
    IdentityRepository repo{db.sharedPool(),
                            [this](const Witness::Event& e) { events.push_back(e); }};

    Store() {
        db.addIdentity("I1", "gmail", "me@example.com");
        db.addIdentity("I2", "imessage", "+15550001");
        db.addIdentity("I3", "imessage", "+15550003");
        db.addIdentity("I4", "gmail", "me@work.example");
        db.addMembership("m1", "I1", "P");
        db.addMembership("m4", "I4", "Q", "high_conf");
        db.exec(
            "INSERT INTO owner_alias (source_type, handle_normalized) VALUES ('imessage', "
            "'+15550003'); INSERT INTO exclusion_rule (id, scope, target_id) VALUES ('" +
            host::stableID("owner-alias-exclusion", "Q") + "', 'person', 'Q');");
    }

    Rows generation() {
        return db.rows("SELECT generation FROM relationship_projection_generation");
    }
    // Everything but the projection generation, which the undo advances again.
    std::string dumpWithoutGeneration() {
        return std::regex_replace(db.dump(), std::regex("relationship_projection_generation.*\n"),
                                  "");
    }
};

TEST(OwnerAlias, DeclarationRecordsOnlyWhatItInsertsAndUndoRemovesExactlyThat) {
    Store s;
    // Nothing new: the store, even the generation, is untouched, but it is witnessed.
    const std::string untouched = s.db.dump();
    EXPECT_EQ(s.repo.declareOwnerAlias("I3", "subject-1").perIdentity, (Results{{{}, false}}));
    EXPECT_EQ(s.db.dump(), untouched);

    const std::string before = s.dumpWithoutGeneration();
    // The repeated I4 finds what its first declaration added.
    const auto outcome = s.repo.batchDeclareOwnerAlias({"I1", "I2", "I3", "I4", "I4"}, "subj-2");
    EXPECT_EQ(outcome.perIdentity,
              (Results{{"P", true}, {{}, true}, {{}, false}, {"Q", true}, {"Q", false}}));
    EXPECT_EQ(outcome.mutation.insertedAliases,
              (std::vector<Alias>{{"I1", "gmail", "me@example.com"},
                                  {"I2", "imessage", "+15550001"},
                                  {"I4", "gmail", "me@work.example"}}));
    EXPECT_EQ(outcome.mutation.insertedExclusions,
              (std::vector<Exclusion>{{host::stableID("owner-alias-exclusion", "P"), "P"}}));
    EXPECT_EQ(s.db.rows("SELECT source_type, handle_normalized, subject_id, source_identity_id "
                        "FROM owner_alias WHERE source_identity_id = 'I1'"),
              Rows{"gmail|me@example.com|subj-2|I1"});
    EXPECT_EQ(s.generation(), Rows{"1"});

    s.repo.undoOwnerAliasMutation(outcome.mutation);
    EXPECT_EQ(s.dumpWithoutGeneration(), before);
    EXPECT_EQ(s.generation(), Rows{"2"});

    // Rows that are already gone are not an error; an empty mutation or list does
    // nothing and is not witnessed.
    s.repo.undoOwnerAliasMutation(outcome.mutation);
    EXPECT_EQ(s.dumpWithoutGeneration(), before);
    s.repo.undoOwnerAliasMutation({});
    EXPECT_EQ(s.repo.batchDeclareOwnerAlias({}, "subject-1"), OwnerAliasDeclarationOutcome{});
    EXPECT_EQ(s.generation(), Rows{"3"});
    EXPECT_EQ(s.events, (std::vector{witness(Witness::Kind::declareOwnerAlias, 1),
                                     witness(Witness::Kind::declareOwnerAlias, 5),
                                     witness(Witness::Kind::undoOwnerAlias, 3),
                                     witness(Witness::Kind::undoOwnerAlias, 3)}));
}

TEST(OwnerAlias, UnknownIdentityFailsTheWholeBatch) {
    Store s;
    const std::string before = s.db.dump();
    try {
        s.repo.batchDeclareOwnerAlias({"I1", "missing", "I2"}, "subject-1");
        FAIL() << "expected notFound";
    } catch (const IdentityStoreError& e) {
        EXPECT_EQ(e, IdentityStoreError::notFound("missing"));
    }
    EXPECT_EQ(s.db.dump(), before);
    EXPECT_TRUE(s.events.empty());
}

}  // namespace
}  // namespace orvik::identity
