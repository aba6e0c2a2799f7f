// IdentityRepository: the one object through which the application reads and
// corrects identities.
//
// It is constructed over the application's database pool, a witness sink and the
// host services, all fixed for its lifetime. Every answer is the database's at the
// time of the call. The larger reads the screens repeat (the two searches, the
// exact-key scan, a person's history and the readback's candidate count) keep
// their answers while the database stays unchanged: asked again with the same
// arguments before anything, in this process or another, committed to the file,
// they answer from memory (see IdentityRepositoryOptions).
//
// Operations are synchronous and safe to call from any thread. The repository
// runs them one at a time, in the order of the calls. Each opens exactly one
// transaction of the pool (a read transaction for reads) and either returns its
// result or throws; a thrown error has rolled everything back and emitted no
// witness event. Errors are IdentityStoreError or store::DatabaseError.
//
// Errors. Every operation may throw store::DatabaseError (SQLite's code, message
// and statement: a busy or locked database, a full disk, a broken file). Below,
// "Throws" lists the IdentityStoreError cases an operation raises on its own; any
// read of a stored state or decided-by text that is not one of its known values
// raises corruptRestoreMap in every operation.
//
// Witness. After each committed correction the sink given at construction is
// called once, on the calling thread, while this repository's turn is still held:
// a sink that calls back into the same repository waits for itself forever. What a
// sink throws is caught and dropped; the operation returns its result, since the
// correction has committed (see IdentityCorrectionWitness.h).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/HostServices.h"
#include "identity/IdentityCorrectionWitness.h"
#include "identity/IdentityModels.h"
#include "store/Database.h"

namespace orvik::identity {

namespace internal {
class RepositoryCore;
struct KeptAnswers;
}  // namespace internal

struct IdentityRepositoryOptions {
    // Keep the answers of the larger reads while the database does not change. A
    // kept answer is only right while the host services answer from the database
    // alone (as the connection they are given says they do): an application whose
    // eligibility fragments, user's person or aliases change without a commit to
    // the file turns this off.
    bool keepRepeatedAnswers = true;
};

class IdentityRepository {
  public:
    IdentityRepository(
        std::shared_ptr<store::DatabasePool> sharedDatabasePool,
        IdentityCorrectionWitness::Sink witnessSink = &IdentityCorrectionWitness::unifiedLogSink,
        host::HostServices services = host::HostServices::reference(),
        IdentityRepositoryOptions options = {});
    ~IdentityRepository();
    IdentityRepository(const IdentityRepository&) = delete;
    IdentityRepository& operator=(const IdentityRepository&) = delete;

    // --- Reads. Missing rows are not errors: they give an absent result or an
    // empty list. A stored state or decided-by text that is not one of its known
    // values fails the read with corruptRestoreMap.

    std::optional<SourceIdentityRow> sourceIdentity(const std::string& id);
    // An absorbed person is returned as stored.
    std::optional<PersonRow> person(const std::string& id);
    // The identity's active membership (at most one is expected).
    std::optional<IdentityMembershipRow> activeMembership(const std::string& sourceIdentityID);
    std::vector<IdentityMembershipRow> activeMemberships(const std::string& personID);
    std::optional<MergeEventRow> mergeEvent(const std::string& id);
    // The newest unreversed event in which the person survived or was absorbed;
    // among events of the same second, the one written last.
    std::optional<MergeEventRow> latestUndoableMergeEvent(const std::string& personID);
    // The person an identity belongs to, following absorptions to the live head,
    // with the state, decider and reason of the identity's own membership.
    std::optional<ResolvedPerson> resolveCanonicalPerson(const std::string& sourceIdentityID);

    // --- Corrections. Each runs in one write transaction; an error rolls back
    // everything, including stub persons and revoked constraints, and emits no
    // witness event.

