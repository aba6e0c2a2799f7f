// A person's identity history, read from merge_event alone: one entry per
// correction (operation), however many events it wrote.
#include <algorithm>
#include <set>

#include "identity/IdentityRepositoryInternal.h"

namespace orvik::identity::internal {

namespace {

// The newest events naming the person, then in ascending order. The person's id is
// bound unescaped: LIKE may over-match, and historyEntry drops what does not
// concern the person.
const std::string kSelectHistoryCandidates =
    "SELECT * FROM (\n"
    "    SELECT *, rowid FROM merge_event\n"
    "    WHERE surviving_person_id = ?\n"
    "       OR absorbed_person_id = ?\n"
    "       OR pre_merge_state_json LIKE '%' || ? || '%'\n"
    "    ORDER BY created_at DESC, rowid DESC LIMIT ?\n"
    ") ORDER BY created_at, rowid";
const std::string kSelectOperationEvents =
    "SELECT *, rowid FROM merge_event\n"
    "WHERE operation_id = ?\n"
    "ORDER BY created_at, rowid";

constexpr std::int64_t kHistoryEventWindow = 1000;

const store::ColumnSet kHistoryEventColumns{
    "id",      "surviving_person_id", "absorbed_person_id", "pre_merge_state_json",
    "because", "created_at",          "reversed_at",        "operation_id"};

RepositoryCore::HistoryEventRow decodeHistoryEvent(const store::Row& row) {
    const auto& c = row.positions(kHistoryEventColumns);
    return RepositoryCore::HistoryEventRow{
        .id = row.text(c[0]),
        .survivingPersonID = row.text(c[1]),
        .absorbedPersonID = row.optionalText(c[2]),
        .preMergeStateJSON = row.text(c[3]),
        .because = row.optionalText(c[4]),
        .createdAt = row.text(c[5]),
        .reversedAt = row.optionalText(c[6]),
        .operationID = row.optionalText(c[7]),
    };
}

std::vector<RepositoryCore::HistoryEventRow> historyEvents(store::Connection& db,
                                                           const std::string& sql,
                                                           const store::Params& params) {
    std::vector<RepositoryCore::HistoryEventRow> rows;
    db.query(sql, params, [&](const store::Row& row) {
        rows.emplace_back(DecodedInPlace{row, decodeHistoryEvent});
    });
    return rows;
}

}  // namespace

std::vector<IdentityHistoryEntry> RepositoryCore::identityHistory(const std::string& personID,
                                                                  store::Connection& db) {
    const auto candidates = historyEvents(db, kSelectHistoryCandidates,
                                          {personID, personID, personID, kHistoryEventWindow});

    // Whole operations, including their events outside the window.
    std::map<std::string, std::vector<HistoryEventRow>> operations;
    for (const auto& row : candidates) {
        if (row.operationID && !operations.contains(*row.operationID)) {
            operations.emplace(*row.operationID,
                               historyEvents(db, kSelectOperationEvents, {*row.operationID}));
        }
    }

    // The memo keeps what the snapshots shown lately record; outside a
    // transaction every snapshot is decoded.
    OperationMemo* memo = OperationMemo::of(db);
    MergePreState ownScratch;
    OperationMemo::SnapshotFacts ownFacts;
    const auto factsOf = [&](const HistoryEventRow& row) -> const OperationMemo::SnapshotFacts& {
        if (memo != nullptr) {
            return memo->snapshotFacts(row.id, row.preMergeStateJSON);
        }
        OperationMemo::takeFacts(row.preMergeStateJSON, ownScratch, ownFacts);
        return ownFacts;
    };

    std::set<std::string> seen;
    std::vector<IdentityHistoryEntry> entries;
    for (const auto& row : candidates) {
        const std::string& key = row.operationID ? *row.operationID : row.id;
        if (!seen.insert(key).second) {
            continue;
        }
        const auto entry = row.operationID ? historyEntry(operations.at(key), personID, factsOf, db)
                                           : historyEntry({row}, personID, factsOf, db);
        if (entry) {
            entries.push_back(*entry);
        }
    }
    return entries;
}

std::optional<IdentityHistoryEntry> RepositoryCore::historyEntry(
    const std::vector<HistoryEventRow>& rows, const std::string& personID,
    const std::function<const OperationMemo::SnapshotFacts&(const HistoryEventRow&)>& factsOf,
    store::Connection& db) {
    if (rows.empty()) {
        return std::nullopt;
    }

    // What the entry needs is taken from each snapshot's facts as soon as they
    // are given.
    std::vector<std::string> involved;
    bool concernsPerson = false;
    for (const auto& row : rows) {
        if (row.survivingPersonID == personID || row.absorbedPersonID == personID) {
            concernsPerson = true;
        }
        // An undecodable snapshot contributes nothing.
        const auto& facts = factsOf(row);
        if (!facts.decodable) {
            continue;
        }
        concernsPerson =
            concernsPerson || std::find(facts.priorPersons.begin(), facts.priorPersons.end(),
                                        personID) != facts.priorPersons.end();
        for (const auto& identity : facts.touchedIdentities) {
            if (std::find(involved.begin(), involved.end(), identity) == involved.end()) {
                involved.push_back(identity);
            }
        }
    }
    if (!concernsPerson) {
        return std::nullopt;
    }

    const auto has = [&](auto predicate) {
        return std::any_of(rows.begin(), rows.end(), predicate);
    };
    IdentityHistoryEntry::Kind kind = IdentityHistoryEntry::Kind::linked;
    if (has([](const HistoryEventRow& row) { return row.absorbedPersonID.has_value(); })) {
        kind = IdentityHistoryEntry::Kind::merged;
    } else if (has([](const HistoryEventRow& row) { return row.because == kSeparatedByUser; })) {
        kind = IdentityHistoryEntry::Kind::separated;
    }

    // Reversed only when every event is: then the latest reversal.
    std::optional<std::string> reversedAt;
    if (!has([](const HistoryEventRow& row) { return !row.reversedAt.has_value(); })) {
        for (const auto& row : rows) {
            if (!reversedAt || *row.reversedAt > *reversedAt) {
                reversedAt = row.reversedAt;
            }
        }
    }

    // Identities that no longer exist contribute no provider.
    std::set<std::string> providers;
    for (const auto& id : involved) {
        if (const auto& identity = sourceIdentityRow(id, db)) {
            providers.insert(identity->sourceType);
        }
    }

    std::vector<std::string> mergeEventIDs;
    mergeEventIDs.reserve(rows.size());
    for (const auto& row : rows) {
        mergeEventIDs.push_back(row.id);
    }

    const HistoryEventRow& first = rows.front();
    return IdentityHistoryEntry{
        .mergeEventID = first.id,
        .kind = kind,
        .occurredAt = first.createdAt,
        .reversedAt = std::move(reversedAt),
        .because = first.because,
        .survivingPersonID = first.survivingPersonID,
        .absorbedPersonID = first.absorbedPersonID,
        .involvedSourceIdentityIDs = std::move(involved),
        .providers = std::vector<std::string>(providers.begin(), providers.end()),
        .operationID = first.operationID,
        .mergeEventIDs = std::move(mergeEventIDs),
    };
}

}  // namespace orvik::identity::internal
