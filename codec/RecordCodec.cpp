#include "codec/RecordCodec.h"

#include <limits>
#include <variant>

#include "codec/RecordFields.h"

namespace orvik::codec {

// ---------------------------------------------------------------------------
// Plain values

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

void wrongType(const std::string& path, const char* expected, const Json& value) {
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

double numberValue(const Json& value, const std::string& path) {
    if (!value.is_number()) {
        wrongType(path, "a number", value);
    }
    return value.get<double>();
}

bool booleanValue(const Json& value, const std::string& path) {
    if (!value.is_boolean()) {
        wrongType(path, "a boolean", value);
    }
    return value.get<bool>();
}

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

// ---------------------------------------------------------------------------
// Values with a form of their own

schema::Taxonomy ValueCodec<schema::Taxonomy>::decode(const Json& value, const std::string& path) {
    if (auto taxonomy = schema::taxonomyFromOrdinal(integerValue(value, path))) {
        return *taxonomy;
    }
    throw BadRequest(path + " must be a taxonomy ordinal from 0 to 4");
}

Json ValueCodec<identity::ManualLinkTarget>::encode(const identity::ManualLinkTarget& target) {
    Json out = Json::object();
    if (const auto* row = std::get_if<identity::SourceIdentityRow>(&target.value)) {
        out["identity"] = toJson(*row);
    } else {
        out["person"] = std::get<identity::ManualLinkTarget::Person>(target.value).id;
    }
    return out;
}

identity::ManualLinkTarget ValueCodec<identity::ManualLinkTarget>::decode(const Json& value,
                                                                          const std::string& path) {
    const FieldReader in(value, path);
    const bool isIdentity = in.find("identity") != nullptr;
    const bool isPerson = in.find("person") != nullptr;
    if (isIdentity == isPerson) {
        throw BadRequest(path + " must have exactly one of \"identity\" and \"person\"");
    }
    if (isIdentity) {
        return identity::ManualLinkTarget::identity(
            in.read<identity::SourceIdentityRow>("identity"));
    }
    return identity::ManualLinkTarget::person(in.text("person"));
}

Json ValueCodec<identity::IdentityCorrectionCounts>::encode(
    const identity::IdentityCorrectionCounts& counts) {
    // Parsed back from the library's own text so that the two forms cannot drift
    // apart; the ordered parse keeps its key order.
    return Json::parse(identity::encodeJSON(counts));
}

identity::IdentityCorrectionCounts ValueCodec<identity::IdentityCorrectionCounts>::decode(
    const Json& value, const std::string& path) {
    if (auto counts = identity::decodeIdentityCorrectionCounts(value.dump())) {
        return *counts;
    }
    throw BadRequest(path + " is not a correction counts object");
}

Json ValueCodec<identity::IdentityCandidateSuggestionResult>::encode(
    const identity::IdentityCandidateSuggestionResult& result) {
    Json out = Json::object();
    if (const auto* proposed =
            std::get_if<std::vector<identity::IdentityCandidateProposal>>(&result.value)) {
        out["proposed"] = toJson(*proposed);
    } else if (std::holds_alternative<identity::IdentityCandidateSuggestionResult::NoMatchFound>(
                   result.value)) {
        out["noMatchFound"] = true;
    } else {
        out["unavailable"] = true;
    }
    return out;
}

identity::IdentityCandidateSuggestionResult
ValueCodec<identity::IdentityCandidateSuggestionResult>::decode(const Json& value,
                                                                const std::string& path) {
    using Result = identity::IdentityCandidateSuggestionResult;
    const FieldReader in(value, path);
    const bool proposed = in.find("proposed") != nullptr;
    const bool noMatch = in.find("noMatchFound") != nullptr && in.read<bool>("noMatchFound");
    const bool unavailable = in.find("unavailable") != nullptr && in.read<bool>("unavailable");
    if (int(proposed) + int(noMatch) + int(unavailable) != 1) {
        throw BadRequest(path +
                         " must have exactly one of \"proposed\", \"noMatchFound\" and "
                         "\"unavailable\"");
    }
    if (proposed) {
        return Result::proposed(
            in.read<std::vector<identity::IdentityCandidateProposal>>("proposed"));
    }
    return noMatch ? Result::noMatchFound() : Result::unavailable();
}

}  // namespace orvik::codec
