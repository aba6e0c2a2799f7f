// What the view-models need of the store, as awaitable operations.
//
// IdentityCorrectionRepository is the seam between the view-models and the
// database: SerialIdentityRepository runs each call of an IdentityRepository on
// the serial worker (never on the calling thread) and resumes the caller on its
// own thread with the result or the repository's exception; tests put a fake
// behind the same interface whose calls complete when the test says so.
//
// Every operation has the contract of the IdentityRepository operation of the
// same name (identity/IdentityRepository.h). Calls run in the order they are made.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <QCoro/QCoroTask>

#include "identity/IdentityModels.h"
#include "identity/IdentityRepository.h"
#include "ui/SerialExecutor.h"

namespace orvik::ui {

namespace id = orvik::identity;

class IdentityCorrectionRepository {
  public:
    virtual ~IdentityCorrectionRepository() = default;

    virtual QCoro::Task<std::vector<id::IdentityCandidate>> exactKeyCandidates(
        std::int64_t limit) = 0;
    virtual QCoro::Task<std::optional<id::IdentityCandidateContext>> candidateContext(
        std::string sourceIdentityID, std::vector<std::string> relativeTo) = 0;
    virtual QCoro::Task<std::vector<id::IdentityMembershipRow>> activeMemberships(
        std::string personID) = 0;
    virtual QCoro::Task<std::optional<id::SourceIdentityRow>> sourceIdentity(std::string id) = 0;
    virtual QCoro::Task<std::optional<id::PersonRow>> person(std::string id) = 0;
    virtual QCoro::Task<std::vector<id::SourceIdentityRow>> searchSourceIdentities(
        std::string query, std::int64_t limit, std::vector<std::string> excluding) = 0;
    virtual QCoro::Task<std::vector<id::LinkablePersonRow>> searchUserStatedPeople(
        std::string query, std::int64_t limit, std::vector<std::string> excluding) = 0;
    virtual QCoro::Task<id::IdentityConfirmResult> confirmCandidate(id::IdentityCandidate candidate,
                                                                    id::SubjectLineage lineage,
                                                                    std::string subjectID) = 0;
    virtual QCoro::Task<void> rejectCandidate(id::IdentityCandidate candidate,
                                              id::SubjectLineage lineage,
                                              std::string subjectID) = 0;
    virtual QCoro::Task<id::IdentityConfirmResult> confirmManualLink(id::SourceIdentityRow a,
                                                                     id::SourceIdentityRow b,
                                                                     id::SubjectLineage lineage,
                                                                     std::string subjectID) = 0;
    virtual QCoro::Task<id::IdentityConfirmResult> confirmManualLink(
        std::vector<id::ManualLinkTarget> targets, id::SubjectLineage lineage,
        std::string subjectID) = 0;
    // Synchronous by contract: the one call that blocks its caller until the
    // worker has answered (a read).
    virtual std::optional<id::ManualLinkSurvivorPrediction> predictManualLinkSurvivor(
        const std::vector<id::ManualLinkTarget>& targets) = 0;
    virtual QCoro::Task<id::IdentityConfirmResult> separateIdentity(std::string sourceIdentityID,
                                                                    std::string subjectID) = 0;
    virtual QCoro::Task<id::OwnerAliasDeclarationOutcome> batchDeclareOwnerAlias(
        std::vector<std::string> sourceIdentityIDs, std::string subjectID) = 0;
    virtual QCoro::Task<std::vector<id::UndoMergeResult>> undoConfirmation(
        std::vector<std::string> mergeEventIDs) = 0;
    virtual QCoro::Task<void> undoOwnerAliasMutation(id::OwnerAliasMutation mutation) = 0;
    virtual QCoro::Task<std::vector<id::IdentityHistoryEntry>> identityHistory(
        std::string personID) = 0;
};

// The interface over a real repository and its serial worker. Owns both; the
// worker finishes the work already submitted before the repository goes.
class SerialIdentityRepository final : public IdentityCorrectionRepository {
  public:
    explicit SerialIdentityRepository(std::unique_ptr<id::IdentityRepository> repository);
    ~SerialIdentityRepository() override;

    [[nodiscard]] SerialExecutor& executor() noexcept { return *executor_; }

    QCoro::Task<std::vector<id::IdentityCandidate>> exactKeyCandidates(std::int64_t limit) override;
    QCoro::Task<std::optional<id::IdentityCandidateContext>> candidateContext(
        std::string sourceIdentityID, std::vector<std::string> relativeTo) override;
    QCoro::Task<std::vector<id::IdentityMembershipRow>> activeMemberships(
        std::string personID) override;
    QCoro::Task<std::optional<id::SourceIdentityRow>> sourceIdentity(std::string id) override;
    QCoro::Task<std::optional<id::PersonRow>> person(std::string id) override;
    QCoro::Task<std::vector<id::SourceIdentityRow>> searchSourceIdentities(
        std::string query, std::int64_t limit, std::vector<std::string> excluding) override;
    QCoro::Task<std::vector<id::LinkablePersonRow>> searchUserStatedPeople(
        std::string query, std::int64_t limit, std::vector<std::string> excluding) override;
    QCoro::Task<id::IdentityConfirmResult> confirmCandidate(id::IdentityCandidate candidate,
                                                            id::SubjectLineage lineage,
                                                            std::string subjectID) override;
    QCoro::Task<void> rejectCandidate(id::IdentityCandidate candidate, id::SubjectLineage lineage,
                                      std::string subjectID) override;
    QCoro::Task<id::IdentityConfirmResult> confirmManualLink(id::SourceIdentityRow a,
                                                             id::SourceIdentityRow b,
                                                             id::SubjectLineage lineage,
                                                             std::string subjectID) override;
    QCoro::Task<id::IdentityConfirmResult> confirmManualLink(
        std::vector<id::ManualLinkTarget> targets, id::SubjectLineage lineage,
        std::string subjectID) override;
    std::optional<id::ManualLinkSurvivorPrediction> predictManualLinkSurvivor(
        const std::vector<id::ManualLinkTarget>& targets) override;
    QCoro::Task<id::IdentityConfirmResult> separateIdentity(std::string sourceIdentityID,
                                                            std::string subjectID) override;
    QCoro::Task<id::OwnerAliasDeclarationOutcome> batchDeclareOwnerAlias(
        std::vector<std::string> sourceIdentityIDs, std::string subjectID) override;
    QCoro::Task<std::vector<id::UndoMergeResult>> undoConfirmation(
        std::vector<std::string> mergeEventIDs) override;
    QCoro::Task<void> undoOwnerAliasMutation(id::OwnerAliasMutation mutation) override;
    QCoro::Task<std::vector<id::IdentityHistoryEntry>> identityHistory(
        std::string personID) override;

  private:
    std::unique_ptr<id::IdentityRepository> repository_;
    // Declared after the repository so that it is destroyed first: its destructor
    // waits for submitted work, which still uses the repository.
    std::unique_ptr<SerialExecutor> executor_;
};

}  // namespace orvik::ui
