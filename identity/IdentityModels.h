// The vocabulary of the identity store: the records that mirror its tables, the
// enumerations stored as fixed texts, the result records of the repository, the
// merge pre-state snapshot and the one error type of the store.
//
// Every record is a plain value owned by whoever holds it.
#pragma once

#include <cstdint>
#include <exception>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "host/OrvikSchema.h"

namespace orvik::identity {

using schema::SubjectLineage;
using schema::Taxonomy;

// ---------------------------------------------------------------------------
// Enumerations. Each is stored as a fixed text; parsing is exact and
// case-sensitive and gives no value for any other text.

enum class MembershipState { possible, highConf, confirmed };
enum class DecidedBy { automatic, user, agentAndUser };
enum class ConstraintSubjectType { person, identity };
enum class ConstraintKind { same, different };

// "possible", "high_conf", "confirmed"
[[nodiscard]] std::string_view rawValue(MembershipState value) noexcept;
// "auto", "user", "agent+user"
[[nodiscard]] std::string_view rawValue(DecidedBy value) noexcept;
// "person", "identity"
[[nodiscard]] std::string_view rawValue(ConstraintSubjectType value) noexcept;
// "same", "different"
[[nodiscard]] std::string_view rawValue(ConstraintKind value) noexcept;

[[nodiscard]] std::optional<MembershipState> parseMembershipState(std::string_view text) noexcept;
[[nodiscard]] std::optional<DecidedBy> parseDecidedBy(std::string_view text) noexcept;
[[nodiscard]] std::optional<ConstraintSubjectType> parseConstraintSubjectType(
    std::string_view text) noexcept;
[[nodiscard]] std::optional<ConstraintKind> parseConstraintKind(std::string_view text) noexcept;

// ---------------------------------------------------------------------------
// Store records.

// A row of source_identity: one handle seen in one source.
struct SourceIdentityRow {
    std::string id;
    std::string sourceType;
    std::string handleNormalized;
    std::optional<std::string> displayName;
    std::string firstSeenAt;
    std::string lastSeenAt;
    std::string createdAt;

    bool operator==(const SourceIdentityRow&) const = default;
};

// A row of person. Live while mergedIntoPersonID is absent; an absorbed person is
// never deleted.
struct PersonRow {
    std::string id;
    std::optional<std::string> displayName;
    std::string tier;
    std::optional<std::string> createdFrom;
    std::optional<std::string> mergedIntoPersonID;
    std::string createdAt;

    bool operator==(const PersonRow&) const = default;
};

// A row of identity_membership. Active when endedAt is absent and the state is
// highConf or confirmed; a "possible" membership is never active.
struct IdentityMembershipRow {
    using State = MembershipState;
    using DecidedBy = identity::DecidedBy;

    std::string id;
    std::string sourceIdentityID;
    std::string canonicalPersonID;
    State state = State::confirmed;
    std::optional<std::string> because;
    DecidedBy decidedBy = DecidedBy::user;
    std::string decidedAt;
    std::optional<std::string> endedAt;
    std::string createdAt;

    [[nodiscard]] bool isActive() const noexcept {
        return !endedAt && (state == State::highConf || state == State::confirmed);
    }
    bool operator==(const IdentityMembershipRow&) const = default;
};

// A row of identity_constraint: a "same" or "different" decision between two
// subjects, matched in either orientation. Live while revokedAt is absent.
struct IdentityConstraintRow {
    using SubjectType = ConstraintSubjectType;
    using Kind = ConstraintKind;
    using DecidedBy = identity::DecidedBy;

    std::string id;
    SubjectType aType = SubjectType::person;
    std::string aID;
    SubjectType bType = SubjectType::person;
    std::string bID;
    Kind kind = Kind::different;
    DecidedBy decidedBy = DecidedBy::user;
    std::string createdAt;
    std::optional<std::string> revokedAt;

    bool operator==(const IdentityConstraintRow&) const = default;
};

// A row of merge_event: one merge of two persons, or one link of an identity to a
// person (absorbedPersonID absent).
//
// A link event whose `because` is kSeparatedByUser was made by a separation: its
// undo revokes the constraints the separation created, and the history shows it
// as a separation.
inline constexpr std::string_view kSeparatedByUser = "separated_by_user";

struct MergeEventRow {
    using DecidedBy = identity::DecidedBy;

