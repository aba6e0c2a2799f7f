// Whole-store tests of correction undo: every row of every table is read before a
// correction and after its undo, and the two must agree except for what an undo
// leaves behind on purpose. Also: refusal of an undo that a later correction
// superseded, a long randomised sequence of corrections and undos, and failure
// injection at every statement of the correcting and undoing transactions.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/HostServices.h"
#include "identity/IdentityRepository.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Case = IdentityStoreError::Case;
using Witness = IdentityCorrectionWitness;
using test::sql;
using Lines = std::vector<std::string>;

// ---------------------------------------------------------------------------
// Whole-store snapshots.

// One stored row: its table, its columns by name (NULL as absent) and a line
// naming both, "table(column='value',...)", columns in name order.
struct StoredRow {
    std::string table;
    std::map<std::string, std::optional<std::string>> columns;
    std::string line;

    [[nodiscard]] const std::optional<std::string>& at(const std::string& column) const {
        return columns.at(column);
    }
};

// Every row of every table, by line.
using Snapshot = std::map<std::string, StoredRow>;

// test::sql() without its cost per character: snapshots quote every value of
// every row, merge snapshots included, many times over.
std::string literal(const std::optional<std::string>& value) {
    if (!value) {
        return "NULL";
    }
    std::string out = "'";
    for (std::size_t from = 0;;) {
        const auto quote = value->find('\'', from);
        out.append(*value, from, quote == std::string::npos ? std::string::npos : quote + 1 - from);
        if (quote == std::string::npos) {
            return out + "'";
        }
        out += '\'';
        from = quote + 1;
    }
}

Snapshot capture(test::TestDatabase& db) {
    return db.pool().read([](store::Connection& c) {
        std::vector<std::string> tables;
        c.query("SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name", {},
                [&](const store::Row& row) { tables.push_back(row.text(0)); });
        Snapshot out;
        for (const auto& table : tables) {
            c.query("SELECT * FROM " + table, {}, [&](const store::Row& r) {
                StoredRow row{.table = table, .columns = {}, .line = {}};
                for (int i = 0; i < r.columnCount(); ++i) {
                    std::optional<std::string> value;
                    if (!r.isNull(i)) {
                        value = r.text(i);
                    }
                    // Merge snapshots are long; a digest tells them apart as well.
                    if (value && r.columnName(i) == "pre_merge_state_json") {
                        value = "#" + std::to_string(std::hash<std::string>{}(*value));
                    }
                    row.columns[r.columnName(i)] = std::move(value);
                }
                row.line = table + "(";
                bool first = true;
                for (const auto& [name, value] : row.columns) {
                    row.line += (first ? "" : ",") + name + "=" + literal(value);
                    first = false;
                }
                row.line += ")";
                out.emplace(row.line, std::move(row));
            });
        }
        return out;
    });
}

Lines linesOf(const Snapshot& s) {
    Lines out;
    for (const auto& entry : s) {
        out.push_back(entry.first);
    }
    return out;
}

// Rows of the table in `after` that are not, exactly, in `before`.
std::vector<StoredRow> added(const Snapshot& before, const Snapshot& after,
                             const std::string& table) {
    std::vector<StoredRow> out;
    for (const auto& [line, row] : after) {
        if (row.table == table && !before.contains(line)) {
            out.push_back(row);
        }
    }
    return out;
}

// Tables in which a row of `before` is gone or changed in `after`.
std::set<std::string> changedTables(const Snapshot& before, const Snapshot& after) {
    std::set<std::string> out;
    for (const auto& [line, row] : before) {
        if (!after.contains(line)) {
            out.insert(row.table);
        }
    }
    return out;
}

bool hasRowWithID(const Snapshot& s, const std::string& table, const std::string& id) {
    return std::any_of(s.begin(), s.end(), [&](const auto& entry) {
        const auto& row = entry.second;
        return row.table == table && row.columns.contains("id") && row.at("id") == id;
    });
}

// True when the rows agree in every column but `column`, which `now` has set.
bool sameButSet(const StoredRow& now, const StoredRow& was, const std::string& column) {
    auto a = now.columns;
    auto b = was.columns;
    if (!a[column]) {
        return false;
    }
    a.erase(column);
    b.erase(column);
    return a == b;
}

// What corrections leave behind on purpose once they are undone, and the rows
// that other operations in between added for good.
struct Residue {
    std::map<std::string, StoredRow> events;               // merge_event rows, as written
    std::map<std::string, StoredRow> insertedMemberships;  // as inserted
    std::map<std::string, StoredRow> createdPersons;       // stub persons, as created
    std::map<std::string, StoredRow> sameConstraints;      // as written, live
    std::set<std::string> keptLines;                       // user corrections and the like

    void add(const Residue& other) {
        events.insert(other.events.begin(), other.events.end());
        insertedMemberships.insert(other.insertedMemberships.begin(),
                                   other.insertedMemberships.end());
        createdPersons.insert(other.createdPersons.begin(), other.createdPersons.end());
        sameConstraints.insert(other.sameConstraints.begin(), other.sameConstraints.end());
        keptLines.insert(other.keptLines.begin(), other.keptLines.end());
    }
};

