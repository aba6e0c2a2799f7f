// Linking one source identity to one person, with the snapshot that lets the
// link be undone exactly.
#include <algorithm>

#include "identity/IdentityRepositoryInternal.h"

namespace orvik::identity::internal {

namespace {

using Response = schema::LinkIdentityResponse;
using Status = Response::Status;

const std::string kEndOtherActiveMemberships =
    "UPDATE identity_membership SET ended_at = ?\n"
    "WHERE source_identity_id = ? AND ended_at IS NULL\n"
    "  AND state IN ('high_conf','confirmed') AND canonical_person_id != ?";
const std::string kOpenMembershipToPerson =
    "SELECT id FROM identity_membership WHERE source_identity_id = ? AND canonical_person_id = ? "
    "AND ended_at IS NULL";
const std::string kConfirmMembership =
    "UPDATE identity_membership SET state = ?, because = ?, decided_by = ?, decided_at = ? WHERE "
    "id = ?";
const std::string kInsertMembership =
    "INSERT INTO identity_membership (id, source_identity_id, canonical_person_id, state, because, "
    "decided_by, decided_at, ended_at, created_at)\n"
    "VALUES (?, ?, ?, ?, ?, ?, ?, NULL, ?)";
const std::string kInsertLinkEvent =
    "INSERT INTO merge_event (id, surviving_person_id, absorbed_person_id, pre_merge_state_json, "
    "because, decided_by, created_at, reversed_at, operation_id)\n"
    "VALUES (?, ?, NULL, ?, ?, 'user', ?, NULL, ?)";
const std::string kSharedThreads =
    "SELECT count(DISTINCT tp1.thread_id) FROM thread_participant tp1\n"
    "JOIN thread_participant tp2 ON tp1.thread_id = tp2.thread_id\n"
    "WHERE tp1.source_identity_id = ? AND tp2.source_identity_id = ?";
const store::InListStatement kMembershipImages{
    "SELECT id, source_identity_id, canonical_person_id, state, because, decided_by, decided_at, "
    "ended_at\n"
    "FROM identity_membership\n"
    "WHERE source_identity_id IN (",
    ")\nORDER BY id"};

Response refusal(std::string because, std::optional<std::string> message, Taxonomy taxonomy,
                 Status status) {
    return Response{.because = std::move(because),
                    .message = std::move(message),
                    .taxonomy = taxonomy,
                    .mergeEventID = std::nullopt,
                    .status = status};
}

}  // namespace

// Shared by the link and the merge reasons.
std::string sharedThreadBecause(std::int64_t sharedThreads) {
    if (sharedThreads >= 1) {
        return std::to_string(sharedThreads) + " shared thread" + (sharedThreads == 1 ? "" : "s");
    }
    return "user confirmed";
}

std::int64_t countSharedThreads(const std::string& a, const std::string& b, store::Connection& db) {
    return db.scalarInteger(kSharedThreads, {a, b}).value_or(0);
}

std::string RepositoryCore::computeLinkBecause(const std::string& sourceIdentityID,
                                               const std::string& personID, store::Connection& db) {
    const auto& identity = sourceIdentityRow(sourceIdentityID, db);
    if (!identity) {
        return "user confirmed";
    }
    std::vector<std::string> members;
    for (const auto& membership : activeMembershipRows(personID, db)) {
        members.push_back(membership.sourceIdentityID);
    }
    for (const auto& member : members) {
        const auto& row = sourceIdentityRow(member, db);
        if (row && row->handleNormalized == identity->handleNormalized) {
            return "same contact key";
        }
    }
    std::int64_t shared = 0;
    for (const auto& member : members) {
        shared += countSharedThreads(sourceIdentityID, member, db);
    }
    return sharedThreadBecause(shared);
}

std::vector<MergePreState::MembershipRowImage> RepositoryCore::membershipRowImages(
    const std::vector<std::string>& sourceIdentityIDs, store::Connection& db) {
    std::vector<MergePreState::MembershipRowImage> images;
    if (sourceIdentityIDs.empty()) {
        return images;
    }
    // The columns in the order the statement names them.
    std::string built;
    db.query(kMembershipImages.text(sourceIdentityIDs.size(), built), {sourceIdentityIDs},
             [&](const store::Row& row) {
                 images.push_back(MergePreState::MembershipRowImage{
                     .id = row.text(0),
                     .sourceIdentityID = row.text(1),
                     .canonicalPersonID = row.text(2),
                     .state = row.text(3),
                     .because = row.optionalText(4),
                     .decidedBy = row.text(5),
                     .decidedAt = row.text(6),
                     .endedAt = row.optionalText(7),
                 });
             });
    return images;
}

bool RepositoryCore::membershipRowsAre(
    const std::vector<MergePreState::MembershipRowImage>& expected,
    const std::vector<std::string>& sourceIdentityIDs, store::Connection& db) {
    if (sourceIdentityIDs.empty()) {
        return expected.empty();
    }
    // The rows come in id order (bytewise, as std::string compares): the k-th row
    // must be the k-th image by id.
    std::vector<const MergePreState::MembershipRowImage*> byID;
    byID.reserve(expected.size());
    for (const auto& image : expected) {
        byID.push_back(&image);
    }
    std::sort(byID.begin(), byID.end(), [](const auto* a, const auto* b) { return a->id < b->id; });
    const auto optionalIs = [](const store::Row& row, int column,
                               const std::optional<std::string>& value) {
        return row.isNull(column) ? !value : value && *value == row.view(column);
    };
    std::size_t rows = 0;
    bool same = true;
    // Compared where SQLite holds the row, in the order the statement names the
    // columns.
    std::string built;
    db.query(kMembershipImages.text(sourceIdentityIDs.size(), built), {sourceIdentityIDs},
             [&](const store::Row& row) {
                 if (!same || rows == byID.size()) {
                     same = false;
                     return;
                 }
                 const auto& image = *byID[rows++];
                 same = image.id == row.view(0) && image.sourceIdentityID == row.view(1) &&
                        image.canonicalPersonID == row.view(2) && image.state == row.view(3) &&
                        optionalIs(row, 4, image.because) && image.decidedBy == row.view(5) &&
                        image.decidedAt == row.view(6) && optionalIs(row, 7, image.endedAt);
             });
    return same && rows == byID.size();
}

MergePreState::PriorMembership priorMembership(const IdentityMembershipRow& row) {
    return MergePreState::PriorMembership{
        .id = row.id,
        .sourceIdentityID = row.sourceIdentityID,
        .canonicalPersonID = row.canonicalPersonID,
        .state = std::string(rawValue(row.state)),
        .because = row.because,
        .decidedBy = std::string(rawValue(row.decidedBy)),
        .decidedAt = row.decidedAt,
    };
}

std::string confirmMembershipTo(const std::string& sourceIdentityID, const std::string& personID,
                                const std::string& because, const std::string& now,
                                store::Connection& db) {
    db.run(kEndOtherActiveMemberships, {now, sourceIdentityID, personID});
    std::optional<std::string> open;
    db.query(kOpenMembershipToPerson, {sourceIdentityID, personID}, [&](const store::Row& row) {
        if (!open) {
            open = row.text(0);
        }
    });
    if (open) {
        // An open row of any state, "possible" included, is upgraded in place and
        // keeps its identifier and created_at.
        db.run(kConfirmMembership, {"confirmed", because, "user", now, *open});
        return *open;
    }
    std::string id = newIdentifier();
    db.run(kInsertMembership,
           {id, sourceIdentityID, personID, "confirmed", because, "user", now, now});
    return id;
}

schema::LinkIdentityResponse RepositoryCore::linkIdentityCore(
    const schema::LinkIdentityRequest& request, const std::string& operationID,
    const std::vector<std::string>& additionalRevokedConstraintIDs, store::Connection& db) {
    const std::string& sid = request.sourceIdentityID;
    const std::string& pid = request.personID;

    if (!sourceIdentityRow(sid, db)) {
        return refusal("", "source identity not found", Taxonomy::notFound, Status::error);
    }
    const auto& person = personRow(pid, db);
    if (!person || person->mergedIntoPersonID) {
        return refusal("", "person not found or absorbed", Taxonomy::notFound, Status::error);
    }
    const auto constraints = liveDifferentConstraintRows(ConstraintSubjectType::identity, sid,
                                                         ConstraintSubjectType::person, pid, db);
    for (const auto& constraint : constraints) {
        // Only the no-reabsorption guard's automatic constraints give way to a link.
        if (constraint.decidedBy != "auto") {
            return refusal("already marked different", std::nullopt, Taxonomy::unspecified,
                           Status::blockedDifferent);
        }
    }
    if (!request.confirmed) {
        return refusal(computeLinkBecause(sid, pid, db), std::nullopt, Taxonomy::unspecified,
                       Status::belowThresholdQuestion);
    }
    if (const auto& identity = sourceIdentityRow(sid, db);
        identity && isOwnerIdentity(identity->sourceType, identity->handleNormalized, db)) {
        throw IdentityStoreError(IdentityStoreError::Case::ownerIdentityUnmergeable);
    }
    if (personContainsOwnerIdentity(pid, db)) {
        throw IdentityStoreError(IdentityStoreError::Case::ownerIdentityUnmergeable);
    }

    const std::string now = currentTimestamp();
    std::vector<std::string> revoked;
    for (const auto& constraint : constraints) {
        if (db.run(kRevokeLiveConstraint, {now, constraint.id}) != 1) {
            throw IdentityStoreError(IdentityStoreError::Case::supersededByLaterCorrection);
        }
        revoked.push_back(constraint.id);
    }

    MergePreState snapshot;
    if (const auto& prior = activeMembershipRow(sid, db)) {
        snapshot.priorActiveMemberships.push_back(priorMembership(*prior));
    }
    snapshot.membershipPreimages = membershipRowImages({sid}, db);
    snapshot.preExistingSurvivorClaimIDs = claimIDs(pid, db);
    const std::string because = computeLinkBecause(sid, pid, db);

    const std::string membershipID = confirmMembershipTo(sid, pid, because, now, db);

    snapshot.writtenMembershipIDs = {membershipID};
    snapshot.revokedDifferentConstraintIDs = additionalRevokedConstraintIDs;
    snapshot.revokedDifferentConstraintIDs.insert(snapshot.revokedDifferentConstraintIDs.end(),
                                                  revoked.begin(), revoked.end());
    snapshot.membershipPostImages = membershipRowImages({sid}, db);

    const std::string eventID = newIdentifier();
    std::string snapshotText = encodeJSON(snapshot);
    db.run(kInsertLinkEvent, {eventID, pid, snapshotText, because, now, operationID});
    if (OperationMemo* memo = OperationMemo::of(db)) {
        memo->snapshotWritten(eventID, std::move(snapshotText), std::move(snapshot));
    }
    services_.projectionGeneration->bump(db);

    const auto& after = activeMembershipRow(sid, db);
    if (!after || after->canonicalPersonID != pid) {
        return refusal(because, "post-condition failed", Taxonomy::invalidArguments, Status::error);
    }
    return Response{.because = because,
                    .message = std::nullopt,
                    .taxonomy = Taxonomy::unspecified,
                    .mergeEventID = eventID,
                    .status = Status::linked};
}

}  // namespace orvik::identity::internal
