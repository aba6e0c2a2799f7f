// Whole-store tests of correction undo: round trips compared over every table,
// supersession, random sequences of corrections and undos, and failure injection
// at every statement of the correcting and undoing transactions.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <map>
#include <numeric>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "host/HostServices.h"
#include "identity/IdentityRepository.h"
#include "identity/IdentityRepositoryInternal.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Case = IdentityStoreError::Case;
using Witness = IdentityCorrectionWitness;
using test::sql;
using Lines = std::vector<std::string>;
using Op = std::function<void()>;

// What corrections and undos leave behind on purpose: rows written since the
// seed (whose rows all predate 2025) that are reversed events, ended memberships,
// revoked "same" or live "different" constraints, user corrections, or persons
// not absorbed; and the projection generation, which only counts up.
bool leftOnPurpose(const std::string& table,
                   const std::map<std::string, std::optional<std::string>>& row) {
    const auto set = [&](const char* column) { return row.at(column).has_value(); };
    return table == "relationship_projection_generation" ||
           (row.contains("created_at") && row.at("created_at") >= "2025" &&
            ((table == "merge_event" && set("reversed_at")) ||
             (table == "identity_membership" && set("ended_at")) ||
             (table == "identity_constraint" && (row.at("kind") == "same") == set("revoked_at")) ||
             table == "user_correction" || (table == "person" && !set("merged_into_person_id"))));
}

// Every other row of every table, a line each, sorted.
std::string store(test::TestDatabase& db) {
    return db.pool().read([](store::Connection& c) {
        Lines tables;
        std::multiset<std::string> lines;
        c.query("SELECT name FROM sqlite_master WHERE type = 'table'", {},
                [&](const store::Row& r) { tables.push_back(r.text(0)); });
        for (const auto& table : tables) {
            c.query("SELECT * FROM " + table, {}, [&](const store::Row& r) {
                std::map<std::string, std::optional<std::string>> row;
                std::string line = table;
                for (int i = 0; i < r.columnCount(); ++i) {
                    const auto value = r.isNull(i) ? std::nullopt : std::optional(r.text(i));
                    row[r.columnName(i)] = value;
                    line += " " + r.columnName(i) + "=" + sql(value);
                }
                if (!leftOnPurpose(table, row)) {
                    lines.insert(line + "\n");
                }
            });
        }
        return std::accumulate(lines.begin(), lines.end(), std::string());
    });
}

// A repository over a fresh store, recording its witness events. Corrections
// return their event ids, none when refused.
struct World {
    test::TestDatabase db;
    std::vector<Witness::Event> events;
    IdentityRepository repo{db.sharedPool(),
                            [this](const Witness::Event& e) { events.push_back(e); }};

    Lines link(const std::string& identity, const std::string& person) {
        const auto r = repo.linkIdentity(
            {.personID = person, .sourceIdentityID = identity, .confirmed = true});
        return r.status == schema::LinkIdentityResponse::Status::linked ? Lines{*r.mergeEventID}
                                                                        : Lines{};
    }

    Lines merge(const std::string& survivor, const std::string& absorbed) {
        const auto r = repo.proposeMerge({.presetValue = 3000,
                                          .personIDA = survivor,
                                          .personIDB = absorbed,
                                          .subjectID = "s",
                                          .subjectLineage = SubjectLineage::person,
                                          .confirmed = true});
        return r.status == schema::ProposeMergeResponse::Status::merged ? Lines{*r.mergeEventID}
                                                                        : Lines{};
    }

    IdentityCandidate candidate(const std::string& a, const std::string& b) {
        return IdentityCandidate{.sourceIdentityA = repo.sourceIdentity(a).value(),
                                 .sourceIdentityB = repo.sourceIdentity(b).value(),
                                 .existingPersonID = std::nullopt,
                                 .score = 0.9,
                                 .because = "same name"};
    }

    IdentityConfirmResult confirm(const std::string& a, const std::string& b) {
        return repo.confirmCandidate(candidate(a, b), SubjectLineage::sourceIdentity, a);
    }

    Op undo(const Lines& ids) {
        return [this, ids] { repo.undoConfirmation(ids); };
    }
};

