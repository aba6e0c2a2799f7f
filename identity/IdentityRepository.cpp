// The repository frame: serialisation, one transaction per operation, the
// witness after commit, and the public reads.
#include "identity/IdentityRepository.h"

#include "identity/IdentityRepositoryInternal.h"
#include "identity/RepositoryAnswerCache.h"

#include <algorithm>
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

namespace internal {

// The arguments of a search, as its answer is kept under.
struct SearchKey {
    std::string query;
    std::int64_t limit = 0;
    std::vector<std::string> excluding;

    bool operator==(const SearchKey&) const = default;

    struct Hash {
        std::size_t operator()(const SearchKey& key) const noexcept {
            std::size_t hash =
                std::hash<std::string>{}(key.query) ^ std::hash<std::int64_t>{}(key.limit) * 31;
            for (const auto& id : key.excluding) {
                hash = hash * 131 + std::hash<std::string>{}(id);
            }
            return hash;
        }
    };
};

struct KeptAnswers {
    // Enough for a search typed and corrected letter by letter, and for the
    // histories of the people one goes through (a history is a few short entries).
    AnswerCache<SearchKey, std::vector<SourceIdentityRow>, SearchKey::Hash> identitySearches{32};
    AnswerCache<SearchKey, std::vector<LinkablePersonRow>, SearchKey::Hash> peopleSearches{32};
    AnswerCache<std::int64_t, std::vector<IdentityCandidate>> exactKeyCandidates{4};
    AnswerCache<std::string, std::vector<IdentityHistoryEntry>> histories{256};
};

}  // namespace internal

IdentityRepository::IdentityRepository(std::shared_ptr<store::DatabasePool> sharedDatabasePool,
                                       IdentityCorrectionWitness::Sink witnessSink,
                                       host::HostServices services,
                                       IdentityRepositoryOptions options)
    : pool_(std::move(sharedDatabasePool)),
      witnessSink_(std::move(witnessSink)),
      core_(std::make_unique<internal::RepositoryCore>(std::move(services))),
      options_(options),
      kept_(std::make_unique<internal::KeptAnswers>()) {}

IdentityRepository::~IdentityRepository() = default;

template <typename F>
auto IdentityRepository::readOperation(F&& fn) {
    SerialQueue::Turn turn(queue_);
    return pool_->read([&](store::Connection& db) { return fn(*core_, db); });
}

template <auto Method, typename... Args>
auto IdentityRepository::readCore(const Args&... args) {
    return readOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return (core.*Method)(args..., db);
    });
}

template <typename Cache, typename Key, typename Read>
auto IdentityRepository::keptOr(store::Connection& db, Cache& cache, Key key, const Read& read) {
    // A test's planned fault must meet the statements it counts on.
    if (!options_.keepRepeatedAnswers || db.faultPlanned()) {
        return read();
    }
    return cache.get(db.stamp(), std::move(key), read);
}

template <typename F>
auto IdentityRepository::writeOperation(F&& fn) {
    return pool_->write([&](store::Connection& db) { return fn(*core_, db); });
}

void IdentityRepository::emit(const IdentityCorrectionWitness::Event& event) const noexcept {
    if (!witnessSink_) {
        return;
    }
    try {
        witnessSink_(event);
    } catch (...) {
        // The correction is committed; a failing sink must not make the caller
        // believe otherwise (and retry it).
    }
}

std::optional<SourceIdentityRow> IdentityRepository::sourceIdentity(const std::string& id) {
    return readCore<&internal::RepositoryCore::readSourceIdentity>(id);
}

std::optional<PersonRow> IdentityRepository::person(const std::string& id) {
    return readCore<&internal::RepositoryCore::readPerson>(id);
}

std::optional<IdentityMembershipRow> IdentityRepository::activeMembership(
    const std::string& sourceIdentityID) {
    return readCore<&internal::RepositoryCore::readActiveMembership>(sourceIdentityID);
}

std::vector<IdentityMembershipRow> IdentityRepository::activeMemberships(
    const std::string& personID) {
    return readCore<&internal::RepositoryCore::readActiveMemberships>(personID);
}

std::optional<MergeEventRow> IdentityRepository::mergeEvent(const std::string& id) {
    return readCore<&internal::RepositoryCore::readMergeEvent>(id);
}

std::optional<MergeEventRow> IdentityRepository::latestUndoableMergeEvent(
    const std::string& personID) {
    return readCore<&internal::RepositoryCore::latestUndoableMergeEventRow>(personID);
}

