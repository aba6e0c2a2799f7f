#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <sstream>

#include "identity/IdentityRepository.h"
#include "identity/IdentityRepositoryInternal.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Event = IdentityCorrectionWitness::Event;
using Kind = IdentityCorrectionWitness::Kind;
using Target = ManualLinkTarget;
using Ids = std::vector<std::string>;
constexpr auto kLineage = SubjectLineage::person;

std::set<std::string> lines(const std::string& dump) {
    return test::dumpLines(dump);
}

// A store, a repository over it and the witness events it reported.
struct World {
    test::TestDatabase db;
    std::vector<Event> events;
    IdentityRepository repo{db.sharedPool(), [this](const Event& e) { events.push_back(e); }};
    internal::RepositoryCore core{host::HostServices::reference()};

    void person(const std::string& id, const std::string& createdAt = "2021",
                const std::string& mergedInto = "") {
        db.addPerson(id, mergedInto.empty() ? std::nullopt : std::optional(mergedInto));
        db.exec("UPDATE person SET created_at = " + test::sql(createdAt) +
                " WHERE id = " + test::sql(id));
    }
    // An identity, a member of `personID` when one is given.
    Target identity(const std::string& id, const std::optional<std::string>& personID = {},
                    const std::string& sourceType = "email", const std::string& handle = "") {
        db.addIdentity(id, sourceType, handle.empty() ? id + "@x" : handle);
        if (personID) {
            db.addMembership("m-" + id, id, *personID);
        }
        return Target::identity(*repo.sourceIdentity(id));
    }
    // The person a target stands for now, or "" for an identity without one.
    std::string standsFor(const Target& target) {
        if (const auto* p = std::get_if<Target::Person>(&target.value)) {
            return db.pool().read(
                [&](store::Connection& c) { return core.absorptionChainHead(p->id, c); });
        }
        const auto resolved =
            repo.resolveCanonicalPerson(std::get<SourceIdentityRow>(target.value).id);
        return resolved ? resolved->personID : "";
    }
    Ids revokedBy(const std::string& mergeEventID) {
        return decodeMergePreState(repo.mergeEvent(mergeEventID)->preMergeStateJSON)
            ->revokedDifferentConstraintIDs;
    }
};

TEST(ManualLinkSurvivor, MembersThenEarlierCreationThenSmallerID) {
    World w;
    w.person("old-empty", "2019");
    for (const char* p : {"young", "mid", "b-tie"}) {
        w.person(p, p[0] == 'y' ? "2023" : "2022");
        w.identity(std::string(p) + "-1", p);
    }
    const auto survivor = [&](const char* a, const char* b) {
        return w.repo.predictManualLinkSurvivor({Target::person(a), Target::person(b)})->personID;
    };
    EXPECT_EQ(survivor("old-empty", "young"), "young");  // members beat none, whatever the age
    EXPECT_EQ(survivor("young", "mid"), "mid");          // the earlier creation
    EXPECT_EQ(survivor("mid", "b-tie"), "b-tie");        // equal creation: the smaller id
}

// Random stores of persons (with and without members, equal creation times,
// absorbed ones) and unaffiliated identities: the committed survivor is the
// predicted one, and every target ends up in it.
TEST(ManualLinkSurvivor, PredictionAgreesWithTheCommit) {
    for (unsigned seed = 1; seed <= 25; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        auto pick = [&](std::size_t n) { return static_cast<std::size_t>(rng() % n); };
        World w;
        std::vector<Target> pool;  // the persons first, then the identities
        Ids live;
        const std::size_t persons = 2 + pick(4);
        for (std::size_t i = 0; i < persons; ++i) {
            // Identifiers in random order, so that ties are not decided by creation order.
            const std::string id = "p" + std::to_string(pick(1000)) + "-" + std::to_string(i);
            const bool absorbed = !live.empty() && pick(4) == 0;
            w.person(id, pick(2) ? "2021" : "2022", absorbed ? live[pick(live.size())] : "");
            pool.push_back(Target::person(id));
            if (!absorbed) {
                live.push_back(id);
            }
        }
        // Members of live persons, and identities without a person.
        for (std::size_t i = 0, n = pick(2 * live.size() + 3); i < n; ++i) {
            const std::size_t k = pick(live.size() + 1);
            pool.push_back(w.identity("i" + std::to_string(i),
                                      k < live.size() ? std::optional(live[k]) : std::nullopt));
        }
        std::vector<Target> targets = {pool[pick(persons)]};
        for (std::size_t n = 1 + pick(4); n > 0; --n) {
            targets.push_back(pool[pick(pool.size())]);
        }
        if (std::count(targets.begin(), targets.end(), targets.front()) == std::ssize(targets)) {
            targets.push_back(pool[targets.front() == pool[0] ? 1 : 0]);
        }

        const auto predicted = w.repo.predictManualLinkSurvivor(targets).value().personID;
        const auto result = w.repo.confirmManualLink(targets, kLineage, "subj");
        EXPECT_EQ(result.personID, predicted);
        for (const auto& t : targets) {
            EXPECT_EQ(w.standsFor(t), result.personID);
        }
    }
}