    // Links an identity to a person for a programmatic caller. Refusals (missing
    // identity or person, a blocking constraint, an unconfirmed request, a failed
    // post-condition) are responses. No witness event.
    // Throws ownerIdentityUnmergeable for one of the user's own handles,
    // supersededByLaterCorrection when a constraint it revokes changed under it.
    schema::LinkIdentityResponse linkIdentity(const schema::LinkIdentityRequest& request);
    // Absorbs request.personIDB into request.personIDA. Refusals are responses. No
    // witness event. Throws ownerIdentityUnmergeable when either is the user's person.
    schema::ProposeMergeResponse proposeMerge(const schema::ProposeMergeRequest& request);
    // Declares two persons different, first undoing the merge that joins them when
    // they are one person at present. Refusals are responses; a witness event only
    // when a constraint was written. Throws what undoMerge throws for that merge.
    schema::MarkDifferentResponse markDifferent(const schema::MarkDifferentRequest& request);
    // Puts the candidate's two identities under one person: a new stub person, a
    // link into the other's person, nothing, or a merge (A's person survives).
    // Throws ownerIdentityUnmergeable for the user's own handles or person;
    // blockedDifferent when they were marked different; excluded or notFound (with
    // the refusal's message) or invalidArgs("confirm failed: ...") for the other
    // refusals of the link or merge.
    IdentityConfirmResult confirmCandidate(const IdentityCandidate& candidate,
                                           SubjectLineage subjectLineage,
                                           const std::string& subjectID);
    // Records that the candidate's identities are different: between their persons
    // when they have two, else between the identities. Throws notFound, excluded or
    // invalidArgs("reject failed: ...") when the constraint is refused.
    void rejectCandidate(const IdentityCandidate& candidate, SubjectLineage subjectLineage,
                         const std::string& subjectID);

    // --- Undo.

    // Undoes the events, in the given order, all or nothing; then writes the
    // no-reabsorption guard. An empty list changes nothing (and still emits an
    // event with zero counts). Throws notFound(id) for an unknown event,
    // alreadyReversed, supersededByLaterCorrection when a later correction touched
    // the same rows, restoreSnapshotIncomplete for an event without a usable
    // snapshot, corruptRestoreMap for a snapshot that does not decode.
    std::vector<UndoMergeResult> undoConfirmation(const std::vector<std::string>& mergeEventIDs);
    // undoConfirmation of one event.
    UndoMergeResult undoMerge(const std::string& mergeEventID);

    // --- Manual link. Overrides earlier decisions: every live different-person
    // constraint among the subjects is revoked first.

    // Links two identities as the user directed. Throws ownerIdentityUnmergeable,
    // and the refusals of confirmCandidate.
    IdentityConfirmResult confirmManualLink(const SourceIdentityRow& a, const SourceIdentityRow& b,
                                            SubjectLineage subjectLineage,
                                            const std::string& subjectID);
    // Links every row with the first, pair by pair, in one transaction. Fewer than
    // two rows: invalidArgs before anything is opened; otherwise as
    // confirmManualLink.
    IdentityConfirmResult batchConfirmManualLink(const std::vector<SourceIdentityRow>& rows,
                                                 SubjectLineage subjectLineage,
                                                 const std::string& subjectID);
    // Links identities and persons; the surviving person is chosen by
    // predictManualLinkSurvivor's rule. Only identities: a batch link. Throws
    // invalidArgs for fewer than two distinct targets or when none resolves to a
    // person, notFound(id) for a person that is gone, ownerIdentityUnmergeable, and
    // the refusals of confirmCandidate.
    IdentityConfirmResult confirmManualLink(const std::vector<ManualLinkTarget>& targets,
                                            SubjectLineage subjectLineage,
                                            const std::string& subjectID);
    // Which person a manual link of these targets would keep; absent when no
    // target resolves to a person. Reads only.
    std::optional<ManualLinkSurvivorPrediction> predictManualLinkSurvivor(
        const std::vector<ManualLinkTarget>& targets);

    // --- Separation.

    // Moves the identity out of its person into a new stub person, marked different
    // from the identities that stay. Throws notFound(id) for an unknown identity,
    // cannotSeparateSoleIdentity for an identity without a person or the only
    // identity of its person, ownerIdentityUnmergeable for one of the user's own handles.
    IdentityConfirmResult separateIdentity(const std::string& sourceIdentityID,
                                           const std::string& subjectID);