std::optional<ResolvedPerson> IdentityRepository::resolveCanonicalPerson(
    const std::string& sourceIdentityID) {
    return readCore<&internal::RepositoryCore::resolveCanonicalPerson>(sourceIdentityID);
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
    auto undone =
        event(Witness::Kind::undoConfirmation, static_cast<std::int64_t>(mergeEventIDs.size()),
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

IdentityConfirmResult IdentityRepository::confirmManualLink(const SourceIdentityRow& a,
                                                            const SourceIdentityRow& b,
                                                            SubjectLineage subjectLineage,
                                                            const std::string& subjectID) {
    SerialQueue::Turn turn(queue_);
    const std::string operationID = newIdentifier();
    std::int64_t absorbed = 0;
    auto result = writeOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        auto linked = core.confirmManualLinkCore(a, b, operationID, subjectLineage, subjectID, db);
        absorbed = core.absorbedPersonCount(operationID, db);
        return linked;
    });
    emit(event(Witness::Kind::confirmManualLink, 2,
               static_cast<std::int64_t>(result.mergeEventIDs.size()), absorbed, operationID));
    return result;
}

IdentityConfirmResult IdentityRepository::batchConfirmManualLink(
    const std::vector<SourceIdentityRow>& rows, SubjectLineage subjectLineage,
    const std::string& subjectID) {
    if (rows.size() < 2) {
        throw IdentityStoreError::invalidArgs("batch confirm requires at least two identities");
    }
    SerialQueue::Turn turn(queue_);
    const std::string operationID = newIdentifier();
    std::int64_t absorbed = 0;
    auto result = writeOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        IdentityConfirmResult combined;
        for (std::size_t i = 1; i < rows.size(); ++i) {
            auto pair = core.confirmManualLinkCore(rows.front(), rows[i], operationID,
                                                   subjectLineage, subjectID, db);
            combined.personID = std::move(pair.personID);
            combined.mergeEventIDs.insert(combined.mergeEventIDs.end(), pair.mergeEventIDs.begin(),
                                          pair.mergeEventIDs.end());
        }
        absorbed = core.absorbedPersonCount(operationID, db);
        return combined;
    });
    emit(event(Witness::Kind::batchConfirmManualLink, static_cast<std::int64_t>(rows.size()),
               static_cast<std::int64_t>(result.mergeEventIDs.size()), absorbed, operationID));
    return result;
}

IdentityConfirmResult IdentityRepository::confirmManualLink(
    const std::vector<ManualLinkTarget>& targets, SubjectLineage subjectLineage,
    const std::string& subjectID) {
    std::vector<ManualLinkTarget> distinct;
    for (const auto& target : targets) {
        if (std::find(distinct.begin(), distinct.end(), target) == distinct.end()) {
            distinct.push_back(target);
        }
    }
    if (distinct.size() < 2) {
        throw IdentityStoreError::invalidArgs("manual link requires at least two distinct targets");
    }
    const bool anyPerson = std::any_of(distinct.begin(), distinct.end(), [](const auto& target) {
        return std::holds_alternative<ManualLinkTarget::Person>(target.value);
    });
    if (!anyPerson) {
        // Identities only: the batch form, which reports its own witness event.
        std::vector<SourceIdentityRow> rows;
        for (const auto& target : distinct) {
            rows.push_back(std::get<SourceIdentityRow>(target.value));
        }
        return batchConfirmManualLink(rows, subjectLineage, subjectID);
    }
    SerialQueue::Turn turn(queue_);
    const std::string operationID = newIdentifier();
    std::int64_t absorbed = 0;
    auto result = writeOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        auto linked =
            core.confirmManualLinkTargetsCore(distinct, operationID, subjectLineage, subjectID, db);
        absorbed = core.absorbedPersonCount(operationID, db);
        return linked;
    });
    emit(event(Witness::Kind::confirmManualLink, static_cast<std::int64_t>(distinct.size()),
               static_cast<std::int64_t>(result.mergeEventIDs.size()), absorbed, operationID));
    return result;
}

std::optional<ManualLinkSurvivorPrediction> IdentityRepository::predictManualLinkSurvivor(
    const std::vector<ManualLinkTarget>& targets) {
    return readCore<&internal::RepositoryCore::predictManualLinkSurvivor>(targets);
}

IdentityConfirmResult IdentityRepository::separateIdentity(const std::string& sourceIdentityID,
                                                           const std::string& subjectID) {
    SerialQueue::Turn turn(queue_);
    auto result = writeOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return core.separateIdentityCore(sourceIdentityID, subjectID, db);
    });
    emit(event(Witness::Kind::separateIdentity, 1,
               static_cast<std::int64_t>(result.mergeEventIDs.size())));
    return result;
}

OwnerAliasDeclarationOutcome IdentityRepository::declareOwnerAlias(
    const std::string& sourceIdentityID, const std::string& subjectID) {
    return batchDeclareOwnerAlias({sourceIdentityID}, subjectID);
}

