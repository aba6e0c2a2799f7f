#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <set>
#include <sstream>

#include "identity/IdentityRepository.h"
#include "identity/IdentityRepositoryInternal.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Witness = IdentityCorrectionWitness;
using Target = ManualLinkTarget;
using Ids = std::vector<std::string>;
constexpr auto kLineage = SubjectLineage::person;

std::string errorText(const std::function<void()>& fn) {
    try {
        fn();
    } catch (const IdentityStoreError& e) {
        return e.what();
    }
    return "no error";
}

// A store, a repository over it and the witness events it reported.
struct World {
    test::TestDatabase db;
    std::vector<Witness::Event> events;
    IdentityRepository repo{db.sharedPool(),
                            [this](const Witness::Event& e) { events.push_back(e); }};
    internal::RepositoryCore core{host::HostServices::reference()};

    void person(const std::string& id, const std::string& createdAt = "2021-01-01T00:00:00Z",
                const std::optional<std::string>& mergedInto = {}) {
        db.addPerson(id, mergedInto);
        db.exec("UPDATE person SET created_at = " + test::sql(createdAt) +
                " WHERE id = " + test::sql(id));
    }
    // An identity, a member of `personID` when one is given.
    Target identity(const std::string& id, const std::optional<std::string>& personID = {},
                    const std::string& sourceType = "email",
                    const std::optional<std::string>& handle = {}) {
        db.addIdentity(id, sourceType, handle.value_or(id + "@example.com"));
        if (personID) {
            db.addMembership("m-" + id, id, *personID);
        }
        return Target::identity(*repo.sourceIdentity(id));
    }
    std::string head(const std::string& personID) {
        return db.pool().read(
            [&](store::Connection& c) { return core.absorptionChainHead(personID, c); });
    }
    // The person a target stands for now, or "" for an identity without one.
    std::string standsFor(const Target& target) {
        if (const auto* p = std::get_if<Target::Person>(&target.value)) {
            return head(p->id);
        }
        const auto resolved =
            repo.resolveCanonicalPerson(std::get<SourceIdentityRow>(target.value).id);
        return resolved ? resolved->personID : "";
    }
    std::optional<std::string> revokedAt(const std::string& constraintID) {
        const auto rows = db.rows("SELECT revoked_at FROM identity_constraint WHERE id = " +
                                  test::sql(constraintID));
        return rows.empty() || rows[0] == "NULL" ? std::nullopt : std::optional(rows[0]);
    }
};

TEST(ManualLinkSurvivor, MembersThenEarlierCreationThenSmallerID) {
    World w;
    w.person("old-empty", "2019-01-01T00:00:00Z");
    w.person("young", "2023-01-01T00:00:00Z");
    w.person("mid", "2022-01-01T00:00:00Z");
    w.person("b-tie", "2022-01-01T00:00:00Z");
    w.person("a-tie-empty", "2022-01-01T00:00:00Z");
    w.identity("y1", "young");
    w.identity("m1", "mid");
    w.identity("b1", "b-tie");
    auto survivor = [&](const Ids& heads) {
        return w.db.pool().read(
            [&](store::Connection& c) { return w.core.manualLinkSurvivor(heads, c); });
    };
    // A person without members never wins against one with members, whatever its age.
    EXPECT_EQ(survivor({"old-empty", "young"}), "young");
    EXPECT_EQ(survivor({"young", "old-empty"}), "young");
    EXPECT_EQ(survivor({"young", "mid"}), "mid");
    // Equal creation texts: the smaller identifier.
    EXPECT_EQ(survivor({"young", "mid", "b-tie"}), "b-tie");
    EXPECT_EQ(survivor({"b-tie", "mid"}), "b-tie");
    EXPECT_EQ(survivor({"old-empty", "a-tie-empty"}), "old-empty");
    EXPECT_EQ(survivor({"b-tie", "a-tie-empty", "old-empty"}), "b-tie");
    EXPECT_EQ(survivor({"mid"}), "mid");
    EXPECT_EQ(survivor({}), std::nullopt);
    // Rows are read only when the member test does not decide.
    EXPECT_EQ(survivor({"ghost", "mid"}), "mid");
    EXPECT_EQ(errorText([&] { survivor({"ghost", "old-empty"}); }), "notFound: ghost");
}