// Runs an operation; one that throws must leave the store and the witness as
// they were. Returns the error.
std::optional<Case> attempt(World& w, const Op& op) {
    const std::string before = w.db.dump();
    const auto witnessed = w.events.size();
    try {
        op();
    } catch (const IdentityStoreError& e) {
        EXPECT_EQ(w.db.dump(), before) << e.what();
        EXPECT_EQ(w.events.size(), witnessed);
        return e.errorCase();
    }
    return std::nullopt;
}

const std::string kAutoPerson = host::stableID("person-auto", "email", "solo@auto.test");

// Three persons and the rows other modules keep for them. B (two members, one also
// "possible" in A) is the one a merge into A absorbs: claims of three provenances,
// capture associations that move, promote A's row or stay, follow-ups scheduled and
// done, with and without a detection time, an open loop without one, dispositions
// and candidates. iAuto, with no membership, has an automatic person whose member is iP.
void seedPeople(World& w) {
    w.db.exec(R"sql(
WITH v(id, type, handle) AS (VALUES ('iA1','gmail','alex@marsh.test'), ('iB1','gmail','a.marsh@work.test'),
  ('iB2','imessage','+15550100'), ('iC1','gmail','casey@rowe.test'), ('iU','sms','+15550111'),
  ('iN1','gmail','new.one@x.test'), ('iN2','sms','+15550122'), ('iAuto','gmail','solo@auto.test'), ('iP','sms','+15550199'))
INSERT INTO source_identity SELECT id, type, handle, NULL, '2020-01-01', '2020-01-02', '2020-01-01' FROM v;
INSERT INTO person VALUES
  ('pA','Alex Marsh','stub',NULL,'user_stated',NULL,'2020-01-01T00:00:00Z'),
  ('pB','A. Marsh','stub','{"k":1}','import',NULL,'2020-01-02T00:00:00Z'),
  ('pC','Casey Rowe','full',NULL,NULL,NULL,'2020-01-03T00:00:00Z');
INSERT INTO identity_membership VALUES
  ('mA1','iA1','pA','confirmed','seeded','user','2020-03-01T00:00:00Z',NULL,'2020-03-01T00:00:00Z'),
  ('mB1','iB1','pB','confirmed',NULL,'user','2020-03-02T00:00:00Z',NULL,'2020-03-02T00:00:00Z'),
  ('mB2','iB2','pB','high_conf','1 shared thread','auto','2020-03-03T00:00:00Z',NULL,'2020-03-03T00:00:00Z'),
  ('mB2p','iB2','pA','possible','looks alike','auto','2020-03-04T00:00:00Z',NULL,'2020-03-04T00:00:00Z'),
  ('mB1x','iB1','pC','confirmed','old','user','2020-03-05T00:00:00Z','2021-03-04T05:06:07Z','2020-03-05T00:00:00Z'),
  ('mC1','iC1','pC','confirmed',NULL,'agent+user','2020-03-06T00:00:00Z',NULL,'2020-03-06T00:00:00Z'),
  ('mC1p','iC1','pB','possible',NULL,'auto','2020-03-07T00:00:00Z',NULL,'2020-03-07T00:00:00Z'),
  ('mUx','iU','pC','high_conf','gone','auto','2020-03-08T00:00:00Z','2021-01-01T00:00:00Z','2020-03-08T00:00:00Z'),
  ('mUp','iU','pB','possible',NULL,'auto','2020-03-09T00:00:00Z',NULL,'2020-03-09T00:00:00Z'),
  ('mN1x','iN1','pC','confirmed',NULL,'user','2020-03-10T00:00:00Z','2021-02-02T00:00:00Z','2020-03-10T00:00:00Z');
INSERT INTO claim VALUES
  ('c1','pB','iB1','email','imported','a.marsh@work.test'),
  ('c2','pB','iB2','phone','user_stated','+15550100'),
  ('c3','pB',NULL,'birthday','inferred','05-01'),
  ('c4','pA','iA1','email','imported','alex@marsh.test'),
  ('c5','pC','iC1','email','imported','casey@rowe.test'),
  ('c6','pA','iB1','employer','imported','Marsh Ltd');
INSERT INTO capture_person_association VALUES
  ('obj-move','pB','confirmed',NULL), ('obj-promote','pB','confirmed',NULL),
  ('obj-promote','pA','suggested','2022-01-01T00:00:00Z'),
  ('obj-keep','pB','suggested','2022-02-01T00:00:00Z'), ('obj-keep','pA','confirmed',NULL),
  ('obj-a','pA','confirmed',NULL);
INSERT INTO open_loop VALUES
  ('loopB1','pB','2024-05-01T09:00:00Z'), ('loopB2','pB',NULL), ('loopB3','pB','2024-06-01T09:00:00Z'),
  ('loopB4','pB','2024-07-01T09:00:00Z'), ('loopA1','pA','2024-04-01T09:00:00Z'),
  ('loopC1','pC','2024-03-01T09:00:00Z');
INSERT INTO follow_up VALUES
  ('fuB1','loopB1','pB','scheduled'), ('fuB2','loopB2','pB','scheduled'), ('fuB3','loopB3','pB','done'),
  ('fuA1','loopA1','pA','scheduled'), ('fuC1','loopC1','pC','scheduled');
INSERT INTO identity_constraint VALUES
  ('kBC','identity','iB2','person','pC','different','user','2020-04-01T00:00:00Z',NULL),
  ('kAC','person','pA','person','pC','different','user','2020-04-02T00:00:00Z','2020-05-01T00:00:00Z'),
  ('kUA','identity','iU','person','pA','different','auto','2020-04-03T00:00:00Z',NULL);
INSERT INTO user_correction VALUES
  ('uc0','person','pC','different_person','person','pA','2020-04-02T00:00:00Z');
INSERT INTO thread_participant VALUES ('t1','iA1'), ('t1','iB1'), ('t2','iB2'), ('t2','iC1');
INSERT INTO relationship_attention_disposition VALUES
  ('follow-up|pB|loopB1|2024-05-01T09:00:00Z','pB','snoozed'),
  ('follow-up|pA|loopA1|2024-04-01T09:00:00Z','pA','snoozed');
INSERT INTO relationship_projection_generation VALUES (1, 41);
)sql");
    w.db.addPerson(kAutoPerson, {}, {}, "auto");
    w.db.addMembership("mP", "iP", kAutoPerson, "confirmed", {}, "auto");
    w.db.exec("INSERT INTO merge_event VALUES ('ev0','pC',NULL," +
              sql(encodeJSON(MergePreState{})) +
              ",'user confirmed','user','2020-06-01T00:00:00Z','2020-06-02T00:00:00Z','op0')");
    w.db.pool().write([&](store::Connection& c) {
        for (const char* person : {"pA", "pB", "pC"}) {
            host::HostServices::reference().followUps->reprojectCandidatesCore(c, person);
        }
    });
}