// Refusals write nothing; an identity-only list (duplicates dropped) runs as a
// batch, revoking what separates its identities, through absorbed persons too.
TEST(ManualLink, RefusalsAndBatches) {
    World w;
    w.person("P");
    w.person("Q");
    w.person("Old", "2021", "Q");
    w.person("Me");
    w.db.exec(
        "INSERT INTO owner_ego (person_id) VALUES ('Me');"
        "INSERT INTO owner_alias (source_type, handle_normalized) VALUES ('email', 'me@x')");
    const auto mine = w.identity("mine", std::nullopt, "email", "me@x");
    const auto x = w.identity("x", "P");
    const auto u = w.identity("u");
    const auto y = w.identity("y", "Q");
    const auto mineToo = w.identity("mine-too", "Me");
    const auto P = Target::person("P");
    const std::string owner = "ownerIdentityUnmergeable";
    w.db.addDifferent("c-pq", "person", "Old", "person", "P");  // binds Q through absorption
    const std::string before = w.db.dump();
    for (const auto& [targets, expected] : std::vector<std::pair<std::vector<Target>, std::string>>{
             {{x, x}, "invalidArgs: manual link requires at least two distinct targets"},
             {{P, mine}, owner},                  // an owner alias
             {{P, Target::person("Me")}, owner},  // the user's own person
             {{P, mineToo}, owner},               // a member of it
             {{x, mine}, owner},                  // an owner alias, in the pair form
         }) {
        try {
            w.repo.confirmManualLink(targets, kLineage, "subj");
            ADD_FAILURE() << expected;
        } catch (const IdentityStoreError& e) {
            EXPECT_EQ(e.what(), expected);
        }
    }
    EXPECT_EQ(w.repo.predictManualLinkSurvivor({u, u}), std::nullopt);
    EXPECT_TRUE(w.events.empty());
    EXPECT_EQ(w.db.dump(), before);

    const auto batch = w.repo.confirmManualLink({x, y, x}, kLineage, "subj");
    ASSERT_EQ(batch.mergeEventIDs.size(), 1u);
    EXPECT_EQ(w.revokedBy(batch.mergeEventIDs[0]), Ids{"c-pq"});
    const auto op = w.repo.mergeEvent(batch.mergeEventIDs[0])->operationID;
    EXPECT_EQ(w.events, (std::vector<Event>{{Kind::batchConfirmManualLink, 2, 1, 1, 0, 0, op}}));
}

// x (an archive participant, unaffiliated), person P, y (member of Q), person R
// (absorbed into Q) and the empty person S, with constraints between most of them.
TEST(ManualLink, RevokesEveryConstraintAndUndoBringsThemBack) {
    World w;
    w.person("P", "2020");
    w.person("Q", "2022");
    w.person("R", "2022", "Q");
    w.person("S", "2019");  // older, but without members
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
    const auto before = lines(w.db.dump());

    const auto result = w.repo.confirmManualLink(
        {x, Target::person("P"), y, Target::person("R"), Target::person("S")}, kLineage, "subj");
    EXPECT_EQ(result.personID, "P");
    ASSERT_EQ(result.mergeEventIDs.size(), 3u);  // Q and S merged, then x linked
    // Identity pairs, then identity-person pairs, then person pairs, each copy right
    // after its original (the revoked one is left alone), all with the first event.
    EXPECT_EQ(w.revokedBy(result.mergeEventIDs[0]), (Ids{"c-xy", "c-xp", copyXP, "c-yp", "c-rp"}));
    EXPECT_EQ(w.revokedBy(result.mergeEventIDs[1]), Ids{});
    EXPECT_EQ(w.revokedBy(result.mergeEventIDs[2]), Ids{});
    EXPECT_EQ(
        w.events,
        (std::vector<Event>{{Kind::confirmManualLink, 5, 3, 2, 0, 0, w.events.at(0).operationID}}));

    // Every seeded row is back (c-other and the revoked copy were never touched);
    // what is new is the reversed history of the link.
    w.repo.undoConfirmation(result.mergeEventIDs);
    const auto after = lines(w.db.dump());
    for (const auto& line : before) {
        EXPECT_TRUE(after.contains(line)) << line;
    }
    for (const auto& line : after) {
        const bool history =
            line.starts_with("user_correction(") ||
            ((line.starts_with("merge_event(") || line.starts_with("identity_membership(") ||
              line.find("kind='same'") != std::string::npos) &&
             line.find("_at=NULL") == std::string::npos);
        EXPECT_TRUE(before.contains(line) || history) << line;
    }
}

}  // namespace
}  // namespace orvik::identity