OwnerAliasDeclarationOutcome IdentityRepository::batchDeclareOwnerAlias(
    const std::vector<std::string>& sourceIdentityIDs, const std::string& subjectID) {
    if (sourceIdentityIDs.empty()) {
        return {};
    }
    SerialQueue::Turn turn(queue_);
    auto outcome = writeOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return core.declareOwnerAliasCore(sourceIdentityIDs, subjectID, db);
    });
    emit(event(Witness::Kind::declareOwnerAlias,
               static_cast<std::int64_t>(sourceIdentityIDs.size())));
    return outcome;
}

void IdentityRepository::undoOwnerAliasMutation(const OwnerAliasMutation& mutation) {
    if (mutation.empty()) {
        return;
    }
    SerialQueue::Turn turn(queue_);
    writeOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        core.undoOwnerAliasMutationCore(mutation, db);
    });
    emit(event(Witness::Kind::undoOwnerAlias,
               static_cast<std::int64_t>(mutation.insertedAliases.size())));
}

namespace {

// Refuses a search whose inputs exceed what one statement can carry.
void checkSearchBounds(const std::string& query, std::size_t exclusions,
                       std::size_t maxExclusions) {
    if (query.size() > IdentityRepository::maxSearchQueryBytes) {
        throw IdentityStoreError::invalidArgs(
            "search query is " + std::to_string(query.size()) + " bytes long; at most " +
            std::to_string(IdentityRepository::maxSearchQueryBytes) + " bytes are searched");
    }
    if (exclusions > maxExclusions) {
        throw IdentityStoreError::invalidArgs("search excludes " + std::to_string(exclusions) +
                                              " identifiers; at most " +
                                              std::to_string(maxExclusions) + " can be excluded");
    }
}

}  // namespace

std::vector<SourceIdentityRow> IdentityRepository::searchSourceIdentities(
    const std::string& query, std::int64_t limit,
    const std::vector<std::string>& excludingSourceIdentityIDs) {
    checkSearchBounds(query, excludingSourceIdentityIDs.size(), maxSearchIdentityExclusions);
    return readOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return keptOr(db, kept_->identitySearches,
                      internal::SearchKey{query, limit, excludingSourceIdentityIDs}, [&] {
                          return core.searchSourceIdentities(query, limit,
                                                             excludingSourceIdentityIDs, db);
                      });
    });
}

std::vector<LinkablePersonRow> IdentityRepository::searchUserStatedPeople(
    const std::string& query, std::int64_t limit,
    const std::vector<std::string>& excludingPersonIDs) {
    checkSearchBounds(query, excludingPersonIDs.size(), maxSearchPersonExclusions);
    return readOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return keptOr(
            db, kept_->peopleSearches, internal::SearchKey{query, limit, excludingPersonIDs},
            [&] { return core.searchUserStatedPeople(query, limit, excludingPersonIDs, db); });
    });
}

std::vector<IdentityCandidate> IdentityRepository::exactKeyCandidates(std::int64_t limit) {
    return readOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return keptOr(db, kept_->exactKeyCandidates, limit,
                      [&] { return core.exactKeyCandidates(limit, db); });
    });
}

std::optional<IdentityCandidateContext> IdentityRepository::candidateContext(
    const std::string& sourceIdentityID, const std::vector<std::string>& relativeTo) {
    return readCore<&internal::RepositoryCore::candidateContext>(sourceIdentityID, relativeTo);
}

std::vector<IdentityHistoryEntry> IdentityRepository::identityHistory(const std::string& personID) {
    return readOperation([&](internal::RepositoryCore& core, store::Connection& db) {
        return keptOr(db, kept_->histories, personID,
                      [&] { return core.identityHistory(personID, db); });
    });
}

IdentityCorrectionCounts IdentityRepository::identityCorrectionsReadback() {
    SerialQueue::Turn turn(queue_);
    IdentityCorrectionCounts counts;
    // Two read transactions in sequence: a failing candidate section is recorded
    // rather than raised; the count section's errors are raised.
    try {
        counts.exactKeyCandidatePairs = pool_->read([&](store::Connection& db) {
            const auto candidates = keptOr(db, kept_->exactKeyCandidates, std::int64_t{50},
                                           [&] { return core_->exactKeyCandidates(50, db); });
            return static_cast<std::int64_t>(candidates.size());
        });
    } catch (...) {
        counts.exactKeyCandidatePairs.reset();
        counts.unavailableSections = {"exact_key_candidates"};
    }
    pool_->read([&](store::Connection& db) { core_->readbackCounts(counts, db); });
    return counts;
}

}  // namespace orvik::identity