// Random stores of persons (with and without members, equal creation times,
// absorbed ones) and unaffiliated identities: the committed survivor is the
// predicted one, and every target ends up in it.
TEST(ManualLinkSurvivor, PredictionAgreesWithTheCommit) {
    const std::vector<std::string> times = {"2021-01-01T00:00:00Z", "2021-06-01T00:00:00Z"};
    for (unsigned seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        auto pick = [&](std::size_t n) { return static_cast<std::size_t>(rng() % n); };
        World w;
        std::vector<Target> pool;
        std::vector<Target> personTargets;
        Ids live;
        const std::size_t persons = 2 + pick(4);
        int identityCount = 0;
        for (std::size_t i = 0; i < persons; ++i) {
            // Identifiers in random order, so that ties are not decided by creation order.
            const std::string id = "p" + std::to_string(pick(1000)) + "-" + std::to_string(i);
            if (!live.empty() && pick(4) == 0) {
                w.person(id, times[pick(2)], live[pick(live.size())]);
            } else {
                w.person(id, times[pick(2)]);
                live.push_back(id);
                for (std::size_t m = pick(3); m > 0; --m) {
                    pool.push_back(w.identity("i" + std::to_string(identityCount++), id));
                }
            }
            personTargets.push_back(Target::person(id));
        }
        for (std::size_t u = pick(3); u > 0; --u) {
            pool.push_back(w.identity("u" + std::to_string(identityCount++)));
        }
        pool.insert(pool.end(), personTargets.begin(), personTargets.end());

        std::vector<Target> targets;
        for (std::size_t n = 2 + pick(4); n > 0; --n) {
            targets.push_back(pool[pick(pool.size())]);
        }
        targets[pick(targets.size())] = personTargets[pick(personTargets.size())];
        if (std::all_of(targets.begin(), targets.end(),
                        [&](const Target& t) { return t == targets.front(); })) {
            targets.push_back(pool.front() == targets.front() ? pool.back() : pool.front());
        }

        const auto prediction = w.repo.predictManualLinkSurvivor(targets);
        ASSERT_TRUE(prediction);
        std::vector<Target> expectedSurvivorTargets;
        for (const auto& t : targets) {
            if (w.standsFor(t) == prediction->personID) {
                expectedSurvivorTargets.push_back(t);
            }
        }
        EXPECT_EQ(prediction->targets, targets);
        EXPECT_EQ(prediction->survivorTargets, expectedSurvivorTargets);

        const auto result = w.repo.confirmManualLink(targets, kLineage, "subj");
        EXPECT_EQ(result.personID, prediction->personID);
        for (const auto& t : targets) {
            EXPECT_EQ(w.standsFor(t), result.personID);
        }
    }
}

TEST(ManualLink, RefusesTooFewDistinctTargetsAndSmallBatches) {
    World w;
    w.person("P");
    const auto x = w.identity("x", "P");
    const std::string before = w.db.dump();
    const std::string tooFew = "invalidArgs: manual link requires at least two distinct targets";
    EXPECT_EQ(
        errorText([&] {
            w.repo.confirmManualLink({Target::person("P"), Target::person("P")}, kLineage, "subj");
        }),
        tooFew);
    EXPECT_EQ(errorText([&] { w.repo.confirmManualLink({x, x}, kLineage, "subj"); }), tooFew);

    // Refused before a transaction is opened: an armed fault stays unfired.
    w.db.pool().armFault({});
    const std::string small = "invalidArgs: batch confirm requires at least two identities";
    EXPECT_EQ(errorText([&] {
                  w.repo.batchConfirmManualLink({std::get<SourceIdentityRow>(x.value)}, kLineage,
                                                "subj");
              }),
              small);
    EXPECT_EQ(errorText([&] { w.repo.batchConfirmManualLink({}, kLineage, "subj"); }), small);
    EXPECT_FALSE(w.db.pool().faultFired());
    w.db.pool().disarmFault();

    EXPECT_EQ(w.db.dump(), before);
    EXPECT_TRUE(w.events.empty());
}

