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
        db_.addPerson("p" + std::to_string(i), "p" + std::to_string(i + 1),
                      "Person " + std::to_string(i));
    }
    db_.addPerson("p25", std::nullopt, "Person 25");
    inRead([](internal::RepositoryCore& core, store::Connection& c) {
        EXPECT_EQ(core.absorptionChainHead("orphaned", c), "missing");
        EXPECT_EQ(core.absorptionChainHead("nobody", c), "nobody");
        // Twenty hops around a two-person cycle land back where they began.
        EXPECT_EQ(core.absorptionChainHead("x", c), "x");
        EXPECT_EQ(core.absorptionChainHead("p0", c), "p20");
        EXPECT_EQ(core.absorptionChainHead("p10", c), "p25");
        return 0;
    });
    // Resolving walks the same way, and names the person the walk ended on or
    // the hop limit stopped at, never the last one read before it.
    for (const auto* start : {"p1", "p11", "orphaned", "x"}) {
        db_.addIdentity(std::string("si-") + start, "gmail", std::string(start) + "@example.com");
        db_.addMembership(std::string("m-") + start, std::string("si-") + start, start);
    }
    using Head = std::pair<std::string, std::optional<std::string>>;
    auto head = [&](const std::string& identity) {
        const auto resolved = repository_.resolveCanonicalPerson(identity);
        return resolved ? Head{resolved->personID, resolved->displayName} : Head{};
    };
    EXPECT_EQ(head("si-p1"), (Head{"p21", "Person 21"}));
    EXPECT_EQ(head("si-p11"), (Head{"p25", "Person 25"}));
    EXPECT_EQ(head("si-x").first, "x");
    EXPECT_FALSE(repository_.resolveCanonicalPerson("si-orphaned"));
}

// Within one write transaction the memo keeps absorption heads across the
// transaction's own absorptions. Every answer it gives must equal a fresh walk,
// also for walks that reach the absorbed person at or near the hop limit.
TEST_P(RepositoryReads, MemoisedHeadsFollowTheTransactionsOwnAbsorptions) {
    // c0 -> c1 -> ... -> c24 -> b; s, t and u are heads.
    db_.addPerson("b");
    for (int i = 0; i < 25; ++i) {
        db_.addPerson("c" + std::to_string(i), i == 24 ? "b" : "c" + std::to_string(i + 1));
    }
    for (const auto* id : {"s", "t", "u", "unrelated"}) {
        db_.addPerson(id);
    }
    db_.addDifferent("d1", "person", "c10", "person", "u");
    db_.addDifferent("d2", "person", "b", "person", "t");
    db_.addDifferent("d3", "person", "s", "person", "c3");

    std::vector<std::string> persons{"b", "s", "t", "u", "nobody"};
    for (int i = 0; i < 25; ++i) {
        persons.push_back("c" + std::to_string(i));
    }
    using Answers = std::vector<std::string>;
    auto answers = [&](store::Connection& c) {
        Answers out;
        for (const auto& p : persons) {
            out.push_back(core_.absorptionChainHead(p, c));
        }
        for (const auto& p : persons) {
            for (const auto* other : {"u", "t", "c3"}) {
                out.push_back(p + "~" + other + ":" +
                              (core_.hasDifferentConstraint(ConstraintSubjectType::person, p,
                                                            ConstraintSubjectType::person, other, c)
                                   ? "different"
                                   : "-"));
            }
        }
        return out;
    };
    auto absorb = [&](store::Connection& c, const std::string& survivor,
                      const std::string& absorbed) {
        internal::OperationMemo* memo = internal::OperationMemo::of(c);
        c.run("UPDATE person SET merged_into_person_id = ? WHERE id = ?", {survivor, absorbed});
        memo->personAbsorbed(c, survivor, absorbed);
    };
    // Any other write to person makes the memo forget, so the next answers are
    // fresh walks.
    auto forget = [](store::Connection& c) {
        c.run("UPDATE person SET display_name = display_name WHERE id = 'unrelated'");
    };

    // Fills the memo, absorbs each (survivor, absorbed) in turn, and checks the
    // memo's answers against fresh walks.
    auto absorbAndCompare = [&](store::Connection& c,
                                std::vector<std::pair<std::string, std::string>> absorptions) {
        (void)answers(c);
        for (const auto& [survivor, absorbed] : absorptions) {
            absorb(c, survivor, absorbed);
        }
        const auto memoised = answers(c);
        forget(c);
        EXPECT_EQ(memoised, answers(c));
    };

    struct RollBack {};
    EXPECT_THROW(db_.pool().write([&](store::Connection& c) {
        absorbAndCompare(c, {{"s", "b"}});
        // c6 reached b on its 19th hop and is now cut off at s on its 20th; c5
        // stays cut off at b.
        EXPECT_EQ(core_.absorptionChainHead("c6", c), "s");
        EXPECT_EQ(core_.absorptionChainHead("c5", c), "b");
        throw RollBack{};
    }),
                 RollBack);

    db_.pool().write([&](store::Connection& c) {
        // Two absorptions in a row, as in a batch of links.
        absorbAndCompare(c, {{"s", "b"}, {"t", "s"}});
        EXPECT_EQ(core_.absorptionChainHead("c6", c), "s");
        EXPECT_EQ(core_.absorptionChainHead("c7", c), "t");

        // Absorbing a person the memo never walked: it forgets instead.
        forget(c);
        absorb(c, "u", "t");
        EXPECT_EQ(core_.absorptionChainHead("b", c), "u");
        EXPECT_FALSE(core_.hasDifferentConstraint(ConstraintSubjectType::person, "c10",
                                                  ConstraintSubjectType::person, "u", c));
        return 0;
    });
}