// The rows a correction created, from the stores before and after it. Rows it
// changed are not residue: the undo must put them back.
Residue residueOf(const Snapshot& before, const Snapshot& after) {
    Residue r;
    for (const auto& [line, row] : after) {
        if (before.contains(line)) {
            continue;
        }
        const bool isNew =
            row.columns.contains("id") && !hasRowWithID(before, row.table, *row.at("id"));
        if (row.table == "merge_event") {
            r.events.emplace(*row.at("id"), row);
        } else if (row.table == "identity_membership" && isNew) {
            r.insertedMemberships.emplace(*row.at("id"), row);
        } else if (row.table == "person" && isNew) {
            r.createdPersons.emplace(*row.at("id"), row);
        } else if (row.table == "identity_constraint" && isNew && row.at("kind") == "same") {
            r.sameConstraints.emplace(*row.at("id"), row);
        } else if (row.table == "user_correction") {
            r.keptLines.insert(line);
        }
    }
    return r;
}

// A "different" constraint that the no-reabsorption guard writes.
bool isGuardConstraint(const StoredRow& row) {
    return row.table == "identity_constraint" && row.at("a_type") == "identity" &&
           row.at("b_type") == "person" && row.at("kind") == "different" &&
           row.at("decided_by") == "auto" && !row.at("revoked_at");
}

bool explained(const StoredRow& row, const Residue& r) {
    if (r.keptLines.contains(row.line)) {
        return true;
    }
    if (!row.columns.contains("id") || !row.at("id")) {
        return false;
    }
    const std::string& id = *row.at("id");
    auto was = [&](const std::map<std::string, StoredRow>& rows) -> const StoredRow* {
        const auto found = rows.find(id);
        return found == rows.end() ? nullptr : &found->second;
    };
    if (row.table == "merge_event") {
        const auto* written = was(r.events);
        return written && sameButSet(row, *written, "reversed_at");
    }
    if (row.table == "identity_membership") {
        const auto* inserted = was(r.insertedMemberships);
        return inserted && sameButSet(row, *inserted, "ended_at");
    }
    if (row.table == "person") {
        const auto* created = was(r.createdPersons);
        return created && created->line == row.line;
    }
    if (row.table == "identity_constraint") {
        if (const auto* same = was(r.sameConstraints)) {
            return sameButSet(row, *same, "revoked_at");
        }
        return isGuardConstraint(row);
    }
    return false;
}

// Every difference between the store before some corrections and the store
// after they were all undone that the residue does not account for: a row that
// existed before and is gone or changed, or a new row that no correction left
// behind on purpose. The projection generation is only ever counted up.
Lines unexplained(const Snapshot& before, const Snapshot& after, const Residue& residue) {
    const std::string generation = "relationship_projection_generation";
    Lines out;
    for (const auto& [line, row] : before) {
        if (row.table != generation && !after.contains(line)) {
            out.push_back("lost or changed: " + line);
        }
    }
    for (const auto& [line, row] : after) {
        if (row.table != generation && !before.contains(line) && !explained(row, residue)) {
            out.push_back("unexpected: " + line);
        }
    }
    return out;
}

// ---------------------------------------------------------------------------
// A repository over a fresh store, recording its witness events.

struct World {
    test::TestDatabase db;
    std::vector<Witness::Event> events;
    IdentityRepository repo{db.sharedPool(),
                            [this](const Witness::Event& e) { events.push_back(e); }};

    Snapshot snap() { return capture(db); }

    std::optional<std::string> cell(const std::string& query) {
        const auto rows = db.rows(query);
        return rows.empty() ? std::nullopt : std::optional<std::string>(rows.front());
    }

    std::string link(const std::string& identity, const std::string& person) {
        const auto response = repo.linkIdentity(
            {.personID = person, .sourceIdentityID = identity, .confirmed = true});
        EXPECT_EQ(response.status, schema::LinkIdentityResponse::Status::linked)
            << response.message.value_or("");
        return response.mergeEventID.value_or("");
    }

