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

SourceIdentityRow decodeSourceIdentity(const store::Row& row) {
    return SourceIdentityRow{
        .id = row.text("id"),
        .sourceType = row.text("source_type"),
        .handleNormalized = row.text("handle_normalized"),
        .displayName = row.optionalText("display_name"),
        .firstSeenAt = row.text("first_seen_at"),
        .lastSeenAt = row.text("last_seen_at"),
        .createdAt = row.text("created_at"),
    };
}

PersonRow decodePerson(const store::Row& row) {
    return PersonRow{
        .id = row.text("id"),
        .displayName = row.optionalText("display_name"),
        .tier = row.text("tier"),
        .createdFrom = row.optionalText("created_from"),
        .mergedIntoPersonID = row.optionalText("merged_into_person_id"),
        .createdAt = row.text("created_at"),
    };
}

IdentityMembershipRow decodeMembership(const store::Row& row) {
    // The enumerations are parsed first, so that a corrupt row fails before
    // anything else is read.
    const auto state = parsedOrCorrupt(parseMembershipState(row.text("state")));
    const auto decidedBy = parsedOrCorrupt(parseDecidedBy(row.text("decided_by")));
    return IdentityMembershipRow{
        .id = row.text("id"),
        .sourceIdentityID = row.text("source_identity_id"),
        .canonicalPersonID = row.text("canonical_person_id"),
        .state = state,
        .because = row.optionalText("because"),
        .decidedBy = decidedBy,
        .decidedAt = row.text("decided_at"),
        .endedAt = row.optionalText("ended_at"),
        .createdAt = row.text("created_at"),
    };
}

MergeEventRow decodeMergeEvent(const store::Row& row) {
    const auto decidedBy = parsedOrCorrupt(parseDecidedBy(row.text("decided_by")));
    return MergeEventRow{
        .id = row.text("id"),
        .survivingPersonID = row.text("surviving_person_id"),
        .absorbedPersonID = row.optionalText("absorbed_person_id"),
        .preMergeStateJSON = row.text("pre_merge_state_json"),
        .because = row.optionalText("because"),
        .decidedBy = decidedBy,
        .createdAt = row.text("created_at"),
        .reversedAt = row.optionalText("reversed_at"),
        .operationID = row.optionalText("operation_id"),
    };
}

IdentityConstraintRow decodeConstraint(const store::Row& row) {
    return IdentityConstraintRow{
        .id = row.text("id"),
        .aType = parsedOrCorrupt(parseConstraintSubjectType(row.text("a_type"))),
        .aID = row.text("a_id"),
        .bType = parsedOrCorrupt(parseConstraintSubjectType(row.text("b_type"))),
        .bID = row.text("b_id"),
        .kind = parsedOrCorrupt(parseConstraintKind(row.text("kind"))),
        .decidedBy = parsedOrCorrupt(parseDecidedBy(row.text("decided_by"))),
        .createdAt = row.text("created_at"),
        .revokedAt = row.optionalText("revoked_at"),
    };
}

RepositoryCore::RepositoryCore(host::HostServices services) : services_(std::move(services)) {}

std::optional<SourceIdentityRow> RepositoryCore::sourceIdentityRow(const std::string& id,
                                                                   store::Connection& db) {
    return firstRow<SourceIdentityRow>(db, kSelectSourceIdentity, {id}, decodeSourceIdentity);
}

std::optional<PersonRow> RepositoryCore::personRow(const std::string& id, store::Connection& db) {
    return firstRow<PersonRow>(db, kSelectPerson, {id}, decodePerson);
}

std::optional<IdentityMembershipRow> RepositoryCore::activeMembershipRow(
    const std::string& sourceIdentityID, store::Connection& db) {
    return firstRow<IdentityMembershipRow>(db, kSelectActiveMembershipOfIdentity,
                                           {sourceIdentityID}, decodeMembership);
}

std::vector<IdentityMembershipRow> RepositoryCore::activeMembershipRows(const std::string& personID,
                                                                        store::Connection& db) {
    std::vector<IdentityMembershipRow> rows;
    db.query(kSelectActiveMembershipsOfPerson, {personID},
             [&](const store::Row& row) { rows.push_back(decodeMembership(row)); });
    return rows;
}

std::optional<MergeEventRow> RepositoryCore::mergeEventRow(const std::string& id,
                                                           store::Connection& db) {
    return firstRow<MergeEventRow>(db, kSelectMergeEvent, {id}, decodeMergeEvent);
}

std::optional<MergeEventRow> RepositoryCore::latestUndoableMergeEventRow(
    const std::string& personID, store::Connection& db) {
    return firstRow<MergeEventRow>(db, kSelectLatestUndoableMergeEvent, {personID, personID},
                                   decodeMergeEvent);
}

std::optional<ResolvedPerson> RepositoryCore::resolveCanonicalPerson(
    const std::string& sourceIdentityID, store::Connection& db) {
    const auto membership = activeMembershipRow(sourceIdentityID, db);
    if (!membership) {
        return std::nullopt;
    }
    const std::string head = absorptionChainHead(membership->canonicalPersonID, db);
    const auto person = personRow(head, db);
    if (!person) {
        return std::nullopt;
    }
    return ResolvedPerson{
        .personID = head,
        .displayName = person->displayName,
        .membershipState = membership->state,
        .decidedBy = membership->decidedBy,
        .because = membership->because,
    };
}

bool RepositoryCore::isOwnerIdentity(const std::string& sourceType,
                                     const std::string& handleNormalized, store::Connection& db) {
    if (services_.ownerAliases->isAlias(db, sourceType, handleNormalized)) {
        return true;
    }
    if (db.scalarFlag(kIsConnectedAccount, {sourceType, handleNormalized})) {
        return true;
    }
    return db.scalarFlag(kIsOwnerPersonMember,
                         {sourceType, handleNormalized, services_.ownerEgo->personID(db)});
}

bool RepositoryCore::personContainsOwnerIdentity(const std::string& personID,
                                                 store::Connection& db) {
    if (personID == services_.ownerEgo->personID(db)) {
        return true;
    }
    for (const auto& membership : activeMembershipRows(personID, db)) {
        const auto identity = sourceIdentityRow(membership.sourceIdentityID, db);
        if (identity && isOwnerIdentity(identity->sourceType, identity->handleNormalized, db)) {
            return true;
        }
    }
    return false;
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

std::string RepositoryCore::absorptionChainHead(const std::string& personID,
                                                store::Connection& db) {
    std::string current = personID;
    int hopsLeft = kAbsorptionChainHops;
    while (true) {
        const auto person = personRow(current, db);
        if (!person || !person->mergedIntoPersonID) {
            return current;
        }
        current = *person->mergedIntoPersonID;
        if (--hopsLeft == 0) {
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
    db.run(kInsertStubPerson, {id, currentTimestamp()});
    return id;
}

}  // namespace orvik::identity::internal