    std::string id;
    std::string survivingPersonID;
    std::optional<std::string> absorbedPersonID;
    std::string preMergeStateJSON;
    std::optional<std::string> because;
    DecidedBy decidedBy = DecidedBy::user;
    std::string createdAt;
    std::optional<std::string> reversedAt;
    std::optional<std::string> operationID;

    bool operator==(const MergeEventRow&) const = default;
};

// A row of user_correction: the audit record of one user decision.
struct UserCorrectionRow {
    std::string id;
    std::string targetType;
    std::string targetID;
    std::string action;
    std::string subjectLineage;
    std::string subjectID;
    std::string createdAt;

    bool operator==(const UserCorrectionRow&) const = default;
};

// ---------------------------------------------------------------------------
// Result records.

// A pair of identities proposed as one person.
struct IdentityCandidate {
    SourceIdentityRow sourceIdentityA;
    SourceIdentityRow sourceIdentityB;
    std::optional<std::string> existingPersonID;
    double score = 0;
    std::string because;

    // sourceIdentityA.id + "|" + sourceIdentityB.id: two candidates with the same
    // pair in the same order are the same candidate.
    [[nodiscard]] std::string id() const { return sourceIdentityA.id + "|" + sourceIdentityB.id; }
    bool operator==(const IdentityCandidate&) const = default;
};

struct IdentityConfirmResult {
    std::string personID;
    std::vector<std::string> mergeEventIDs;

    bool operator==(const IdentityConfirmResult&) const = default;
};

struct UndoMergeResult {
    std::string mergeEventID;
    std::optional<std::string> restoredPersonID;
    std::int64_t restoredMembershipCount = 0;
    std::int64_t restoredClaimCount = 0;

    bool operator==(const UndoMergeResult&) const = default;
};

struct ResolvedPerson {
    std::string personID;
    std::optional<std::string> displayName;
    MembershipState membershipState = MembershipState::confirmed;
    DecidedBy decidedBy = DecidedBy::user;
    std::optional<std::string> because;

    bool operator==(const ResolvedPerson&) const = default;
};

// A target of a manual link: a source identity, or a person by identifier.
struct ManualLinkTarget {
    struct Person {
        std::string id;
        bool operator==(const Person&) const = default;
    };
    std::variant<SourceIdentityRow, Person> value;

    static ManualLinkTarget identity(SourceIdentityRow row) { return {std::move(row)}; }
    static ManualLinkTarget person(std::string id) { return {Person{std::move(id)}}; }
    bool operator==(const ManualLinkTarget&) const = default;
};

// A user-stated person offered for manual linking.
struct LinkablePersonRow {
    std::string id;
    std::string displayName;
    std::string createdAt;

    bool operator==(const LinkablePersonRow&) const = default;
};

// What a manual link predicts before it is committed.
struct ManualLinkSurvivorPrediction {
    // The targets as passed in, duplicates included.
    std::vector<ManualLinkTarget> targets;
    // The person that would survive.
    std::string personID;
    // The given targets that resolve to the survivor, in the given order.
    std::vector<ManualLinkTarget> survivorTargets;

    bool operator==(const ManualLinkSurvivorPrediction&) const = default;
};

// What the correction screen shows beside a candidate or a search result.
struct IdentityCandidateContext {
    std::string sourceIdentityID;
    std::string provider;
    std::optional<std::string> displayName;
    std::int64_t conversationCount = 0;
    std::string lastSeenAt;
    std::int64_t sharedThreadCount = 0;
    bool exactHandleMatch = false;

    bool operator==(const IdentityCandidateContext&) const = default;
};

// One suggestion of an outside proposer.
struct IdentityCandidateProposal {
    std::string sourceIdentityID;
    double confidence = 0;
    // The proposer's explanation.
    std::string support;