    std::string merge(const std::string& survivor, const std::string& absorbed) {
        const auto response = repo.proposeMerge({.presetValue = 3000,
                                                 .personIDA = survivor,
                                                 .personIDB = absorbed,
                                                 .subjectID = "subject-1",
                                                 .subjectLineage = SubjectLineage::person,
                                                 .confirmed = true});
        EXPECT_EQ(response.status, schema::ProposeMergeResponse::Status::merged)
            << response.message.value_or("");
        return response.mergeEventID.value_or("");
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

    // Fills relationship_attention_candidate the way the scheduler projects it,
    // and adds a disposition for each listed follow-up loop of a person.
    void project(const std::vector<std::string>& persons,
                 const std::vector<std::pair<std::string, std::string>>& dispositions) {
        auto scheduler = host::HostServices::reference().followUps;
        db.pool().write([&](store::Connection& c) {
            for (const auto& [person, loop] : dispositions) {
                std::optional<std::string> detected;
                c.query("SELECT detected_at FROM open_loop WHERE id = ?", {loop},
                        [&](const store::Row& row) { detected = row.optionalText("detected_at"); });
                const auto item = scheduler->attentionItem(person, loop, detected);
                c.run("INSERT INTO relationship_attention_disposition VALUES (?, ?, 'snoozed')",
                      {item.value().candidateKey, person});
            }
            for (const auto& person : persons) {
                scheduler->reprojectCandidatesCore(c, person);
            }
        });
    }
};

template <typename F>
std::optional<Case> errorOf(F&& f) {
    try {
        f();
    } catch (const IdentityStoreError& e) {
        return e.errorCase();
    }
    return std::nullopt;
}

const std::string kAutoHandle = "solo@auto.test";
const std::string kAutoPerson = host::stableID("person-auto", "email", kAutoHandle);

// Three persons and the rows other modules keep for them. B (two members, one
// of them also "possible" in A) is the one a merge into A absorbs: its claims
// of three provenances, capture associations that move, promote A's row or stay,
// follow-ups scheduled and done with and without a detection time, an open loop
// without a follow-up, dispositions and projected candidates.
void seedPeople(World& w) {
    w.db.exec(R"sql(
INSERT INTO person VALUES
  ('pA','Alex Marsh','stub',NULL,'user_stated',NULL,'2020-01-01T00:00:00Z'),
  ('pB','A. Marsh','stub','{"k":1}','import',NULL,'2020-01-02T00:00:00Z'),
  ('pC','Casey Rowe','full',NULL,NULL,NULL,'2020-01-03T00:00:00Z');
INSERT INTO source_identity VALUES
  ('iA1','gmail','alex@marsh.test','Alex','2020-01-01T00:00:00Z','2020-02-01T00:00:00Z','2020-01-01T00:00:00Z'),
  ('iB1','gmail','a.marsh@work.test',NULL,'2020-01-01T00:00:00Z','2020-02-01T00:00:00Z','2020-01-01T00:00:00Z'),
  ('iB2','imessage','+15550100','A M','2020-01-01T00:00:00Z','2020-02-01T00:00:00Z','2020-01-01T00:00:00Z'),
  ('iC1','gmail','casey@rowe.test',NULL,'2020-01-01T00:00:00Z','2020-02-01T00:00:00Z','2020-01-01T00:00:00Z'),
  ('iU','sms','+15550111',NULL,'2020-01-01T00:00:00Z','2020-02-01T00:00:00Z','2020-01-01T00:00:00Z'),
  ('iN1','gmail','new.one@x.test',NULL,'2020-01-01T00:00:00Z','2020-02-01T00:00:00Z','2020-01-01T00:00:00Z'),
  ('iN2','sms','+15550122',NULL,'2020-01-01T00:00:00Z','2020-02-01T00:00:00Z','2020-01-01T00:00:00Z');
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
  ('obj-move','pB','confirmed',NULL),
  ('obj-promote','pB','confirmed',NULL),
  ('obj-promote','pA','suggested','2022-01-01T00:00:00Z'),
  ('obj-keep','pB','suggested','2022-02-01T00:00:00Z'),
  ('obj-keep','pA','confirmed',NULL),
  ('obj-a','pA','confirmed',NULL);
INSERT INTO open_loop VALUES
  ('loopB1','pB','2024-05-01T09:00:00Z'),
  ('loopB2','pB',NULL),
  ('loopB3','pB','2024-06-01T09:00:00Z'),
  ('loopB4','pB','2024-07-01T09:00:00Z'),
  ('loopA1','pA','2024-04-01T09:00:00Z'),
  ('loopC1','pC','2024-03-01T09:00:00Z');
INSERT INTO follow_up VALUES
  ('fuB1','loopB1','pB','scheduled'),
  ('fuB2','loopB2','pB','scheduled'),
  ('fuB3','loopB3','pB','done'),
  ('fuA1','loopA1','pA','scheduled'),
  ('fuC1','loopC1','pC','scheduled');
INSERT INTO identity_constraint VALUES
  ('kBC','identity','iB2','person','pC','different','user','2020-04-01T00:00:00Z',NULL),
  ('kAC','person','pA','person','pC','different','user','2020-04-02T00:00:00Z','2020-05-01T00:00:00Z'),
  ('kUA','identity','iU','person','pA','different','auto','2020-04-03T00:00:00Z',NULL);
INSERT INTO user_correction VALUES
  ('uc0','person','pC','different_person','person','pA','2020-04-02T00:00:00Z');
INSERT INTO thread_participant VALUES ('t1','iA1'), ('t1','iB1'), ('t2','iB2'), ('t2','iC1');
INSERT INTO relationship_projection_generation VALUES (1, 41);
)sql");
    w.db.exec("INSERT INTO merge_event VALUES ('ev0','pC',NULL," +
              sql(encodeJSON(MergePreState{})) +
              ",'user confirmed','user','2020-06-01T00:00:00Z','2020-06-02T00:00:00Z','op0')");
    // A lone identity, its automatic person, and a second member of that person.
    w.db.exec("INSERT INTO person VALUES (" + sql(kAutoPerson) +
              ",NULL,'stub',NULL,'auto',NULL,'2020-01-04T00:00:00Z');"
              "INSERT INTO source_identity VALUES ('iAuto','gmail'," +
              sql(kAutoHandle) +
              ",NULL,'2020-01-01T00:00:00Z','2020-02-01T00:00:00Z','2020-01-01T00:00:00Z'),"
              "('iP','sms','+15550199',NULL,'2020-01-01T00:00:00Z','2020-02-01T00:00:00Z',"
              "'2020-01-01T00:00:00Z');"
              "INSERT INTO identity_membership VALUES ('mP','iP'," +
              sql(kAutoPerson) +
              ",'confirmed',NULL,'auto','2020-03-11T00:00:00Z',NULL,'2020-03-11T00:00:00Z')");
    w.project({"pA", "pB", "pC"}, {{"pB", "loopB1"}, {"pA", "loopA1"}});
}

// Applies a correction, undoes it with the event identifiers it returned, and
// compares the whole store with the store before it.
struct RoundTrip {
    Snapshot before;
    Snapshot corrected;
    Snapshot after;
    Residue residue;
    std::vector<UndoMergeResult> results;
};

// `guards` is the number of no-reabsorption constraints the undo must add.
RoundTrip roundTrip(World& w, const std::function<std::vector<std::string>()>& correct,
                    std::size_t guards = 0) {
    RoundTrip rt;
    rt.before = w.snap();
    const auto ids = correct();
    rt.corrected = w.snap();
    rt.residue = residueOf(rt.before, rt.corrected);
    EXPECT_EQ(rt.residue.events.size(), ids.size());
    rt.results = w.repo.undoConfirmation(ids);
    rt.after = w.snap();
    EXPECT_EQ(unexplained(rt.before, rt.after, rt.residue), Lines{});
    const auto constraints = added(rt.before, rt.after, "identity_constraint");
    EXPECT_EQ(static_cast<std::size_t>(
                  std::count_if(constraints.begin(), constraints.end(), isGuardConstraint)),
              guards);
    return rt;
}

// Residue sizes: events, inserted memberships, created persons, same constraints,
// user corrections.
std::vector<std::size_t> shape(const Residue& r) {
    return {r.events.size(), r.insertedMemberships.size(), r.createdPersons.size(),
            r.sameConstraints.size(), r.keptLines.size()};
}

Witness::Event undoWitness(std::int64_t ids, std::int64_t events, std::int64_t restoredPersons,
                           std::int64_t restoredMemberships) {
    return {.kind = Witness::Kind::undoConfirmation,
            .identityCount = ids,
            .mergeEventCount = events,
            .absorbedPersonCount = 0,
            .restoredPersonCount = restoredPersons,
            .restoredMembershipCount = restoredMemberships,
            .operationID = std::nullopt};
}

// ---------------------------------------------------------------------------
// Round trips.

TEST(CorrectionUndo, LinkRoundTripsRestoreTheWholeStore) {
    World w;
    seedPeople(w);

    // An identity with no active membership (an ended and a "possible" row): the
    // link inserts a membership and revokes the automatic constraint against A.
    auto rt = roundTrip(w, [&] { return std::vector{w.link("iU", "pA")}; });
    EXPECT_EQ(shape(rt.residue), (std::vector<std::size_t>{1, 1, 0, 0, 0}));
    EXPECT_TRUE(changedTables(rt.before, rt.corrected).contains("identity_constraint"));
    ASSERT_EQ(rt.results.size(), 1U);
    EXPECT_EQ(rt.results.at(0).restoredMembershipCount, 0);

    // Moving an identity out of its person into another: a new membership.
    rt = roundTrip(w, [&] { return std::vector{w.link("iA1", "pC")}; });
    EXPECT_EQ(shape(rt.residue), (std::vector<std::size_t>{1, 1, 0, 0, 0}));
    EXPECT_EQ(rt.results.at(0).restoredMembershipCount, 1);

    // Moving an identity into a person it was "possible" in: the row is upgraded
    // in place, so the undo writes the old row back and leaves nothing new.
    rt = roundTrip(w, [&] { return std::vector{w.link("iC1", "pB")}; });
    EXPECT_EQ(shape(rt.residue), (std::vector<std::size_t>{1, 0, 0, 0, 0}));
    EXPECT_EQ(added(rt.before, rt.after, "identity_membership").size(), 0U);

    // Into the identity's own automatic person: the undo adds the guard.
    rt = roundTrip(
        w, [&] { return std::vector{w.link("iAuto", kAutoPerson)}; }, 1);
    const auto constraints = added(rt.before, rt.after, "identity_constraint");
    ASSERT_EQ(constraints.size(), 1U);
    EXPECT_EQ(constraints[0].at("a_id"), "iAuto");
    EXPECT_EQ(constraints[0].at("b_id"), kAutoPerson);

    EXPECT_EQ(w.events, (std::vector{undoWitness(1, 1, 0, 0), undoWitness(1, 1, 0, 1),
                                     undoWitness(1, 1, 0, 1), undoWitness(1, 1, 0, 0)}));
}

TEST(CorrectionUndo, MergeRoundTripRestoresEveryDependentRow) {
    World w;
    seedPeople(w);
    const auto rt = roundTrip(w, [&] { return std::vector{w.merge("pA", "pB")}; });

    // The merge really moved rows of every dependent table, so the comparison
    // above covers their restoration.
    const auto changed = changedTables(rt.before, rt.corrected);
    for (const char* table :
         {"identity_membership", "person", "claim", "capture_person_association", "follow_up",
          "open_loop", "relationship_attention_disposition", "relationship_attention_candidate"}) {
        EXPECT_TRUE(changed.contains(table)) << table;
    }
    // iB1 got a new membership in A, iB2's "possible" row in A was upgraded.
    EXPECT_EQ(shape(rt.residue), (std::vector<std::size_t>{1, 1, 0, 1, 1}));
    EXPECT_EQ(added(rt.before, rt.after, "identity_constraint").size(), 1U);
    ASSERT_EQ(rt.results.size(), 1U);
    EXPECT_EQ(rt.results[0].restoredPersonID, "pB");
    EXPECT_EQ(rt.results[0].restoredMembershipCount, 2);
    EXPECT_EQ(rt.results[0].restoredClaimCount, 3);
}

TEST(CorrectionUndo, ConfirmationRoundTrips) {
    World w;
    seedPeople(w);

    // Neither identity has a person: a stub person and two link events.
    IdentityConfirmResult confirmed;
    auto rt = roundTrip(w, [&] {
        confirmed = w.confirm("iN1", "iN2");
        return confirmed.mergeEventIDs;
    });
    EXPECT_EQ(shape(rt.residue), (std::vector<std::size_t>{2, 2, 1, 0, 0}));
    EXPECT_TRUE(rt.residue.createdPersons.contains(confirmed.personID));
    EXPECT_EQ(rt.results.size(), 2U);
    ASSERT_EQ(w.events.size(), 2U);
    EXPECT_EQ(w.events[0].mergeEventCount, 2);
    EXPECT_EQ(w.events[0].absorbedPersonCount, 0);
    EXPECT_EQ(w.events[1], undoWitness(2, 2, 0, 0));
    w.events.clear();

    // Both have a person: B is merged into A.
    rt = roundTrip(w, [&] {
        confirmed = w.confirm("iA1", "iB1");
        return confirmed.mergeEventIDs;
    });
    EXPECT_EQ(confirmed.personID, "pA");
    EXPECT_EQ(shape(rt.residue), (std::vector<std::size_t>{1, 1, 0, 1, 1}));
    ASSERT_EQ(w.events.size(), 2U);
    EXPECT_EQ(w.events[0].absorbedPersonCount, 1);
    EXPECT_EQ(w.events[1], undoWitness(1, 1, 1, 2));
}

// ---------------------------------------------------------------------------
// Supersession.

// The undo is refused as superseded, and neither the store nor the witness
// notices the attempt.
void expectSuperseded(World& w, const std::vector<std::string>& ids) {
    const std::string before = w.db.dump();
    const auto witnessed = w.events.size();
    EXPECT_EQ(errorOf([&] { w.repo.undoConfirmation(ids); }), Case::supersededByLaterCorrection);
    EXPECT_EQ(w.db.dump(), before);
    EXPECT_EQ(w.events.size(), witnessed);
}

TEST(CorrectionUndo, LaterChangesSupersedeAnUndoUntilTheyArePutBack) {
    struct Change {
        const char* name;
        const char* apply;
        const char* putBack;
    };
    const std::vector<Change> changes = {
        {"claim moved", "UPDATE claim SET person_id = 'pC' WHERE id = 'c1'",
         "UPDATE claim SET person_id = 'pA' WHERE id = 'c1'"},
        {"claim deleted", "DELETE FROM claim WHERE id = 'c3'",
         "INSERT INTO claim VALUES ('c3','pA',NULL,'birthday','inferred','05-01')"},
        {"absorbed person renamed", "UPDATE person SET display_name = 'Al Marsh' WHERE id = 'pB'",
         "UPDATE person SET display_name = 'A. Marsh' WHERE id = 'pB'"},
        {"same constraint revoked",
         "UPDATE identity_constraint SET revoked_at = '2031-01-01T00:00:00Z' WHERE kind = 'same'",
         "UPDATE identity_constraint SET revoked_at = NULL WHERE kind = 'same'"},
    };
    for (const auto& change : changes) {
        SCOPED_TRACE(change.name);
        World w;
        seedPeople(w);
        const auto before = w.snap();
        const std::string merged = w.merge("pA", "pB");
        const auto residue = residueOf(before, w.snap());

        w.db.exec(change.apply);
        expectSuperseded(w, {merged});
        w.db.exec(change.putBack);
        w.repo.undoMerge(merged);
        EXPECT_EQ(unexplained(before, w.snap(), residue), Lines{});
    }
}

TEST(CorrectionUndo, NewerLinkKeepsTheOlderUndoRefusedEvenAfterItsOwnUndo) {
    World w;
    seedPeople(w);
    const std::string merged = w.merge("pA", "pB");
    const std::string relinked = w.link("iB1", "pC");
    expectSuperseded(w, {merged});

    // Undoing the newer link restores iB1's membership in A but leaves the
    // link's own row behind, ended: one row more than the merge left.
    w.repo.undoMerge(relinked);
    expectSuperseded(w, {merged});

    // The same between two links of one identity.
    const std::string first = w.link("iU", "pC");
    const std::string second = w.link("iU", "pA");
    expectSuperseded(w, {first});
    w.repo.undoMerge(second);
    expectSuperseded(w, {first});
}

// ---------------------------------------------------------------------------
// Randomised sequences of corrections and undos.

class Scenario {
  public:
    explicit Scenario(unsigned seed) : random_(seed) {}

