// JSON forms of the identity store's values, as the exec interface carries them.
//
// Output (toJson): a record becomes an object with every field present under the
// name the library gives it, in declaration order; an absent optional is null;
// enumerations are their stored texts; a taxonomy is its ordinal.
//
// Input (...FromJson): a missing key and null both mean an absent optional; every
// other field is required and must have its JSON type (integers must be integral
// numbers). Unknown keys are ignored. Any violation throws BadRequest with a
// message naming the field by its path, such as "args.request.personID".
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/OrvikSchema.h"
#include "identity/IdentityCorrectionWitness.h"
#include "identity/IdentityModels.h"

namespace orvik::app {

// Keys keep their insertion order, so that output follows the documented order.
using Json = nlohmann::ordered_json;

// A request that cannot be understood: not JSON, not an object, an unknown
// operation, a missing or ill-typed argument.
class BadRequest : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Reads the fields of one JSON object. Holds a reference to the object, which
// must outlive the reader.
class FieldReader {
  public:
    // Throws BadRequest when value is not an object. path names the object in
    // messages ("args"); the fields are then "args.<key>".
    FieldReader(const Json& value, std::string path);

    [[nodiscard]] const std::string& path() const noexcept { return path_; }
    [[nodiscard]] std::string pathOf(std::string_view key) const;

    // The field, or null when it is missing or null.
    [[nodiscard]] const Json* find(std::string_view key) const;
    // The field; throws BadRequest when it is missing or null.
    [[nodiscard]] const Json& required(std::string_view key) const;

    [[nodiscard]] std::string text(std::string_view key) const;
    [[nodiscard]] std::optional<std::string> optionalText(std::string_view key) const;
    [[nodiscard]] std::int64_t integer(std::string_view key) const;
    [[nodiscard]] std::optional<std::int64_t> optionalInteger(std::string_view key) const;
    [[nodiscard]] double number(std::string_view key) const;
    [[nodiscard]] bool boolean(std::string_view key) const;
    [[nodiscard]] std::vector<std::string> texts(std::string_view key) const;

    // A required nested value read by decode(value, path).
    template <typename Decode>
    [[nodiscard]] auto get(std::string_view key, Decode decode) const {
        return decode(required(key), pathOf(key));
    }

    // A required list, each element read by decode(element, "path[i]").
    template <typename Decode>
    [[nodiscard]] auto list(std::string_view key, Decode decode) const {
        const Json& value = required(key);
        const std::string where = pathOf(key);
        if (!value.is_array()) {
            throw BadRequest(where + " must be a list");
        }
        std::vector<decltype(decode(value, where))> out;
        out.reserve(value.size());
        for (std::size_t i = 0; i < value.size(); ++i) {
            out.push_back(decode(value[i], where + "[" + std::to_string(i) + "]"));
        }
        return out;
    }

  private:
    const Json& object_;
    std::string path_;
};

// --- Containers: absent is null, a list is an array. Declared first so that each
// can hold the other.

template <typename T>
[[nodiscard]] Json toJson(const std::optional<T>& value);
template <typename T>
[[nodiscard]] Json toJson(const std::vector<T>& values);

// --- Enumerations and plain values.

[[nodiscard]] Json toJson(const std::string& text);
[[nodiscard]] Json toJson(identity::MembershipState state);
[[nodiscard]] Json toJson(identity::DecidedBy decidedBy);
[[nodiscard]] Json toJson(schema::SubjectLineage lineage);
[[nodiscard]] Json toJson(schema::Taxonomy taxonomy);
// "merged", "linked" or "separated".
[[nodiscard]] Json toJson(identity::IdentityHistoryEntry::Kind kind);

// "grouping", "person" or "source_identity".
[[nodiscard]] schema::SubjectLineage subjectLineageFromJson(const Json& value,
                                                            const std::string& path);

// --- Records.

[[nodiscard]] Json toJson(const identity::SourceIdentityRow& row);
[[nodiscard]] Json toJson(const identity::PersonRow& row);
[[nodiscard]] Json toJson(const identity::IdentityMembershipRow& row);
[[nodiscard]] Json toJson(const identity::MergeEventRow& row);
[[nodiscard]] Json toJson(const identity::ResolvedPerson& resolved);
// Carries "id" (A.id + "|" + B.id) before the fields.
[[nodiscard]] Json toJson(const identity::IdentityCandidate& candidate);
[[nodiscard]] Json toJson(const identity::IdentityConfirmResult& result);
[[nodiscard]] Json toJson(const identity::UndoMergeResult& result);
[[nodiscard]] Json toJson(const identity::LinkablePersonRow& row);
// {"identity": <SourceIdentityRow>} or {"person": "<id>"}.
[[nodiscard]] Json toJson(const identity::ManualLinkTarget& target);
[[nodiscard]] Json toJson(const identity::ManualLinkSurvivorPrediction& prediction);
[[nodiscard]] Json toJson(const identity::IdentityCandidateContext& context);
[[nodiscard]] Json toJson(const identity::IdentityHistoryEntry& entry);
[[nodiscard]] Json toJson(const identity::DeclareOwnerAliasResult& result);
[[nodiscard]] Json toJson(const identity::OwnerAliasMutation& mutation);
[[nodiscard]] Json toJson(const identity::OwnerAliasDeclarationOutcome& outcome);
// The counts' own fixed form (identity::encodeJSON): snake-case keys, and
// exact_key_candidate_pairs left out when absent.
[[nodiscard]] Json toJson(const identity::IdentityCorrectionCounts& counts);
[[nodiscard]] Json toJson(const schema::LinkIdentityRequest& request);
[[nodiscard]] Json toJson(const schema::LinkIdentityResponse& response);
[[nodiscard]] Json toJson(const schema::ProposeMergeRequest& request);
[[nodiscard]] Json toJson(const schema::ProposeMergeResponse& response);
[[nodiscard]] Json toJson(const schema::MarkDifferentRequest& request);
[[nodiscard]] Json toJson(const schema::MarkDifferentResponse& response);
// The event's counts plus "line", its exact log line.
[[nodiscard]] Json toJson(const identity::IdentityCorrectionWitness::Event& event);

[[nodiscard]] identity::SourceIdentityRow sourceIdentityFromJson(const Json& value,
                                                                 const std::string& path);
// "id" is ignored: it is derived from the pair.
[[nodiscard]] identity::IdentityCandidate candidateFromJson(const Json& value,
                                                            const std::string& path);
// Exactly one of "identity" and "person".
[[nodiscard]] identity::ManualLinkTarget manualLinkTargetFromJson(const Json& value,
                                                                  const std::string& path);
// {"insertedAliases": [...], "insertedExclusions": [...]}, both lists required.
[[nodiscard]] identity::OwnerAliasMutation ownerAliasMutationFromJson(const Json& value,
                                                                      const std::string& path);
[[nodiscard]] schema::LinkIdentityRequest linkIdentityRequestFromJson(const Json& value,
                                                                      const std::string& path);
[[nodiscard]] schema::ProposeMergeRequest proposeMergeRequestFromJson(const Json& value,
                                                                      const std::string& path);
[[nodiscard]] schema::MarkDifferentRequest markDifferentRequestFromJson(const Json& value,
                                                                        const std::string& path);

template <typename T>
Json toJson(const std::optional<T>& value) {
    return value ? toJson(*value) : Json(nullptr);
}

template <typename T>
Json toJson(const std::vector<T>& values) {
    Json out = Json::array();
    for (const auto& value : values) {
        out.push_back(toJson(value));
    }
    return out;
}

}  // namespace orvik::app