// A correction, then its undo with the event ids it returned. The store must be
// as before, and the only live "different" constraints written since the seed
// must be `guards`, which the no-reabsorption guard writes.
std::vector<UndoMergeResult> roundTrip(World& w, const std::function<Lines()>& correct,
                                       const Lines& guards = {}) {
    const std::string before = store(w.db);
    const Lines ids = correct();
    EXPECT_FALSE(ids.empty());
    auto results = w.repo.undoConfirmation(ids);
    EXPECT_EQ(store(w.db), before);
    EXPECT_EQ(w.db.rows("SELECT a_type || ' ' || a_id || ' ' || b_type || ' ' || b_id || ' ' || "
                        "decided_by FROM identity_constraint WHERE kind = 'different' AND "
                        "revoked_at IS NULL AND created_at >= '2025' ORDER BY a_id"),
              guards);
    return results;
}

Witness::Event undone(std::int64_t ids, std::int64_t events, std::int64_t persons,
                      std::int64_t memberships) {
    return {Witness::Kind::undoConfirmation, ids, events, 0, persons, memberships, {}};
}

TEST(CorrectionUndo, LinkAndConfirmationRoundTripsRestoreTheWholeStore) {
    World w;
    seedPeople(w);
    // Moving an identity out of its person into another.
    auto results = roundTrip(w, [&] { return w.link("iA1", "pC"); });
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results[0].restoredMembershipCount, 1);
    // Into the identity's own automatic person: the undo guards against it.
    const Lines guard = {"identity iAuto person " + kAutoPerson + " auto"};
    roundTrip(
        w, [&] { return w.link("iAuto", kAutoPerson); }, guard);
    // Two identities without a person, into a new stub person. A list that also
    // holds an event undone before is refused as a whole.
    results = roundTrip(
        w,
        [&] {
            const Lines ids = w.confirm("iN1", "iN2").mergeEventIDs;
            Lines withReversed = ids;
            withReversed.push_back("ev0");
            EXPECT_EQ(attempt(w, w.undo(withReversed)), Case::alreadyReversed);
            return ids;
        },
        guard);
    EXPECT_EQ(results.size(), 2U);
    ASSERT_EQ(w.events.size(), 4U);
    EXPECT_EQ(w.events[2].mergeEventCount, 2);
    w.events.erase(w.events.begin() + 2);
    EXPECT_EQ(w.events, (std::vector{undone(1, 1, 0, 1), undone(1, 1, 0, 0), undone(2, 2, 0, 0)}));
}