TEST(ManualLink, IdentitiesOnlyRunAsABatch) {
    World w;
    w.person("P");
    const auto x = w.identity("x");
    const auto y = w.identity("y");
    const auto z = w.identity("z", "P");
    const auto result = w.repo.confirmManualLink({x, y, x, z}, kLineage, "subj");

    // x and y get a new person; then x's person absorbs P.
    ASSERT_EQ(result.mergeEventIDs.size(), 3u);
    EXPECT_EQ(w.standsFor(z), result.personID);
    EXPECT_EQ(w.head("P"), result.personID);
    ASSERT_EQ(w.events.size(), 1u);
    EXPECT_EQ(w.events[0].kind, Witness::Kind::batchConfirmManualLink);
    EXPECT_EQ(w.events[0].identityCount, 3);
    EXPECT_EQ(w.events[0].mergeEventCount, 3);
    EXPECT_EQ(w.events[0].absorbedPersonCount, 1);
}

TEST(ManualLink, TwoIdentitiesRevokeWhatSeparatesThem) {
    World w;
    w.person("P");
    w.person("Q");
    w.person("Old", "2021-01-01T00:00:00Z", "Q");
    const auto x = std::get<SourceIdentityRow>(w.identity("x", "P").value);
    const auto y = std::get<SourceIdentityRow>(w.identity("y", "Q").value);
    w.db.addDifferent("c-pq", "person", "Old", "person", "P");  // binds Q through absorption

    const auto result = w.repo.confirmManualLink(x, y, kLineage, "subj");
    EXPECT_EQ(result.personID, "P");
    ASSERT_EQ(result.mergeEventIDs.size(), 1u);
    EXPECT_TRUE(w.revokedAt("c-pq"));
    const auto event = w.repo.mergeEvent(result.mergeEventIDs[0]);
    EXPECT_EQ(decodeMergePreState(event->preMergeStateJSON)->revokedDifferentConstraintIDs,
              Ids{"c-pq"});
    ASSERT_EQ(w.events.size(), 1u);
    EXPECT_EQ(w.events[0].kind, Witness::Kind::confirmManualLink);
    EXPECT_EQ(w.events[0].identityCount, 2);
    EXPECT_EQ(w.events[0].absorbedPersonCount, 1);
    EXPECT_EQ(w.events[0].operationID, event->operationID);

    // Already one person: nothing is revoked or written.
    w.db.addDifferent("c-xy", "identity", "x", "identity", "y");
    const std::string before = w.db.dump();
    EXPECT_EQ(w.repo.confirmManualLink(x, y, kLineage, "subj"),
              (IdentityConfirmResult{.personID = "P", .mergeEventIDs = {}}));
    EXPECT_EQ(w.db.dump(), before);
}

TEST(ManualLink, AbsorbedPersonsResolveToTheirHead) {
    World w;
    w.person("H");
    w.person("A", "2021-01-01T00:00:00Z", "H");
    w.person("A2", "2021-01-01T00:00:00Z", "A");
    w.person("Z", "2021-01-01T00:00:00Z", "gone");
    w.db.addDifferent("c-ah", "person", "A", "person", "H");
    w.db.addDifferent("c-uh", "person", "H", "identity", "u");

    // Two persons of one chain are one head: nothing to merge or revoke.
    const std::string before = w.db.dump();
    const auto same =
        w.repo.confirmManualLink({Target::person("A2"), Target::person("H")}, kLineage, "subj");
    EXPECT_EQ(same, (IdentityConfirmResult{.personID = "H", .mergeEventIDs = {}}));
    EXPECT_EQ(w.db.dump(), before);

    const auto u = w.identity("u");
    const auto v = w.identity("v");
    const auto linked = w.repo.confirmManualLink({Target::person("A2"), u, v}, kLineage, "subj");
    EXPECT_EQ(linked.personID, "H");
    ASSERT_EQ(linked.mergeEventIDs.size(), 2u);
    // The constraint that would block the link is revoked first and recorded with
    // the first event only.
    const auto first = w.repo.mergeEvent(linked.mergeEventIDs[0]);
    const auto second = w.repo.mergeEvent(linked.mergeEventIDs[1]);
    EXPECT_EQ(first->survivingPersonID, "H");
    EXPECT_EQ(decodeMergePreState(first->preMergeStateJSON)->revokedDifferentConstraintIDs,
              Ids{"c-uh"});
    EXPECT_EQ(decodeMergePreState(second->preMergeStateJSON)->revokedDifferentConstraintIDs, Ids{});
    EXPECT_FALSE(w.revokedAt("c-ah"));
    EXPECT_EQ(w.standsFor(u), "H");

    // The error names the person given, not its missing head.
    EXPECT_EQ(errorText([&] {
                  w.repo.confirmManualLink({Target::person("Z"), u}, kLineage, "subj");
              }),
              "notFound: Z");
    EXPECT_EQ(errorText([&] { w.repo.predictManualLinkSurvivor({Target::person("Z")}); }),
              "notFound: Z");
}

