#include <gtest/gtest.h>

#include <sstream>

#include "identity/IdentityRepository.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Witness = IdentityCorrectionWitness;
using Alias = OwnerAliasMutation::InsertedAlias;
using Exclusion = OwnerAliasMutation::InsertedExclusion;
using Rows = std::vector<std::string>;

Witness::Event witness(Witness::Kind kind, std::int64_t identities) {
    return {.kind = kind,
            .identityCount = identities,
            .mergeEventCount = 0,
            .absorbedPersonCount = 0,
            .restoredPersonCount = 0,
            .restoredMembershipCount = 0,
            .operationID = std::nullopt};
}

Exclusion exclusionOf(const std::string& person) {
    return {host::stableID("owner-alias-exclusion", person), person};
}

// I1 and I4 are bound to P and Q; I2 and I3 are bound to no one.
struct Store {
    test::TestDatabase db;
    std::vector<Witness::Event> events;
    IdentityRepository repo{db.sharedPool(),
                            [this](const Witness::Event& e) { events.push_back(e); }};

    Store() {
        db.addPerson("P");
        db.addPerson("Q");
        db.addIdentity("I1", "gmail", "me@example.com");
        db.addIdentity("I2", "imessage", "+15550001");
        db.addIdentity("I3", "imessage", "+15550003");
        db.addIdentity("I4", "gmail", "me@work.example");
        db.addMembership("m1", "I1", "P");
        db.addMembership("m4", "I4", "Q", "high_conf");
    }

    Rows aliases() {
        return db.rows(
            "SELECT source_type, handle_normalized, subject_id, source_identity_id FROM "
            "owner_alias");
    }
    Rows exclusions() { return db.rows("SELECT id, scope, target_id FROM exclusion_rule"); }
    Rows generation() {
        return db.rows("SELECT generation FROM relationship_projection_generation");
    }

    // Everything but the projection generation, which the undo advances again.
    std::string dumpWithoutGeneration() {
        std::istringstream all(db.dump());
        std::string kept;
        for (std::string line; std::getline(all, line);) {
            if (line.rfind("relationship_projection_generation(", 0) != 0) {
                kept += line + "\n";
            }
        }
        return kept;
    }
};

TEST(OwnerAlias, DeclaringRecordsOnlyWhatItInserts) {
    Store s;
    const auto outcome = s.repo.declareOwnerAlias("I1", "subject-1");
    EXPECT_EQ(outcome.perIdentity, (std::vector<DeclareOwnerAliasResult>{{"P", true}}));
    EXPECT_EQ(outcome.mutation.insertedAliases,
              (std::vector<Alias>{{"I1", "gmail", "me@example.com"}}));
    EXPECT_EQ(outcome.mutation.insertedExclusions, (std::vector<Exclusion>{exclusionOf("P")}));
    EXPECT_EQ(s.aliases(), (Rows{"gmail|me@example.com|subject-1|I1"}));
    EXPECT_EQ(s.exclusions(), (Rows{host::stableID("owner-alias-exclusion", "P") + "|person|P"}));
    EXPECT_EQ(s.generation(), (Rows{"1"}));

    // I2 is bound to no one; the repeated I4 finds what its first declaration added.
    const auto batch = s.repo.batchDeclareOwnerAlias({"I2", "I4", "I4"}, "subject-1");
    EXPECT_EQ(batch.perIdentity, (std::vector<DeclareOwnerAliasResult>{
                                     {std::nullopt, true}, {"Q", true}, {"Q", false}}));
    EXPECT_EQ(
        batch.mutation.insertedAliases,
        (std::vector<Alias>{{"I2", "imessage", "+15550001"}, {"I4", "gmail", "me@work.example"}}));
    EXPECT_EQ(batch.mutation.insertedExclusions, (std::vector<Exclusion>{exclusionOf("Q")}));
    EXPECT_EQ(s.events, (std::vector{witness(Witness::Kind::declareOwnerAlias, 1),
                                     witness(Witness::Kind::declareOwnerAlias, 3)}));
}

TEST(OwnerAlias, DeclaringWhatIsAlreadyThereChangesNothingButIsWitnessed) {
    Store s;
    s.db.exec(
        "INSERT INTO owner_alias (source_type, handle_normalized) VALUES ('gmail', "
        "'me@example.com');"
        "INSERT INTO exclusion_rule (id, scope, target_id) VALUES ('" +
        host::stableID("owner-alias-exclusion", "P") +
        "', 'person', 'P');"
        "INSERT INTO relationship_projection_generation VALUES (1, 7);");
    const std::string before = s.db.dump();
    const auto outcome = s.repo.declareOwnerAlias("I1", "subject-1");
    EXPECT_EQ(outcome.perIdentity, (std::vector<DeclareOwnerAliasResult>{{"P", false}}));
    EXPECT_TRUE(outcome.mutation.empty());
    EXPECT_EQ(s.db.dump(), before);  // the generation stays at 7
    EXPECT_EQ(s.events, (std::vector{witness(Witness::Kind::declareOwnerAlias, 1)}));
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

    EXPECT_EQ(s.repo.batchDeclareOwnerAlias({}, "subject-1"), OwnerAliasDeclarationOutcome{});
    EXPECT_TRUE(s.events.empty());
}

TEST(OwnerAlias, UndoRemovesExactlyWhatTheDeclarationInserted) {
    Store s;
    // I3's handle is already the user's, and Q already carries its exclusion: both
    // must survive the undo.
    s.db.exec(
        "INSERT INTO owner_alias (source_type, handle_normalized) VALUES ('imessage', "
        "'+15550003');"
        "INSERT INTO exclusion_rule (id, scope, target_id) VALUES ('" +
        host::stableID("owner-alias-exclusion", "Q") + "', 'person', 'Q');");
    const std::string before = s.dumpWithoutGeneration();

    const auto outcome = s.repo.batchDeclareOwnerAlias({"I1", "I3", "I4"}, "subject-1");
    EXPECT_EQ(outcome.mutation.insertedAliases.size(), 2u);
    EXPECT_EQ(outcome.mutation.insertedExclusions, (std::vector<Exclusion>{exclusionOf("P")}));

    s.repo.undoOwnerAliasMutation(outcome.mutation);
    EXPECT_EQ(s.dumpWithoutGeneration(), before);
    EXPECT_EQ(s.generation(), (Rows{"2"}));
    EXPECT_EQ(s.events, (std::vector{witness(Witness::Kind::declareOwnerAlias, 3),
                                     witness(Witness::Kind::undoOwnerAlias, 2)}));

    // Rows that are already gone are not an error; an empty mutation does nothing.
    s.repo.undoOwnerAliasMutation(outcome.mutation);
    EXPECT_EQ(s.dumpWithoutGeneration(), before);
    s.repo.undoOwnerAliasMutation({});
    EXPECT_EQ(s.generation(), (Rows{"3"}));
    EXPECT_EQ(s.events.size(), 3u);
}

}  // namespace
}  // namespace orvik::identity
