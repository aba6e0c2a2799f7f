#include <gtest/gtest.h>

#include "identity/IdentityRepositoryInternal.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

constexpr auto kPerson = ConstraintSubjectType::person;
constexpr auto kIdentity = ConstraintSubjectType::identity;
using Ids = std::vector<std::string>;

class Constraints : public ::testing::Test {
  protected:
    template <typename F>
    auto inWrite(F&& fn) {
        return db_.pool().write([&](store::Connection& c) { return fn(c); });
    }

    std::optional<std::string> revokedAt(const std::string& id) {
        return db_.pool().read([&](store::Connection& c) {
            std::optional<std::string> value;
            c.query("SELECT revoked_at FROM identity_constraint WHERE id = ?", {id},
                    [&](const store::Row& row) { value = row.optionalText("revoked_at"); });
            return value;
        });
    }

    test::TestDatabase db_;
    internal::RepositoryCore core_{host::HostServices::reference()};
};

TEST_F(Constraints, MatchesEitherOrientationAndOnlyLiveDifferentRows) {
    db_.addDifferent("k1", "person", "P", "identity", "X");
    db_.addDifferent("k2", "identity", "Y", "identity", "Z", "2024-01-01T00:00:00Z");
    db_.exec(
        "INSERT INTO identity_constraint (id, a_type, a_id, b_type, b_id, kind, decided_by, "
        "created_at) VALUES ('k3', 'identity', 'Y', 'identity', 'W', 'same', 'user', 'now')");
    inWrite([&](store::Connection& c) {
        EXPECT_TRUE(core_.hasDifferentConstraint(kIdentity, "X", kPerson, "P", c));
        EXPECT_TRUE(core_.hasDifferentConstraint(kPerson, "P", kIdentity, "X", c));
        // Types are part of the match.
        EXPECT_FALSE(core_.hasDifferentConstraint(kIdentity, "P", kIdentity, "X", c));
        EXPECT_FALSE(core_.hasDifferentConstraint(kIdentity, "Y", kIdentity, "Z", c));  // revoked
        EXPECT_FALSE(core_.hasDifferentConstraint(kIdentity, "Y", kIdentity, "W", c));  // "same"
        EXPECT_EQ(core_.liveDifferentConstraintRows(kIdentity, "X", kPerson, "P", c),
                  (std::vector<internal::RepositoryCore::ConstraintRef>{{"k1", "user"}}));
        return 0;
    });
}

TEST_F(Constraints, PersonPairsMatchThroughAbsorptionHeads) {
    for (const char* p : {"C", "D", "E"}) {
        db_.addPerson(p);
    }
    db_.addPerson("A", "C");
    db_.addPerson("B", "D");
    db_.addPerson("A2", "A");  // two hops to C
    db_.addDifferent("k-ab", "person", "A", "person", "B");
    db_.addDifferent("k-dc", "person", "D", "person", "C");
    db_.addDifferent("k-ce", "person", "C", "person", "E", "2024-01-01T00:00:00Z");
    inWrite([&](store::Connection& c) {
        EXPECT_TRUE(core_.hasDifferentConstraint(kPerson, "C", kPerson, "D", c));
        EXPECT_TRUE(core_.hasDifferentConstraint(kPerson, "D", kPerson, "A2", c));
        EXPECT_FALSE(core_.hasDifferentConstraint(kPerson, "C", kPerson, "C", c));
        EXPECT_FALSE(core_.hasDifferentConstraint(kPerson, "A", kPerson, "C", c));  // same head
        EXPECT_FALSE(core_.hasDifferentConstraint(kPerson, "C", kPerson, "E", c));  // revoked
        EXPECT_EQ(core_.livePersonPairDifferentConstraintIDs("A2", "B", c), (Ids{"k-ab", "k-dc"}));
        EXPECT_TRUE(core_.livePersonPairDifferentConstraintIDs("A", "C", c).empty());
        // Exact matching ignores absorption.
        EXPECT_TRUE(core_.liveDifferentConstraintRows(kPerson, "C", kPerson, "D", c).size() == 1);
        EXPECT_TRUE(core_.liveDifferentConstraintRows(kPerson, "A2", kPerson, "B", c).empty());
        return 0;
    });
}

