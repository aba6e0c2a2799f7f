// Separating one source identity from its person: the identity moves to a new
// stub person through an ordinary link, is marked different from every identity
// that stays behind, and the link event is rewritten as a separation so that
// undo revokes those constraints again.
#include "identity/IdentityRepositoryInternal.h"

namespace orvik::identity::internal {

namespace {

// Statement texts are passed to SQLite exactly as written here; the statement
// cache is keyed by them.
const std::string kCountActiveMembers =
    "SELECT count(*) FROM identity_membership\n"
    "WHERE canonical_person_id = ? AND ended_at IS NULL AND state IN ('high_conf','confirmed')";
const std::string kRemainingMembers =
    "SELECT source_identity_id FROM identity_membership\n"
    "WHERE canonical_person_id = ? AND ended_at IS NULL\n"
    "  AND state IN ('high_conf','confirmed') AND source_identity_id != ?\n"
    "ORDER BY source_identity_id";
const std::string kSetEventBecause = "UPDATE merge_event SET because = ? WHERE id = ?";
const std::string kInsertSeparatedCorrection =
    "INSERT INTO user_correction (id, target_type, target_id, action, subject_lineage, "
    "subject_id, created_at)\n"
    "VALUES (?, 'source_identity', ?, 'different_person', 'person', ?, ?)";
const std::string kInsertIdentityDifferent =
    "INSERT INTO identity_constraint (id, a_type, a_id, b_type, b_id, kind, decided_by, "
    "created_at, revoked_at)\n"
    "VALUES (?, 'identity', ?, 'identity', ?, 'different', 'user', ?, NULL)";
const std::string kInsertRemainingCorrection =
    "INSERT INTO user_correction (id, target_type, target_id, action, subject_lineage, "
    "subject_id, created_at)\n"
    "VALUES (?, 'source_identity', ?, 'different_person', ?, ?, ?)";
const std::string kSetEventSnapshot =
    "UPDATE merge_event SET pre_merge_state_json = ? WHERE id = ?";

const std::string kPersonLineage = "person";

}  // namespace

IdentityConfirmResult RepositoryCore::separateIdentityCore(const std::string& sourceIdentityID,
                                                           const std::string& subjectID,
                                                           store::Connection& db) {
    const std::string& s = sourceIdentityID;
    const auto& identity = sourceIdentityRow(s, db);
    if (!identity) {
        throw IdentityStoreError::notFound(s);
    }
    if (isOwnerIdentity(identity->sourceType, identity->handleNormalized, db)) {
        throw IdentityStoreError(IdentityStoreError::Case::ownerIdentityUnmergeable);
    }
    const auto& membership = activeMembershipRow(s, db);
    if (!membership) {
        throw IdentityStoreError(IdentityStoreError::Case::cannotSeparateSoleIdentity);
    }
    const std::string person = membership->canonicalPersonID;
    const auto members = db.scalarInteger(kCountActiveMembers, {person});
    if (!members || *members < 2) {
        throw IdentityStoreError(IdentityStoreError::Case::cannotSeparateSoleIdentity);
    }
    std::vector<std::string> remaining;
    db.query(kRemainingMembers, {person, s},
             [&](const store::Row& row) { remaining.push_back(row.text(0)); });

    const std::string stub = createPersonRow(db);
    const std::string operationID = newIdentifier();
    const auto response = linkIdentityCore(
        schema::LinkIdentityRequest{.personID = stub, .sourceIdentityID = s, .confirmed = true},
        operationID, {}, db);
    if (response.status != schema::LinkIdentityResponse::Status::linked || !response.mergeEventID) {
        throwRefusal("separate", response);
    }
    const std::string eventID = *response.mergeEventID;
    db.run(kSetEventBecause, {std::string(kSeparatedByUser), eventID});

    db.run(kInsertSeparatedCorrection, {newIdentifier(), s, subjectID, currentTimestamp()});

    std::vector<std::string> created;
    for (const auto& r : remaining) {
        if (r == s || hasDifferentConstraint(ConstraintSubjectType::identity, s,
                                             ConstraintSubjectType::identity, r, db)) {
            continue;
        }
        const std::string now = currentTimestamp();
        std::string constraintID = newIdentifier();
        db.run(kInsertIdentityDifferent, {constraintID, s, r, now});
        db.run(kInsertRemainingCorrection, {newIdentifier(), r, kPersonLineage, subjectID, now});
        created.push_back(std::move(constraintID));
    }

    // The snapshot carries what the separation added, so that its undo can take
    // the constraints back; a separation hands over no follow-ups.
    const auto& event = mergeEventRow(eventID, db);
    if (!event) {
        throw IdentityStoreError(IdentityStoreError::Case::corruptRestoreMap);
    }
    const auto written = decodedSnapshot(*event, db);
    if (!written) {
        throw IdentityStoreError(IdentityStoreError::Case::corruptRestoreMap);
    }
    MergePreState snapshot = *written;
    snapshot.createdDifferentConstraintIDs = std::move(created);
    snapshot.followUpOwnershipImages.clear();
    snapshot.openLoopOwnershipImages.clear();
    snapshot.dispositionKeyImages.clear();
    std::string snapshotText = encodeJSON(snapshot);
    db.run(kSetEventSnapshot, {snapshotText, eventID});
    if (OperationMemo* memo = OperationMemo::of(db)) {
        memo->snapshotWritten(eventID, std::move(snapshotText), std::move(snapshot));
    }

    return IdentityConfirmResult{.personID = stub, .mergeEventIDs = {eventID}};
}

}  // namespace orvik::identity::internal