    // --- Owner aliases. Nothing to do (an empty list or mutation): no transaction
    // and no witness event. A declaration throws notFound(id) for an unknown
    // identity.

    OwnerAliasDeclarationOutcome declareOwnerAlias(const std::string& sourceIdentityID,
                                                   const std::string& subjectID);
    OwnerAliasDeclarationOutcome batchDeclareOwnerAlias(
        const std::vector<std::string>& sourceIdentityIDs, const std::string& subjectID);
    void undoOwnerAliasMutation(const OwnerAliasMutation& mutation);

    // --- Reads for the correction screens.

    // The most a search takes: longer queries and longer exclusion lists are refused
    // with invalidArgs before anything is read (each exclusion is a parameter of
    // one statement, and SQLite bounds both a statement's parameters and a LIKE
    // pattern).
    static constexpr std::size_t maxSearchQueryBytes = 1000;
    static constexpr std::size_t maxSearchIdentityExclusions = 400;
    static constexpr std::size_t maxSearchPersonExclusions = 900;

    // Literal, case-insensitive substring search; a blank query matches everything.
    // Drops identities marked different from an excluded one. limit < 1 counts as 1.
    std::vector<SourceIdentityRow> searchSourceIdentities(
        const std::string& query, std::int64_t limit,
        const std::vector<std::string>& excludingSourceIdentityIDs);
    // Persons the user named, never the user's own, never one marked different from
    // an excluded person.
    std::vector<LinkablePersonRow> searchUserStatedPeople(
        const std::string& query, std::int64_t limit,
        const std::vector<std::string>& excludingPersonIDs);
    std::vector<IdentityCandidate> exactKeyCandidates(std::int64_t limit);
    std::optional<IdentityCandidateContext> candidateContext(
        const std::string& sourceIdentityID, const std::vector<std::string>& relativeTo);
    // The person's corrections, one entry per operation, oldest first.
    std::vector<IdentityHistoryEntry> identityHistory(const std::string& personID);
    // Diagnostic counts; an unavailable candidate section is reported in the record.
    IdentityCorrectionCounts identityCorrectionsReadback();

  private:
    // Runs fn(core, connection) in a read transaction, serialised with every other
    // operation of this repository.
    template <typename F>
    auto readOperation(F&& fn);
    // Runs the core read Method(args..., connection) as a read operation.
    template <auto Method, typename... Args>
    auto readCore(const Args&... args);
    // read(), or the answer kept for key in cache (see IdentityRepositoryOptions).
    template <typename Cache, typename Key, typename Read>
    auto keptOr(store::Connection& db, Cache& cache, Key key, const Read& read);
    // Runs fn(core, connection) in a write transaction; the caller holds its turn.
    template <typename F>
    auto writeOperation(F&& fn);
    // Calls the sink after a commit; drops whatever it throws.
    void emit(const IdentityCorrectionWitness::Event& event) const noexcept;

    // A first-come, first-served turn: operations run in the order they arrive.
    class SerialQueue {
      public:
        class Turn {
          public:
            explicit Turn(SerialQueue& queue);
            ~Turn();
            Turn(const Turn&) = delete;
            Turn& operator=(const Turn&) = delete;

          private:
            SerialQueue& queue_;
        };

      private:
        std::mutex mutex_;
        std::condition_variable turnChanged_;
        std::uint64_t nextTicket_ = 0;
        std::uint64_t serving_ = 0;
    };

    std::shared_ptr<store::DatabasePool> pool_;
    IdentityCorrectionWitness::Sink witnessSink_;
    std::unique_ptr<internal::RepositoryCore> core_;
    IdentityRepositoryOptions options_;
    // Used only while holding a turn.
    std::unique_ptr<internal::KeptAnswers> kept_;
    mutable SerialQueue queue_;
};

}  // namespace orvik::identity