    void run(int steps) {
        seed();
        current_ = w_.snap();
        for (int step = 0; step < steps && !::testing::Test::HasFatalFailure(); ++step) {
            SCOPED_TRACE("step " + std::to_string(step));
            this->step();
            checkInvariants();
        }
    }

  private:
    // A correction not yet undone, with what is needed to undo and check it.
    struct Applied {
        std::vector<std::string> eventIDs;
        Snapshot before;
        std::size_t firstResidue = 0;      // index into residues_
        std::set<std::string> identities;  // whose membership rows its undo checks
        std::set<std::string> persons;     // whose person rows its undo checks
        bool touched = false;              // a later correction changed rows its undo checks
    };

    int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }
    bool chance(double p) { return std::bernoulli_distribution(p)(random_); }
    std::string identity() { return "i" + std::to_string(pick(kIdentities)); }
    std::string person() { return persons_[pick(static_cast<int>(persons_.size()))]; }

    // Each random draw is a statement of its own, so that a seed gives the same
    // store whatever order the compiler evaluates operands in.
    std::string maybe(double p, const std::string& value) {
        return chance(p) ? sql(value) : "NULL";
    }
    std::string livePerson() { return persons_[pick(kPersons - 1)]; }

    void seed() {
        auto& db = w_.db;
        // p0 is the automatic person of i0; p5 is absorbed into p4 by no event.
        persons_ = {host::stableID("person-auto", "email", std::string("h0@example.test"))};
        for (int p = 1; p < kPersons; ++p) {
            persons_.push_back("p" + std::to_string(p));
        }
        for (int p = 0; p < kPersons; ++p) {
            const std::string name = maybe(0.5, "Person " + std::to_string(p));
            const std::string into = p == kPersons - 1 ? sql(persons_[p - 1]) : "NULL";
            db.exec("INSERT INTO person VALUES (" + sql(persons_[p]) + "," + name +
                    ",'stub',NULL,'user_stated'," + into + ",'2020-01-01T00:00:00Z')");
        }
        // i1 and i2 share a handle; i7 is the user's own account.
        const std::vector<std::pair<std::string, std::string>> handles = {
            {"gmail", "h0@example.test"},
            {"gmail", "h1@example.test"},
            {"imessage", "h1@example.test"},
            {"sms", "+15550103"},
            {"gmail", "h4@example.test"},
            {"sms", "+15550105"},
            {"slack", "h6"},
            {"gmail", "owner@example.test"}};
        db.exec("INSERT INTO source_account VALUES ('gmail','owner@example.test')");
        for (int i = 0; i < kIdentities; ++i) {
            const std::string id = "i" + std::to_string(i);
            db.addIdentity(id, handles[i].first, handles[i].second);
            if (chance(i == 7 ? 0.3 : 0.6)) {
                const std::string to = i == 0 ? persons_[0] : persons_[1 + pick(kPersons - 2)];
                const std::string state = chance(0.7) ? "confirmed" : "high_conf";
                db.addMembership("m" + id, id, to, state, {}, chance(0.5) ? "user" : "auto");
            }
            if (chance(0.4)) {
                db.addMembership("mp" + id, id, livePerson(), "possible", {}, "auto", "alike");
            }
            if (chance(0.4)) {
                db.addMembership("mx" + id, id, livePerson(), "confirmed", "2021-01-01T00:00:00Z");
            }
            if (chance(0.5)) {
                const std::string thread = "t" + std::to_string(pick(3));
                db.exec("INSERT INTO thread_participant VALUES (" + sql(thread) + "," + sql(id) +
                        ")");
            }
        }
        const std::vector<std::string> provenances = {"user_stated", "imported", "inferred"};
        for (int c = 0; c < 10; ++c) {
            const std::string owner = livePerson();
            const std::string source = maybe(0.8, identity());
            const std::string provenance = provenances[pick(3)];
            db.exec("INSERT INTO claim VALUES ('c" + std::to_string(c) + "'," + sql(owner) + "," +
                    source + ",'note'," + sql(provenance) + ",'v')");
        }
        std::vector<std::pair<std::string, std::string>> dispositions;
        for (int o = 0; o < 8; ++o) {
            const std::string loop = "loop" + std::to_string(o);
            const std::string owner = livePerson();
            const std::string detected = maybe(0.8, "2024-0" + std::to_string(1 + o) + "-01");
            db.exec("INSERT INTO open_loop VALUES (" + sql(loop) + "," + sql(owner) + "," +
                    detected + ")");
            if (chance(0.8)) {
                const bool scheduled = chance(0.7);
                db.exec("INSERT INTO follow_up VALUES ('fu" + std::to_string(o) + "'," + sql(loop) +
                        "," + sql(owner) + "," + (scheduled ? "'scheduled'" : "'done'") + ")");
                if (scheduled && detected != "NULL" && chance(0.5)) {
                    dispositions.emplace_back(owner, loop);
                }
            }
        }
        // Capture associations of one or two persons per object.
        for (int o = 0; o < 6; ++o) {
            const int first = pick(kPersons - 1);
            const int second = chance(0.5) ? (first + 1 + pick(kPersons - 2)) % (kPersons - 1) : -1;
            for (int p : {first, second}) {
                if (p < 0) {
                    continue;
                }
                const std::string state = chance(0.6) ? "confirmed" : "suggested";
                const std::string ended = maybe(0.3, "2022-01-01T00:00:00Z");
                db.exec("INSERT INTO capture_person_association VALUES ('obj" + std::to_string(o) +
                        "'," + sql(persons_[p]) + "," + sql(state) + "," + ended + ")");
            }
        }
        db.addDifferent("k0", "person", persons_[1], "person", persons_[2]);
        for (const char* decidedBy : {"user", "auto"}) {
            const std::string a = identity();
            const std::string b = person();
            db.addDifferent(std::string("k-") + decidedBy, "identity", a, "person", b, {},
                            decidedBy);
        }
        db.addDifferent("k3", "identity", "i0", "person", persons_[0], "2021-01-01T00:00:00Z",
                        "auto");
        w_.project(persons_, dispositions);
    }

