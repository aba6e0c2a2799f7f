// Row decoding and the read helpers shared by every core.
#include "identity/IdentityRepositoryInternal.h"

namespace orvik::identity::internal {

namespace {

// Statement texts are passed to SQLite exactly as written here; the statement
// cache is keyed by them.
const std::string kSelectSourceIdentity = "SELECT * FROM source_identity WHERE id = ?";
const std::string kSelectPerson = "SELECT * FROM person WHERE id = ?";
const std::string kSelectActiveMembershipOfIdentity =
    "SELECT * FROM identity_membership\n"
    "WHERE source_identity_id = ? AND ended_at IS NULL AND state IN ('high_conf','confirmed')";
const std::string kSelectActiveMembershipsOfPerson =
    "SELECT * FROM identity_membership\n"
    "WHERE canonical_person_id = ? AND ended_at IS NULL AND state IN ('high_conf','confirmed')";
const std::string kSelectMergeEvent = "SELECT * FROM merge_event WHERE id = ?";
const std::string kSelectLatestUndoableMergeEvent =
    "SELECT * FROM merge_event\n"
    "WHERE reversed_at IS NULL AND (surviving_person_id = ? OR absorbed_person_id = ?)\n"
    "ORDER BY created_at DESC, rowid DESC LIMIT 1";
const std::string kSelectClaimIDs = "SELECT id FROM claim WHERE person_id = ? ORDER BY id";
const std::string kHasOwnerAliasExclusion =
    "SELECT EXISTS(SELECT 1 FROM exclusion_rule WHERE id = ? AND scope = 'person' AND "
    "target_id = ?)";
const std::string kSelectOwnerAliasHandle =
    "SELECT si.handle_normalized FROM source_identity si\n"
    "JOIN identity_membership im ON im.source_identity_id = si.id AND im.state IN "
    "('high_conf', 'confirmed')\n"
    "JOIN owner_alias oa ON oa.source_type = si.source_type AND oa.handle_normalized = "
    "si.handle_normalized\n"
    "WHERE im.canonical_person_id = ?\n"
    "ORDER BY im.ended_at DESC, si.id LIMIT 1";
const std::string kIsConnectedAccount =
    "SELECT EXISTS(SELECT 1 FROM source_account WHERE source_type = ? AND handle = ?)";
const std::string kIsOwnerPersonMember =
    "SELECT EXISTS(\n"
    "  SELECT 1 FROM source_identity si\n"
    "  JOIN identity_membership im ON im.source_identity_id = si.id\n"
    "  WHERE si.source_type = ? AND si.handle_normalized = ?\n"
    "    AND im.canonical_person_id = ? AND im.ended_at IS NULL\n"
    "    AND im.state IN ('high_conf', 'confirmed')\n"
    ")";
const std::string kInsertStubPerson =
    "INSERT INTO person (id, display_name, tier, compiled_state_json, created_from, "
    "merged_into_person_id, created_at)\n"
    "VALUES (?, NULL, 'stub', NULL, 'identity_correction', NULL, ?)";

template <typename T>
T parsedOrCorrupt(std::optional<T> value) {
    if (!value) {
        throw IdentityStoreError(IdentityStoreError::Case::corruptRestoreMap);
    }
    return *value;
}

// The first row of the statement decoded into slot, or slot emptied when there
// is none. The row callbacks capture one reference, which std::function keeps
// without allocating.
template <typename T, typename DecodeInto>
void firstRowInto(store::Connection& db, const std::string& sql, const store::Params& params,
                  std::optional<T>& slot, DecodeInto decodeInto) {
    struct {
        std::optional<T>& slot;
        DecodeInto decodeInto;
        bool found = false;
    } read{slot, decodeInto};
    db.queryWhile(sql, params, [&read](const store::Row& row) {
        if (!read.slot) {
            read.slot.emplace();
        }
        read.decodeInto(row, *read.slot);
        read.found = true;
        return false;
    });
    if (!read.found) {
        slot.reset();
    }
}

// The rows of the statement decoded into rows, reusing the records it holds.
template <typename T, typename DecodeInto>
void allRowsInto(store::Connection& db, const std::string& sql, const store::Params& params,
                 std::vector<T>& rows, DecodeInto decodeInto) {
    struct {
        std::vector<T>& rows;
        DecodeInto decodeInto;
        std::size_t count = 0;
    } read{rows, decodeInto};
    db.query(sql, params, [&read](const store::Row& row) {
        if (read.count == read.rows.size()) {
            read.rows.emplace_back();
        }
        read.decodeInto(row, read.rows[read.count++]);
    });
    rows.resize(read.count);
}

template <typename T, typename Decode>
std::optional<T> firstRow(store::Connection& db, const std::string& sql,
                          const store::Params& params, Decode decode) {
    std::optional<T> result;
    db.query(sql, params, [&](const store::Row& row) {
        if (!result) {
            result = decode(row);
        }
    });
    return result;
}

}  // namespace

namespace {

// Decoders read by position: each record's columns are looked up by name once
// per prepared statement.
const store::ColumnSet kSourceIdentityColumns{"id",           "source_type",   "handle_normalized",
                                              "display_name", "first_seen_at", "last_seen_at",
                                              "created_at"};
const store::ColumnSet kPersonColumns{"id",           "display_name",          "tier",
                                      "created_from", "merged_into_person_id", "created_at"};
const store::ColumnSet kMembershipColumns{
    "state",   "decided_by", "id",       "source_identity_id", "canonical_person_id",
    "because", "decided_at", "ended_at", "created_at"};
const store::ColumnSet kMergeEventColumns{
    "decided_by", "id",         "surviving_person_id", "absorbed_person_id", "pre_merge_state_json",
    "because",    "created_at", "reversed_at",         "operation_id"};
// The absorption walk needs only where each person went.
const store::ColumnSet kMergedIntoColumn{"merged_into_person_id"};
const store::ColumnSet kConstraintColumns{"id",   "a_type",     "a_id",       "b_type",    "b_id",
                                          "kind", "decided_by", "created_at", "revoked_at"};

// The memo's decoders: each overwrites every field of the record it is given,
// which may hold a row read before, so that its strings keep their storage. The
// decoders below build new records instead, which costs less than overwriting
// an empty one.
void decodeSourceIdentityInto(const store::Row& row, SourceIdentityRow& to) {
    const auto& c = row.positions(kSourceIdentityColumns);
    row.textInto(c[0], to.id);
    row.textInto(c[1], to.sourceType);
    row.textInto(c[2], to.handleNormalized);
    row.optionalTextInto(c[3], to.displayName);
    row.textInto(c[4], to.firstSeenAt);
    row.textInto(c[5], to.lastSeenAt);
    row.textInto(c[6], to.createdAt);
}

void decodePersonInto(const store::Row& row, PersonRow& to) {
    const auto& c = row.positions(kPersonColumns);
    row.textInto(c[0], to.id);
    row.optionalTextInto(c[1], to.displayName);
    row.textInto(c[2], to.tier);
    row.optionalTextInto(c[3], to.createdFrom);
    row.optionalTextInto(c[4], to.mergedIntoPersonID);
    row.textInto(c[5], to.createdAt);
}

void decodeMembershipInto(const store::Row& row, IdentityMembershipRow& to) {
    const auto& c = row.positions(kMembershipColumns);
    // The enumerations are parsed first, so that a corrupt row fails before
    // anything else is read.
    const auto state = parsedOrCorrupt(parseMembershipState(row.view(c[0])));
    const auto decidedBy = parsedOrCorrupt(parseDecidedBy(row.view(c[1])));
    row.textInto(c[2], to.id);
    row.textInto(c[3], to.sourceIdentityID);
    row.textInto(c[4], to.canonicalPersonID);
    to.state = state;
    row.optionalTextInto(c[5], to.because);
    to.decidedBy = decidedBy;
    row.textInto(c[6], to.decidedAt);
    row.optionalTextInto(c[7], to.endedAt);
    row.textInto(c[8], to.createdAt);
}

void decodeMergeEventInto(const store::Row& row, MergeEventRow& to) {
    const auto& c = row.positions(kMergeEventColumns);
    const auto decidedBy = parsedOrCorrupt(parseDecidedBy(row.view(c[0])));
    row.textInto(c[1], to.id);
    row.textInto(c[2], to.survivingPersonID);
    row.optionalTextInto(c[3], to.absorbedPersonID);
    row.textInto(c[4], to.preMergeStateJSON);
    row.optionalTextInto(c[5], to.because);
    to.decidedBy = decidedBy;
    row.textInto(c[6], to.createdAt);
    row.optionalTextInto(c[7], to.reversedAt);
    row.optionalTextInto(c[8], to.operationID);
}

}  // namespace

SourceIdentityRow decodeSourceIdentity(const store::Row& row) {
    const auto& c = row.positions(kSourceIdentityColumns);
    return SourceIdentityRow{
        .id = row.text(c[0]),
        .sourceType = row.text(c[1]),
        .handleNormalized = row.text(c[2]),
        .displayName = row.optionalText(c[3]),
        .firstSeenAt = row.text(c[4]),
        .lastSeenAt = row.text(c[5]),
        .createdAt = row.text(c[6]),
    };
}

PersonRow decodePerson(const store::Row& row) {
    const auto& c = row.positions(kPersonColumns);
    return PersonRow{
        .id = row.text(c[0]),
        .displayName = row.optionalText(c[1]),
        .tier = row.text(c[2]),
        .createdFrom = row.optionalText(c[3]),
        .mergedIntoPersonID = row.optionalText(c[4]),
        .createdAt = row.text(c[5]),
    };
}

IdentityMembershipRow decodeMembership(const store::Row& row) {
    const auto& c = row.positions(kMembershipColumns);
    // The enumerations are parsed first, so that a corrupt row fails before
    // anything else is read.
    const auto state = parsedOrCorrupt(parseMembershipState(row.text(c[0])));
    const auto decidedBy = parsedOrCorrupt(parseDecidedBy(row.text(c[1])));
    return IdentityMembershipRow{
        .id = row.text(c[2]),
        .sourceIdentityID = row.text(c[3]),
        .canonicalPersonID = row.text(c[4]),
        .state = state,
        .because = row.optionalText(c[5]),
        .decidedBy = decidedBy,
        .decidedAt = row.text(c[6]),
        .endedAt = row.optionalText(c[7]),
        .createdAt = row.text(c[8]),
    };
}

MergeEventRow decodeMergeEvent(const store::Row& row) {
    const auto& c = row.positions(kMergeEventColumns);
    const auto decidedBy = parsedOrCorrupt(parseDecidedBy(row.text(c[0])));
    return MergeEventRow{
        .id = row.text(c[1]),
        .survivingPersonID = row.text(c[2]),
        .absorbedPersonID = row.optionalText(c[3]),
        .preMergeStateJSON = row.text(c[4]),
        .because = row.optionalText(c[5]),
        .decidedBy = decidedBy,
        .createdAt = row.text(c[6]),
        .reversedAt = row.optionalText(c[7]),
        .operationID = row.optionalText(c[8]),
    };
}

IdentityConstraintRow decodeConstraint(const store::Row& row) {
    const auto& c = row.positions(kConstraintColumns);
    return IdentityConstraintRow{
        .id = row.text(c[0]),
        .aType = parsedOrCorrupt(parseConstraintSubjectType(row.text(c[1]))),
        .aID = row.text(c[2]),
        .bType = parsedOrCorrupt(parseConstraintSubjectType(row.text(c[3]))),
        .bID = row.text(c[4]),
        .kind = parsedOrCorrupt(parseConstraintKind(row.text(c[5]))),
        .decidedBy = parsedOrCorrupt(parseDecidedBy(row.text(c[6]))),
        .createdAt = row.text(c[7]),
        .revokedAt = row.optionalText(c[8]),
    };
}

RepositoryCore::RepositoryCore(host::HostServices services) : services_(std::move(services)) {}

std::optional<SourceIdentityRow> RepositoryCore::readSourceIdentity(const std::string& id,
                                                                    store::Connection& db) {
    return firstRow<SourceIdentityRow>(db, kSelectSourceIdentity, {id}, decodeSourceIdentity);
}

std::optional<PersonRow> RepositoryCore::readPerson(const std::string& id, store::Connection& db) {
    return firstRow<PersonRow>(db, kSelectPerson, {id}, decodePerson);
}

std::optional<IdentityMembershipRow> RepositoryCore::readActiveMembership(
    const std::string& sourceIdentityID, store::Connection& db) {
    return firstRow<IdentityMembershipRow>(db, kSelectActiveMembershipOfIdentity,
                                           {sourceIdentityID}, decodeMembership);
}

std::vector<IdentityMembershipRow> RepositoryCore::readActiveMemberships(
    const std::string& personID, store::Connection& db) {
    std::vector<IdentityMembershipRow> rows;
    db.query(kSelectActiveMembershipsOfPerson, {personID}, [&](const store::Row& row) {
        rows.emplace_back(DecodedInPlace{row, decodeMembership});
    });
    return rows;
}

std::optional<MergeEventRow> RepositoryCore::readMergeEvent(const std::string& id,
                                                            store::Connection& db) {
    return firstRow<MergeEventRow>(db, kSelectMergeEvent, {id}, decodeMergeEvent);
}

// The memoised reads decode into records the memo kept from earlier
// transactions, so that a row read again and again allocates nothing.
const std::optional<SourceIdentityRow>& RepositoryCore::sourceIdentityRow(const std::string& id,
                                                                          store::Connection& db) {
    return memoisedReadInto(db, &OperationMemo::sourceIdentities, id, [&](auto& slot) {
        firstRowInto(db, kSelectSourceIdentity, {id}, slot, decodeSourceIdentityInto);
    });
}

const std::optional<PersonRow>& RepositoryCore::personRow(const std::string& id,
                                                          store::Connection& db) {
    return memoisedReadInto(db, &OperationMemo::persons, id, [&](auto& slot) {
        firstRowInto(db, kSelectPerson, {id}, slot, decodePersonInto);
    });
}

const std::optional<IdentityMembershipRow>& RepositoryCore::activeMembershipRow(
    const std::string& sourceIdentityID, store::Connection& db) {
    return memoisedReadInto(db, &OperationMemo::activeMembershipOfIdentity, sourceIdentityID,
                            [&](auto& slot) {
                                firstRowInto(db, kSelectActiveMembershipOfIdentity,
                                             {sourceIdentityID}, slot, decodeMembershipInto);
                            });
}

const std::vector<IdentityMembershipRow>& RepositoryCore::activeMembershipRows(
    const std::string& personID, store::Connection& db) {
    return memoisedReadInto(db, &OperationMemo::activeMembershipsOfPerson, personID,
                            [&](auto& rows) {
                                allRowsInto(db, kSelectActiveMembershipsOfPerson, {personID}, rows,
                                            decodeMembershipInto);
                            });
}

const std::optional<MergeEventRow>& RepositoryCore::mergeEventRow(const std::string& id,
                                                                  store::Connection& db) {
    return memoisedReadInto(db, &OperationMemo::mergeEvents, id, [&](auto& slot) {
        firstRowInto(db, kSelectMergeEvent, {id}, slot, decodeMergeEventInto);
    });
}

std::shared_ptr<const MergePreState> RepositoryCore::decodedSnapshot(const MergeEventRow& event,
                                                                     store::Connection& db) {
    OperationMemo* memo = OperationMemo::of(db);
    if (memo == nullptr) {
        auto decoded = decodeMergePreState(event.preMergeStateJSON);
        return decoded ? std::make_shared<const MergePreState>(std::move(*decoded)) : nullptr;
    }
    return memo->snapshotOf(event.id, event.preMergeStateJSON);
}

std::optional<MergeEventRow> RepositoryCore::latestUndoableMergeEventRow(
    const std::string& personID, store::Connection& db) {
    return firstRow<MergeEventRow>(db, kSelectLatestUndoableMergeEvent, {personID, personID},
                                   decodeMergeEvent);
}

std::optional<ResolvedPerson> RepositoryCore::resolveCanonicalPerson(
    const std::string& sourceIdentityID, store::Connection& db) {
    // Asked on its own, once per transaction: the rows are read where SQLite
    // keeps them and only what the answer holds is copied, without the memo.
    std::optional<ResolvedPerson> resolved;
    std::string current;
    db.queryWhile(kSelectActiveMembershipOfIdentity, {sourceIdentityID},
                  [&](const store::Row& row) {
                      const auto& c = row.positions(kMembershipColumns);
                      const auto state = parsedOrCorrupt(parseMembershipState(row.view(c[0])));
                      const auto decidedBy = parsedOrCorrupt(parseDecidedBy(row.view(c[1])));
                      current = row.text(c[4]);
                      resolved = ResolvedPerson{.personID = {},
                                                .displayName = std::nullopt,
                                                .membershipState = state,
                                                .decidedBy = decidedBy,
                                                .because = row.optionalText(c[5])};
                      return false;
                  });
    if (!resolved) {
        return std::nullopt;
    }
    // The same walk as absorptionChainHead: at most 20 hops, and the person the
    // last hop lands on is the head whatever it was merged into.
    std::string next;
    for (int hop = 0;; ++hop) {
        bool exists = false;
        bool absorbed = false;
        db.queryWhile(kSelectPerson, {current}, [&](const store::Row& row) {
            const auto& c = row.positions(kPersonColumns);
            exists = true;
            if (hop < kAbsorptionChainHops && !row.isNull(c[4])) {
                absorbed = true;
                next = row.text(c[4]);
            } else {
                resolved->displayName = row.optionalText(c[1]);
            }
            return false;
        });
        if (!exists) {
            return std::nullopt;
        }
        if (!absorbed) {
            resolved->personID = std::move(current);
            return resolved;
        }
        current.swap(next);
    }
}

const std::string& RepositoryCore::ownerPersonID(store::Connection& db) {
    return memoisedRead(db, &OperationMemo::ownerPerson, 0,
                        [&] { return services_.ownerEgo->personID(db); });
}

bool RepositoryCore::isOwnerIdentity(const std::string& sourceType,
                                     const std::string& handleNormalized, store::Connection& db) {
    const std::pair<std::string_view, std::string_view> key(sourceType, handleNormalized);
    return memoisedRead(db, &OperationMemo::ownerIdentities, key, [&] {
        if (services_.ownerAliases->isAlias(db, sourceType, handleNormalized)) {
            return true;
        }
        if (db.scalarFlag(kIsConnectedAccount, {sourceType, handleNormalized})) {
            return true;
        }
        return db.scalarFlag(kIsOwnerPersonMember,
                             {sourceType, handleNormalized, ownerPersonID(db)});
    });
}

bool RepositoryCore::personContainsOwnerIdentity(const std::string& personID,
                                                 store::Connection& db) {
    return memoisedRead(db, &OperationMemo::ownerPersons, personID, [&] {
        if (personID == ownerPersonID(db)) {
            return true;
        }
        for (const auto& membership : activeMembershipRows(personID, db)) {
            const auto& identity = sourceIdentityRow(membership.sourceIdentityID, db);
            if (identity && isOwnerIdentity(identity->sourceType, identity->handleNormalized, db)) {
                return true;
            }
        }
        return false;
    });
}

bool RepositoryCore::hasOwnerAliasExclusion(const std::string& personID, store::Connection& db) {
    return db.scalarFlag(kHasOwnerAliasExclusion,
                         {host::stableID("owner-alias-exclusion", personID), personID});
}

std::optional<std::string> RepositoryCore::ownerAliasHandle(const std::string& personID,
                                                            store::Connection& db) {
    return firstRow<std::string>(db, kSelectOwnerAliasHandle, {personID},
                                 [](const store::Row& row) { return row.text(0); });
}

void OperationMemo::clear() noexcept {
    // The arena's tables let go of its memory before the arena starts over (a
    // cleared table would keep its buckets there).
    TextMap<Head>(&arena_).swap(heads);
    personPairEnds.reset();
    personPairRows.reset();
    personPairsByHeadOfA.reset();
    persons.clear();
    sourceIdentities.clear();
    activeMembershipOfIdentity.clear();
    activeMembershipsOfPerson.clear();
    mergeEvents.clear();
    ownerPerson.clear();
    // A batch that decoded many keeps only those used last for the connection's life.
    if (snapshots_.size() > kKeptSnapshots) {
        std::partial_sort(
            snapshots_.begin(), snapshots_.begin() + kKeptSnapshots, snapshots_.end(),
            [](const KnownSnapshot& a, const KnownSnapshot& b) { return a.lastUse > b.lastUse; });
        snapshots_.erase(snapshots_.begin() + kKeptSnapshots, snapshots_.end());
    }
    usesBeforeTransaction_ = snapshotUses_;
    ownerIdentities.clear();
    ownerPersons.clear();
    arena_.release();
}

OperationMemo::KnownSnapshot& OperationMemo::snapshotSlot(const std::string& eventID) {
    ++snapshotUses_;
    KnownSnapshot* slot = nullptr;
    for (auto& entry : snapshots_) {
        if (entry.eventID == eventID) {
            slot = &entry;
            break;
        }
        if (entry.lastUse <= usesBeforeTransaction_ &&
            (slot == nullptr || entry.lastUse < slot->lastUse)) {
            slot = &entry;
        }
    }
    if (slot == nullptr) {
        slot = &snapshots_.emplace_back();
    }
    slot->lastUse = snapshotUses_;
    return *slot;
}

std::shared_ptr<MergePreState> OperationMemo::refillable(KnownSnapshot& entry) {
    // The entry holds no record while it is refilled: should anything throw
    // on the way, it matches no text.
    auto record = std::move(entry.snapshot);
    if (record.use_count() != 1) {
        record = std::make_shared<MergePreState>();
    }
    return record;
}

std::shared_ptr<const MergePreState> OperationMemo::snapshotOf(const std::string& eventID,
                                                               const std::string& text) {
    auto& entry = snapshotSlot(eventID);
    if (entry.snapshot != nullptr && entry.eventID == eventID && entry.text == text) {
        return entry.decodable ? entry.snapshot : nullptr;
    }
    auto record = refillable(entry);
    entry.eventID = eventID;
    entry.text = text;
    entry.decodable = decodeMergePreStateInto(text, *record);
    entry.snapshot = std::move(record);
    return entry.decodable ? entry.snapshot : nullptr;
}

void OperationMemo::snapshotWritten(const std::string& eventID, std::string text,
                                    MergePreState snapshot) noexcept {
    try {
        auto& entry = snapshotSlot(eventID);
        auto record = refillable(entry);
        entry.eventID = eventID;
        entry.text = std::move(text);
        *record = std::move(snapshot);
        entry.decodable = true;
        entry.snapshot = std::move(record);
    } catch (...) {
        // Out of memory: the snapshot is decoded when it is asked for.
    }
}

namespace {

// The texts of a list written over the strings to already holds.
template <typename Range, typename Project>
void assignTexts(std::vector<std::string>& to, const Range& from, Project project) {
    std::size_t count = 0;
    for (const auto& element : from) {
        if (count == to.size()) {
            to.emplace_back(project(element));
        } else {
            to[count].assign(project(element));
        }
        ++count;
    }
    to.resize(count);
}

}  // namespace

void OperationMemo::takeFacts(std::string_view text, MergePreState& scratch, SnapshotFacts& facts) {
    facts.decodable = decodeMergePreStateInto(text, scratch);
    if (!facts.decodable) {
        facts.priorPersons.clear();
        facts.touchedIdentities.clear();
        return;
    }
    assignTexts(facts.priorPersons, scratch.priorActiveMemberships,
                [](const MergePreState::PriorMembership& m) -> const std::string& {
                    return m.canonicalPersonID;
                });
    assignTexts(facts.touchedIdentities, scratch.membershipPostImages,
                [](const MergePreState::MembershipRowImage& image) -> const std::string& {
                    return image.sourceIdentityID;
                });
}

const OperationMemo::SnapshotFacts& OperationMemo::snapshotFacts(const std::string& eventID,
                                                                 const std::string& text) {
    if (text.size() > kLargestKeptFactsText) {
        takeFacts(text, decodeScratch_, uncachedFacts_);
        return uncachedFacts_;
    }
    auto it = facts_.find(eventID);
    if (it != facts_.end() && it->second.valid && it->second.text == text) {
        it->second.lastUse = ++factUses_;
        return it->second.facts;
    }
    if (it == facts_.end()) {
        if (facts_.size() < kKeptFacts) {
            it = facts_.try_emplace(eventID).first;
        } else {
            // The entry used longest ago takes the event, with its storage.
            auto node = facts_.extract(std::min_element(
                facts_.begin(), facts_.end(),
                [](const auto& a, const auto& b) { return a.second.lastUse < b.second.lastUse; }));
            node.key() = eventID;
            it = facts_.insert(std::move(node)).position;
        }
    }
    KnownFacts& entry = it->second;
    entry.valid = false;
    entry.lastUse = ++factUses_;
    takeFacts(text, decodeScratch_, entry.facts);
    entry.text.assign(text);
    entry.valid = true;
    return entry.facts;
}

OperationMemo* OperationMemo::of(store::Connection& db) {
    // Outside a transaction every statement sees the latest commit of any process:
    // nothing may be remembered.
    if (db.autocommit()) {
        return nullptr;
    }
    auto& memo = db.transactionMemo<OperationMemo>();
    if (const auto rows = db.rowChanges(); rows == memo.rowsSeen_) {
        return &memo;
    } else {
        memo.rowsSeen_ = rows;
    }
    if (const auto changes = db.tableChanges("person"); changes != memo.personChanges_) {
        memo.personChanges_ = changes;
        memo.heads.clear();
        memo.personPairsByHeadOfA.reset();
    }
    if (const auto changes = db.tableChanges("identity_constraint");
        changes != memo.constraintChanges_) {
        memo.constraintChanges_ = changes;
        memo.personPairEnds.reset();
        memo.personPairRows.reset();
        memo.personPairsByHeadOfA.reset();
    }
    return &memo;
}

void OperationMemo::unrelatedWrite(store::Connection& db, std::string_view table) {
    std::uint64_t* seen = table == "person"                ? &personChanges_
                          : table == "identity_constraint" ? &constraintChanges_
                                                           : nullptr;
    if (seen != nullptr && db.tableChanges(table) == *seen + 1) {
        ++*seen;
    }
}

void OperationMemo::personAbsorbed(store::Connection& db, const std::string& survivor,
                                   const std::string& absorbed) {
    if (db.tableChanges("person") != personChanges_ + 1 ||
        db.tableChanges("identity_constraint") != constraintChanges_) {
        return;  // of() forgets on the next use.
    }
    // Only a head known to the memo can be carried over: had the absorbed person
    // been absorbed already, walks that went through it would change too.
    if (const auto it = heads.find(absorbed);
        it == heads.end() || std::string_view(it->second.id) != absorbed || it->second.hops != 0) {
        return;
    }
    ++personChanges_;
    const auto it = heads.find(survivor);
    const bool survivorIsHead =
        it != heads.end() && std::string_view(it->second.id) == survivor && it->second.hops == 0;
    // A walk that ended at the absorbed person by itself now takes one more hop,
    // to the survivor, where it ends (or is cut off, on the last hop allowed). A
    // walk cut off at the absorbed person is unchanged.
    for (auto entry = heads.begin(); entry != heads.end();) {
        Head& head = entry->second;
        if (std::string_view(head.id) != absorbed || head.cut) {
            ++entry;
        } else if (!survivorIsHead) {
            entry = heads.erase(entry);
        } else {
            head.id = survivor;
            head.cut = ++head.hops == kAbsorptionChainHops;
            ++entry;
        }
    }
    // The index moves the constraints filed under the absorbed person to the
    // survivor; rebuilt from the ends, as every a end's head is known.
    if (personPairsByHeadOfA) {
        personPairsByHeadOfA.reset();
        if (personPairEnds) {
            PersonPairIndex index(&arena_);
            for (const auto& [a, b] : *personPairEnds) {
                const auto x = heads.find(a);
                if (x == heads.end()) {
                    return;
                }
                index[x->second.id].emplace_back(b);
            }
            personPairsByHeadOfA = std::move(index);
        }
    }
}

std::string RepositoryCore::absorptionChainHead(const std::string& personID,
                                                store::Connection& db) {
    return walkAbsorptionChain(personID, db, true);
}

std::string RepositoryCore::scannedAbsorptionChainHead(std::string_view personID,
                                                       store::Connection& db) {
    return walkAbsorptionChain(personID, db, false);
}

std::string RepositoryCore::walkAbsorptionChain(std::string_view personID, store::Connection& db,
                                                bool keepRows) {
    OperationMemo* memo = OperationMemo::of(db);
    if (memo != nullptr) {
        if (const auto it = memo->heads.find(personID); it != memo->heads.end()) {
            return std::string(it->second.id);
        }
    }
    std::vector<std::string> walked;
    std::string current(personID);
    int hopsLeft = kAbsorptionChainHops;
    while (true) {
        bool exists = false;
        std::optional<std::string> mergedInto;
        if (memo != nullptr && keepRows) {
            // Within a transaction the whole row is kept (personRow memoises it):
            // the operation may ask for a person it walked through.
            const auto& row = personRow(current, db);
            exists = row.has_value();
            mergedInto = exists ? row->mergedIntoPersonID : std::nullopt;
        } else if (const std::optional<PersonRow>* known =
                       memo != nullptr ? memo->persons.find(db, current) : nullptr) {
            exists = known->has_value();
            mergedInto = exists ? (*known)->mergedIntoPersonID : std::nullopt;
        } else {
            db.queryWhile(kSelectPerson, {current}, [&](const store::Row& row) {
                exists = true;
                mergedInto = row.optionalText(row.positions(kMergedIntoColumn)[0]);
                return false;
            });
        }
        if (!exists || !mergedInto) {
            // The walk ended by itself: every person on it has this head (each is
            // fewer hops from it than the start).
            if (memo != nullptr) {
                const int hops = static_cast<int>(walked.size());
                for (int i = 0; i < hops; ++i) {
                    memo->heads.emplace(
                        memo->text(walked[i]),
                        OperationMemo::Head{.id = memo->text(current), .hops = hops - i});
                }
                memo->heads.emplace(memo->text(current),
                                    OperationMemo::Head{.id = memo->text(current)});
            }
            return current;
        }
        walked.push_back(std::move(current));
        current = std::move(*mergedInto);
        if (--hopsLeft == 0) {
            // Cut off at the hop limit: only the start's answer is known, and the
            // row reached was not read.
            if (memo != nullptr) {
                memo->heads.emplace(
                    memo->text(personID),
                    OperationMemo::Head{
                        .id = memo->text(current), .hops = kAbsorptionChainHops, .cut = true});
            }
            return current;
        }
    }
}

std::vector<std::string> RepositoryCore::claimIDs(const std::string& personID,
                                                  store::Connection& db) {
    std::vector<std::string> ids;
    db.query(kSelectClaimIDs, {personID},
             [&](const store::Row& row) { ids.push_back(row.text(0)); });
    return ids;
}

std::string RepositoryCore::createPersonRow(store::Connection& db) {
    std::string id = newIdentifier();
    OperationMemo* memo = OperationMemo::of(db);
    db.run(kInsertStubPerson, {id, currentTimestamp()});
    // A person under a fresh identifier is no one's head yet.
    if (memo != nullptr) {
        memo->unrelatedWrite(db, "person");
    }
    return id;
}

}  // namespace orvik::identity::internal