    bool operator==(const IdentityCandidateProposal&) const = default;
};

// The answer of an outside proposer.
struct IdentityCandidateSuggestionResult {
    struct NoMatchFound {
        bool operator==(const NoMatchFound&) const = default;
    };
    struct Unavailable {
        bool operator==(const Unavailable&) const = default;
    };
    std::variant<std::vector<IdentityCandidateProposal>, NoMatchFound, Unavailable> value;

    static IdentityCandidateSuggestionResult proposed(std::vector<IdentityCandidateProposal> p) {
        return {std::move(p)};
    }
    static IdentityCandidateSuggestionResult noMatchFound() { return {NoMatchFound{}}; }
    static IdentityCandidateSuggestionResult unavailable() { return {Unavailable{}}; }
    bool operator==(const IdentityCandidateSuggestionResult&) const = default;
};

// Suggests which identities belong to a person. Implemented by the application
// (for example a ranking service); this library only calls it. An implementation
// names only identities among the given contexts, each at most once; answers
// noMatchFound when nothing matches and unavailable when it cannot answer. It
// never throws; it may take its time, so callers keep it off the user-interface
// thread.
class IdentityCandidateProposing {
  public:
    virtual ~IdentityCandidateProposing() = default;
    virtual IdentityCandidateSuggestionResult proposeCandidates(
        const std::string& personName, const std::vector<IdentityCandidateContext>& contexts) = 0;
};

// The outcome of declaring one identity as one of the user's own.
struct DeclareOwnerAliasResult {
    // The person the identity was bound to and that is now excluded.
    std::optional<std::string> excludedPersonID;
    // The handle was not an owner alias before and has been registered now.
    bool wasNewAlias = false;

    bool operator==(const DeclareOwnerAliasResult&) const = default;
};

// Exactly what one owner-alias declaration inserted, so that it can be removed
// again and nothing else.
struct OwnerAliasMutation {
    struct InsertedAlias {
        std::string sourceIdentityID;
        std::string sourceType;
        std::string handleNormalized;
        bool operator==(const InsertedAlias&) const = default;
    };
    struct InsertedExclusion {
        std::string exclusionRuleID;
        std::string personID;
        bool operator==(const InsertedExclusion&) const = default;
    };

    std::vector<InsertedAlias> insertedAliases;
    std::vector<InsertedExclusion> insertedExclusions;

    [[nodiscard]] bool empty() const noexcept {
        return insertedAliases.empty() && insertedExclusions.empty();
    }
    bool operator==(const OwnerAliasMutation&) const = default;
};

struct OwnerAliasDeclarationOutcome {
    // One per given identity, in the given order.
    std::vector<DeclareOwnerAliasResult> perIdentity;
    OwnerAliasMutation mutation;

    bool operator==(const OwnerAliasDeclarationOutcome&) const = default;
};

// One correction in a person's identity history: all merge events of one
// operation.
struct IdentityHistoryEntry {
    enum class Kind { merged, linked, separated };

    // The first event of the correction (by created_at, then insertion).
    std::string mergeEventID;
    Kind kind = Kind::linked;
    std::string occurredAt;
    // Present only when every event of the correction is reversed: the latest
    // reversal time.
    std::optional<std::string> reversedAt;
    std::optional<std::string> because;
    std::string survivingPersonID;
    std::optional<std::string> absorbedPersonID;
    // Distinct identities of the correction's membership post-images, in no
    // defined order.
    std::vector<std::string> involvedSourceIdentityIDs;
    // Distinct source types of those identities that still exist, sorted.
    std::vector<std::string> providers;
    std::optional<std::string> operationID;
    // Every event of the correction, by created_at, then insertion.
    std::vector<std::string> mergeEventIDs;

    // The entry's identity: its operation, else its first event.
    [[nodiscard]] const std::string& id() const noexcept {
        return operationID ? *operationID : mergeEventID;
    }
    bool operator==(const IdentityHistoryEntry&) const = default;
};

// "merged", "linked", "separated"
[[nodiscard]] std::string_view rawValue(IdentityHistoryEntry::Kind kind) noexcept;
[[nodiscard]] std::optional<IdentityHistoryEntry::Kind> parseHistoryKind(
    std::string_view text) noexcept;

// Diagnostic counts of the identity store.
struct IdentityCorrectionCounts {
    std::int64_t sourceIdentityTotal = 0;
    std::map<std::string, std::int64_t> sourceIdentityByType;
    // Absent when the candidate section could not be computed.
    std::optional<std::int64_t> exactKeyCandidatePairs;
    std::int64_t activeMemberships = 0;
    std::map<std::string, std::int64_t> membershipStates;
    std::int64_t mergeEvents = 0;
    std::int64_t absorbedPersons = 0;
    std::vector<std::string> unavailableSections;

