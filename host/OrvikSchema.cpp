#include "host/OrvikSchema.h"

namespace orvik::schema {

std::optional<Taxonomy> taxonomyFromOrdinal(std::int64_t ordinal) noexcept {
    if (ordinal < 0 || ordinal > 4) {
        return std::nullopt;
    }
    return static_cast<Taxonomy>(ordinal);
}

std::string_view rawValue(SubjectLineage lineage) noexcept {
    switch (lineage) {
        case SubjectLineage::grouping:
            return "grouping";
        case SubjectLineage::person:
            return "person";
        case SubjectLineage::sourceIdentity:
            return "source_identity";
    }
    return "person";
}

std::optional<SubjectLineage> parseSubjectLineage(std::string_view text) noexcept {
    if (text == "grouping") {
        return SubjectLineage::grouping;
    }
    if (text == "person") {
        return SubjectLineage::person;
    }
    if (text == "source_identity") {
        return SubjectLineage::sourceIdentity;
    }
    return std::nullopt;
}

std::string_view rawValue(LinkIdentityResponse::Status status) noexcept {
    using Status = LinkIdentityResponse::Status;
    switch (status) {
        case Status::belowThresholdQuestion:
            return "below_threshold_question";
        case Status::blockedDifferent:
            return "blocked_different";
        case Status::error:
            return "error";
        case Status::linked:
            return "linked";
    }
    return "error";
}

std::string_view rawValue(ProposeMergeResponse::Status status) noexcept {
    using Status = ProposeMergeResponse::Status;
    switch (status) {
        case Status::belowThresholdQuestion:
            return "below_threshold_question";
        case Status::blockedDifferent:
            return "blocked_different";
        case Status::error:
            return "error";
        case Status::merged:
            return "merged";
    }
    return "error";
}

}  // namespace orvik::schema
