// The repository frame: serialisation, one transaction per operation, the
// witness after commit, and the public reads.
#include "identity/IdentityRepository.h"

#include "identity/IdentityRepositoryInternal.h"

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
    SerialQueue::Turn turn(queue_);
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

}  // namespace orvik::identity
