#include "ui/CorrectionRepository.h"

namespace orvik::ui {

SerialIdentityRepository::SerialIdentityRepository(
    std::unique_ptr<id::IdentityRepository> repository)
    : repository_(std::move(repository)), executor_(std::make_unique<SerialExecutor>()) {}

SerialIdentityRepository::~SerialIdentityRepository() = default;

// Each call hands its arguments by value to the worker, so that they outlive the
// caller's suspension. These are plain functions returning the worker's task, not
// coroutines: g++ 12 destroys init-captured coroutine parameters twice. The repository pointer stays valid: the executor is
// destroyed (and drained) before it.

QCoro::Task<std::vector<id::IdentityCandidate>> SerialIdentityRepository::exactKeyCandidates(
    std::int64_t limit) {
    auto* r = repository_.get();
    return executor_->run([r, limit] { return r->exactKeyCandidates(limit); });
}

QCoro::Task<std::optional<id::IdentityCandidateContext>> SerialIdentityRepository::candidateContext(
    std::string sourceIdentityID, std::vector<std::string> relativeTo) {
    auto* r = repository_.get();
    return executor_->run(
        [r, sourceIdentityID = std::move(sourceIdentityID), relativeTo = std::move(relativeTo)] {
            return r->candidateContext(sourceIdentityID, relativeTo);
        });
}

QCoro::Task<std::vector<id::IdentityMembershipRow>> SerialIdentityRepository::activeMemberships(
    std::string personID) {
    auto* r = repository_.get();
    return executor_->run(
        [r, personID = std::move(personID)] { return r->activeMemberships(personID); });
}

QCoro::Task<std::optional<id::SourceIdentityRow>> SerialIdentityRepository::sourceIdentity(
    std::string id) {
    auto* r = repository_.get();
    return executor_->run([r, id = std::move(id)] { return r->sourceIdentity(id); });
}

QCoro::Task<std::optional<id::PersonRow>> SerialIdentityRepository::person(std::string id) {
    auto* r = repository_.get();
    return executor_->run([r, id = std::move(id)] { return r->person(id); });
}

QCoro::Task<std::vector<id::SourceIdentityRow>> SerialIdentityRepository::searchSourceIdentities(
    std::string query, std::int64_t limit, std::vector<std::string> excluding) {
    auto* r = repository_.get();
    return executor_->run(
        [r, query = std::move(query), limit, excluding = std::move(excluding)] {
            return r->searchSourceIdentities(query, limit, excluding);
        });
}

QCoro::Task<std::vector<id::LinkablePersonRow>> SerialIdentityRepository::searchUserStatedPeople(
    std::string query, std::int64_t limit, std::vector<std::string> excluding) {
    auto* r = repository_.get();
    return executor_->run(
        [r, query = std::move(query), limit, excluding = std::move(excluding)] {
            return r->searchUserStatedPeople(query, limit, excluding);
        });
}

QCoro::Task<id::IdentityConfirmResult> SerialIdentityRepository::confirmCandidate(
    id::IdentityCandidate candidate, id::SubjectLineage lineage, std::string subjectID) {
    auto* r = repository_.get();
    return executor_->run(
        [r, candidate = std::move(candidate), lineage, subjectID = std::move(subjectID)] {
            return r->confirmCandidate(candidate, lineage, subjectID);
        });
}

QCoro::Task<void> SerialIdentityRepository::rejectCandidate(id::IdentityCandidate candidate,
                                                            id::SubjectLineage lineage,
                                                            std::string subjectID) {
    auto* r = repository_.get();
    return executor_->run(
        [r, candidate = std::move(candidate), lineage, subjectID = std::move(subjectID)] {
            r->rejectCandidate(candidate, lineage, subjectID);
        });
}

QCoro::Task<id::IdentityConfirmResult> SerialIdentityRepository::confirmManualLink(
    id::SourceIdentityRow a, id::SourceIdentityRow b, id::SubjectLineage lineage,
    std::string subjectID) {
    auto* r = repository_.get();
    return executor_->run(
        [r, a = std::move(a), b = std::move(b), lineage, subjectID = std::move(subjectID)] {
            return r->confirmManualLink(a, b, lineage, subjectID);
        });
}

QCoro::Task<id::IdentityConfirmResult> SerialIdentityRepository::confirmManualLink(
    std::vector<id::ManualLinkTarget> targets, id::SubjectLineage lineage, std::string subjectID) {
    auto* r = repository_.get();
    return executor_->run(
        [r, targets = std::move(targets), lineage, subjectID = std::move(subjectID)] {
            return r->confirmManualLink(targets, lineage, subjectID);
        });
}

std::optional<id::ManualLinkSurvivorPrediction> SerialIdentityRepository::predictManualLinkSurvivor(
    const std::vector<id::ManualLinkTarget>& targets) {
    auto* r = repository_.get();
    return executor_->runAndWait([r, targets] { return r->predictManualLinkSurvivor(targets); });
}

QCoro::Task<id::IdentityConfirmResult> SerialIdentityRepository::separateIdentity(
    std::string sourceIdentityID, std::string subjectID) {
    auto* r = repository_.get();
    return executor_->run(
        [r, sourceIdentityID = std::move(sourceIdentityID), subjectID = std::move(subjectID)] {
            return r->separateIdentity(sourceIdentityID, subjectID);
        });
}

QCoro::Task<id::OwnerAliasDeclarationOutcome> SerialIdentityRepository::batchDeclareOwnerAlias(
    std::vector<std::string> sourceIdentityIDs, std::string subjectID) {
    auto* r = repository_.get();
    return executor_->run(
        [r, ids = std::move(sourceIdentityIDs), subjectID = std::move(subjectID)] {
            return r->batchDeclareOwnerAlias(ids, subjectID);
        });
}

QCoro::Task<std::vector<id::UndoMergeResult>> SerialIdentityRepository::undoConfirmation(
    std::vector<std::string> mergeEventIDs) {
    auto* r = repository_.get();
    return executor_->run(
        [r, ids = std::move(mergeEventIDs)] { return r->undoConfirmation(ids); });
}

QCoro::Task<void> SerialIdentityRepository::undoOwnerAliasMutation(
    id::OwnerAliasMutation mutation) {
    auto* r = repository_.get();
    return executor_->run(
        [r, mutation = std::move(mutation)] { r->undoOwnerAliasMutation(mutation); });
}

QCoro::Task<std::vector<id::IdentityHistoryEntry>> SerialIdentityRepository::identityHistory(
    std::string personID) {
    auto* r = repository_.get();
    return executor_->run(
        [r, personID = std::move(personID)] { return r->identityHistory(personID); });
}

}  // namespace orvik::ui