    void step() {
        const int roll = pick(100);
        if (roll < 22) {
            const std::string to = chance(0.05) ? "nobody" : person();
            const std::string linked = identity();
            correction("link", [&] {
                const auto response = w_.repo.linkIdentity(
                    {.personID = to, .sourceIdentityID = linked, .confirmed = true});
                using Status = schema::LinkIdentityResponse::Status;
                return response.status == Status::linked ? std::vector{*response.mergeEventID}
                                                         : std::vector<std::string>{};
            });
        } else if (roll < 40) {
            const std::string survivor = person();
            const std::string absorbed = person();
            correction("merge", [&] {
                const auto response =
                    w_.repo.proposeMerge({.presetValue = 3000,
                                          .personIDA = survivor,
                                          .personIDB = absorbed,
                                          .subjectID = "s",
                                          .subjectLineage = SubjectLineage::person,
                                          .confirmed = true});
                using Status = schema::ProposeMergeResponse::Status;
                return response.status == Status::merged ? std::vector{*response.mergeEventID}
                                                         : std::vector<std::string>{};
            });
        } else if (roll < 60) {
            const std::string a = identity();
            const std::string b = identity();
            if (a != b) {
                correction("confirm", [&] { return w_.confirm(a, b).mergeEventIDs; });
            }
        } else if (roll < 66) {
            const std::string a = identity();
            const std::string b = identity();
            if (a != b) {
                intervening("reject", [&] {
                    w_.repo.rejectCandidate(w_.candidate(a, b), SubjectLineage::grouping, "g");
                });
            }
        } else if (roll < 72) {
            const std::string a = person();
            const std::string b = person();
            intervening("mark different", [&] {
                w_.repo.markDifferent({.reason = "not the same",
                                       .presetValue = 3000,
                                       .personIDA = a,
                                       .personIDB = b,
                                       .subjectID = "s",
                                       .subjectLineage = SubjectLineage::person});
            });
        } else {
            undoLatest();
        }
    }