TEST(ManualLink, UnaffiliatedOnlyResolvesToNoPerson) {
    World w;
    const auto u1 = w.identity("u1");
    const auto u2 = w.identity("u2");
    EXPECT_EQ(w.repo.predictManualLinkSurvivor({u1, u2}), std::nullopt);
    EXPECT_EQ(
        errorText([&] {
            w.db.pool().write([&](store::Connection& c) {
                return w.core.confirmManualLinkTargetsCore({u1, u2}, "op", kLineage, "subj", c);
            });
        }),
        "invalidArgs: manual link resolved to no person");
}

TEST(ManualLink, OwnerIdentitiesAreRefused) {
    World w;
    w.person("P");
    w.person("Me");
    w.person("Holder");
    w.db.exec("INSERT INTO owner_ego (person_id) VALUES ('Me')");
    w.db.exec(
        "INSERT INTO owner_alias (source_type, handle_normalized) VALUES ('email', "
        "'me@example.com')");
    const auto mine = w.identity("mine", std::nullopt, "email", "me@example.com");
    const auto other = w.identity("other", "P");
    w.identity("mine-too", "Holder", "email", "me@example.com");
    const std::string before = w.db.dump();

    for (const auto& targets : std::vector<std::vector<Target>>{
             {Target::person("P"), mine},
             {Target::person("P"), Target::person("Me")},
             {Target::person("Holder"), other},
         }) {
        EXPECT_EQ(errorText([&] { w.repo.confirmManualLink(targets, kLineage, "subj"); }),
                  "ownerIdentityUnmergeable");
        EXPECT_EQ(errorText([&] { w.repo.predictManualLinkSurvivor(targets); }),
                  "ownerIdentityUnmergeable");
    }
    const auto& otherRow = std::get<SourceIdentityRow>(other.value);
    EXPECT_EQ(errorText([&] {
                  w.repo.confirmManualLink(otherRow, std::get<SourceIdentityRow>(mine.value),
                                           kLineage, "subj");
              }),
              "ownerIdentityUnmergeable");
    EXPECT_EQ(w.db.dump(), before);
    EXPECT_TRUE(w.events.empty());
}