// Rows read once per transaction are read again after a write to any table
// they depend on.
TEST_P(RepositoryReads, MemoisedReadsAnswerAnewAfterTheTransactionWritesTheirTables) {
    db_.addPerson("me");
    db_.addPerson("p");
    db_.addIdentity("si", "gmail", "a@example.com");
    db_.addMembership("m", "si", "p");
    db_.pool().write([&](store::Connection& c) {
        EXPECT_FALSE(core_.isOwnerIdentity("gmail", "a@example.com", c));
        EXPECT_FALSE(core_.personContainsOwnerIdentity("p", c));
        EXPECT_EQ(core_.ownerPersonID(c), "");
        c.run("INSERT INTO owner_ego (person_id) VALUES ('me')");
        EXPECT_EQ(core_.ownerPersonID(c), "me");
        c.run("UPDATE identity_membership SET canonical_person_id = 'me'");
        EXPECT_TRUE(core_.isOwnerIdentity("gmail", "a@example.com", c));
        EXPECT_FALSE(core_.personContainsOwnerIdentity("p", c));  // no members any more
        const auto& member = core_.activeMembershipRow("si", c);
        const auto& members = core_.activeMembershipRows("me", c);
        EXPECT_EQ(member->canonicalPersonID, "me");
        EXPECT_EQ(members.size(), 1U);

        c.run("UPDATE identity_membership SET ended_at = '2024-01-01T00:00:00Z'");
        EXPECT_FALSE(core_.activeMembershipRow("si", c));
        EXPECT_TRUE(core_.activeMembershipRows("me", c).empty());
        EXPECT_FALSE(core_.isOwnerIdentity("gmail", "a@example.com", c));
        // Answers handed out before a write stay as they were read until the
        // transaction ends: cores hold them by reference across their writes.
        EXPECT_EQ(member->canonicalPersonID, "me");
        EXPECT_FALSE(member->endedAt);
        EXPECT_EQ(members.size(), 1U);

        c.run(
            "INSERT INTO owner_alias (source_type, handle_normalized) VALUES ('gmail', "
            "'a@example.com')");
        EXPECT_TRUE(core_.isOwnerIdentity("gmail", "a@example.com", c));
        const auto& identity = core_.sourceIdentityRow("si", c);
        const auto nameBefore = identity->displayName;
        c.run("UPDATE source_identity SET display_name = 'Ann' WHERE id = 'si'");
        EXPECT_EQ(core_.sourceIdentityRow("si", c)->displayName, "Ann");
        EXPECT_EQ(identity->displayName, nameBefore);
        return 0;
    });
}

TEST_P(RepositoryReads, MemoisedReadsKeepKeysApartThatShareTheirFirstBytes) {
    // Same length and first eight bytes, or the same start and another length:
    // each key must find its own answer in one transaction's memo.
    const std::vector<std::string> ids{"identity-01", "identity-02", "identity-010", "identity-1",
                                       "id"};
    for (const auto& id : ids) {
        db_.addPerson("person-of-" + id);
        db_.addIdentity(id, "gmail", id + "@example.com");
        db_.addMembership("membership-of-" + id, id, "person-of-" + id);
    }
    db_.exec(
        "INSERT INTO owner_alias (source_type, handle_normalized) VALUES ('gmail', "
        "'identity-01@example.com')");
    inRead([&](internal::RepositoryCore& core, store::Connection& c) {
        for (int round = 0; round < 2; ++round) {
            for (const auto& id : ids) {
                EXPECT_EQ(core.sourceIdentityRow(id, c)->id, id);
                EXPECT_EQ(core.activeMembershipRow(id, c)->canonicalPersonID, "person-of-" + id);
                EXPECT_EQ(core.isOwnerIdentity("gmail", id + "@example.com", c),
                          id == "identity-01");
            }
        }
        EXPECT_FALSE(core.sourceIdentityRow("identity-03", c));
        return 0;
    });
}

