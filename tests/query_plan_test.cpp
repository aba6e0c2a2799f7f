// Every statement the library runs, planned by SQLite against the reference
// schema: a full pass over a table that grows with the address book is only
// acceptable where the statement cannot use an index at all.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <mutex>
#include <regex>
#include <set>

#include "tests/support/CorrectionWorkload.h"

namespace orvik::identity {
namespace {

std::mutex gMutex;
std::set<std::string> gStatements;

int recordStatement(unsigned, void*, void* statement, void*) {
    if (const char* sql = sqlite3_sql(static_cast<sqlite3_stmt*>(statement))) {
        std::lock_guard lock(gMutex);
        gStatements.insert(sql);
    }
    return 0;
}

int traceConnection(sqlite3* db, const char**, const void*) {
    sqlite3_trace_v2(db, SQLITE_TRACE_STMT, recordStatement, nullptr);
    return SQLITE_OK;
}

std::set<std::string> statementsOf(const std::function<void()>& workload) {
    {
        std::lock_guard lock(gMutex);
        gStatements.clear();
    }
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(traceConnection));
    workload();
    sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(traceConnection));
    std::lock_guard lock(gMutex);
    return gStatements;
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
    {"count(*)", "identity_membership"},
    {"count(*)", "merge_event"},
    {"count(*)", "person"},
    {"count(*)", "source_identity"},
    // One row at most; the schema itself.
    {"FROM owner_ego", "owner_ego"},
    {"FROM sqlite_master", "sqlite_master"},
};

bool allowed(const std::string& sql, const std::string& table) {
    for (const auto& scan : kAllowedScans) {
        if (table == scan.table && sql.find(scan.statementContains) != std::string::npos) {
            return true;
        }
    }
    return false;
}

TEST(QueryPlans, OnlyTheStatementsThatMustScanPassOverATable) {
    std::set<std::string> all;
    for (const auto& correction : test::corrections()) {
        const auto texts = statementsOf([&] {
            test::CorrectionWorld w;
            correction.prepare(w)();
        });
        all.insert(texts.begin(), texts.end());
    }
    const auto reads = statementsOf([] {
        test::CorrectionWorld w;
        runReads(w);
    });
    all.insert(reads.begin(), reads.end());
    // The workload reached the library's statements, not only the seeding.
    ASSERT_GT(all.size(), 100U);

    test::CorrectionWorld w;
    for (const auto& sql : all) {
        if (sql.starts_with("BEGIN") || sql.starts_with("COMMIT") || sql.starts_with("ROLLBACK") ||
            sql.starts_with("PRAGMA")) {
            continue;
        }
        for (const auto& table : scannedTables(*w.pool, sql)) {
            EXPECT_TRUE(allowed(sql, table)) << "passes over " << table << ":\n" << sql;
        }
    }
}

}  // namespace
}  // namespace orvik::identity
