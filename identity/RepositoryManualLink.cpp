// The manual link: the user's statement that several identities and persons are
// one person. It revokes every live "different" constraint among them first, keeps
// the person chosen by a fixed survivor rule, merges the other persons into it and
// links the identities that had no person.
#include <algorithm>
#include <map>
#include <utility>

#include "identity/IdentityRepositoryInternal.h"

namespace orvik::identity::internal {

namespace {

// Statement texts are passed to SQLite exactly as written here; the statement
// cache is keyed by them.
constexpr std::int64_t kPresetValue = 3000;
const std::string kUserDirected = "user_directed";

void appendUnique(std::vector<std::string>& list, const std::string& value) {
    if (std::find(list.begin(), list.end(), value) == list.end()) {
        list.push_back(value);
    }
}

}  // namespace

IdentityConfirmResult RepositoryCore::confirmManualLinkCore(
    const SourceIdentityRow& a, const SourceIdentityRow& b, const std::string& operationID,
    SubjectLineage subjectLineage, const std::string& subjectID, store::Connection& db) {
    for (const auto* identity : {&a, &b}) {
        if (isOwnerIdentity(identity->sourceType, identity->handleNormalized, db)) {
            throw IdentityStoreError(IdentityStoreError::Case::ownerIdentityUnmergeable);
        }
        if (const auto& membership = activeMembershipRow(identity->id, db);
            membership && personContainsOwnerIdentity(membership->canonicalPersonID, db)) {
            throw IdentityStoreError(IdentityStoreError::Case::ownerIdentityUnmergeable);
        }
    }
    const std::string now = currentTimestamp();
    std::optional<std::string> personA;
    std::optional<std::string> personB;
    if (const auto& membership = activeMembershipRow(a.id, db)) {
        personA = membership->canonicalPersonID;
    }
    if (const auto& membership = activeMembershipRow(b.id, db)) {
        personB = membership->canonicalPersonID;
    }
    std::vector<std::string> revoked;
    if (!(personA && personB && *personA == *personB)) {
        revoked = revokeLiveDifferentConstraints(a.id, b.id, personA, personB, now, db);
    }
    const IdentityCandidate candidate{
        .sourceIdentityA = a,
        .sourceIdentityB = b,
        .existingPersonID = personA ? personA : personB,
        .score = 1.0,
        .because = kUserDirected,
    };
    return confirmCandidateCore(candidate, operationID, subjectLineage, subjectID, revoked, db);
}

IdentityConfirmResult RepositoryCore::confirmManualLinkTargetsCore(
    const std::vector<ManualLinkTarget>& targets, const std::string& operationID,
    SubjectLineage subjectLineage, const std::string& subjectID, store::Connection& db) {
    const std::string now = currentTimestamp();
    std::vector<SourceIdentityRow> identityRows;
    std::vector<std::string> personHeads;
    std::vector<SourceIdentityRow> unaffiliated;
    for (const auto& target : targets) {
        if (const auto* row = std::get_if<SourceIdentityRow>(&target.value)) {
            identityRows.push_back(*row);
        }
        auto side = resolveManualLinkSide(target, db);
        if (const auto* head = side.personHead()) {
            appendUnique(personHeads, *head);
        } else if (auto* row = std::get_if<SourceIdentityRow>(&side.value)) {
            unaffiliated.push_back(std::move(*row));
        }
    }
    const auto survivor = manualLinkSurvivor(personHeads, db);
    if (!survivor) {
        throw IdentityStoreError::invalidArgs("manual link resolved to no person");
    }

    std::vector<std::string> revoked;
    if (personHeads.size() >= 2 || !unaffiliated.empty()) {
        constexpr auto identity = ConstraintSubjectType::identity;
        constexpr auto person = ConstraintSubjectType::person;
        std::vector<std::string> collected;
        for (std::size_t i = 0; i < identityRows.size(); ++i) {
            for (std::size_t j = i + 1; j < identityRows.size(); ++j) {
                appendLiveDifferentConstraintIDs(identity, identityRows[i].id, identity,
                                                 identityRows[j].id, collected, db);
            }
            for (const auto& head : personHeads) {
                appendLiveDifferentConstraintIDs(identity, identityRows[i].id, person, head,
                                                 collected, db);
            }
        }
        for (std::size_t k = 0; k < personHeads.size(); ++k) {
            for (std::size_t l = k + 1; l < personHeads.size(); ++l) {
                auto ids = livePersonPairDifferentConstraintIDs(personHeads[k], personHeads[l], db);
                collected.insert(collected.end(), ids.begin(), ids.end());
            }
        }
        revoked = revokeDifferentConstraintRows(collected, now, db);
    }

    // The revoked constraints are recorded with the first event written, which is
    // the first merge when there is one and otherwise the first link.
    std::vector<std::string> mergeEventIDs;
    for (const auto& head : personHeads) {
        if (head == *survivor) {
            continue;
        }
        const auto response = proposeMergeCore(
            schema::ProposeMergeRequest{.presetValue = kPresetValue,
                                        .personIDA = *survivor,
                                        .personIDB = head,
                                        .subjectID = subjectID,
                                        .subjectLineage = subjectLineage,
                                        .confirmed = true},
            operationID, mergeEventIDs.empty() ? revoked : std::vector<std::string>{}, db);
        using Status = schema::ProposeMergeResponse::Status;
        if (response.status != Status::merged || !response.mergeEventID) {
            throwRefusal("confirm", response);
        }
        mergeEventIDs.push_back(*response.mergeEventID);
    }
    const bool mergeWritten = !mergeEventIDs.empty();
    for (std::size_t i = 0; i < unaffiliated.size(); ++i) {
        const bool recordsRevoked = i == 0 && !mergeWritten;
        const auto response = linkIdentityCore(
            schema::LinkIdentityRequest{
                .personID = *survivor, .sourceIdentityID = unaffiliated[i].id, .confirmed = true},
            operationID, recordsRevoked ? revoked : std::vector<std::string>{}, db);
        using Status = schema::LinkIdentityResponse::Status;
        if (response.status != Status::linked || !response.mergeEventID) {
            throwRefusal("confirm", response);
        }
        mergeEventIDs.push_back(*response.mergeEventID);
    }
    return IdentityConfirmResult{.personID = *survivor, .mergeEventIDs = std::move(mergeEventIDs)};
}

RepositoryCore::ResolvedManualLinkSide RepositoryCore::resolveManualLinkSide(
    const ManualLinkTarget& target, store::Connection& db) {
    if (const auto* person = std::get_if<ManualLinkTarget::Person>(&target.value)) {
        std::string head = absorptionChainHead(person->id, db);
        if (!personRow(head, db)) {
            throw IdentityStoreError::notFound(person->id);
        }
        if (personContainsOwnerIdentity(head, db)) {
            throw IdentityStoreError(IdentityStoreError::Case::ownerIdentityUnmergeable);
        }
        return {std::move(head)};
    }
    const auto& row = std::get<SourceIdentityRow>(target.value);
    if (isOwnerIdentity(row.sourceType, row.handleNormalized, db)) {
        throw IdentityStoreError(IdentityStoreError::Case::ownerIdentityUnmergeable);
    }
    const auto& membership = activeMembershipRow(row.id, db);
    if (!membership) {
        return {row};
    }
    std::string head = absorptionChainHead(membership->canonicalPersonID, db);
    if (personContainsOwnerIdentity(head, db)) {
        throw IdentityStoreError(IdentityStoreError::Case::ownerIdentityUnmergeable);
    }
    return {std::move(head)};
}

std::optional<std::string> RepositoryCore::manualLinkSurvivor(
    const std::vector<std::string>& personHeads, store::Connection& db) {
    if (personHeads.empty()) {
        return std::nullopt;
    }
    std::string best = personHeads.front();
    for (std::size_t i = 1; i < personHeads.size(); ++i) {
        const std::string& challenger = personHeads[i];
        const bool bestHasMembers = !activeMembershipRows(best, db).empty();
        const bool challengerHasMembers = !activeMembershipRows(challenger, db).empty();
        if (bestHasMembers != challengerHasMembers) {
            if (challengerHasMembers) {
                best = challenger;
            }
            continue;
        }
        const auto& bestRow = personRow(best, db);
        if (!bestRow) {
            throw IdentityStoreError::notFound(best);
        }
        const auto& challengerRow = personRow(challenger, db);
        if (!challengerRow) {
            throw IdentityStoreError::notFound(challenger);
        }
        // Plain ordinal comparisons: the earlier creation, then the smaller id.
        if (challengerRow->createdAt != bestRow->createdAt) {
            if (challengerRow->createdAt < bestRow->createdAt) {
                best = challenger;
            }
        } else if (challenger < best) {
            best = challenger;
        }
    }
    return best;
}

std::optional<ManualLinkSurvivorPrediction> RepositoryCore::predictManualLinkSurvivor(
    const std::vector<ManualLinkTarget>& targets, store::Connection& db) {
    std::vector<std::string> heads;
    std::map<std::string, std::vector<ManualLinkTarget>> targetsByHead;
    for (const auto& target : targets) {
        const auto side = resolveManualLinkSide(target, db);
        if (const auto* head = side.personHead()) {
            appendUnique(heads, *head);
            targetsByHead[*head].push_back(target);
        }
    }
    const auto survivor = manualLinkSurvivor(heads, db);
    if (!survivor) {
        return std::nullopt;
    }
    auto found = targetsByHead.find(*survivor);
    return ManualLinkSurvivorPrediction{
        .targets = targets,
        .personID = *survivor,
        .survivorTargets = found != targetsByHead.end() ? std::move(found->second)
                                                        : std::vector<ManualLinkTarget>{},
    };
}

}  // namespace orvik::identity::internal