    // Runs an operation that may throw: a thrown error must leave the store and
    // the witness untouched. Returns the store before the operation, or nothing
    // when it threw; current_ is the store after it either way.
    template <typename F>
    std::optional<Snapshot> attempt(const std::string& name, F&& op) {
        SCOPED_TRACE(name);
        Snapshot before = std::exchange(current_, {});
        const auto witnessed = w_.events.size();
        try {
            op();
        } catch (const IdentityStoreError& e) {
            current_ = w_.snap();
            EXPECT_EQ(linesOf(current_), linesOf(before)) << e.what();
            EXPECT_EQ(w_.events.size(), witnessed);
            return std::nullopt;
        }
        current_ = w_.snap();
        return before;
    }

    void correction(const std::string& name, const std::function<std::vector<std::string>()>& op) {
        std::vector<std::string> ids;
        auto before = attempt(name, [&] { ids = op(); });
        if (!before) {
            return;
        }
        if (ids.empty()) {
            // A refusal, or a confirmation of two identities of one person.
            EXPECT_EQ(linesOf(current_), linesOf(*before)) << name;
            return;
        }
        Applied applied{.eventIDs = ids,
                        .before = std::move(*before),
                        .firstResidue = residues_.size(),
                        .identities = {},
                        .persons = {},
                        .touched = false};
        residues_.push_back(residueOf(applied.before, current_));
        std::set<std::string> changedPersons;
        for (const auto& id : ids) {
            const auto event = w_.repo.mergeEvent(id).value();
            const auto s = decodeMergePreState(event.preMergeStateJSON).value();
            for (const auto& identity : affectedIdentityIDs(s)) {
                applied.identities.insert(identity);
            }
            for (const auto& image : s.personPostImages) {
                applied.persons.insert(image.id);
            }
            if (event.absorbedPersonID) {
                changedPersons.insert(*event.absorbedPersonID);
                changedPersons.insert(event.survivingPersonID);
            }
        }
        for (auto& older : stack_) {
            older.touched = older.touched || intersects(older.identities, applied.identities) ||
                            intersects(older.persons, changedPersons);
        }
        stack_.push_back(std::move(applied));
    }

