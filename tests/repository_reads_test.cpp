#include <gtest/gtest.h>

#include <future>

#include "identity/IdentityRepository.h"
#include "identity/IdentityRepositoryInternal.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Case = IdentityStoreError::Case;

class RepositoryReads : public ::testing::TestWithParam<bool> {
  protected:
    RepositoryReads() : db_(GetParam()), repository_(db_.sharedPool(), nullptr) {}

    template <typename F>
    auto inRead(F&& fn) {
        return db_.pool().read([&](store::Connection& c) { return fn(core_, c); });
    }

    void expectCorrupt(const std::function<void()>& read) {
        try {
            read();
            FAIL() << "a corrupt row was decoded";
        } catch (const IdentityStoreError& error) {
            EXPECT_EQ(error.errorCase(), Case::corruptRestoreMap);
        }
    }

    test::TestDatabase db_;
    IdentityRepository repository_;
    internal::RepositoryCore core_{host::HostServices::reference()};
};

TEST_P(RepositoryReads, ResolveFollowsAbsorptionsButKeepsTheMembershipsOwnFacts) {
    db_.addPerson("c", std::nullopt, "Carol");
    db_.addPerson("b", "c");
    db_.addPerson("a", "b");
    db_.addIdentity("si-1", "gmail", "carol@example.com");
    db_.addMembership("m-1", "si-1", "a", "high_conf", std::nullopt, "agent+user", "same address");

    const auto resolved = repository_.resolveCanonicalPerson("si-1");
    ASSERT_TRUE(resolved);
    EXPECT_EQ(*resolved, (ResolvedPerson{.personID = "c",
                                         .displayName = "Carol",
                                         .membershipState = MembershipState::highConf,
                                         .decidedBy = DecidedBy::agentAndUser,
                                         .because = "same address"}));

    // Only "possible" or ended memberships: nothing resolves.
    db_.addIdentity("si-2", "gmail", "x@example.com");
    db_.addMembership("m-2", "si-2", "c", "possible");
    db_.addMembership("m-3", "si-2", "c", "confirmed", "2021-01-01T00:00:00Z");
    EXPECT_FALSE(repository_.resolveCanonicalPerson("si-2"));
    EXPECT_FALSE(repository_.activeMembership("si-2"));
    EXPECT_FALSE(repository_.resolveCanonicalPerson("unknown"));

    // A chain that ends at a missing person resolves to nothing.
    db_.addPerson("d", "ghost");
    db_.addIdentity("si-3", "imessage", "+15550001");
    db_.addMembership("m-4", "si-3", "d");
    EXPECT_FALSE(repository_.resolveCanonicalPerson("si-3"));
}

TEST_P(RepositoryReads, ChainHeadStopsAtMissingPersonsCyclesAndTwentyHops) {
    db_.addPerson("orphaned", "missing");
    db_.addPerson("x", "y");
    db_.addPerson("y", "x");
    for (int i = 0; i < 25; ++i) {
        db_.addPerson("p" + std::to_string(i), "p" + std::to_string(i + 1));
    }
    db_.addPerson("p25");
    inRead([](internal::RepositoryCore& core, store::Connection& c) {
        EXPECT_EQ(core.absorptionChainHead("orphaned", c), "missing");
        EXPECT_EQ(core.absorptionChainHead("nobody", c), "nobody");
        // Twenty hops around a two-person cycle land back where they began.
        EXPECT_EQ(core.absorptionChainHead("x", c), "x");
        EXPECT_EQ(core.absorptionChainHead("p0", c), "p20");
        EXPECT_EQ(core.absorptionChainHead("p10", c), "p25");
        // With the head's row: the one the walk ended on, or the row the hop
        // limit stopped at, never the last one read before it.
        EXPECT_EQ(core.absorptionChainHeadRow("p1", c).second->id, "p21");
        EXPECT_EQ(core.absorptionChainHeadRow("p11", c).second->id, "p25");
        EXPECT_FALSE(core.absorptionChainHeadRow("orphaned", c).second);
        return 0;
    });
}