TEST(CorrectionUndo, MergeRoundTripRestoresEveryDependentRow) {
    World w;
    seedPeople(w);
    std::map<std::string, std::string> dumps;
    for (const char* table :
         {"identity_membership", "person", "claim", "capture_person_association", "follow_up",
          "open_loop", "relationship_attention_disposition", "relationship_attention_candidate"}) {
        dumps[table] = w.db.dump({table});
    }
    const auto results = roundTrip(w, [&] {
        const Lines merged = w.merge("pA", "pB");
        for (const auto& [table, dump] : dumps) {  // so that the comparison covers them
            EXPECT_NE(w.db.dump({table}), dump) << table;
        }
        return merged;
    });
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results[0].restoredPersonID, "pB");
    EXPECT_EQ(results[0].restoredMembershipCount, 2);
    EXPECT_EQ(results[0].restoredClaimCount, 3);
    EXPECT_EQ(w.events, std::vector{undone(1, 1, 1, 2)});

    // Claims that reached A after a merge go back to B when they are about B's
    // identities, unless the user stated them; A's own claims from before stay.
    const Lines merged = w.merge("pA", "pB");
    w.db.exec(
        "INSERT INTO claim VALUES ('cu','pA','iB1','name','user_stated','x'),"
        "('cl','pA','iB2','name','inferred','y'), ('ca','pA','iA1','name','inferred','z')");
    w.repo.undoConfirmation(merged);
    EXPECT_EQ(
        w.db.rows("SELECT id || ':' || person_id FROM claim ORDER BY id"),
        (Lines{"c1:pB", "c2:pB", "c3:pB", "c4:pA", "c5:pC", "c6:pA", "ca:pA", "cl:pB", "cu:pA"}));
}

// A refused undo changes nothing: attempt() checks that.
TEST(CorrectionUndo, LaterChangesSupersedeAnUndoUntilTheyArePutBack) {
    const std::vector<std::array<const char*, 3>> changes = {
        {"claim moved", "UPDATE claim SET person_id = 'pC' WHERE id = 'c1'",
         "UPDATE claim SET person_id = 'pA' WHERE id = 'c1'"},
        {"claim deleted", "DELETE FROM claim WHERE id = 'c3'",
         "INSERT INTO claim VALUES ('c3','pA',NULL,'birthday','inferred','05-01')"},
        {"absorbed person renamed", "UPDATE person SET display_name = 'Al Marsh' WHERE id = 'pB'",
         "UPDATE person SET display_name = 'A. Marsh' WHERE id = 'pB'"},
        {"same constraint revoked",
         "UPDATE identity_constraint SET revoked_at = '2031-01-01T00:00:00Z' WHERE kind = 'same'",
         "UPDATE identity_constraint SET revoked_at = NULL WHERE kind = 'same'"},
        {"ended membership's reason cleared",
         "UPDATE identity_membership SET because = NULL WHERE id = 'mB1x'",
         "UPDATE identity_membership SET because = 'old' WHERE id = 'mB1x'"},
        {"ended membership's end moved",
         "UPDATE identity_membership SET ended_at = '2031-01-01T00:00:00Z' WHERE id = 'mB1x'",
         "UPDATE identity_membership SET ended_at = '2021-03-04T05:06:07Z' WHERE id = 'mB1x'"},
        {"membership added to a merged identity",
         "INSERT INTO identity_membership VALUES ('mX','iB2','pC','possible',NULL,'auto',"
         "'2031-01-01T00:00:00Z',NULL,'2031-01-01T00:00:00Z')",
         "DELETE FROM identity_membership WHERE id = 'mX'"},
        {"membership of a merged identity deleted",
         "DELETE FROM identity_membership WHERE id = 'mB1x'",
         "INSERT INTO identity_membership VALUES ('mB1x','iB1','pC','confirmed','old','user',"
         "'2020-03-05T00:00:00Z','2021-03-04T05:06:07Z','2020-03-05T00:00:00Z')"},
    };
    for (const auto& [name, apply, putBack] : changes) {
        SCOPED_TRACE(name);
        World w;
        seedPeople(w);
        const std::string before = store(w.db);
        const Lines merged = w.merge("pA", "pB");
        w.db.exec(apply);
        EXPECT_EQ(attempt(w, w.undo(merged)), Case::supersededByLaterCorrection);
        w.db.exec(putBack);
        w.repo.undoConfirmation(merged);
        EXPECT_EQ(store(w.db), before);
    }
}

