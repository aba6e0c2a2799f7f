// Merging two persons, and handing over the rows other modules keep per person.
#include "identity/IdentityRepositoryInternal.h"

namespace orvik::identity::internal {

namespace {

using Response = schema::ProposeMergeResponse;
using Status = Response::Status;

const std::string kClaimIDsUnordered = "SELECT id FROM claim WHERE person_id = ?";
const std::string kEndMembership = "UPDATE identity_membership SET ended_at = ? WHERE id = ?";
const std::string kMoveClaims = "UPDATE claim SET person_id = ? WHERE person_id = ?";
const std::string kMarkAbsorbed = "UPDATE person SET merged_into_person_id = ? WHERE id = ?";
const std::string kInsertSameConstraint =
    "INSERT INTO identity_constraint (id, a_type, a_id, b_type, b_id, kind, decided_by, "
    "created_at, revoked_at)\n"
    "VALUES (?, 'person', ?, 'person', ?, 'same', 'user', ?, NULL)";
const std::string kInsertMergeEvent =
    "INSERT INTO merge_event (id, surviving_person_id, absorbed_person_id, pre_merge_state_json, "
    "because, decided_by, created_at, reversed_at, operation_id)\n"
    "VALUES (?, ?, ?, ?, ?, 'user', ?, NULL, ?)";
const std::string kInsertSamePersonCorrection =
    "INSERT INTO user_correction (id, target_type, target_id, action, subject_lineage, "
    "subject_id, created_at)\n"
    "VALUES (?, 'person', ?, 'same_person', ?, ?, ?)";
const std::string kCountActiveOfPerson =
    "SELECT count(*) FROM identity_membership WHERE canonical_person_id = ? AND ended_at IS NULL "
    "AND state IN ('high_conf','confirmed')";
const std::string kMergedInto = "SELECT merged_into_person_id FROM person WHERE id = ?";
const std::string kCountActiveOfIdentity =
    "SELECT count(*) FROM identity_membership WHERE source_identity_id = ? AND ended_at IS NULL "
    "AND state IN ('high_conf','confirmed')";
const store::InListStatement kPersonImages{
    "SELECT id, display_name, tier, created_from, merged_into_person_id\n"
    "FROM person WHERE id IN (",
    ") ORDER BY id"};

const std::string kCaptureOfPerson =
    "SELECT source_object_id, state, ended_at FROM capture_person_association WHERE person_id = ?";
const std::string kCaptureOfObjectAndPerson =
    "SELECT state, ended_at FROM capture_person_association WHERE source_object_id = ? AND "
    "person_id = ?";
const std::string kMoveCapture =
    "UPDATE capture_person_association SET person_id = ? WHERE source_object_id = ? AND "
    "person_id = ?";
const std::string kPromoteCapture =
    "UPDATE capture_person_association SET state = 'confirmed', ended_at = NULL WHERE "
    "source_object_id = ? AND person_id = ?";
const std::string kFollowUpsOfPerson =
    "SELECT f.id, f.open_loop_id, f.state, o.detected_at\n"
    "FROM follow_up f JOIN open_loop o ON o.id = f.open_loop_id\n"
    "WHERE f.person_id = ? ORDER BY f.id";
const std::string kOpenLoopsOfPerson = "SELECT id FROM open_loop WHERE person_id = ? ORDER BY id";
const std::string kDispositionExists =
    "SELECT EXISTS(SELECT 1 FROM relationship_attention_disposition WHERE candidate_key = ?)";
const std::string kRewriteDisposition =
    "UPDATE relationship_attention_disposition SET candidate_key = ?, person_id = ? WHERE "
    "candidate_key = ?";
const std::string kMoveFollowUps = "UPDATE follow_up SET person_id = ? WHERE person_id = ?";
const std::string kMoveOpenLoops = "UPDATE open_loop SET person_id = ? WHERE person_id = ?";

Response refusal(std::string because, std::optional<std::string> message, Taxonomy taxonomy,
                 Status status) {
    return Response{.because = std::move(because),
                    .message = std::move(message),
                    .taxonomy = taxonomy,
                    .mergeEventID = std::nullopt,
                    .status = status};
}

std::vector<std::string> memberIdentities(const std::vector<IdentityMembershipRow>& memberships) {
    std::vector<std::string> ids;
    ids.reserve(memberships.size());
    for (const auto& m : memberships) {
        ids.push_back(m.sourceIdentityID);
    }
    return ids;
}

}  // namespace

std::string RepositoryCore::computeMergeBecause(const std::string& personA,
                                                const std::string& personB, store::Connection& db) {
    auto identitiesOf = [&](const std::string& person) {
        std::vector<SourceIdentityRow> rows;
        for (const auto& membership : activeMembershipRows(person, db)) {
            if (const auto& row = sourceIdentityRow(membership.sourceIdentityID, db)) {
                rows.push_back(*row);
            }
        }
        return rows;
    };
    const auto membersA = identitiesOf(personA);
    const auto membersB = identitiesOf(personB);
    for (const auto& a : membersA) {
        for (const auto& b : membersB) {
            if (a.handleNormalized == b.handleNormalized) {
                return "same contact key";
            }
        }
    }
    std::int64_t shared = 0;
    for (const auto& a : membersA) {
        for (const auto& b : membersB) {
            shared += countSharedThreads(a.id, b.id, db);
        }
    }
    return sharedThreadBecause(shared);
}

std::vector<MergePreState::PersonRowImage> RepositoryCore::personRowImages(
    const std::vector<std::string>& ids, store::Connection& db) {
    std::vector<MergePreState::PersonRowImage> images;
    if (ids.empty()) {
        return images;
    }
    std::string built;
    db.query(kPersonImages.text(ids.size(), built), {ids}, [&](const store::Row& row) {
        images.push_back(MergePreState::PersonRowImage{
            .id = row.text("id"),
            .displayName = row.optionalText("display_name"),
            .tier = row.text("tier"),
            .createdFrom = row.optionalText("created_from"),
            .mergedIntoPersonID = row.optionalText("merged_into_person_id"),
        });
    });
    return images;
}

schema::ProposeMergeResponse RepositoryCore::proposeMergeCore(
    const schema::ProposeMergeRequest& request, const std::string& operationID,
    const std::vector<std::string>& additionalRevokedConstraintIDs, store::Connection& db) {
    const std::string& a = request.personIDA;
    const std::string& b = request.personIDB;

    if (a == b) {
        return refusal("", "person_id_a and person_id_b must differ", Taxonomy::invalidArguments,
                       Status::error);
    }
    const auto& survivor = personRow(a, db);
    if (!survivor || survivor->mergedIntoPersonID) {
        return refusal("", "person_id_a not found or absorbed", Taxonomy::notFound, Status::error);
    }
    const auto& absorbed = personRow(b, db);
    if (!absorbed || absorbed->mergedIntoPersonID) {
        return refusal("", "person_id_b not found or absorbed", Taxonomy::notFound, Status::error);
    }
    // Unlike a link, an automatic "different" constraint blocks a merge too.
    if (hasDifferentConstraint(ConstraintSubjectType::person, a, ConstraintSubjectType::person, b,
                               db)) {
        return refusal("already marked different", std::nullopt, Taxonomy::unspecified,
                       Status::blockedDifferent);
    }
    if (!request.confirmed) {
        return refusal(computeMergeBecause(a, b, db), std::nullopt, Taxonomy::unspecified,
                       Status::belowThresholdQuestion);
    }
    if (personContainsOwnerIdentity(a, db) || personContainsOwnerIdentity(b, db)) {
        throw IdentityStoreError(IdentityStoreError::Case::ownerIdentityUnmergeable);
    }
    const bool excludedA = hasOwnerAliasExclusion(a, db);
    const bool excludedB = hasOwnerAliasExclusion(b, db);
    if (excludedA != excludedB) {
        const auto handle = ownerAliasHandle(excludedA ? a : b, db);
        std::string message =
            handle ? "You told Orvik that " + *handle +
                         " is you. To change that, remove it from your own handles."
                   : std::string(
                         "One of these people is you. To change that, remove the handle "
                         "from your own handles.");
        return refusal("", std::move(message), Taxonomy::excluded, Status::error);
    }

    const std::string now = currentTimestamp();
    const std::string because = computeMergeBecause(a, b, db);

    // Everything the snapshot needs from before the merge is read before any write.
    const auto& members = activeMembershipRows(b, db);
    std::vector<std::string> claimsOfB;
    db.query(kClaimIDsUnordered, {b},
             [&](const store::Row& row) { claimsOfB.push_back(row.text(0)); });
    const auto memberIDs = memberIdentities(members);

    MergePreState snapshot;
    snapshot.membershipPreimages = membershipRowImages(memberIDs, db);
    snapshot.preExistingSurvivorClaimIDs = claimIDs(a, db);
    snapshot.personPreimages = personRowImages({a, b}, db);
    for (const auto& m : members) {
        snapshot.priorActiveMemberships.push_back(priorMembership(m));
    }
    for (const auto& claim : claimsOfB) {
        snapshot.priorClaimPersonID[claim] = b;
        snapshot.claimOwnershipImages.push_back(
            {.id = claim, .preimagePersonID = b, .postimagePersonID = a});
    }
    snapshot.revokedDifferentConstraintIDs = additionalRevokedConstraintIDs;

    for (const auto& m : members) {
        db.run(kEndMembership, {now, m.id});
        snapshot.writtenMembershipIDs.push_back(
            confirmMembershipTo(m.sourceIdentityID, a, because, now, db));
    }
    if (!claimsOfB.empty()) {
        db.run(kMoveClaims, {a, b});
    }
    snapshot.captureAssociationImages = repointCaptureAssociations(b, a, db);
    auto followUps = repointFollowUpsAndOpenLoops(b, a, db);
    snapshot.followUpOwnershipImages = std::move(followUps.followUps);
    snapshot.openLoopOwnershipImages = std::move(followUps.openLoops);
    snapshot.dispositionKeyImages = std::move(followUps.dispositionKeys);
    // The memo follows the absorption and the 'same' constraint instead of
    // forgetting every head: a batch of links resolves the constraints' heads once.
    OperationMemo* memo = OperationMemo::of(db);
    db.run(kMarkAbsorbed, {a, b});
    if (memo != nullptr) {
        memo->personAbsorbed(db, a, b);
    }
    const std::string sameID = newIdentifier();
    db.run(kInsertSameConstraint, {sameID, a, b, now});
    if (memo != nullptr) {
        memo->unrelatedWrite(db, "identity_constraint");
    }
    snapshot.createdSameConstraintID = sameID;

    snapshot.membershipPostImages = membershipRowImages(memberIDs, db);
    snapshot.personPostImages = personRowImages({a, b}, db);

    const std::string eventID = newIdentifier();
    std::string snapshotText = encodeJSON(snapshot);
    db.run(kInsertMergeEvent, {eventID, a, b, snapshotText, because, now, operationID});
    if (memo != nullptr) {
        memo->snapshotWritten(eventID, std::move(snapshotText), std::move(snapshot));
    }
    services_.projectionGeneration->bump(db);
    db.run(kInsertSamePersonCorrection,
           {newIdentifier(), b, std::string(schema::rawValue(request.subjectLineage)),
            request.subjectID, now});

    const bool postConditionHolds = [&] {
        if (db.scalarInteger(kCountActiveOfPerson, {b}).value_or(-1) != 0) {
            return false;
        }
        std::optional<std::string> mergedInto;
        db.query(kMergedInto, {b}, [&](const store::Row& row) {
            mergedInto = row.optionalText("merged_into_person_id");
        });
        if (mergedInto != a) {
            return false;
        }
        for (const auto& id : memberIDs) {
            if (db.scalarInteger(kCountActiveOfIdentity, {id}).value_or(-1) != 1) {
                return false;
            }
        }
        return true;
    }();
    if (!postConditionHolds) {
        return refusal(because, "post-condition failed", Taxonomy::invalidArguments, Status::error);
    }
    return Response{.because = because,
                    .message = std::nullopt,
                    .taxonomy = Taxonomy::unspecified,
                    .mergeEventID = eventID,
                    .status = Status::merged};
}

std::vector<MergePreState::CaptureAssociationImage> RepositoryCore::repointCaptureAssociations(
    const std::string& from, const std::string& to, store::Connection& db) {
    struct Association {
        std::string object;
        std::optional<std::string> state;
        std::optional<std::string> endedAt;
    };
    std::vector<Association> rows;
    db.query(kCaptureOfPerson, {from}, [&](const store::Row& row) {
        rows.push_back({row.text("source_object_id"), row.optionalText("state"),
                        row.optionalText("ended_at")});
    });

    std::vector<MergePreState::CaptureAssociationImage> images;
    for (const auto& row : rows) {
        std::optional<Association> survivors;
        db.query(kCaptureOfObjectAndPerson, {row.object, to}, [&](const store::Row& r) {
            if (!survivors) {
                survivors =
                    Association{row.object, r.optionalText("state"), r.optionalText("ended_at")};
            }
        });
        if (!survivors) {
            db.run(kMoveCapture, {to, row.object, from});
            images.push_back({.sourceObjectID = row.object,
                              .preimagePersonID = from,
                              .postimagePersonID = to,
                              .preimageState = row.state,
                              .preimageEndedAt = row.endedAt});
        } else if (row.state == "confirmed" && survivors->state != "confirmed") {
            // The absorbed person's own row stays where it is.
            db.run(kPromoteCapture, {row.object, to});
            images.push_back({.sourceObjectID = row.object,
                              .preimagePersonID = to,
                              .postimagePersonID = to,
                              .preimageState = survivors->state,
                              .preimageEndedAt = survivors->endedAt});
        }
    }
    return images;
}

RepositoryCore::FollowUpRepointing RepositoryCore::repointFollowUpsAndOpenLoops(
    const std::string& from, const std::string& to, store::Connection& db) {
    struct FollowUp {
        std::string id;
        std::string openLoopID;
        std::optional<std::string> state;
        std::optional<std::string> detectedAt;
    };
    std::vector<FollowUp> followUps;
    db.query(kFollowUpsOfPerson, {from}, [&](const store::Row& row) {
        followUps.push_back({row.text("id"), row.text("open_loop_id"), row.optionalText("state"),
                             row.optionalText("detected_at")});
    });
    std::vector<std::string> openLoops;
    db.query(kOpenLoopsOfPerson, {from},
             [&](const store::Row& row) { openLoops.push_back(row.text(0)); });

    FollowUpRepointing result;
    auto& scheduler = *services_.followUps;
    // Keys are rewritten while the follow-ups still belong to the absorbed person.
    for (const auto& f : followUps) {
        if (f.state != "scheduled") {
            continue;
        }
        const auto oldItem = scheduler.attentionItem(from, f.openLoopID, f.detectedAt);
        if (!oldItem || !db.scalarFlag(kDispositionExists, {oldItem->candidateKey})) {
            continue;
        }
        const auto newItem = scheduler.attentionItem(to, f.openLoopID, f.detectedAt);
        if (!newItem) {
            continue;
        }
        db.run(kRewriteDisposition, {newItem->candidateKey, to, oldItem->candidateKey});
        result.dispositionKeys.push_back({.oldCandidateKey = oldItem->candidateKey,
                                          .newCandidateKey = newItem->candidateKey,
                                          .preimagePersonID = from,
                                          .postimagePersonID = to});
    }
    for (const auto& f : followUps) {
        if (f.state == "scheduled") {
            scheduler.retractCandidate(db, f.openLoopID);
        }
    }
    db.run(kMoveFollowUps, {to, from});
    if (!openLoops.empty()) {
        db.run(kMoveOpenLoops, {to, from});
    }
    scheduler.reprojectCandidatesCore(db, to);

    for (const auto& f : followUps) {
        result.followUps.push_back({.id = f.id, .preimagePersonID = from, .postimagePersonID = to});
    }
    for (const auto& loop : openLoops) {
        result.openLoops.push_back({.id = loop, .preimagePersonID = from, .postimagePersonID = to});
    }
    return result;
}

}  // namespace orvik::identity::internal
