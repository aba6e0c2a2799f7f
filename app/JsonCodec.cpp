#include "app/JsonCodec.h"

#include <limits>
#include <variant>

namespace orvik::app {

namespace {

const char* typeName(const Json& value) {
    if (value.is_number_integer()) {
        return "an integer";
    }
    switch (value.type()) {
        case Json::value_t::null:
            return "null";
        case Json::value_t::object:
            return "an object";
        case Json::value_t::array:
            return "a list";
        case Json::value_t::string:
            return "a text";
        case Json::value_t::boolean:
            return "a boolean";
        default:
            return "a number";
    }
}

[[noreturn]] void wrongType(const std::string& path, const char* expected, const Json& value) {
    throw BadRequest(path + " must be " + expected + ", not " + typeName(value));
}

std::string textValue(const Json& value, const std::string& path) {
    if (!value.is_string()) {
        wrongType(path, "a text", value);
    }
    return value.get<std::string>();
}

std::int64_t integerValue(const Json& value, const std::string& path) {
    if (!value.is_number_integer()) {
        wrongType(path, "an integer", value);
    }
    if (value.is_number_unsigned() &&
        value.get<std::uint64_t>() >
            static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        throw BadRequest(path + " is out of range");
    }
    return value.get<std::int64_t>();
}

}  // namespace

// ---------------------------------------------------------------------------
// FieldReader

FieldReader::FieldReader(const Json& value, std::string path)
    : object_(value), path_(std::move(path)) {
    if (!value.is_object()) {
        wrongType(path_, "an object", value);
    }
}

std::string FieldReader::pathOf(std::string_view key) const {
    return path_ + "." + std::string(key);
}

const Json* FieldReader::find(std::string_view key) const {
    const auto it = object_.find(std::string(key));
    if (it == object_.end() || it->is_null()) {
        return nullptr;
    }
    return &*it;
}

const Json& FieldReader::required(std::string_view key) const {
    const Json* value = find(key);
    if (value == nullptr) {
        throw BadRequest("missing " + pathOf(key));
    }
    return *value;
}

std::string FieldReader::text(std::string_view key) const {
    return textValue(required(key), pathOf(key));
}

std::optional<std::string> FieldReader::optionalText(std::string_view key) const {
    const Json* value = find(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    return textValue(*value, pathOf(key));
}

std::int64_t FieldReader::integer(std::string_view key) const {
    return integerValue(required(key), pathOf(key));
}

std::optional<std::int64_t> FieldReader::optionalInteger(std::string_view key) const {
    const Json* value = find(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    return integerValue(*value, pathOf(key));
}

double FieldReader::number(std::string_view key) const {
    const Json& value = required(key);
    if (!value.is_number()) {
        wrongType(pathOf(key), "a number", value);
    }
    return value.get<double>();
}

bool FieldReader::boolean(std::string_view key) const {
    const Json& value = required(key);
    if (!value.is_boolean()) {
        wrongType(pathOf(key), "a boolean", value);
    }
    return value.get<bool>();
}

std::vector<std::string> FieldReader::texts(std::string_view key) const {
    return list(key, textValue);
}

// ---------------------------------------------------------------------------
// Enumerations and plain values

Json toJson(const std::string& text) {
    return Json(text);
}

Json toJson(identity::MembershipState state) {
    return Json(identity::rawValue(state));
}

Json toJson(identity::DecidedBy decidedBy) {
    return Json(identity::rawValue(decidedBy));
}

Json toJson(schema::SubjectLineage lineage) {
    return Json(schema::rawValue(lineage));
}

Json toJson(schema::Taxonomy taxonomy) {
    return Json(schema::ordinal(taxonomy));
}

Json toJson(identity::IdentityHistoryEntry::Kind kind) {
    return Json(identity::rawValue(kind));
}

schema::SubjectLineage subjectLineageFromJson(const Json& value, const std::string& path) {
    const std::string text = textValue(value, path);
    if (auto lineage = schema::parseSubjectLineage(text)) {
        return *lineage;
    }
    throw BadRequest(path + " must be \"grouping\", \"person\" or \"source_identity\", not \"" +
                     text + "\"");
}

// ---------------------------------------------------------------------------
// Records, out

Json toJson(const identity::SourceIdentityRow& row) {
    Json out = Json::object();
    out["id"] = row.id;
    out["sourceType"] = row.sourceType;
    out["handleNormalized"] = row.handleNormalized;
    out["displayName"] = toJson(row.displayName);
    out["firstSeenAt"] = row.firstSeenAt;
    out["lastSeenAt"] = row.lastSeenAt;
    out["createdAt"] = row.createdAt;
    return out;
}

Json toJson(const identity::PersonRow& row) {
    Json out = Json::object();
    out["id"] = row.id;
    out["displayName"] = toJson(row.displayName);
    out["tier"] = row.tier;
    out["createdFrom"] = toJson(row.createdFrom);
    out["mergedIntoPersonID"] = toJson(row.mergedIntoPersonID);
    out["createdAt"] = row.createdAt;
    return out;
}

Json toJson(const identity::IdentityMembershipRow& row) {
    Json out = Json::object();
    out["id"] = row.id;
    out["sourceIdentityID"] = row.sourceIdentityID;
    out["canonicalPersonID"] = row.canonicalPersonID;
    out["state"] = toJson(row.state);
    out["because"] = toJson(row.because);
    out["decidedBy"] = toJson(row.decidedBy);
    out["decidedAt"] = row.decidedAt;
    out["endedAt"] = toJson(row.endedAt);
    out["createdAt"] = row.createdAt;
    return out;
}

Json toJson(const identity::MergeEventRow& row) {
    Json out = Json::object();
    out["id"] = row.id;
    out["survivingPersonID"] = row.survivingPersonID;
    out["absorbedPersonID"] = toJson(row.absorbedPersonID);
    out["preMergeStateJSON"] = row.preMergeStateJSON;
    out["because"] = toJson(row.because);
    out["decidedBy"] = toJson(row.decidedBy);
    out["createdAt"] = row.createdAt;
    out["reversedAt"] = toJson(row.reversedAt);
    out["operationID"] = toJson(row.operationID);
    return out;
}

Json toJson(const identity::ResolvedPerson& resolved) {
    Json out = Json::object();
    out["personID"] = resolved.personID;
    out["displayName"] = toJson(resolved.displayName);
    out["membershipState"] = toJson(resolved.membershipState);
    out["decidedBy"] = toJson(resolved.decidedBy);
    out["because"] = toJson(resolved.because);
    return out;
}

Json toJson(const identity::IdentityCandidate& candidate) {
    Json out = Json::object();
    out["id"] = candidate.id();
    out["sourceIdentityA"] = toJson(candidate.sourceIdentityA);
    out["sourceIdentityB"] = toJson(candidate.sourceIdentityB);
    out["existingPersonID"] = toJson(candidate.existingPersonID);
    out["score"] = candidate.score;
    out["because"] = candidate.because;
    return out;
}

Json toJson(const identity::IdentityConfirmResult& result) {
    Json out = Json::object();
    out["personID"] = result.personID;
    out["mergeEventIDs"] = toJson(result.mergeEventIDs);
    return out;
}

Json toJson(const identity::UndoMergeResult& result) {
    Json out = Json::object();
    out["mergeEventID"] = result.mergeEventID;
    out["restoredPersonID"] = toJson(result.restoredPersonID);
    out["restoredMembershipCount"] = result.restoredMembershipCount;
    out["restoredClaimCount"] = result.restoredClaimCount;
    return out;
}

Json toJson(const identity::LinkablePersonRow& row) {
    Json out = Json::object();
    out["id"] = row.id;
    out["displayName"] = row.displayName;
    out["createdAt"] = row.createdAt;
    return out;
}

Json toJson(const identity::ManualLinkTarget& target) {
    Json out = Json::object();
    if (const auto* row = std::get_if<identity::SourceIdentityRow>(&target.value)) {
        out["identity"] = toJson(*row);
    } else {
        out["person"] = std::get<identity::ManualLinkTarget::Person>(target.value).id;
    }
    return out;
}

Json toJson(const identity::ManualLinkSurvivorPrediction& prediction) {
    Json out = Json::object();
    out["targets"] = toJson(prediction.targets);
    out["personID"] = prediction.personID;
    out["survivorTargets"] = toJson(prediction.survivorTargets);
    return out;
}

Json toJson(const identity::IdentityCandidateContext& context) {
    Json out = Json::object();
    out["sourceIdentityID"] = context.sourceIdentityID;
    out["provider"] = context.provider;
    out["displayName"] = toJson(context.displayName);
    out["conversationCount"] = context.conversationCount;
    out["lastSeenAt"] = context.lastSeenAt;
    out["sharedThreadCount"] = context.sharedThreadCount;
    out["exactHandleMatch"] = context.exactHandleMatch;
    return out;
}

Json toJson(const identity::IdentityHistoryEntry& entry) {
    Json out = Json::object();
    out["mergeEventID"] = entry.mergeEventID;
    out["kind"] = toJson(entry.kind);
    out["occurredAt"] = entry.occurredAt;
    out["reversedAt"] = toJson(entry.reversedAt);
    out["because"] = toJson(entry.because);
    out["survivingPersonID"] = entry.survivingPersonID;
    out["absorbedPersonID"] = toJson(entry.absorbedPersonID);
    out["involvedSourceIdentityIDs"] = toJson(entry.involvedSourceIdentityIDs);
    out["providers"] = toJson(entry.providers);
    out["operationID"] = toJson(entry.operationID);
    out["mergeEventIDs"] = toJson(entry.mergeEventIDs);
    return out;
}

Json toJson(const identity::DeclareOwnerAliasResult& result) {
    Json out = Json::object();
    out["excludedPersonID"] = toJson(result.excludedPersonID);
    out["wasNewAlias"] = result.wasNewAlias;
    return out;
}

Json toJson(const identity::OwnerAliasMutation& mutation) {
    Json aliases = Json::array();
    for (const auto& alias : mutation.insertedAliases) {
        Json item = Json::object();
        item["sourceIdentityID"] = alias.sourceIdentityID;
        item["sourceType"] = alias.sourceType;
        item["handleNormalized"] = alias.handleNormalized;
        aliases.push_back(std::move(item));
    }
    Json exclusions = Json::array();
    for (const auto& exclusion : mutation.insertedExclusions) {
        Json item = Json::object();
        item["exclusionRuleID"] = exclusion.exclusionRuleID;
        item["personID"] = exclusion.personID;
        exclusions.push_back(std::move(item));
    }
    Json out = Json::object();
    out["insertedAliases"] = std::move(aliases);
    out["insertedExclusions"] = std::move(exclusions);
    return out;
}

Json toJson(const identity::OwnerAliasDeclarationOutcome& outcome) {
    Json out = Json::object();
    out["perIdentity"] = toJson(outcome.perIdentity);
    out["mutation"] = toJson(outcome.mutation);
    return out;
}

Json toJson(const identity::IdentityCorrectionCounts& counts) {
    // Parsed back from the library's own text so that the two forms cannot drift
    // apart; the ordered parse keeps its key order.
    return Json::parse(identity::encodeJSON(counts));
}

Json toJson(const schema::LinkIdentityRequest& request) {
    Json out = Json::object();
    out["personID"] = request.personID;
    out["sourceIdentityID"] = request.sourceIdentityID;
    out["confirmed"] = request.confirmed;
    return out;
}

Json toJson(const schema::LinkIdentityResponse& response) {
    Json out = Json::object();
    out["because"] = response.because;
    out["message"] = toJson(response.message);
    out["taxonomy"] = toJson(response.taxonomy);
    out["mergeEventID"] = toJson(response.mergeEventID);
    out["status"] = schema::rawValue(response.status);
    return out;
}

Json toJson(const schema::ProposeMergeRequest& request) {
    Json out = Json::object();
    out["presetValue"] = request.presetValue ? Json(*request.presetValue) : Json(nullptr);
    out["personIDA"] = request.personIDA;
    out["personIDB"] = request.personIDB;
    out["subjectID"] = request.subjectID;
    out["subjectLineage"] = toJson(request.subjectLineage);
    out["confirmed"] = request.confirmed;
    return out;
}

Json toJson(const schema::ProposeMergeResponse& response) {
    Json out = Json::object();
    out["because"] = response.because;
    out["message"] = toJson(response.message);
    out["taxonomy"] = toJson(response.taxonomy);
    out["mergeEventID"] = toJson(response.mergeEventID);
    out["status"] = schema::rawValue(response.status);
    return out;
}

Json toJson(const schema::MarkDifferentRequest& request) {
    Json out = Json::object();
    out["reason"] = request.reason;
    out["presetValue"] = request.presetValue ? Json(*request.presetValue) : Json(nullptr);
    out["personIDA"] = request.personIDA;
    out["personIDB"] = request.personIDB;
    out["subjectID"] = request.subjectID;
    out["subjectLineage"] = toJson(request.subjectLineage);
    return out;
}

Json toJson(const schema::MarkDifferentResponse& response) {
    Json out = Json::object();
    out["constraintID"] = toJson(response.constraintID);
    out["refused"] = response.refused;
    out["message"] = toJson(response.message);
    out["taxonomy"] = toJson(response.taxonomy);
    return out;
}

Json toJson(const identity::IdentityCorrectionWitness::Event& event) {
    using Witness = identity::IdentityCorrectionWitness;
    Json out = Json::object();
    out["kind"] = Witness::rawValue(event.kind);
    out["identityCount"] = event.identityCount;
    out["mergeEventCount"] = event.mergeEventCount;
    out["absorbedPersonCount"] = event.absorbedPersonCount;
    out["restoredPersonCount"] = event.restoredPersonCount;
    out["restoredMembershipCount"] = event.restoredMembershipCount;
    out["operationID"] = toJson(event.operationID);
    out["line"] = Witness::message(event);
    return out;
}

// ---------------------------------------------------------------------------
// Records, in

identity::SourceIdentityRow sourceIdentityFromJson(const Json& value, const std::string& path) {
    const FieldReader in(value, path);
    return identity::SourceIdentityRow{
        .id = in.text("id"),
        .sourceType = in.text("sourceType"),
        .handleNormalized = in.text("handleNormalized"),
        .displayName = in.optionalText("displayName"),
        .firstSeenAt = in.text("firstSeenAt"),
        .lastSeenAt = in.text("lastSeenAt"),
        .createdAt = in.text("createdAt"),
    };
}

identity::IdentityCandidate candidateFromJson(const Json& value, const std::string& path) {
    const FieldReader in(value, path);
    return identity::IdentityCandidate{
        .sourceIdentityA = in.get("sourceIdentityA", sourceIdentityFromJson),
        .sourceIdentityB = in.get("sourceIdentityB", sourceIdentityFromJson),
        .existingPersonID = in.optionalText("existingPersonID"),
        .score = in.number("score"),
        .because = in.text("because"),
    };
}

identity::ManualLinkTarget manualLinkTargetFromJson(const Json& value, const std::string& path) {
    const FieldReader in(value, path);
    const bool isIdentity = in.find("identity") != nullptr;
    const bool isPerson = in.find("person") != nullptr;
    if (isIdentity == isPerson) {
        throw BadRequest(path + " must have exactly one of \"identity\" and \"person\"");
    }
    if (isIdentity) {
        return identity::ManualLinkTarget::identity(in.get("identity", sourceIdentityFromJson));
    }
    return identity::ManualLinkTarget::person(in.text("person"));
}

identity::OwnerAliasMutation ownerAliasMutationFromJson(const Json& value,
                                                        const std::string& path) {
    const FieldReader in(value, path);
    const auto alias = [](const Json& item, const std::string& where) {
        const FieldReader fields(item, where);
        return identity::OwnerAliasMutation::InsertedAlias{
            .sourceIdentityID = fields.text("sourceIdentityID"),
            .sourceType = fields.text("sourceType"),
            .handleNormalized = fields.text("handleNormalized"),
        };
    };
    const auto exclusion = [](const Json& item, const std::string& where) {
        const FieldReader fields(item, where);
        return identity::OwnerAliasMutation::InsertedExclusion{
            .exclusionRuleID = fields.text("exclusionRuleID"),
            .personID = fields.text("personID"),
        };
    };
    return identity::OwnerAliasMutation{
        .insertedAliases = in.list("insertedAliases", alias),
        .insertedExclusions = in.list("insertedExclusions", exclusion),
    };
}

schema::LinkIdentityRequest linkIdentityRequestFromJson(const Json& value,
                                                        const std::string& path) {
    const FieldReader in(value, path);
    return schema::LinkIdentityRequest{
        .personID = in.text("personID"),
        .sourceIdentityID = in.text("sourceIdentityID"),
        .confirmed = in.boolean("confirmed"),
    };
}

schema::ProposeMergeRequest proposeMergeRequestFromJson(const Json& value,
                                                        const std::string& path) {
    const FieldReader in(value, path);
    return schema::ProposeMergeRequest{
        .presetValue = in.optionalInteger("presetValue"),
        .personIDA = in.text("personIDA"),
        .personIDB = in.text("personIDB"),
        .subjectID = in.text("subjectID"),
        .subjectLineage = in.get("subjectLineage", subjectLineageFromJson),
        .confirmed = in.boolean("confirmed"),
    };
}

schema::MarkDifferentRequest markDifferentRequestFromJson(const Json& value,
                                                          const std::string& path) {
    const FieldReader in(value, path);
    return schema::MarkDifferentRequest{
        .reason = in.text("reason"),
        .presetValue = in.optionalInteger("presetValue"),
        .personIDA = in.text("personIDA"),
        .personIDB = in.text("personIDB"),
        .subjectID = in.text("subjectID"),
        .subjectLineage = in.get("subjectLineage", subjectLineageFromJson),
    };
}

}  // namespace orvik::app