// The connection keeps the snapshot each correction wrote, so that an undo right
// after it need not decode it: what it keeps must be what the stored text decodes
// to, for each kind of correction, and a text changed since is read as it is now.
TEST(CorrectionUndo, AnUndoReadsTheSnapshotAsStoredNow) {
    World w;
    seedPeople(w);
    internal::RepositoryCore core{host::HostServices::reference()};
    const auto expectRememberedAsStored = [&](const Lines& ids) {
        ASSERT_FALSE(ids.empty());
        w.db.pool().write([&](store::Connection& c) {
            for (const auto& id : ids) {
                const auto& event = core.mergeEventRow(id, c);
                ASSERT_TRUE(event);
                const auto remembered = core.decodedSnapshot(*event, c);
                ASSERT_TRUE(remembered);
                EXPECT_EQ(*remembered, decodeMergePreState(event->preMergeStateJSON).value());
            }
        });
    };
    // A link that revokes a "different" constraint, a merge with dependent rows,
    // and a separation, which rewrites its event's snapshot.
    const Lines linked = w.link("iU", "pA");
    expectRememberedAsStored(linked);
    const Lines merged = w.merge("pA", "pB");
    expectRememberedAsStored(merged);
    const Lines separated = w.repo.separateIdentity("iB2", "s").mergeEventIDs;
    expectRememberedAsStored(separated);

    const std::string before = store(w.db);
    const Lines relinked = w.link("iN1", "pC");
    ASSERT_EQ(relinked.size(), 1U);
    const std::string where = " WHERE id = " + sql(relinked[0]);
    const auto text = w.db.rows("SELECT pre_merge_state_json FROM merge_event" + where);
    ASSERT_EQ(text.size(), 1U);
    w.db.exec("UPDATE merge_event SET pre_merge_state_json = '{not json'" + where);
    EXPECT_EQ(attempt(w, w.undo(relinked)), Case::corruptRestoreMap);
    w.db.exec("UPDATE merge_event SET pre_merge_state_json = " + sql(text[0]) + where);
    w.repo.undoConfirmation(relinked);
    EXPECT_EQ(store(w.db), before);
}

// Undoing the newer link leaves its own membership row behind, ended.
TEST(CorrectionUndo, NewerLinkKeepsTheOlderUndoRefusedEvenAfterItsOwnUndo) {
    World w;
    seedPeople(w);
    const Lines merged = w.merge("pA", "pB");
    const Lines relinked = w.link("iB1", "pC");
    EXPECT_EQ(attempt(w, w.undo(merged)), Case::supersededByLaterCorrection);
    w.repo.undoConfirmation(relinked);
    EXPECT_EQ(attempt(w, w.undo(merged)), Case::supersededByLaterCorrection);
    // The same between two links of one identity.
    const Lines first = w.link("iU", "pC");
    const Lines second = w.link("iU", "pA");
    EXPECT_EQ(attempt(w, w.undo(first)), Case::supersededByLaterCorrection);
    w.repo.undoConfirmation(second);
    EXPECT_EQ(attempt(w, w.undo(first)), Case::supersededByLaterCorrection);
}