TEST_P(RepositoryReads, OwnerIdentityByAliasAccountOrOwnPersonMembership) {
    db_.addPerson("me");
    db_.addPerson("friend");
    db_.exec("INSERT INTO owner_ego (person_id) VALUES ('me')");
    db_.exec(
        "INSERT INTO source_account (source_type, handle) VALUES ('gmail', 'me@work.example')");
    db_.exec(
        "INSERT INTO owner_alias (source_type, handle_normalized) VALUES ('imessage', '+1555')");
    db_.addIdentity("si-own", "outlook", "me@home.example");
    db_.addMembership("m-own", "si-own", "me");
    db_.addIdentity("si-alias", "imessage", "+1555");
    db_.addMembership("m-alias", "si-alias", "friend");
    db_.addIdentity("si-f", "gmail", "friend@example.com");
    db_.addMembership("m-f", "si-f", "friend");

    inRead([](internal::RepositoryCore& core, store::Connection& c) {
        EXPECT_TRUE(core.isOwnerIdentity("gmail", "me@work.example", c));
        EXPECT_TRUE(core.isOwnerIdentity("imessage", "+1555", c));
        EXPECT_TRUE(core.isOwnerIdentity("outlook", "me@home.example", c));
        // Same handle under another source type is somebody else's.
        EXPECT_FALSE(core.isOwnerIdentity("outlook", "me@work.example", c));
        EXPECT_FALSE(core.isOwnerIdentity("gmail", "friend@example.com", c));

        EXPECT_TRUE(core.personContainsOwnerIdentity("me", c));
        EXPECT_TRUE(core.personContainsOwnerIdentity("friend", c));  // through the alias
        EXPECT_FALSE(core.personContainsOwnerIdentity("nobody", c));
        EXPECT_EQ(core.ownerAliasHandle("friend", c), "+1555");
        EXPECT_FALSE(core.ownerAliasHandle("me", c));
        return 0;
    });

    // Without any member, the user's own person is still the owner's.
    db_.exec("UPDATE identity_membership SET ended_at = '2021-01-01T00:00:00Z'");
    inRead([](internal::RepositoryCore& core, store::Connection& c) {
        EXPECT_TRUE(core.personContainsOwnerIdentity("me", c));
        EXPECT_FALSE(core.isOwnerIdentity("outlook", "me@home.example", c));
        return 0;
    });
}

TEST_P(RepositoryReads, OwnerAliasExclusionClaimsAndStubPersons) {
    const std::string rule = host::stableID("owner-alias-exclusion", "p-1");
    db_.exec("INSERT INTO exclusion_rule (id, scope, target_id) VALUES ('" + rule +
             "', 'person', 'p-1'), ('other', 'person', 'p-2')");
    db_.exec(
        "INSERT INTO claim (id, person_id, predicate, provenance) VALUES "
        "('c2', 'p-1', 'display_name', 'user_stated'), ('c1', 'p-1', 'email', 'import'), "
        "('c3', 'p-2', 'email', 'import')");
    inRead([&](internal::RepositoryCore& core, store::Connection& c) {
        EXPECT_TRUE(core.hasOwnerAliasExclusion("p-1", c));
        // A rule under another identifier is not the owner-alias exclusion.
        EXPECT_FALSE(core.hasOwnerAliasExclusion("p-2", c));
        EXPECT_EQ(core.claimIDs("p-1", c), (std::vector<std::string>{"c1", "c2"}));
        return 0;
    });
    const auto id =
        db_.pool().write([&](store::Connection& c) { return core_.createPersonRow(c); });
    const auto person = repository_.person(id);
    ASSERT_TRUE(person);
    EXPECT_EQ(person->tier, "stub");
    EXPECT_EQ(person->createdFrom, "identity_correction");
    EXPECT_FALSE(person->displayName);
    EXPECT_FALSE(person->mergedIntoPersonID);
}

