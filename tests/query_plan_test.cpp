// Every statement the library runs, planned by SQLite against the reference
// schema: a full pass over a table that grows with the address book is only
// acceptable where the statement cannot use an index at all. And every read it
// runs: within one transaction none comes twice with the same values unless
// something was written in between.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <map>
#include <mutex>
#include <regex>
#include <set>
#include <string_view>
#include <vector>

#include "tests/support/CorrectionWorkload.h"

namespace orvik::identity {
namespace {

std::mutex gMutex;
std::set<std::string> gStatements;
// Per connection, the reads (with their values bound) since its transaction
// began or last wrote; and every read that came again within that stretch.
std::map<sqlite3*, std::set<std::string>> gReadsSinceWrite;
std::vector<std::string> gRepeatedReads;

int recordStatement(unsigned, void*, void* prepared, void*) {
    auto* statement = static_cast<sqlite3_stmt*>(prepared);
    const char* sql = sqlite3_sql(statement);
    if (sql == nullptr) {
        return 0;
    }
    std::lock_guard lock(gMutex);
    gStatements.insert(sql);
    const std::string_view text(sql);
    auto& reads = gReadsSinceWrite[sqlite3_db_handle(statement)];
    if (text.starts_with("BEGIN") || text.starts_with("COMMIT") || text.starts_with("ROLLBACK") ||
        !sqlite3_stmt_readonly(statement)) {
        reads.clear();
    } else if (!text.starts_with("PRAGMA")) {
        char* expanded = sqlite3_expanded_sql(statement);
        std::string bound = expanded != nullptr ? expanded : sql;
        sqlite3_free(expanded);
        if (!reads.insert(bound).second) {
            gRepeatedReads.push_back(std::move(bound));
        }
    }
    return 0;
}

int traceConnection(sqlite3* db, const char**, const void*) {
    sqlite3_trace_v2(db, SQLITE_TRACE_STMT, recordStatement, nullptr);
    return SQLITE_OK;
}

struct Recorded {
    std::set<std::string> statements;
    std::vector<std::string> repeatedReads;
};

Recorded record(const std::function<void()>& workload) {
    {
        std::lock_guard lock(gMutex);
        gStatements.clear();
        gReadsSinceWrite.clear();
        gRepeatedReads.clear();
    }
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(traceConnection));
    workload();
    sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(traceConnection));
    std::lock_guard lock(gMutex);
    return {gStatements, gRepeatedReads};
}

// Reads every screen and every lookup does, on the workload's store.
void runReads(test::CorrectionWorld& w) {
    auto& repo = *w.repo;
    repo.sourceIdentity("iA1");
    repo.person("pA");
    repo.activeMembership("iA1");
    repo.activeMemberships("pA");
    repo.resolveCanonicalPerson("iB1");
    const auto merged =
        repo.confirmCandidate(w.candidate("iA1", "iB1"), SubjectLineage::person, "s");
    repo.mergeEvent(merged.mergeEventIDs.at(0));
    repo.latestUndoableMergeEvent("pA");
    repo.searchSourceIdentities("ann", 20, {"iC1"});
    repo.searchSourceIdentities("", 20, {});
    repo.searchUserStatedPeople("a", 20, {"pC"});
    repo.exactKeyCandidates(50);
    repo.candidateContext("iN1", {"iN2"});
    repo.predictManualLinkSurvivor(
        {ManualLinkTarget::person("pA"), ManualLinkTarget::identity(w.row("iN1"))});
    repo.identityHistory("pA");
    repo.identityCorrectionsReadback();
}

// Older SQLite names the table in a plan ("SCAN TABLE source_identity AS a"),
// newer SQLite only its alias ("SCAN a"): an alias is looked up in the statement.
std::string tableOf(const std::string& sql, const std::string& name) {
    const std::regex aliased("(?:FROM|JOIN)\\s+(\\w+)\\s+(?:AS\\s+)?" + name + "\\b");
    std::smatch match;
    return std::regex_search(sql, match, aliased) ? match[1].str() : name;
}

// Stands for a sort of the whole result before its first row comes out.
constexpr const char* kSort = "(sort)";