void checkInvariants(World& w) {
    EXPECT_EQ(w.db.rows("SELECT source_identity_id FROM identity_membership WHERE ended_at IS NULL "
                        "AND state IN ('high_conf','confirmed') "
                        "GROUP BY source_identity_id HAVING count(*) > 1"),
              Lines{})
        << "identities with more than one active membership";
    EXPECT_EQ(w.db.rows("SELECT m.id FROM identity_membership m JOIN person p ON p.id = "
                        "m.canonical_person_id WHERE p.merged_into_person_id IS NOT NULL "
                        "AND m.ended_at IS NULL AND m.state IN ('high_conf','confirmed')"),
              Lines{})
        << "active memberships in absorbed persons";
    for (const auto& json : w.db.rows("SELECT pre_merge_state_json FROM merge_event")) {
        EXPECT_TRUE(decodeMergePreState(json).has_value()) << json;
    }
}

// Random corrections, rejections, mark-different and undos of the newest
// correction not undone yet, on the rich store plus the owner's own account, a
// person absorbed by no event and random claims. Whatever throws must leave the
// store and the witness as they were. An undo must restore the store from
// before its correction; only one that a later correction followed may be
// refused, as superseded, and as it stays applied, the older ones are given up.
TEST(CorrectionUndo, RandomSequencesKeepTheStoreConsistentAndUndoable) {
    const Lines persons = {"pA", "pB", "pC", kAutoPerson, "pD"};
    const Lines identities = {"iA1", "iB1", "iB2", "iC1", "iU", "iN1", "iN2", "iAuto", "iP", "iO"};
    const std::string reversedEvents = "SELECT id FROM merge_event WHERE reversed_at IS NOT NULL";
    for (unsigned seed : {1U, 2U, 3U, 5U, 8U, 13U}) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        // Each draw is a statement of its own, so that a seed gives the same run
        // whatever order operands are evaluated in.
        const auto pick = [&](const Lines& from, std::size_t spare = 0) {
            return from[std::uniform_int_distribution<std::size_t>(
                0, from.size() - 1 - spare)(random)];
        };
        const auto chance = [&](double p) { return std::bernoulli_distribution(p)(random); };
        World w;
        seedPeople(w);
        w.db.addPerson("pD", "pC");
        w.db.exec("INSERT INTO source_account VALUES ('gmail','owner@example.test')");
        w.db.addIdentity("iO", "gmail", "owner@example.test");
        for (int c = 0; c < 8; ++c) {
            const std::string owner = sql(pick(persons, 1));  // not pD
            const std::string source = chance(0.8) ? sql(pick(identities)) : "NULL";
            const std::string provenance = chance(0.3) ? "'user_stated'" : "'inferred'";
            w.db.exec("INSERT INTO claim VALUES ('r" + std::to_string(c) + "'," + owner + "," +
                      source + ",'note'," + provenance + ",'v')");
        }
        struct Applied {
            Lines ids;
            std::string before;
            bool followed;
        };
        std::vector<Applied> stack;
        for (int step = 0; step < 60 && !::testing::Test::HasFatalFailure(); ++step) {
            SCOPED_TRACE("step " + std::to_string(step));
            const int roll = std::uniform_int_distribution<int>(0, 99)(random);
            const std::string i = pick(identities);
            const std::string j = pick(identities);
            const std::string p = chance(0.05) ? "nobody" : pick(persons);
            const std::string q = pick(persons);
            const std::string dump = w.db.dump();
            const std::string before = store(w.db);
            const Lines reversed = w.db.rows(reversedEvents);
            Lines ids;
            if (roll < 60) {
                if (attempt(w, [&] {
                        ids = roll < 22   ? w.link(i, p)
                              : roll < 40 ? w.merge(p, q)
                              : i != j    ? w.confirm(i, j).mergeEventIDs
                                          : Lines{};
                    })) {
                    continue;
                }
                if (ids.empty()) {  // a refusal, or a confirmation within one person
                    EXPECT_EQ(w.db.dump(), dump);
                    continue;
                }
                for (auto& older : stack) {
                    older.followed = true;
                }
                stack.push_back({ids, before, false});
            } else if (roll < 72) {  // these add only what the comparison skips
                const auto error = attempt(w, [&] {
                    if (roll < 66 && i != j) {
                        w.repo.rejectCandidate(w.candidate(i, j), SubjectLineage::grouping, "g");
                    } else if (roll >= 66) {
                        w.repo.markDifferent({.reason = "not the same",
                                              .presetValue = 3000,
                                              .personIDA = p,
                                              .personIDB = q,
                                              .subjectID = "s",
                                              .subjectLineage = SubjectLineage::person});
                    }
                });
                // Mark-different may undo a merge first; the stack then no longer holds.
                if (!error && w.db.rows(reversedEvents) != reversed) {
                    stack.clear();
                } else if (!error) {
                    EXPECT_EQ(store(w.db), before);
                }
            } else if (!stack.empty()) {
                const Applied latest = stack.back();
                stack.pop_back();
                std::vector<UndoMergeResult> results;
                if (const auto error =
                        attempt(w, [&] { results = w.repo.undoConfirmation(latest.ids); })) {
                    EXPECT_TRUE(latest.followed) << "refused: " << caseName(*error);
                    EXPECT_EQ(error, Case::supersededByLaterCorrection);
                    stack.clear();
                } else {
                    EXPECT_EQ(results.size(), latest.ids.size());
                    EXPECT_EQ(store(w.db), latest.before);
                }
            }
            checkInvariants(w);
        }
    }
}