    bool operator==(const IdentityCorrectionCounts&) const = default;
};

// The counts' fixed JSON form: snake-case keys in declaration order, compact,
// exact_key_candidate_pairs left out when absent, maps in key order.
[[nodiscard]] std::string encodeJSON(const IdentityCorrectionCounts& counts);
// Reads that form: every key required except exact_key_candidate_pairs (missing
// or null: absent). Absent when the text is not such an object.
[[nodiscard]] std::optional<IdentityCorrectionCounts> decodeIdentityCorrectionCounts(
    std::string_view text) noexcept;

// ---------------------------------------------------------------------------
// The snapshot stored with each merge event (merge_event.pre_merge_state_json).
// Stored data: rows written by one version are read by later ones. State and
// decided-by values are kept as the stored texts, not parsed.

struct MergePreState {
    // An active membership as it was before the change.
    struct PriorMembership {
        std::string id;
        std::string sourceIdentityID;
        std::string canonicalPersonID;
        std::string state;
        std::optional<std::string> because;
        std::string decidedBy;
        std::string decidedAt;

        bool operator==(const PriorMembership&) const = default;
    };

    // One identity_membership row (without created_at).
    struct MembershipRowImage {
        std::string id;
        std::string sourceIdentityID;
        std::string canonicalPersonID;
        std::string state;
        std::optional<std::string> because;
        std::string decidedBy;
        std::string decidedAt;
        std::optional<std::string> endedAt;

        bool operator==(const MembershipRowImage&) const = default;
    };

    // One person row.
    struct PersonRowImage {
        std::string id;
        std::optional<std::string> displayName;
        std::string tier;
        std::optional<std::string> createdFrom;
        std::optional<std::string> mergedIntoPersonID;

        bool operator==(const PersonRowImage&) const = default;
    };

    // One claim, follow-up or open loop that changed owner.
    struct ClaimOwnershipImage {
        std::string id;
        std::string preimagePersonID;
        std::string postimagePersonID;

        bool operator==(const ClaimOwnershipImage&) const = default;
    };

    // One capture_person_association row. preimageState present: the change also
    // altered the association's state and end, and undo writes both back.
    struct CaptureAssociationImage {
        std::string sourceObjectID;
        std::string preimagePersonID;
        std::string postimagePersonID;
        std::optional<std::string> preimageState;
        std::optional<std::string> preimageEndedAt;

        bool operator==(const CaptureAssociationImage&) const = default;
    };

    // One relationship_attention_disposition row whose key was rewritten.
    struct DispositionKeyImage {
        std::string oldCandidateKey;
        std::string newCandidateKey;
        std::string preimagePersonID;
        std::string postimagePersonID;

        bool operator==(const DispositionKeyImage&) const = default;
    };

    std::vector<PriorMembership> priorActiveMemberships;
    // claim id -> owner before the change; written in key order.
    std::map<std::string, std::string> priorClaimPersonID;
    std::vector<std::string> writtenMembershipIDs;
    std::vector<std::string> revokedDifferentConstraintIDs;
    std::vector<std::string> createdDifferentConstraintIDs;
    std::vector<MembershipRowImage> membershipPreimages;
    std::vector<MembershipRowImage> membershipPostImages;
    std::vector<std::string> preExistingSurvivorClaimIDs;
    std::vector<PersonRowImage> personPreimages;
    std::vector<PersonRowImage> personPostImages;
    std::vector<ClaimOwnershipImage> claimOwnershipImages;
    std::optional<std::string> createdSameConstraintID;
    std::vector<CaptureAssociationImage> captureAssociationImages;
    std::vector<ClaimOwnershipImage> followUpOwnershipImages;
    std::vector<ClaimOwnershipImage> openLoopOwnershipImages;
    std::vector<DispositionKeyImage> dispositionKeyImages;