// x (an archive participant, unaffiliated), person P, y (member of Q), person R
// (absorbed into Q) and the empty person S, with constraints between most of them.
TEST(ManualLink, RevokesEveryConstraintAndUndoBringsThemBack) {
    World w;
    w.person("P", "2020-01-01T00:00:00Z");
    w.person("Q", "2022-01-01T00:00:00Z");
    w.person("R", "2022-01-01T00:00:00Z", "Q");
    w.person("S", "2019-01-01T00:00:00Z");  // older, but without members
    w.identity("p1", "P");
    const auto x = w.identity("x", std::nullopt, "hybrid_archive", "am-participant-7");
    const auto y = w.identity("y", "Q");
    w.identity("arch", std::nullopt, "hybrid_archive", "someone@example.com");
    w.db.addDifferent("c-xp", "person", "P", "identity", "x");
    w.db.addDifferent("c-xy", "identity", "y", "identity", "x");
    w.db.addDifferent("c-yp", "identity", "y", "person", "P");
    w.db.addDifferent("c-rp", "person", "R", "person", "P");
    w.db.addDifferent("c-other", "identity", "p1", "identity", "y");  // not among the targets
    const std::string copyXP = host::stableID("constraint-remint", "c-xp", "arch");
    const std::string copyXY = host::stableID("constraint-remint", "c-xy", "arch");
    w.db.addDifferent(copyXP, "identity", "arch", "person", "P");
    w.db.addDifferent(copyXY, "identity", "arch", "identity", "y", "2020-05-01T00:00:00Z");
    const auto before = w.db.dump();

    const std::vector<Target> targets = {x, Target::person("P"), y, Target::person("R"),
                                         Target::person("S")};
    EXPECT_EQ(w.repo.predictManualLinkSurvivor(targets)->personID, "P");
    const auto result = w.repo.confirmManualLink(targets, kLineage, "subj");
    EXPECT_EQ(result.personID, "P");
    ASSERT_EQ(result.mergeEventIDs.size(), 3u);

    const auto merge = w.repo.mergeEvent(result.mergeEventIDs[0]);
    const auto secondMerge = w.repo.mergeEvent(result.mergeEventIDs[1]);
    const auto link = w.repo.mergeEvent(result.mergeEventIDs[2]);
    EXPECT_EQ(merge->absorbedPersonID, "Q");
    EXPECT_EQ(secondMerge->absorbedPersonID, "S");
    EXPECT_FALSE(link->absorbedPersonID);
    // Identity pairs, then identity-person pairs, then person pairs; each copy
    // right after its original; the already revoked copy is left alone.
    EXPECT_EQ(decodeMergePreState(merge->preMergeStateJSON)->revokedDifferentConstraintIDs,
              (Ids{"c-xy", "c-xp", copyXP, "c-yp", "c-rp"}));
    EXPECT_EQ(decodeMergePreState(secondMerge->preMergeStateJSON)->revokedDifferentConstraintIDs,
              Ids{});
    EXPECT_EQ(decodeMergePreState(link->preMergeStateJSON)->revokedDifferentConstraintIDs, Ids{});
    EXPECT_FALSE(w.revokedAt("c-other"));
    EXPECT_EQ(w.revokedAt(copyXY), "2020-05-01T00:00:00Z");
    ASSERT_EQ(w.events.size(), 1u);
    EXPECT_EQ(w.events[0].identityCount, 5);
    EXPECT_EQ(w.events[0].mergeEventCount, 3);
    EXPECT_EQ(w.events[0].absorbedPersonCount, 2);

    w.repo.undoConfirmation(result.mergeEventIDs);
    auto lines = [](const std::string& dump) {
        std::set<std::string> out;
        std::istringstream in(dump);
        for (std::string line; std::getline(in, line);) {
            out.insert(line);
        }
        return out;
    };
    const auto beforeLines = lines(before);
    const auto afterLines = lines(w.db.dump());
    // Every seeded row is back as it was, the constraints live again included;
    // what is new is the reversed history of the link.
    for (const auto& line : beforeLines) {
        if (!line.starts_with("relationship_projection_generation(")) {
            EXPECT_TRUE(afterLines.contains(line)) << line;
        }
    }
    for (const auto& line : afterLines) {
        if (beforeLines.contains(line)) {
            continue;
        }
        const bool byDesign = (line.starts_with("merge_event(") &&
                               line.find("reversed_at=NULL") == std::string::npos) ||
                              (line.starts_with("identity_membership(") &&
                               line.find("ended_at=NULL") == std::string::npos) ||
                              (line.starts_with("identity_constraint(") &&
                               line.find("kind='same'") != std::string::npos &&
                               line.find("revoked_at=NULL") == std::string::npos) ||
                              line.starts_with("user_correction(") ||
                              line.starts_with("relationship_projection_generation(");
        EXPECT_TRUE(byDesign) << line;
    }
    EXPECT_EQ(w.standsFor(x), "");
    EXPECT_EQ(w.standsFor(y), "Q");
}

}  // namespace
}  // namespace orvik::identity
