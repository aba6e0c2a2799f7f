// The field list of every record that crosses the JSON boundary, written once.
// Encoding and decoding both follow from these lists (RecordCodec.h); a field
// listed here is written and read under the same key.
//
// Order matters: it is the order of the keys on output.
#pragma once

#include <array>
#include <string_view>
#include <tuple>

#include "codec/RecordCodec.h"
#include "host/OrvikSchema.h"
#include "identity/IdentityCorrectionView.h"
#include "identity/IdentityCorrectionWitness.h"
#include "identity/IdentityModels.h"

namespace orvik::codec {

// ---------------------------------------------------------------------------
// Enumerations: their stored or raw texts.

template <>
struct EnumTexts<identity::MembershipState> {
    using E = identity::MembershipState;
    static constexpr std::array values{E::possible, E::highConf, E::confirmed};
    static std::string_view text(E value) { return identity::rawValue(value); }
};

template <>
struct EnumTexts<identity::DecidedBy> {
    using E = identity::DecidedBy;
    static constexpr std::array values{E::automatic, E::user, E::agentAndUser};
    static std::string_view text(E value) { return identity::rawValue(value); }
};

template <>
struct EnumTexts<schema::SubjectLineage> {
    using E = schema::SubjectLineage;
    static constexpr std::array values{E::grouping, E::person, E::sourceIdentity};
    static std::string_view text(E value) { return schema::rawValue(value); }
};

template <>
struct EnumTexts<identity::IdentityHistoryEntry::Kind> {
    using E = identity::IdentityHistoryEntry::Kind;
    static constexpr std::array values{E::merged, E::linked, E::separated};
    static std::string_view text(E value) { return identity::rawValue(value); }
};

template <>
struct EnumTexts<schema::LinkIdentityResponse::Status> {
    using E = schema::LinkIdentityResponse::Status;
    static constexpr std::array values{E::belowThresholdQuestion, E::blockedDifferent, E::error,
                                       E::linked};
    static std::string_view text(E value) { return schema::rawValue(value); }
};

template <>
struct EnumTexts<schema::ProposeMergeResponse::Status> {
    using E = schema::ProposeMergeResponse::Status;
    static constexpr std::array values{E::belowThresholdQuestion, E::blockedDifferent, E::error,
                                       E::merged};
    static std::string_view text(E value) { return schema::rawValue(value); }
};

template <>
struct EnumTexts<identity::IdentityCorrectionWitness::Kind> {
    using W = identity::IdentityCorrectionWitness;
    using E = W::Kind;
    static constexpr std::array values{
        E::confirmManualLink, E::batchConfirmManualLink, E::confirmCandidate,
        E::rejectCandidate,   E::separateIdentity,       E::undoConfirmation,
        E::markDifferent,     E::declareOwnerAlias,      E::undoOwnerAlias};
    static std::string_view text(E value) { return W::rawValue(value); }
};

// A taxonomy travels as its ordinal, 0 to 4.
template <>
struct ValueCodec<schema::Taxonomy> {
    static Json encode(schema::Taxonomy value) { return Json(schema::ordinal(value)); }
    static schema::Taxonomy decode(const Json& value, const std::string& path);
};

// {"identity": <SourceIdentityRow>} or {"person": "<id>"}; exactly one of the two.
template <>
struct ValueCodec<identity::ManualLinkTarget> {
    static Json encode(const identity::ManualLinkTarget& target);
    static identity::ManualLinkTarget decode(const Json& value, const std::string& path);
};

// The counts' own fixed form (identity::encodeJSON): snake-case keys, and
// exact_key_candidate_pairs left out when absent.
template <>
struct ValueCodec<identity::IdentityCorrectionCounts> {
    static Json encode(const identity::IdentityCorrectionCounts& counts);
    static identity::IdentityCorrectionCounts decode(const Json& value, const std::string& path);
};

// {"proposed": [<proposal>...]}, {"noMatchFound": true} or {"unavailable": true}.
template <>
struct ValueCodec<identity::IdentityCandidateSuggestionResult> {
    static Json encode(const identity::IdentityCandidateSuggestionResult& result);
    static identity::IdentityCandidateSuggestionResult decode(const Json& value,
                                                              const std::string& path);
};

// ---------------------------------------------------------------------------
// Store records.

template <>
struct RecordFields<identity::SourceIdentityRow> {
    using R = identity::SourceIdentityRow;
    static constexpr auto fields = std::tuple{
        field("id", &R::id),
        field("sourceType", &R::sourceType),
        field("handleNormalized", &R::handleNormalized),
        field("displayName", &R::displayName),
        field("firstSeenAt", &R::firstSeenAt),
        field("lastSeenAt", &R::lastSeenAt),
        field("createdAt", &R::createdAt),
    };
};

template <>
struct RecordFields<identity::PersonRow> {
    using R = identity::PersonRow;
    static constexpr auto fields = std::tuple{
        field("id", &R::id),
        field("displayName", &R::displayName),
        field("tier", &R::tier),
        field("createdFrom", &R::createdFrom),
        field("mergedIntoPersonID", &R::mergedIntoPersonID),
        field("createdAt", &R::createdAt),
    };
};

template <>
struct RecordFields<identity::IdentityMembershipRow> {
    using R = identity::IdentityMembershipRow;
    static constexpr auto fields = std::tuple{
        field("id", &R::id),
        field("sourceIdentityID", &R::sourceIdentityID),
        field("canonicalPersonID", &R::canonicalPersonID),
        field("state", &R::state),
        field("because", &R::because),
        field("decidedBy", &R::decidedBy),
        field("decidedAt", &R::decidedAt),
        field("endedAt", &R::endedAt),
        field("createdAt", &R::createdAt),
    };
};

template <>
struct RecordFields<identity::MergeEventRow> {
    using R = identity::MergeEventRow;
    static constexpr auto fields = std::tuple{
        field("id", &R::id),
        field("survivingPersonID", &R::survivingPersonID),
        field("absorbedPersonID", &R::absorbedPersonID),
        field("preMergeStateJSON", &R::preMergeStateJSON),
        field("because", &R::because),
        field("decidedBy", &R::decidedBy),
        field("createdAt", &R::createdAt),
        field("reversedAt", &R::reversedAt),
        field("operationID", &R::operationID),
    };
};

// ---------------------------------------------------------------------------
// Result records.

template <>
struct RecordFields<identity::ResolvedPerson> {
    using R = identity::ResolvedPerson;
    static constexpr auto fields = std::tuple{
        field("personID", &R::personID),
        field("displayName", &R::displayName),
        field("membershipState", &R::membershipState),
        field("decidedBy", &R::decidedBy),
        field("because", &R::because),
    };
};

// Carries "id" (A.id + "|" + B.id) before the fields; on input "id" is ignored.
template <>
struct RecordFields<identity::IdentityCandidate> {
    using R = identity::IdentityCandidate;
    static constexpr auto fields = std::tuple{
        derived<R>("id", [](const R& candidate) { return Json(candidate.id()); }),
        field("sourceIdentityA", &R::sourceIdentityA),
        field("sourceIdentityB", &R::sourceIdentityB),
        field("existingPersonID", &R::existingPersonID),
        field("score", &R::score),
        field("because", &R::because),
    };
};

template <>
struct RecordFields<identity::IdentityConfirmResult> {
    using R = identity::IdentityConfirmResult;
    static constexpr auto fields = std::tuple{
        field("personID", &R::personID),
        field("mergeEventIDs", &R::mergeEventIDs),
    };
};

template <>
struct RecordFields<identity::UndoMergeResult> {
    using R = identity::UndoMergeResult;
    static constexpr auto fields = std::tuple{
        field("mergeEventID", &R::mergeEventID),
        field("restoredPersonID", &R::restoredPersonID),
        field("restoredMembershipCount", &R::restoredMembershipCount),
        field("restoredClaimCount", &R::restoredClaimCount),
    };
};

template <>
struct RecordFields<identity::LinkablePersonRow> {
    using R = identity::LinkablePersonRow;
    static constexpr auto fields = std::tuple{
        field("id", &R::id),
        field("displayName", &R::displayName),
        field("createdAt", &R::createdAt),
    };
};

template <>
struct RecordFields<identity::ManualLinkSurvivorPrediction> {
    using R = identity::ManualLinkSurvivorPrediction;
    static constexpr auto fields = std::tuple{
        field("targets", &R::targets),
        field("personID", &R::personID),
        field("survivorTargets", &R::survivorTargets),
    };
};

template <>
struct RecordFields<identity::IdentityCandidateContext> {
    using R = identity::IdentityCandidateContext;
    static constexpr auto fields = std::tuple{
        field("sourceIdentityID", &R::sourceIdentityID),
        field("provider", &R::provider),
        field("displayName", &R::displayName),
        field("conversationCount", &R::conversationCount),
        field("lastSeenAt", &R::lastSeenAt),
        field("sharedThreadCount", &R::sharedThreadCount),
        field("exactHandleMatch", &R::exactHandleMatch),
    };
};

template <>
struct RecordFields<identity::IdentityCandidateProposal> {
    using R = identity::IdentityCandidateProposal;
    static constexpr auto fields = std::tuple{
        field("sourceIdentityID", &R::sourceIdentityID),
        field("confidence", &R::confidence),
        field("support", &R::support),
    };
};

template <>
struct RecordFields<identity::PersonNoteContext> {
    using R = identity::PersonNoteContext;
    static constexpr auto fields = std::tuple{
        field("noteCount", &R::noteCount),
        field("lastNoteAt", &R::lastNoteAt),
        field("latestNoteExcerpt", &R::latestNoteExcerpt),
    };
};

template <>
struct RecordFields<identity::IdentityHistoryEntry> {
    using R = identity::IdentityHistoryEntry;
    static constexpr auto fields = std::tuple{
        field("mergeEventID", &R::mergeEventID),
        field("kind", &R::kind),
        field("occurredAt", &R::occurredAt),
        field("reversedAt", &R::reversedAt),
        field("because", &R::because),
        field("survivingPersonID", &R::survivingPersonID),
        field("absorbedPersonID", &R::absorbedPersonID),
        field("involvedSourceIdentityIDs", &R::involvedSourceIdentityIDs),
        field("providers", &R::providers),
        field("operationID", &R::operationID),
        field("mergeEventIDs", &R::mergeEventIDs),
    };
};

template <>
struct RecordFields<identity::DeclareOwnerAliasResult> {
    using R = identity::DeclareOwnerAliasResult;
    static constexpr auto fields = std::tuple{
        field("excludedPersonID", &R::excludedPersonID),
        field("wasNewAlias", &R::wasNewAlias),
    };
};

template <>
struct RecordFields<identity::OwnerAliasMutation::InsertedAlias> {
    using R = identity::OwnerAliasMutation::InsertedAlias;
    static constexpr auto fields = std::tuple{
        field("sourceIdentityID", &R::sourceIdentityID),
        field("sourceType", &R::sourceType),
        field("handleNormalized", &R::handleNormalized),
    };
};

template <>
struct RecordFields<identity::OwnerAliasMutation::InsertedExclusion> {
    using R = identity::OwnerAliasMutation::InsertedExclusion;
    static constexpr auto fields = std::tuple{
        field("exclusionRuleID", &R::exclusionRuleID),
        field("personID", &R::personID),
    };
};

template <>
struct RecordFields<identity::OwnerAliasMutation> {
    using R = identity::OwnerAliasMutation;
    static constexpr auto fields = std::tuple{
        field("insertedAliases", &R::insertedAliases),
        field("insertedExclusions", &R::insertedExclusions),
    };
};

template <>
struct RecordFields<identity::OwnerAliasDeclarationOutcome> {
    using R = identity::OwnerAliasDeclarationOutcome;
    static constexpr auto fields = std::tuple{
        field("perIdentity", &R::perIdentity),
        field("mutation", &R::mutation),
    };
};

// ---------------------------------------------------------------------------
// Records of the schema module.

template <>
struct RecordFields<schema::LinkIdentityRequest> {
    using R = schema::LinkIdentityRequest;
    static constexpr auto fields = std::tuple{
        field("personID", &R::personID),
        field("sourceIdentityID", &R::sourceIdentityID),
        field("confirmed", &R::confirmed),
    };
};

template <>
struct RecordFields<schema::LinkIdentityResponse> {
    using R = schema::LinkIdentityResponse;
    static constexpr auto fields = std::tuple{
        field("because", &R::because),   field("message", &R::message),
        field("taxonomy", &R::taxonomy), field("mergeEventID", &R::mergeEventID),
        field("status", &R::status),
    };
};

template <>
struct RecordFields<schema::ProposeMergeRequest> {
    using R = schema::ProposeMergeRequest;
    static constexpr auto fields = std::tuple{
        field("presetValue", &R::presetValue),       field("personIDA", &R::personIDA),
        field("personIDB", &R::personIDB),           field("subjectID", &R::subjectID),
        field("subjectLineage", &R::subjectLineage), field("confirmed", &R::confirmed),
    };
};

template <>
struct RecordFields<schema::ProposeMergeResponse> {
    using R = schema::ProposeMergeResponse;
    static constexpr auto fields = std::tuple{
        field("because", &R::because),   field("message", &R::message),
        field("taxonomy", &R::taxonomy), field("mergeEventID", &R::mergeEventID),
        field("status", &R::status),
    };
};

template <>
struct RecordFields<schema::MarkDifferentRequest> {
    using R = schema::MarkDifferentRequest;
    static constexpr auto fields = std::tuple{
        field("reason", &R::reason),       field("presetValue", &R::presetValue),
        field("personIDA", &R::personIDA), field("personIDB", &R::personIDB),
        field("subjectID", &R::subjectID), field("subjectLineage", &R::subjectLineage),
    };
};

template <>
struct RecordFields<schema::MarkDifferentResponse> {
    using R = schema::MarkDifferentResponse;
    static constexpr auto fields = std::tuple{
        field("constraintID", &R::constraintID),
        field("refused", &R::refused),
        field("message", &R::message),
        field("taxonomy", &R::taxonomy),
    };
};

// The event's counts plus "line", its exact log line.
template <>
struct RecordFields<identity::IdentityCorrectionWitness::Event> {
    using R = identity::IdentityCorrectionWitness::Event;
    static constexpr auto fields = std::tuple{
        field("kind", &R::kind),
        field("identityCount", &R::identityCount),
        field("mergeEventCount", &R::mergeEventCount),
        field("absorbedPersonCount", &R::absorbedPersonCount),
        field("restoredPersonCount", &R::restoredPersonCount),
        field("restoredMembershipCount", &R::restoredMembershipCount),
        field("operationID", &R::operationID),
        derived<R>("line",
                   [](const R& event) {
                       return Json(identity::IdentityCorrectionWitness::message(event));
                   }),
    };
};

}  // namespace orvik::codec