// The tables each "SCAN" line of a statement's plan names.
std::vector<std::string> scannedTables(store::DatabasePool& pool, const std::string& sql) {
    static const std::regex scan(
        R"(^SCAN (?:TABLE )?(\w+)(?: AS \w+)?(?: USING (?:COVERING )?INDEX \w+)?$)");
    std::vector<std::string> tables;
    pool.read([&](store::Connection& db) {
        // Unbound parameters plan like any value; the store's own query refuses them.
        sqlite3_stmt* plan = nullptr;
        const std::string explain = "EXPLAIN QUERY PLAN " + sql;
        ASSERT_EQ(sqlite3_prepare_v2(db.handle(), explain.c_str(), -1, &plan, nullptr), SQLITE_OK)
            << sqlite3_errmsg(db.handle()) << " in " << sql;
        while (sqlite3_step(plan) == SQLITE_ROW) {
            const std::string detail = reinterpret_cast<const char*>(sqlite3_column_text(plan, 3));
            std::smatch match;
            if (std::regex_match(detail, match, scan)) {
                tables.push_back(tableOf(sql, match[1]));
            } else if (detail.find("TEMP B-TREE FOR") != std::string::npos &&
                       detail.find("ORDER BY") != std::string::npos) {
                tables.push_back(kSort);
            }
        }
        sqlite3_finalize(plan);
    });
    return tables;
}

// Statements that may pass over a whole table, by a text that only they contain,
// and why.
struct AllowedScan {
    const char* statementContains;
    const char* table;
};
const AllowedScan kAllowedScans[] = {
    // History matches the person inside the snapshots: an unanchored LIKE.
    {"pre_merge_state_json LIKE", "merge_event"},
    // Search: an unanchored LIKE; a blank query walks the sort-order index and
    // stops at its limit.
    {"ORDER BY display_name IS NULL, display_name, handle_normalized, id", "source_identity"},
    // Candidate discovery looks at every identity once and probes its handle.
    {"JOIN source_identity b", "source_identity"},
    // The readback's diagnostic counts.
    {"count(*)", "merge_event"},
    {"count(*)", "person"},
    {"count(*)", "source_identity"},
    // One row at most; the schema itself.
    {"FROM owner_ego", "owner_ego"},
    {"FROM sqlite_master", "sqlite_master"},
};

// The searches stop reading at their limit; that only helps when rows come out of
// an index already in the statement's order instead of from a sort of every match.
const char* const kWalkedInOrder[] = {
    "ORDER BY display_name IS NULL, display_name, handle_normalized, id",
    "ORDER BY p.display_name IS NULL, p.display_name, p.created_at, p.id",
};

bool allowed(const std::string& sql, const std::string& table) {
    if (table == kSort) {
        for (const char* order : kWalkedInOrder) {
            if (sql.find(order) != std::string::npos) {
                return false;
            }
        }
        return true;
    }
    for (const auto& scan : kAllowedScans) {
        if (table == scan.table && sql.find(scan.statementContains) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// Every correction (and whatever prepares it) and every read, each on a fresh
// store.
Recorded recordWorkload() {
    return record([] {
        for (const auto& correction : test::corrections()) {
            test::CorrectionWorld w;
            correction.prepare(w)();
        }
        test::CorrectionWorld w;
        runReads(w);
    });
}

TEST(QueryPlans, OnlyTheStatementsThatMustScanPassOverATableAndSearchesNeverSort) {
    const auto all = recordWorkload().statements;
    // The workload reached the library's statements, not only the seeding.
    ASSERT_GT(all.size(), 100U);

    test::CorrectionWorld w;
    for (const auto& sql : all) {
        if (sql.starts_with("BEGIN") || sql.starts_with("COMMIT") || sql.starts_with("ROLLBACK") ||
            sql.starts_with("PRAGMA")) {
            continue;
        }
        for (const auto& table : scannedTables(*w.pool, sql)) {
            EXPECT_TRUE(allowed(sql, table))
                << (table == kSort ? "sorts every match" : "passes over " + table) << ":\n"
                << sql;
        }
    }
}

// An operation reads a row once: the same read with the same values comes again
// only after the transaction has written something.
TEST(QueryPlans, NoOperationRepeatsAReadWithoutAWriteInBetween) {
    const auto recorded = recordWorkload();
    ASSERT_GT(recorded.statements.size(), 100U);
    for (const auto& read : recorded.repeatedReads) {
        ADD_FAILURE() << "read again:\n" << read;
    }
}

}  // namespace
}  // namespace orvik::identity
