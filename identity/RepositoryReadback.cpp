// The diagnostic counts of the identity store and their JSON form.
#include <limits>

#include <nlohmann/json.hpp>

#include "identity/IdentityRepositoryInternal.h"

namespace orvik::identity {

namespace {

using OrderedJson = nlohmann::ordered_json;
using Json = nlohmann::json;

constexpr const char* kSourceIdentityTotal = "source_identity_total";
constexpr const char* kSourceIdentityByType = "source_identity_by_type";
constexpr const char* kExactKeyCandidatePairs = "exact_key_candidate_pairs";
constexpr const char* kActiveMemberships = "active_memberships";
constexpr const char* kMembershipStates = "membership_states";
constexpr const char* kMergeEvents = "merge_events";
constexpr const char* kAbsorbedPersons = "absorbed_persons";
constexpr const char* kUnavailableSections = "unavailable_sections";

// Raised on any shape or type mismatch while decoding; never leaves this file.
struct Malformed {};

OrderedJson countMap(const std::map<std::string, std::int64_t>& map) {
    // An empty map must still be written as {}, not null.
    OrderedJson object = OrderedJson::object();
    for (const auto& [key, count] : map) {
        object[key] = count;
    }
    return object;
}

const Json& required(const Json& object, const char* key) {
    const auto it = object.find(key);
    if (it == object.end()) {
        throw Malformed{};
    }
    return *it;
}

std::int64_t integer(const Json& json) {
    if (!json.is_number_integer()) {
        throw Malformed{};
    }
    if (json.is_number_unsigned() &&
        json.get<std::uint64_t>() >
            static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        throw Malformed{};
    }
    return json.get<std::int64_t>();
}

std::map<std::string, std::int64_t> integerMap(const Json& json) {
    if (!json.is_object()) {
        throw Malformed{};
    }
    std::map<std::string, std::int64_t> map;
    for (const auto& [key, item] : json.items()) {
        map[key] = integer(item);
    }
    return map;
}

std::vector<std::string> textList(const Json& json) {
    if (!json.is_array()) {
        throw Malformed{};
    }
    std::vector<std::string> list;
    for (const Json& item : json) {
        if (!item.is_string()) {
            throw Malformed{};
        }
        list.push_back(item.get<std::string>());
    }
    return list;
}

}  // namespace

std::string encodeJSON(const IdentityCorrectionCounts& counts) {
    OrderedJson root = OrderedJson::object();
    root[kSourceIdentityTotal] = counts.sourceIdentityTotal;
    root[kSourceIdentityByType] = countMap(counts.sourceIdentityByType);
    if (counts.exactKeyCandidatePairs) {
        root[kExactKeyCandidatePairs] = *counts.exactKeyCandidatePairs;
    }
    root[kActiveMemberships] = counts.activeMemberships;
    root[kMembershipStates] = countMap(counts.membershipStates);
    root[kMergeEvents] = counts.mergeEvents;
    root[kAbsorbedPersons] = counts.absorbedPersons;
    root[kUnavailableSections] = counts.unavailableSections;
    // A source type that is not valid UTF-8 is written with replacement characters
    // rather than failing a diagnostic export.
    return root.dump(-1, ' ', false, OrderedJson::error_handler_t::replace);
}

std::optional<IdentityCorrectionCounts> decodeIdentityCorrectionCounts(
    std::string_view text) noexcept {
    try {
        const Json root = Json::parse(text.begin(), text.end(), nullptr,
                                      /*allow_exceptions=*/false);
        if (!root.is_object()) {
            return std::nullopt;
        }
        IdentityCorrectionCounts counts;
        counts.sourceIdentityTotal = integer(required(root, kSourceIdentityTotal));
        counts.sourceIdentityByType = integerMap(required(root, kSourceIdentityByType));
        if (const auto it = root.find(kExactKeyCandidatePairs);
            it != root.end() && !it->is_null()) {
            counts.exactKeyCandidatePairs = integer(*it);
        }
        counts.activeMemberships = integer(required(root, kActiveMemberships));
        counts.membershipStates = integerMap(required(root, kMembershipStates));
        counts.mergeEvents = integer(required(root, kMergeEvents));
        counts.absorbedPersons = integer(required(root, kAbsorbedPersons));
        counts.unavailableSections = textList(required(root, kUnavailableSections));
        return counts;
    } catch (...) {
        return std::nullopt;
    }
}

namespace internal {

namespace {

// Statement texts are passed to SQLite exactly as written here; the statement
// cache is keyed by them.
const std::string kSourceIdentityCount = "SELECT count(*) FROM source_identity";
const std::string kSourceIdentityCountByType =
    "SELECT source_type, count(*) AS n FROM source_identity GROUP BY source_type";
const std::string kActiveMembershipCount =
    "SELECT count(*) FROM identity_membership WHERE ended_at IS NULL AND state IN "
    "('high_conf','confirmed')";
const std::string kActiveMembershipCountByState =
    "SELECT state, count(*) AS n FROM identity_membership\n"
    "WHERE ended_at IS NULL AND state IN ('high_conf','confirmed')\n"
    "GROUP BY state";
const std::string kMergeEventCount = "SELECT count(*) FROM merge_event";
const std::string kAbsorbedPersonCount =
    "SELECT count(*) FROM person WHERE merged_into_person_id IS NOT NULL";

std::map<std::string, std::int64_t> countsByKey(store::Connection& db, const std::string& sql,
                                                const char* keyColumn) {
    std::map<std::string, std::int64_t> counts;
    db.query(sql, {},
             [&](const store::Row& row) { counts[row.text(keyColumn)] = row.integer("n"); });
    return counts;
}

}  // namespace

void RepositoryCore::readbackCounts(IdentityCorrectionCounts& counts, store::Connection& db) {
    counts.sourceIdentityTotal = db.scalarInteger(kSourceIdentityCount).value_or(0);
    counts.sourceIdentityByType = countsByKey(db, kSourceIdentityCountByType, "source_type");
    counts.activeMemberships = db.scalarInteger(kActiveMembershipCount).value_or(0);
    counts.membershipStates = countsByKey(db, kActiveMembershipCountByState, "state");
    counts.mergeEvents = db.scalarInteger(kMergeEventCount).value_or(0);
    counts.absorbedPersons = db.scalarInteger(kAbsorbedPersonCount).value_or(0);
}

}  // namespace internal

}  // namespace orvik::identity