    // Rejections and mark-different add constraints and user corrections for
    // good; when mark-different has to undo a merge first, the history that the
    // stack describes no longer holds, and it starts afresh.
    void intervening(const std::string& name, const std::function<void()>& op) {
        const auto reversedBefore = reversedCount();
        const auto before = attempt(name, op);
        if (!before) {
            return;
        }
        if (reversedCount() != reversedBefore) {
            stack_.clear();
            residues_.clear();
            return;
        }
        Residue kept;
        for (const auto& [line, row] : current_) {
            if (!before->contains(line)) {
                EXPECT_TRUE(row.table == "identity_constraint" || row.table == "user_correction")
                    << name << ": " << line;
                kept.keptLines.insert(line);
            }
        }
        for (const auto& [line, row] : *before) {
            EXPECT_TRUE(current_.contains(line)) << name << " changed " << line;
        }
        residues_.push_back(std::move(kept));
    }

    // Undoes the newest correction not undone yet; every later one has been
    // undone before it. Unless a later correction changed rows that its undo
    // checks, it must succeed; either way a success must bring back the store
    // from before it, up to what the undone corrections and the operations in
    // between leave behind on purpose.
    void undoLatest() {
        if (stack_.empty()) {
            return;
        }
        const Applied latest = std::move(stack_.back());
        stack_.pop_back();
        std::vector<UndoMergeResult> results;
        std::optional<Case> error;
        const auto before = attempt("undo", [&] {
            try {
                results = w_.repo.undoConfirmation(latest.eventIDs);
            } catch (const IdentityStoreError& e) {
                error = e.errorCase();
                throw;
            }
        });
        if (!before) {
            // Only a correction whose rows a later one changed may be refused,
            // and then only as superseded. It stays applied, so the older entries
            // no longer describe a store that undo can return to.
            EXPECT_TRUE(latest.touched) << "refused: " << caseName(*error);
            EXPECT_EQ(error, Case::supersededByLaterCorrection);
            stack_.clear();
            residues_.clear();
            return;
        }
        EXPECT_EQ(results.size(), latest.eventIDs.size());
        Residue allowed;
        for (std::size_t i = latest.firstResidue; i < residues_.size(); ++i) {
            allowed.add(residues_[i]);
        }
        EXPECT_EQ(unexplained(latest.before, current_, allowed), Lines{});
    }