TEST_P(RepositoryReads, LaterTransactionsReadIntoEarlierAnswersWithoutKeepingAnyOfThem) {
    // The memo reads into records its earlier transactions filled: rows with
    // every optional column set and long texts first, then rows with NULLs,
    // shorter texts, fewer members and a missing row on the same connection.
    db_.addPerson("person-with-everything-set", std::nullopt, "A Rather Long Display Name");
    db_.addPerson("p-absorbed", "person-with-everything-set", "Absorbed", "identity_correction");
    db_.addIdentity("identity-with-everything-set", "gmail", "someone.long@example.com",
                    "Someone With A Long Name");
    db_.addIdentity("identity-two", "gmail", "two@example.com", "Two");
    db_.addMembership("membership-with-everything-set", "identity-with-everything-set",
                      "person-with-everything-set", "high_conf", std::nullopt, "auto",
                      "same contact key, and more");
    db_.addMembership("m-two", "identity-two", "person-with-everything-set");
    db_.exec(
        "INSERT INTO person (id, display_name, tier, compiled_state_json, created_from, "
        "merged_into_person_id, created_at) VALUES ('p', NULL, 'stub', NULL, NULL, NULL, "
        "'2020-01-01T00:00:00Z')");
    db_.addIdentity("si", "sms", "+1");
    db_.addMembership("m", "si", "p");
    db_.exec(
        "INSERT INTO merge_event (id, surviving_person_id, absorbed_person_id, "
        "pre_merge_state_json, because, decided_by, created_at, reversed_at, operation_id) "
        "VALUES ('event-with-everything-set', 'person-with-everything-set', 'p-absorbed', "
        "'{\"a long snapshot\": true}', 'because of a long reason', 'auto', "
        "'2024-01-01T00:00:00Z', '2024-02-01T00:00:00Z', 'operation-with-a-long-id'), "
        "('e', 'p', NULL, '{}', NULL, 'user', '2024-01-01T00:00:00Z', NULL, NULL)");

    auto readAll = [&](const std::string& identity, const std::string& person,
                       const std::string& event) {
        db_.pool().write([&](store::Connection& c) {
            EXPECT_EQ(core_.sourceIdentityRow(identity, c), repository_.sourceIdentity(identity));
            EXPECT_EQ(core_.personRow(person, c), repository_.person(person));
            EXPECT_EQ(core_.activeMembershipRow(identity, c),
                      repository_.activeMembership(identity));
            EXPECT_EQ(core_.activeMembershipRows(person, c), repository_.activeMemberships(person));
            EXPECT_EQ(core_.mergeEventRow(event, c), repository_.mergeEvent(event));
            EXPECT_EQ(core_.personRow("p-absorbed", c), repository_.person("p-absorbed"));
            return 0;
        });
    };
    // What the rows hold, so that a column the decoders leave out shows.
    const auto full = repository_.mergeEvent("event-with-everything-set");
    EXPECT_EQ(full->absorbedPersonID, "p-absorbed");
    EXPECT_EQ(full->because, "because of a long reason");
    EXPECT_EQ(full->reversedAt, "2024-02-01T00:00:00Z");
    EXPECT_EQ(full->operationID, "operation-with-a-long-id");
    EXPECT_EQ(repository_.sourceIdentity("identity-with-everything-set")->displayName,
              "Someone With A Long Name");
    EXPECT_EQ(repository_.activeMembership("identity-with-everything-set")->because,
              "same contact key, and more");
    const auto absorbed = repository_.person("p-absorbed");
    EXPECT_EQ(absorbed->mergedIntoPersonID, "person-with-everything-set");
    EXPECT_EQ(absorbed->createdFrom, "identity_correction");
    EXPECT_EQ(absorbed->displayName, "Absorbed");

    readAll("identity-with-everything-set", "person-with-everything-set",
            "event-with-everything-set");
    readAll("si", "p", "e");
    readAll("missing", "missing", "missing");
    readAll("identity-with-everything-set", "person-with-everything-set",
            "event-with-everything-set");

    db_.pool().write([&](store::Connection& c) {
        const auto& event = core_.mergeEventRow("e", c);
        EXPECT_FALSE(event->absorbedPersonID || event->because || event->reversedAt ||
                     event->operationID);
        EXPECT_EQ(core_.activeMembershipRows("p", c).size(), 1U);
        EXPECT_FALSE(core_.personRow("p", c)->displayName);
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
    // The memo keeps nothing of a read that failed: asked again, it fails again,
    // also once it has nodes of an earlier transaction to read into.
    for (int transaction = 0; transaction < 2; ++transaction) {
        db_.pool().write([&](store::Connection& c) {
            EXPECT_TRUE(core_.activeMembershipRow("si", c) == std::nullopt);
            for (int i = 0; i < 2; ++i) {
                expectCorrupt([&] { (void)core_.activeMembershipRow("si-2", c); });
                expectCorrupt([&] { (void)core_.activeMembershipRows("p", c); });
            }
            return 0;
        });
    }

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