TEST_P(RepositoryReads, LatestUndoableEventPrefersNewestThenLastInserted) {
    auto event = [&](const std::string& id, const std::string& survivor,
                     const std::string& absorbed, const std::string& at, bool reversed) {
        db_.exec(
            "INSERT INTO merge_event (id, surviving_person_id, absorbed_person_id, "
            "pre_merge_state_json, decided_by, created_at, reversed_at) VALUES ('" +
            id + "', '" + survivor + "', " +
            test::sql(absorbed.empty() ? std::nullopt : std::optional(absorbed)) +
            ", '{}', 'user', '" + at + "', " + (reversed ? "'2030-01-01T00:00:00Z'" : "NULL") +
            ")");
    };
    event("e-old", "p", "", "2024-01-01T00:00:00Z", false);
    event("e-b", "p", "q", "2024-02-01T00:00:00Z", false);
    event("e-a", "r", "p", "2024-02-01T00:00:00Z", false);  // same second, inserted last
    event("e-new", "p", "", "2024-03-01T00:00:00Z", true);  // reversed

    const auto latest = repository_.latestUndoableMergeEvent("p");
    ASSERT_TRUE(latest);
    EXPECT_EQ(latest->id, "e-a");
    EXPECT_EQ(latest->absorbedPersonID, "p");
    EXPECT_EQ(repository_.latestUndoableMergeEvent("q")->id, "e-b");
    EXPECT_FALSE(repository_.latestUndoableMergeEvent("nobody"));
    EXPECT_EQ(repository_.mergeEvent("e-new")->reversedAt, "2030-01-01T00:00:00Z");
}

TEST_P(RepositoryReads, UnknownStoredEnumerationsFailTheRead) {
    db_.addPerson("p");
    db_.addIdentity("si", "gmail", "a@example.com");
    db_.addMembership("m", "si", "p", "Confirmed");
    // Not active by SQL's test, so the single-row read does not meet it...
    EXPECT_FALSE(repository_.activeMembership("si"));
    // ...but a row that passes the filter and carries an unknown decider fails.
    db_.addIdentity("si-2", "gmail", "b@example.com");
    db_.addMembership("m-2", "si-2", "p", "confirmed", std::nullopt, "robot");
    expectCorrupt([&] { (void)repository_.activeMemberships("p"); });
    expectCorrupt([&] { (void)repository_.activeMembership("si-2"); });

    db_.exec(
        "INSERT INTO merge_event (id, surviving_person_id, pre_merge_state_json, decided_by, "
        "created_at) VALUES ('e', 'p', '{}', 'USER', '2024-01-01T00:00:00Z')");
    expectCorrupt([&] { (void)repository_.mergeEvent("e"); });
    expectCorrupt([&] { (void)repository_.latestUndoableMergeEvent("p"); });
    // A possible membership is decoded (and never active).
    db_.exec("UPDATE identity_membership SET decided_by = 'user', state = 'possible'");
    EXPECT_TRUE(repository_.activeMemberships("p").empty());
}

TEST_P(RepositoryReads, ReadsDoNotWaitForAnOpenWrite) {
    db_.addPerson("p", std::nullopt, "Before");
    std::promise<void> writeOpen;
    std::promise<void> readDone;
    std::thread writer([&] {
        db_.pool().write([&](store::Connection& c) {
            c.run("UPDATE person SET display_name = 'During' WHERE id = 'p'");
            writeOpen.set_value();
            readDone.get_future().wait();
        });
    });
    writeOpen.get_future().wait();
    EXPECT_EQ(repository_.person("p")->displayName, "Before");
    readDone.set_value();
    writer.join();
    EXPECT_EQ(repository_.person("p")->displayName, "During");
}

INSTANTIATE_TEST_SUITE_P(EncryptedAndPlain, RepositoryReads,
#ifdef ORVIK_HAS_SQLCIPHER
                         ::testing::Values(true, false),
#else
                         ::testing::Values(false),
#endif
                         [](const auto& info) { return info.param ? "Encrypted" : "Plain"; });

}  // namespace
}  // namespace orvik::identity