// Makes statement 1, 2, ... of an operation on a freshly seeded world fail in
// turn until it runs through without reaching the fault. Every failure must
// leave the store as it was and emit no witness event; only a confirmation
// (`confirmedEvents` > 0) may swallow the failure of its last statement, the
// count of absorbed persons, which it then reports as -1.
void failEachStatement(const char* name, const std::function<Op(World&)>& prepare,
                       int minStatements, int confirmedEvents = 0) {
    SCOPED_TRACE(name);
    std::optional<World> w;
    Op op;
    const auto fresh = [&] {
        seedPeople(w.emplace());
        op = prepare(*w);
    };
    fresh();
    std::vector<int> swallowedAt;
    for (int n = 1; n < 1000; ++n) {
        SCOPED_TRACE("failing statement " + std::to_string(n));
        const std::string before = w->db.dump();
        w->events.clear();
        w->db.pool().armFault(
            {.failAtStatement = n, .code = 10, .writesOnly = true, .fired = false});
        bool threw = false;
        try {
            op();
        } catch (const store::DatabaseError& e) {
            threw = true;
            EXPECT_EQ(e.code(), 10) << e.what();
        }
        const bool fired = w->db.pool().faultFired();
        w->db.pool().disarmFault();
        if (!fired) {
            EXPECT_FALSE(threw);
            EXPECT_GE(n - 1, minStatements);
            EXPECT_EQ(swallowedAt, confirmedEvents ? std::vector{n - 1} : std::vector<int>{});
            return;
        }
        if (threw) {
            EXPECT_EQ(w->db.dump(), before);
            EXPECT_EQ(w->events, std::vector<Witness::Event>{});
            continue;
        }
        swallowedAt.push_back(n);
        ASSERT_EQ(w->events.size(), 1U);
        EXPECT_EQ(w->events[0].absorbedPersonCount, -1);
        EXPECT_EQ(w->events[0].mergeEventCount, confirmedEvents);
        EXPECT_EQ(w->db.rows("SELECT count(*) FROM merge_event WHERE reversed_at IS NULL"),
                  Lines{std::to_string(confirmedEvents)});
        fresh();
    }
    ADD_FAILURE() << "the operation never ran through";
}

TEST(CorrectionUndo, FailureAtAnyStatementLeavesNoTrace) {
    failEachStatement(
        "merge", [](World& w) { return Op([&w] { w.merge("pA", "pB"); }); }, 20);
    failEachStatement(
        "merge undo", [](World& w) { return w.undo(w.merge("pA", "pB")); }, 10);
    // The undo of a link into an identity's own automatic person writes the guard last.
    failEachStatement(
        "guarded undo", [](World& w) { return w.undo(w.confirm("iAuto", "iP").mergeEventIDs); },
        10);
    failEachStatement(
        "merging confirmation", [](World& w) { return Op([&w] { w.confirm("iA1", "iB1"); }); }, 10,
        1);
    failEachStatement(
        "stub person confirmation", [](World& w) { return Op([&w] { w.confirm("iN1", "iN2"); }); },
        10, 2);
}

}  // namespace
}  // namespace orvik::identity
