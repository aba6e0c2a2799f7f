// The repository frame: serialisation, one transaction per operation, the
// witness after commit, and the public reads.
#include "identity/IdentityRepository.h"

#include "identity/IdentityRepositoryInternal.h"

#include <utility>

namespace orvik::identity {

IdentityRepository::SerialQueue::Turn::Turn(SerialQueue& queue) : queue_(queue) {
    std::unique_lock lock(queue_.mutex_);
    const std::uint64_t ticket = queue_.nextTicket_++;
    queue_.turnChanged_.wait(lock, [&] { return queue_.serving_ == ticket; });
}

IdentityRepository::SerialQueue::Turn::~Turn() {
    {
        std::lock_guard lock(queue_.mutex_);
        ++queue_.serving_;
    }
    queue_.turnChanged_.notify_all();
}

IdentityRepository::IdentityRepository(std::shared_ptr<store::DatabasePool> sharedDatabasePool,
                                       IdentityCorrectionWitness::Sink witnessSink,
                                       host::HostServices services)
    : pool_(std::move(sharedDatabasePool)),
      witnessSink_(std::move(witnessSink)),
      core_(std::make_unique<internal::RepositoryCore>(std::move(services))) {}

IdentityRepository::~IdentityRepository() = default;

template <typename F>
auto IdentityRepository::readOperation(F&& fn) {
    SerialQueue::Turn turn(queue_);
    return pool_->read([&](store::Connection& db) { return fn(*core_, db); });
}

template <typename F>
auto IdentityRepository::writeOperation(F&& fn) {
    return pool_->write([&](store::Connection& db) { return fn(*core_, db); });
}

void IdentityRepository::emit(const IdentityCorrectionWitness::Event& event) const {
    if (witnessSink_) {
        witnessSink_(event);
    }
}

std::optional<SourceIdentityRow> IdentityRepository::sourceIdentity(const std::string& id) {
    return readOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return core.sourceIdentityRow(id, db);
    });
}

std::optional<PersonRow> IdentityRepository::person(const std::string& id) {
    return readOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return core.personRow(id, db);
    });
}

std::optional<IdentityMembershipRow> IdentityRepository::activeMembership(
    const std::string& sourceIdentityID) {
    return readOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return core.activeMembershipRow(sourceIdentityID, db);
    });
}

std::vector<IdentityMembershipRow> IdentityRepository::activeMemberships(
    const std::string& personID) {
    return readOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return core.activeMembershipRows(personID, db);
    });
}

std::optional<MergeEventRow> IdentityRepository::mergeEvent(const std::string& id) {
    return readOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return core.mergeEventRow(id, db);
    });
}

std::optional<MergeEventRow> IdentityRepository::latestUndoableMergeEvent(
    const std::string& personID) {
    return readOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return core.latestUndoableMergeEventRow(personID, db);
    });
}

std::optional<ResolvedPerson> IdentityRepository::resolveCanonicalPerson(
    const std::string& sourceIdentityID) {
    return readOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return core.resolveCanonicalPerson(sourceIdentityID, db);
    });
}

using Witness = IdentityCorrectionWitness;

namespace {

Witness::Event event(Witness::Kind kind, std::int64_t identities, std::int64_t mergeEvents = 0,
                     std::int64_t absorbed = 0, std::optional<std::string> operationID = {}) {
    return Witness::Event{.kind = kind,
                          .identityCount = identities,
                          .mergeEventCount = mergeEvents,
                          .absorbedPersonCount = absorbed,
                          .restoredPersonCount = 0,
                          .restoredMembershipCount = 0,
                          .operationID = std::move(operationID)};
}

}  // namespace

schema::LinkIdentityResponse IdentityRepository::linkIdentity(
    const schema::LinkIdentityRequest& request) {
    SerialQueue::Turn turn(queue_);
    const std::string operationID = newIdentifier();
    return writeOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return core.linkIdentityCore(request, operationID, {}, db);
    });
}

schema::ProposeMergeResponse IdentityRepository::proposeMerge(
    const schema::ProposeMergeRequest& request) {
    SerialQueue::Turn turn(queue_);
    const std::string operationID = newIdentifier();
    return writeOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return core.proposeMergeCore(request, operationID, {}, db);
    });
}

schema::MarkDifferentResponse IdentityRepository::markDifferent(
    const schema::MarkDifferentRequest& request) {
    SerialQueue::Turn turn(queue_);
    auto response = writeOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return core.markDifferentCore(request, db);
    });
    if (response.constraintID) {
        emit(event(Witness::Kind::markDifferent, 2));
    }
    return response;
}

IdentityConfirmResult IdentityRepository::confirmCandidate(const IdentityCandidate& candidate,
                                                           SubjectLineage subjectLineage,
                                                           const std::string& subjectID) {
    SerialQueue::Turn turn(queue_);
    const std::string operationID = newIdentifier();
    std::int64_t absorbed = 0;
    auto result = writeOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        auto confirmed =
            core.confirmCandidateCore(candidate, operationID, subjectLineage, subjectID, {}, db);
        absorbed = core.absorbedPersonCount(operationID, db);
        return confirmed;
    });
    emit(event(Witness::Kind::confirmCandidate, 2,
               static_cast<std::int64_t>(result.mergeEventIDs.size()), absorbed, operationID));
    return result;
}

void IdentityRepository::rejectCandidate(const IdentityCandidate& candidate,
                                         SubjectLineage subjectLineage,
                                         const std::string& subjectID) {
    SerialQueue::Turn turn(queue_);
    writeOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        core.rejectCandidateWrite(candidate, subjectLineage, subjectID, db);
    });
    emit(event(Witness::Kind::rejectCandidate, 2));
}

std::vector<UndoMergeResult> IdentityRepository::undoConfirmation(
    const std::vector<std::string>& mergeEventIDs) {
    SerialQueue::Turn turn(queue_);
    auto results = writeOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return core.undoConfirmationCore(mergeEventIDs, db);
    });
    auto undone = event(Witness::Kind::undoConfirmation,
                        static_cast<std::int64_t>(mergeEventIDs.size()),
                        static_cast<std::int64_t>(results.size()));
    for (const auto& result : results) {
        undone.restoredPersonCount += result.restoredPersonID ? 1 : 0;
        undone.restoredMembershipCount += result.restoredMembershipCount;
    }
    emit(undone);
    return results;
}

UndoMergeResult IdentityRepository::undoMerge(const std::string& mergeEventID) {
    auto results = undoConfirmation({mergeEventID});
    if (results.empty()) {
        throw IdentityStoreError::notFound(mergeEventID);
    }
    return results.front();
}

}  // namespace orvik::identity