TEST_F(Constraints, RevocationTakesReMintedCopiesOfArchiveParticipantsAlong) {
    db_.addIdentity("si-part", "hybrid_archive", "am-participant-17");
    db_.addIdentity("si-mail1", "hybrid_archive", "dana@example.com");
    db_.addIdentity("si-mail2", "hybrid_archive", "dana@work.example");
    db_.addIdentity("si-gmail", "gmail", "dana@example.com");  // not an archive identity
    db_.addIdentity("si-other", "gmail", "eve@example.com");
    db_.addDifferent("k", "identity", "si-other", "identity", "si-part");
    const auto copy1 = host::stableID("constraint-remint", "k", "si-mail1");
    const auto copy2 = host::stableID("constraint-remint", "k", "si-mail2");
    const auto gmailCopy = host::stableID("constraint-remint", "k", "si-gmail");
    db_.addDifferent(copy1, "identity", "si-other", "identity", "si-mail1");
    db_.addDifferent(copy2, "identity", "si-other", "identity", "si-mail2", "2024-01-01T00:00:00Z");
    db_.addDifferent(gmailCopy, "identity", "si-other", "identity", "si-gmail");
    db_.addDifferent("k-plain", "identity", "si-other", "identity", "si-mail1");

    inWrite([&](store::Connection& c) {
        EXPECT_EQ(core_.liveRemintedConstraintIDs("k", c), (Ids{copy1}));
        EXPECT_TRUE(core_.liveRemintedConstraintIDs("k-plain", c).empty());
        EXPECT_TRUE(core_.liveRemintedConstraintIDs("missing", c).empty());

        // Named twice: revoked once; the live copy follows it; the revoked copy
        // keeps its old time.
        EXPECT_EQ(core_.revokeDifferentConstraintRows({"k", "k"}, "2025-05-05T05:05:05Z", c),
                  (Ids{"k", copy1}));
        return 0;
    });
    EXPECT_EQ(revokedAt("k"), "2025-05-05T05:05:05Z");
    EXPECT_EQ(revokedAt(copy1), "2025-05-05T05:05:05Z");
    EXPECT_EQ(revokedAt(copy2), "2024-01-01T00:00:00Z");
    EXPECT_EQ(revokedAt(gmailCopy), std::nullopt);

    // Revoking an already revoked row by name stamps it again (its copies are no
    // longer live and are left alone).
    inWrite([&](store::Connection& c) {
        EXPECT_EQ(core_.revokeDifferentConstraintRows({"k"}, "2026-06-06T06:06:06Z", c),
                  (Ids{"k"}));
        return 0;
    });
    EXPECT_EQ(revokedAt("k"), "2026-06-06T06:06:06Z");
    EXPECT_EQ(revokedAt(copy1), "2025-05-05T05:05:05Z");
}

TEST_F(Constraints, RevokeLiveCollectsIdentityPersonAndCrossPairsOnce) {
    db_.addPerson("PA");
    db_.addPerson("PB");
    db_.addPerson("old-B", "PB");
    db_.addDifferent("ii", "identity", "sb", "identity", "sa");
    db_.addDifferent("pp", "person", "PA", "person", "PB");
    db_.addDifferent("pp-absorbed", "person", "old-B", "person", "PA");
    db_.addDifferent("a-pb", "person", "PB", "identity", "sa");
    db_.addDifferent("b-pa", "identity", "sb", "person", "PA");
    db_.addDifferent("unrelated", "identity", "sa", "identity", "sc");

    const auto revoked = inWrite([&](store::Connection& c) {
        return core_.revokeLiveDifferentConstraints("sa", "sb", std::string("PA"),
                                                    std::string("PB"), "2025-01-01T00:00:00Z", c);
    });
    EXPECT_EQ(revoked, (Ids{"ii", "pp", "a-pb", "b-pa", "pp-absorbed"}));
    EXPECT_EQ(revokedAt("unrelated"), std::nullopt);

    // Without persons only the identity pair is considered.
    db_.exec("UPDATE identity_constraint SET revoked_at = NULL");
    const auto identityOnly = inWrite([&](store::Connection& c) {
        return core_.revokeLiveDifferentConstraints("sa", "sb", std::nullopt, std::nullopt,
                                                    "2025-01-01T00:00:00Z", c);
    });
    EXPECT_EQ(identityOnly, (Ids{"ii"}));
}

TEST_F(Constraints, ARevocationThatFailsLeavesEveryConstraintLive) {
    db_.addDifferent("k1", "identity", "a", "identity", "b");
    db_.addDifferent("k2", "identity", "a", "identity", "b");
    const auto before = db_.dump({"identity_constraint"});
    // Fail the second revoking update of the transaction.
    for (int n = 1; n <= 8; ++n) {
        db_.pool().armFault(
            store::FaultPlan{.failAtStatement = n, .code = 10, .writesOnly = true, .fired = false});
        try {
            inWrite([&](store::Connection& c) {
                return core_.revokeLiveDifferentConstraints("a", "b", std::nullopt, std::nullopt,
                                                            "2025-01-01T00:00:00Z", c);
            });
        } catch (const store::DatabaseError&) {
        }
        if (!db_.pool().faultFired()) {
            db_.pool().disarmFault();
            break;
        }
        EXPECT_EQ(db_.dump({"identity_constraint"}), before) << "fault at statement " << n;
    }
}

}  // namespace
}  // namespace orvik::identity