    void checkInvariants() {
        EXPECT_EQ(w_.db.rows("SELECT source_identity_id FROM identity_membership\n"
                             "WHERE ended_at IS NULL AND state IN ('high_conf','confirmed')\n"
                             "GROUP BY source_identity_id HAVING count(*) > 1"),
                  Lines{})
            << "identities with more than one active membership";
        EXPECT_EQ(w_.db.rows("SELECT m.id FROM identity_membership m\n"
                             "JOIN person p ON p.id = m.canonical_person_id\n"
                             "WHERE p.merged_into_person_id IS NOT NULL AND m.ended_at IS NULL\n"
                             "  AND m.state IN ('high_conf','confirmed')"),
                  Lines{})
            << "active memberships in absorbed persons";
        // Snapshots are written once; each is decoded when it first appears.
        w_.db.pool().read([&](store::Connection& c) {
            c.query(
                "SELECT id, pre_merge_state_json FROM merge_event", {}, [&](const store::Row& row) {
                    if (decodedEvents_.insert(row.text(0)).second) {
                        EXPECT_TRUE(decodeMergePreState(row.text(1)).has_value()) << row.text(0);
                    }
                });
        });
    }

    std::size_t reversedCount() {
        return w_.db.rows("SELECT id FROM merge_event WHERE reversed_at IS NOT NULL").size();
    }

    static bool intersects(const std::set<std::string>& a, const std::set<std::string>& b) {
        return std::any_of(a.begin(), a.end(), [&](const auto& x) { return b.contains(x); });
    }

    static constexpr int kPersons = 6;
    static constexpr int kIdentities = 8;

    std::mt19937 random_;
    World w_;
    std::vector<std::string> persons_;
    std::vector<Applied> stack_;
    std::vector<Residue> residues_;
    std::set<std::string> decodedEvents_;
    Snapshot current_;  // the store as the last step left it
};

TEST(CorrectionUndo, RandomSequencesKeepTheStoreConsistentAndUndoable) {
    for (unsigned seed : {1U, 2U, 3U, 5U, 8U, 13U}) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Scenario(seed).run(60);
    }
}

// ---------------------------------------------------------------------------
// Atomicity.

// Makes statement 1, 2, ... of the operation fail in turn until the operation
// runs through without reaching the fault. Every failure must leave the store as
// it was and emit no witness event. `setup` prepares a fresh world and returns
// the operation; a run that succeeds although the fault fired is handed to
// `swallowed` and the world is prepared again. Returns the statements counted.
int failEachStatement(const std::function<std::function<void()>(World&)>& setup,
                      const std::function<void(int, World&)>& swallowed) {
    auto w = std::make_unique<World>();
    auto op = setup(*w);
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
        } catch (const std::exception& e) {
            threw = true;
            ADD_FAILURE() << "unexpected error: " << e.what();
        }
        const bool fired = w->db.pool().faultFired();
        w->db.pool().disarmFault();
        if (!fired) {
            EXPECT_FALSE(threw);
            return n - 1;
        }
        if (threw) {
            EXPECT_EQ(w->db.dump(), before);
            EXPECT_EQ(w->events, std::vector<Witness::Event>{});
            continue;
        }
        swallowed(n, *w);
        w = std::make_unique<World>();
        op = setup(*w);
    }
    ADD_FAILURE() << "the operation never ran through";
    return 0;
}

TEST(CorrectionUndo, MergeAndUndoFailuresLeaveNoTrace) {
    auto noSwallowing = [](int n, World&) { ADD_FAILURE() << "statement " << n << " ignored"; };

    const int mergeStatements = failEachStatement(
        [](World& w) {
            seedPeople(w);
            return std::function<void()>([&w] { w.merge("pA", "pB"); });
        },
        noSwallowing);
    EXPECT_GT(mergeStatements, 20);

    // The undo of that merge, and of a link into an identity's own automatic
    // person, whose undo writes the guard as its last statements.
    for (const bool guarded : {false, true}) {
        SCOPED_TRACE(guarded ? "link undo with guard" : "merge undo");
        std::vector<std::string> ids;
        const int undoStatements = failEachStatement(
            [&](World& w) {
                seedPeople(w);
                ids = guarded ? w.confirm("iAuto", "iP").mergeEventIDs
                              : std::vector{w.merge("pA", "pB")};
                return std::function<void()>([&w, &ids] { w.repo.undoConfirmation(ids); });
            },
            noSwallowing);
        EXPECT_GT(undoStatements, 10);
    }
}

TEST(CorrectionUndo, ConfirmationFailuresLeaveNoTraceExceptTheCount) {
    // The count of absorbed persons, the transaction's last statement, reports
    // its own failure as -1 and lets the confirmation commit.
    for (const bool merging : {true, false}) {
        SCOPED_TRACE(merging ? "merging confirmation" : "stub person confirmation");
        std::vector<int> swallowedAt;
        const int statements = failEachStatement(
            [&](World& w) {
                seedPeople(w);
                return std::function<void()>([&w, merging] {
                    if (merging) {
                        w.confirm("iA1", "iB1");
                    } else {
                        w.confirm("iN1", "iN2");
                    }
                });
            },
            [&](int n, World& w) {
                swallowedAt.push_back(n);
                ASSERT_EQ(w.events.size(), 1U);
                EXPECT_EQ(w.events[0].absorbedPersonCount, -1);
                EXPECT_EQ(w.events[0].mergeEventCount, merging ? 1 : 2);
                EXPECT_EQ(w.cell("SELECT count(*) FROM merge_event WHERE reversed_at IS NULL"),
                          merging ? "1" : "2");
            });
        EXPECT_EQ(swallowedAt, std::vector{statements});
    }
}

}  // namespace
}  // namespace orvik::identity
