// User corrections built on the link and merge cores: confirming and rejecting a
// candidate pair, and marking two persons different.
#include "identity/IdentityRepositoryInternal.h"

namespace orvik::identity::internal {

namespace {

const std::string kConnectingMergeEvent =
    "SELECT id FROM merge_event\n"
    "WHERE reversed_at IS NULL\n"
    "  AND ((surviving_person_id = ? AND absorbed_person_id = ?)\n"
    "    OR (surviving_person_id = ? AND absorbed_person_id = ?))\n"
    "ORDER BY created_at DESC LIMIT 1";
const std::string kInsertPersonDifferent =
    "INSERT INTO identity_constraint (id, a_type, a_id, b_type, b_id, kind, decided_by, "
    "created_at, revoked_at)\n"
    "VALUES (?, 'person', ?, 'person', ?, 'different', 'user', ?, NULL)";
const std::string kInsertPersonDifferentCorrection =
    "INSERT INTO user_correction (id, target_type, target_id, action, subject_lineage, "
    "subject_id, created_at)\n"
    "VALUES (?, 'person', ?, 'different_person', ?, ?, ?)";
const std::string kInsertIdentityDifferent =
    "INSERT INTO identity_constraint (id, a_type, a_id, b_type, b_id, kind, decided_by, "
    "created_at, revoked_at)\n"
    "VALUES (?, 'identity', ?, 'identity', ?, 'different', 'user', ?, NULL)";
const std::string kInsertIdentityDifferentCorrection =
    "INSERT INTO user_correction (id, target_type, target_id, action, subject_lineage, "
    "subject_id, created_at)\n"
    "VALUES (?, 'source_identity', ?, 'different_person', ?, ?, ?)";
const std::string kAbsorbedPersonCount =
    "SELECT COUNT(*) FROM merge_event WHERE operation_id = ? AND absorbed_person_id IS NOT NULL "
    "AND absorbed_person_id != surviving_person_id";

constexpr std::int64_t kPresetValue = 3000;

schema::MarkDifferentResponse refused(Taxonomy taxonomy, std::string message) {
    return schema::MarkDifferentResponse{.constraintID = std::nullopt,
                                         .refused = true,
                                         .message = std::move(message),
                                         .taxonomy = taxonomy};
}

// The state text a correction gives the refusal mapping for a response that is
// not a success.
template <typename Response>
std::string refusalState(const Response& response, typename Response::Status success,
                         std::string_view successText) {
    using Status = typename Response::Status;
    if (response.status == Status::belowThresholdQuestion) {
        return "below_threshold_question";
    }
    if (response.status == Status::blockedDifferent) {
        return "blocked_different";
    }
    if (response.status == success) {
        return std::string(successText);
    }
    return "error";
}

template <typename Response>
[[noreturn]] void throwRefusalOf(std::string_view operation, const Response& response,
                                 typename Response::Status success, std::string_view successText) {
    // The classification counts only together with a message.
    const auto taxonomy =
        response.message ? std::optional<Taxonomy>(response.taxonomy) : std::nullopt;
    throw correctionRefusal(operation, refusalState(response, success, successText), taxonomy,
                            response.message);
}

}  // namespace

void throwRefusal(std::string_view operation, const schema::LinkIdentityResponse& response) {
    throwRefusalOf(operation, response, schema::LinkIdentityResponse::Status::linked, "linked");
}

void throwRefusal(std::string_view operation, const schema::ProposeMergeResponse& response) {
    throwRefusalOf(operation, response, schema::ProposeMergeResponse::Status::merged, "merged");
}

std::optional<std::string> RepositoryCore::connectingMergeEvent(const std::string& personA,
                                                                const std::string& personB,
                                                                store::Connection& db) {
    std::optional<std::string> id;
    db.query(kConnectingMergeEvent, {personA, personB, personB, personA},
             [&](const store::Row& row) { id = row.text(0); });
    return id;
}

schema::MarkDifferentResponse RepositoryCore::markDifferentCore(
    const schema::MarkDifferentRequest& request, store::Connection& db) {
    const std::string& a = request.personIDA;
    const std::string& b = request.personIDB;
    if (a == b) {
        return refused(Taxonomy::invalidArguments, "person_id_a and person_id_b must differ");
    }
    // Absorbed persons count as found.
    if (!personRow(a, db)) {
        return refused(Taxonomy::notFound, "person_id_a not found");
    }
    if (!personRow(b, db)) {
        return refused(Taxonomy::notFound, "person_id_b not found");
    }
    const std::string now = currentTimestamp();
    if (absorptionChainHead(a, db) == absorptionChainHead(b, db)) {
        // One person at present: split them first, by the merge between the two
        // persons named (not their heads).
        const auto event = connectingMergeEvent(a, b, db);
        if (!event) {
            return refused(Taxonomy::invalidArguments, "no reversible merge connects these people");
        }
        (void)undoMerge(*event, now, db);
    }
    const std::string constraintID = newIdentifier();
    db.run(kInsertPersonDifferent, {constraintID, a, b, now});
    db.run(kInsertPersonDifferentCorrection,
           {newIdentifier(), b, std::string(schema::rawValue(request.subjectLineage)),
            request.subjectID, now});
    if (!db.scalarFlag(kIsLiveConstraint, {constraintID})) {
        return refused(Taxonomy::invalidArguments, "post-condition failed");
    }
    return schema::MarkDifferentResponse{.constraintID = constraintID,
                                         .refused = false,
                                         .message = std::nullopt,
                                         .taxonomy = std::nullopt};
}

IdentityConfirmResult RepositoryCore::confirmCandidateCore(
    const IdentityCandidate& candidate, const std::string& operationID,
    SubjectLineage subjectLineage, const std::string& subjectID,
    const std::vector<std::string>& additionalRevokedConstraintIDs, store::Connection& db) {
    const auto& a = candidate.sourceIdentityA;
    const auto& b = candidate.sourceIdentityB;
    for (const auto* identity : {&a, &b}) {
        if (isOwnerIdentity(identity->sourceType, identity->handleNormalized, db)) {
            throw IdentityStoreError(IdentityStoreError::Case::ownerIdentityUnmergeable);
        }
    }
    const auto& membershipA = activeMembershipRow(a.id, db);
    const auto& membershipB = activeMembershipRow(b.id, db);

    auto link = [&](const std::string& identityID, const std::string& personID) {
        const auto response = linkIdentityCore(
            schema::LinkIdentityRequest{
                .personID = personID, .sourceIdentityID = identityID, .confirmed = true},
            operationID, additionalRevokedConstraintIDs, db);
        using Status = schema::LinkIdentityResponse::Status;
        if (response.status != Status::linked || !response.mergeEventID) {
            throwRefusal("confirm", response);
        }
        return *response.mergeEventID;
    };

    if (!membershipA && !membershipB) {
        const std::string person = createPersonRow(db);
        std::string first = link(a.id, person);
        std::string second = link(b.id, person);
        return {.personID = person, .mergeEventIDs = {std::move(first), std::move(second)}};
    }
    if (!membershipA) {
        const std::string& person = membershipB->canonicalPersonID;
        return {.personID = person, .mergeEventIDs = {link(a.id, person)}};
    }
    if (!membershipB) {
        const std::string& person = membershipA->canonicalPersonID;
        return {.personID = person, .mergeEventIDs = {link(b.id, person)}};
    }
    const std::string& personA = membershipA->canonicalPersonID;
    const std::string& personB = membershipB->canonicalPersonID;
    if (personA == personB) {
        return {.personID = personA, .mergeEventIDs = {}};
    }
    const auto response =
        proposeMergeCore(schema::ProposeMergeRequest{.presetValue = kPresetValue,
                                                     .personIDA = personA,
                                                     .personIDB = personB,
                                                     .subjectID = subjectID,
                                                     .subjectLineage = subjectLineage,
                                                     .confirmed = true},
                         operationID, additionalRevokedConstraintIDs, db);
    using Status = schema::ProposeMergeResponse::Status;
    if (response.status != Status::merged || !response.mergeEventID) {
        throwRefusal("confirm", response);
    }
    return {.personID = personA, .mergeEventIDs = {*response.mergeEventID}};
}

void RepositoryCore::rejectCandidateWrite(const IdentityCandidate& candidate,
                                          SubjectLineage subjectLineage,
                                          const std::string& subjectID, store::Connection& db) {
    const auto& membershipA = activeMembershipRow(candidate.sourceIdentityA.id, db);
    const auto& membershipB = activeMembershipRow(candidate.sourceIdentityB.id, db);
    if (membershipA && membershipB &&
        membershipA->canonicalPersonID != membershipB->canonicalPersonID) {
        const auto response = markDifferentCore(
            schema::MarkDifferentRequest{.reason = candidate.because,
                                         .presetValue = kPresetValue,
                                         .personIDA = membershipA->canonicalPersonID,
                                         .personIDB = membershipB->canonicalPersonID,
                                         .subjectID = subjectID,
                                         .subjectLineage = subjectLineage},
            db);
        if (response.refused) {
            throw correctionRefusal("reject", std::nullopt, response.taxonomy, response.message);
        }
        return;
    }
    // Rejecting two identities of one person records the fact but does not
    // separate them.
    const std::string now = currentTimestamp();
    db.run(kInsertIdentityDifferent,
           {newIdentifier(), candidate.sourceIdentityA.id, candidate.sourceIdentityB.id, now});
    db.run(kInsertIdentityDifferentCorrection,
           {newIdentifier(), candidate.sourceIdentityB.id,
            std::string(schema::rawValue(subjectLineage)), subjectID, now});
}

std::int64_t RepositoryCore::absorbedPersonCount(const std::string& operationID,
                                                 store::Connection& db) noexcept {
    try {
        return db.scalarInteger(kAbsorbedPersonCount, {operationID}).value_or(-1);
    } catch (...) {
        return -1;
    }
}

}  // namespace orvik::identity::internal
