// Request and response records that the application's schema module defines and
// that cross into the identity library. Plain values; the identity library fills
// and reads them, the application's own modules may too.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orvik::schema {

// Classification of a refused request. Ordinals are fixed: 1 excluded, 2 invalid
// arguments (including a failed post-condition), 3 not found. 0 marks a response
// that is not a refusal; 4 is any other failure.
enum class Taxonomy : int {
    unspecified = 0,
    excluded = 1,
    invalidArguments = 2,
    notFound = 3,
    internal = 4,
};

[[nodiscard]] constexpr int ordinal(Taxonomy t) noexcept {
    return static_cast<int>(t);
}
// The case with that ordinal; absent outside 0 to 4.
[[nodiscard]] std::optional<Taxonomy> taxonomyFromOrdinal(std::int64_t ordinal) noexcept;

// Kind of the subject on whose behalf the user acted; stored as text in
// user_correction.subject_lineage.
enum class SubjectLineage { grouping, person, sourceIdentity };

[[nodiscard]] std::string_view rawValue(SubjectLineage lineage) noexcept;
// Exact, case-sensitive: "grouping", "person", "source_identity".
[[nodiscard]] std::optional<SubjectLineage> parseSubjectLineage(std::string_view text) noexcept;

struct LinkIdentityRequest {
    std::string personID;
    std::string sourceIdentityID;
    bool confirmed = false;

    bool operator==(const LinkIdentityRequest&) const = default;
};

struct LinkIdentityResponse {
    enum class Status { belowThresholdQuestion, blockedDifferent, error, linked };

    std::string because;
    std::optional<std::string> message;
    Taxonomy taxonomy = Taxonomy::unspecified;
    std::optional<std::string> mergeEventID;
    Status status = Status::error;

    bool operator==(const LinkIdentityResponse&) const = default;
};

struct ProposeMergeRequest {
    std::optional<std::int64_t> presetValue;
    std::string personIDA;
    std::string personIDB;
    std::string subjectID;
    SubjectLineage subjectLineage = SubjectLineage::person;
    bool confirmed = false;

    bool operator==(const ProposeMergeRequest&) const = default;
};

struct ProposeMergeResponse {
    enum class Status { belowThresholdQuestion, blockedDifferent, error, merged };

    std::string because;
    std::optional<std::string> message;
    Taxonomy taxonomy = Taxonomy::unspecified;
    std::optional<std::string> mergeEventID;
    Status status = Status::error;

    bool operator==(const ProposeMergeResponse&) const = default;
};

struct MarkDifferentRequest {
    std::string reason;
    std::optional<std::int64_t> presetValue;
    std::string personIDA;
    std::string personIDB;
    std::string subjectID;
    SubjectLineage subjectLineage = SubjectLineage::person;

    bool operator==(const MarkDifferentRequest&) const = default;
};

struct MarkDifferentResponse {
    std::optional<std::string> constraintID;
    bool refused = false;
    std::optional<std::string> message;
    std::optional<Taxonomy> taxonomy;

    bool operator==(const MarkDifferentResponse&) const = default;
};

// Status texts as the confirming operations report them ("linked", "merged",
// "blocked_different", "below_threshold_question", "error").
[[nodiscard]] std::string_view rawValue(LinkIdentityResponse::Status status) noexcept;
[[nodiscard]] std::string_view rawValue(ProposeMergeResponse::Status status) noexcept;

}  // namespace orvik::schema