    bool operator==(const MergePreState&) const = default;
};

// The snapshot as compact JSON: keys in declaration order, absent optionals left
// out, empty lists and maps written as [] and {}, every "/" escaped as "\/".
// Throws IdentityStoreError::corruptRestoreMap when a text is not valid UTF-8.
[[nodiscard]] std::string encodeJSON(const MergePreState& state);

// Reads a stored snapshot, accepting any key order. The first three keys are
// required (missing or null: no result); the other lists default to empty. Absent
// when the text is not a valid snapshot; never throws.
[[nodiscard]] std::optional<MergePreState> decodeMergePreState(std::string_view text) noexcept;
// The same into state, whose strings and lists keep their storage where the text
// fills them again: decoding many snapshots into one record allocates little.
// False when the text is not a valid snapshot; state is then left valid but
// unspecified.
[[nodiscard]] bool decodeMergePreStateInto(std::string_view text, MergePreState& state) noexcept;
// The same through the general JSON reader alone: what decodeMergePreState answers
// for every text (it reads the usual shape directly and defers the rest to this).
[[nodiscard]] std::optional<MergePreState> decodeMergePreStateInGeneral(
    std::string_view text) noexcept;

// The source identities named by the membership post- and pre-images, without
// duplicates, in ascending text order.
[[nodiscard]] std::vector<std::string> affectedIdentityIDs(const MergePreState& state);

// ---------------------------------------------------------------------------
// Errors.

// The one error type of the store. Three cases carry a message; the others
// carry none.
class IdentityStoreError : public std::exception {
  public:
    enum class Case {
        notFound,
        invalidArgs,
        excluded,
        invalidKeyLength,
        cannotOpenStore,
        alreadyReversed,
        corruptRestoreMap,
        supersededByLaterCorrection,
        ownerIdentityUnmergeable,
        restoreSnapshotIncomplete,
        cannotSeparateSoleIdentity,
        blockedDifferent,
    };

    static IdentityStoreError notFound(std::string message) {
        return {Case::notFound, std::move(message)};
    }
    static IdentityStoreError invalidArgs(std::string message) {
        return {Case::invalidArgs, std::move(message)};
    }
    static IdentityStoreError excluded(std::string message) {
        return {Case::excluded, std::move(message)};
    }
    // One of the nine cases without a message.
    explicit IdentityStoreError(Case c);

    [[nodiscard]] Case errorCase() const noexcept { return case_; }
    [[nodiscard]] const std::optional<std::string>& message() const noexcept { return message_; }
    // "notFound: source identity not found", "alreadyReversed", ...
    [[nodiscard]] const char* what() const noexcept override { return what_.c_str(); }

    bool operator==(const IdentityStoreError& other) const noexcept {
        return case_ == other.case_ && message_ == other.message_;
    }

  private:
    IdentityStoreError(Case c, std::string message);
    Case case_;
    std::optional<std::string> message_;
    std::string what_;
};

// The case's name as written here: "notFound", "supersededByLaterCorrection", ...
[[nodiscard]] std::string_view caseName(IdentityStoreError::Case c) noexcept;

// Maps a refused correction response to the error its caller raises. First match:
// state "blocked_different" -> blockedDifferent; taxonomy excluded with a message ->
// excluded(message); taxonomy notFound with a message -> notFound(message);
// otherwise invalidArgs("<operation> failed: <state or 'error'>").
[[nodiscard]] IdentityStoreError correctionRefusal(std::string_view operation,
                                                   const std::optional<std::string>& state,
                                                   std::optional<Taxonomy> taxonomy,
                                                   const std::optional<std::string>& message);

// ---------------------------------------------------------------------------
// Identifiers and timestamps.

// A fresh random UUID, 8-4-4-4-12, lower case.
[[nodiscard]] std::string newIdentifier();

// The current time as ISO 8601 in UTC with whole seconds and "Z"
// (2026-11-16T20:20:49Z).
[[nodiscard]] std::string currentTimestamp();

}  // namespace orvik::identity
