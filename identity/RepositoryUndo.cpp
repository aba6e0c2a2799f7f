// Undo of link, merge and separation events from their snapshots, undo of a
// whole confirmation, and the no-reabsorption guard that follows it.
#include <algorithm>
#include <map>
#include <utility>

#include "identity/IdentityRepositoryInternal.h"

namespace orvik::identity::internal {

namespace {

// Statement texts are passed to SQLite exactly as written here; the statement
// cache is keyed by them.
const std::string kSelectClaimOwner = "SELECT person_id FROM claim WHERE id = ?";
const std::string kEndMembership = "UPDATE identity_membership SET ended_at = ? WHERE id = ?";
const std::string kRestoreMembership =
    "UPDATE identity_membership\n"
    "SET source_identity_id = ?, canonical_person_id = ?, state = ?, because = ?, decided_by = ?, "
    "decided_at = ?, ended_at = ?\n"
    "WHERE id = ?";
const std::string kRestoreClaimOwner =
    "UPDATE claim SET person_id = ? WHERE id = ? AND person_id = ?";
const std::string kRestoreCaptureAssociationWithState =
    "UPDATE capture_person_association\n"
    "SET person_id = ?, state = ?, ended_at = ?\n"
    "WHERE source_object_id = ? AND person_id = ?";
const std::string kRestoreCaptureAssociationPerson =
    "UPDATE capture_person_association SET person_id = ? WHERE source_object_id = ? AND "
    "person_id = ?";
const std::string kRestoreDispositionKey =
    "UPDATE relationship_attention_disposition SET candidate_key = ?, person_id = ? WHERE "
    "candidate_key = ?";
const std::string kSelectFollowUpOpenLoop =
    "SELECT open_loop_id FROM follow_up WHERE id = ? AND person_id = ?";
const std::string kRestoreFollowUpOwner =
    "UPDATE follow_up SET person_id = ? WHERE id = ? AND person_id = ?";
const std::string kRestoreOpenLoopOwner =
    "UPDATE open_loop SET person_id = ? WHERE id = ? AND person_id = ?";
const std::string kClearMergedInto =
    "UPDATE person SET merged_into_person_id = NULL WHERE id = ? AND merged_into_person_id = ?";
const std::string kReactivateConstraint =
    "UPDATE identity_constraint SET revoked_at = NULL WHERE id = ?";
const std::string kMarkEventReversed = "UPDATE merge_event SET reversed_at = ? WHERE id = ?";
const std::string kInsertAutomaticDifferent =
    "INSERT INTO identity_constraint (id, a_type, a_id, b_type, b_id, kind, decided_by, "
    "created_at, revoked_at)\n"
    "VALUES (?, 'identity', ?, 'person', ?, 'different', 'auto', ?, NULL)";

// The claim hand-back is built from these parts around its IN lists; the
// trailing "\n  " of the middle part stays even when no NOT IN follows.
const std::string kHandBackClaimsHead =
    "UPDATE claim SET person_id = ?\n"
    "WHERE person_id = ?\n"
    "  AND source_identity_id IN (";
const std::string kHandBackClaimsMiddle =
    ")\n"
    "  AND provenance != 'user_stated'\n"
    "  ";
const std::string kHandBackClaimsExcludeHead = "AND id NOT IN (";
const std::string kHandBackClaimsExcludeTail = ")";

[[noreturn]] void superseded() {
    throw IdentityStoreError(IdentityStoreError::Case::supersededByLaterCorrection);
}

void requireOneRow(int changed) {
    if (changed != 1) {
        superseded();
    }
}

// Reads only: every post-image must still match the store.
void verifyPostImages(const MergePreState& s, RepositoryCore& core, store::Connection& db) {
    if (!core.membershipRowsAre(s.membershipPostImages, affectedIdentityIDs(s), db)) {
        superseded();
    }

    for (const auto& image : s.claimOwnershipImages) {
        bool found = false;
        std::optional<std::string> owner;
        db.query(kSelectClaimOwner, {image.id}, [&](const store::Row& row) {
            if (!found) {
                found = true;
                owner = row.optionalText(0);  // the one column selected
            }
        });
        if (!found || !owner || *owner != image.postimagePersonID) {
            superseded();
        }
    }

    if (!s.personPostImages.empty()) {
        std::vector<std::string> ids;
        ids.reserve(s.personPostImages.size());
        for (const auto& image : s.personPostImages) {
            ids.push_back(image.id);
        }
        const auto stored = core.personRowImages(ids, db);
        // The images in the order of the rows read back (by id), compared in place.
        std::vector<const MergePreState::PersonRowImage*> expected;
        expected.reserve(s.personPostImages.size());
        for (const auto& image : s.personPostImages) {
            expected.push_back(&image);
        }
        std::stable_sort(expected.begin(), expected.end(),
                         [](const auto* a, const auto* b) { return a->id < b->id; });
        if (!std::equal(stored.begin(), stored.end(), expected.begin(), expected.end(),
                        [](const auto& row, const auto* image) { return row == *image; })) {
            superseded();
        }
    }

    if (s.createdSameConstraintID &&
        !db.scalarFlag(kIsLiveConstraintExists, {*s.createdSameConstraintID})) {
        superseded();
    }
}

}  // namespace

UndoMergeResult RepositoryCore::undoMerge(const std::string& mergeEventID,
                                          const std::string& decidedAt, store::Connection& db) {
    const auto& event = mergeEventRow(mergeEventID, db);
    if (!event) {
        throw IdentityStoreError::notFound(mergeEventID);
    }
    if (event->reversedAt) {
        throw IdentityStoreError(IdentityStoreError::Case::alreadyReversed);
    }
    const auto decoded = decodedSnapshot(*event, db);
    if (!decoded) {
        throw IdentityStoreError(IdentityStoreError::Case::corruptRestoreMap);
    }
    const MergePreState& s = *decoded;

    const bool isPersonMerge = event->absorbedPersonID.has_value();
    const bool complete = isPersonMerge
                              ? !s.personPostImages.empty() && s.createdSameConstraintID.has_value()
                              : !s.membershipPostImages.empty();
    if (!complete) {
        throw IdentityStoreError(IdentityStoreError::Case::restoreSnapshotIncomplete);
    }

    verifyPostImages(s, *this, db);

    // Nothing has been written up to here; from now on every write may still
    // fail, and the caller's transaction then rolls all of them back.
    // A post-image without a preimage is a row the change added: it ends.
    std::vector<std::string_view> preIDs;
    preIDs.reserve(s.membershipPreimages.size());
    for (const auto& image : s.membershipPreimages) {
        preIDs.push_back(image.id);
    }
    std::sort(preIDs.begin(), preIDs.end());
    for (const auto& image : s.membershipPostImages) {
        if (!std::binary_search(preIDs.begin(), preIDs.end(), std::string_view(image.id))) {
            requireOneRow(db.run(kEndMembership, {decidedAt, image.id}));
        }
    }
    for (const auto& image : s.membershipPreimages) {
        requireOneRow(db.run(kRestoreMembership,
                             {image.sourceIdentityID, image.canonicalPersonID, image.state,
                              store::optionalText(image.because), image.decidedBy, image.decidedAt,
                              store::optionalText(image.endedAt), image.id}));
    }

    for (const auto& image : s.claimOwnershipImages) {
        requireOneRow(db.run(kRestoreClaimOwner,
                             {image.preimagePersonID, image.id, image.postimagePersonID}));
    }

    for (const auto& image : s.captureAssociationImages) {
        if (image.preimageState) {
            db.run(kRestoreCaptureAssociationWithState,
                   {image.preimagePersonID, *image.preimageState,
                    store::optionalText(image.preimageEndedAt), image.sourceObjectID,
                    image.postimagePersonID});
        } else if (image.preimagePersonID != image.postimagePersonID) {
            db.run(kRestoreCaptureAssociationPerson,
                   {image.preimagePersonID, image.sourceObjectID, image.postimagePersonID});
        }
    }

    for (const auto& image : s.dispositionKeyImages) {
        db.run(kRestoreDispositionKey,
               {image.oldCandidateKey, image.preimagePersonID, image.newCandidateKey});
    }

    for (const auto& image : s.followUpOwnershipImages) {
        bool found = false;
        std::optional<std::string> openLoopID;
        db.query(kSelectFollowUpOpenLoop, {image.id, image.postimagePersonID},
                 [&](const store::Row& row) {
                     if (!found) {
                         found = true;
                         openLoopID = row.optionalText(0);  // the one column selected
                     }
                 });
        if (openLoopID) {
            services_.followUps->retractCandidate(db, *openLoopID);
        }
        db.run(kRestoreFollowUpOwner, {image.preimagePersonID, image.id, image.postimagePersonID});
    }

    for (const auto& image : s.openLoopOwnershipImages) {
        db.run(kRestoreOpenLoopOwner, {image.preimagePersonID, image.id, image.postimagePersonID});
    }

    if (!s.followUpOwnershipImages.empty()) {
        services_.followUps->reprojectCandidatesCore(
            db, s.followUpOwnershipImages.front().preimagePersonID);
    }

    if (isPersonMerge) {
        const std::string& absorbed = *event->absorbedPersonID;
        const std::string& survivor = event->survivingPersonID;
        requireOneRow(db.run(kClearMergedInto, {absorbed, survivor}));
        requireOneRow(db.run(kRevokeLiveConstraint, {decidedAt, *s.createdSameConstraintID}));

        std::vector<std::string> absorbedIdentities;
        for (const auto& prior : s.priorActiveMemberships) {
            if (prior.canonicalPersonID == absorbed) {
                absorbedIdentities.push_back(prior.sourceIdentityID);
            }
        }
        if (!absorbedIdentities.empty() && !s.membershipPostImages.empty()) {
            std::string sql = kHandBackClaimsHead + store::placeholders(absorbedIdentities.size()) +
                              kHandBackClaimsMiddle;
            if (!s.preExistingSurvivorClaimIDs.empty()) {
                sql += kHandBackClaimsExcludeHead +
                       store::placeholders(s.preExistingSurvivorClaimIDs.size()) +
                       kHandBackClaimsExcludeTail;
            }
            store::Params params{absorbed, survivor, absorbedIdentities};
            if (!s.preExistingSurvivorClaimIDs.empty()) {
                params.add(s.preExistingSurvivorClaimIDs);
            }
            db.run(sql, params);
        }
    }

    for (const auto& id : s.revokedDifferentConstraintIDs) {
        db.run(kReactivateConstraint, {id});
    }

    if (event->because == kSeparatedByUser) {
        for (const auto& id : s.createdDifferentConstraintIDs) {
            requireOneRow(db.run(kRevokeLiveConstraint, {decidedAt, id}));
        }
    }

    db.run(kMarkEventReversed, {decidedAt, mergeEventID});
    services_.projectionGeneration->bump(db);

    return UndoMergeResult{
        .mergeEventID = mergeEventID,
        .restoredPersonID = event->absorbedPersonID,
        .restoredMembershipCount = static_cast<std::int64_t>(s.priorActiveMemberships.size()),
        .restoredClaimCount = static_cast<std::int64_t>(s.priorClaimPersonID.size()),
    };
}

std::vector<UndoMergeResult> RepositoryCore::undoConfirmationCore(
    const std::vector<std::string>& mergeEventIDs, store::Connection& db) {
    const std::string decidedAt = currentTimestamp();

    // Collected before anything is undone; missing events and undecodable
    // snapshots are reported by their undo below, not here.
    std::set<std::string> affected;
    for (const auto& id : mergeEventIDs) {
        const auto& event = mergeEventRow(id, db);
        if (!event) {
            continue;
        }
        if (const auto s = decodedSnapshot(*event, db)) {
            const auto ids = affectedIdentityIDs(*s);
            affected.insert(ids.begin(), ids.end());
        }
    }

    std::map<std::string, std::string> preBatch;
    for (const auto& identityID : affected) {
        if (const auto& membership = activeMembershipRow(identityID, db)) {
            preBatch[identityID] = membership->canonicalPersonID;
        }
    }

    std::vector<UndoMergeResult> results;
    results.reserve(mergeEventIDs.size());
    for (const auto& id : mergeEventIDs) {
        results.push_back(undoMerge(id, decidedAt, db));
    }

    applyNoReabsorptionGuard(affected, preBatch, decidedAt, db);
    return results;
}

void RepositoryCore::applyNoReabsorptionGuard(
    const std::set<std::string>& affectedIdentityIDs,
    const std::map<std::string, std::string>& preBatchPersonIDByIdentity,
    const std::string& decidedAt, store::Connection& db) {
    for (const auto& identityID : affectedIdentityIDs) {
        if (activeMembershipRow(identityID, db)) {
            continue;
        }
        const auto before = preBatchPersonIDByIdentity.find(identityID);
        if (before == preBatchPersonIDByIdentity.end()) {
            continue;
        }
        const auto& identity = sourceIdentityRow(identityID, db);
        if (!identity) {
            continue;
        }
        const std::string automatic = automaticPersonID(*identity);
        if (before->second == automatic &&
            !hasDifferentConstraint(ConstraintSubjectType::identity, identityID,
                                    ConstraintSubjectType::person, automatic, db)) {
            db.run(kInsertAutomaticDifferent, {newIdentifier(), identityID, automatic, decidedAt});
        }
    }
}

std::string RepositoryCore::automaticPersonID(const SourceIdentityRow& identity) {
    const bool isEmail =
        identity.sourceType == "gmail" || identity.handleNormalized.find('@') != std::string::npos;
    return host::stableID("person-auto", isEmail ? "email" : "phone", identity.handleNormalized);
}

}  // namespace orvik::identity::internal
