#include "app/CliState.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

#include "codec/RecordCodec.h"
#include "host/HostServices.h"

namespace orvik::app {

namespace {

using codec::BadRequest;
using codec::FieldReader;
using codec::Json;
using codec::toJson;

constexpr std::array<std::pair<CliCorrection::Kind, std::string_view>, 6> kKinds{{
    {CliCorrection::Kind::confirm, "confirm"},
    {CliCorrection::Kind::link, "link"},
    {CliCorrection::Kind::separate, "separate"},
    {CliCorrection::Kind::reject, "reject"},
    {CliCorrection::Kind::different, "different"},
    {CliCorrection::Kind::me, "me"},
}};

std::optional<std::filesystem::path> stateDirectory() {
    if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && *state == '/') {
        return std::filesystem::path(state) / "orvik-identity";
    }
    if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/') {
        return std::filesystem::path(home) / ".local" / "state" / "orvik-identity";
    }
    return std::nullopt;
}

Json correctionToJson(const CliCorrection& correction) {
    Json out = Json::object();
    for (const auto& [kind, name] : kKinds) {
        if (kind == correction.kind) {
            out["kind"] = name;
        }
    }
    out["summary"] = correction.summary;
    out["mergeEventIDs"] = toJson(correction.mergeEventIDs);
    out["mutation"] = toJson(correction.mutation);
    out["sides"] = toJson(correction.sides);
    return out;
}

CliCorrection correctionFromJson(const Json& value) {
    const FieldReader in(value, "lastCorrection");
    CliCorrection correction;
    const auto kind = in.text("kind");
    const auto it = std::find_if(kKinds.begin(), kKinds.end(),
                                 [&](const auto& entry) { return entry.second == kind; });
    if (it == kKinds.end()) {
        throw BadRequest("unknown correction kind " + kind);
    }
    correction.kind = it->first;
    correction.summary = in.text("summary");
    correction.mergeEventIDs = in.texts("mergeEventIDs");
    if (in.find("mutation") != nullptr) {
        correction.mutation = in.read<identity::OwnerAliasMutation>("mutation");
    }
    correction.sides = in.texts("sides");
    return correction;
}

}  // namespace

CliState CliState::forStore(const std::filesystem::path& storePath) {
    CliState state;
    std::error_code error;
    auto absolute = std::filesystem::absolute(storePath, error);
    state.store_ = (error ? storePath : absolute.lexically_normal()).string();
    const auto directory = stateDirectory();
    if (!directory) {
        return state;
    }
    state.file_ = *directory / (host::stableID(state.store_) + ".json");

    std::ifstream in(*state.file_, std::ios::binary);
    if (!in) {
        return state;
    }
    std::stringstream bytes;
    bytes << in.rdbuf();
    try {
        const Json saved = Json::parse(bytes.str());
        const FieldReader fields(saved, "state");
        if (fields.text("store") != state.store_) {
            return state;  // a different store with the same name digest: ignore
        }
        state.listing_ = fields.read<std::vector<identity::IdentityCandidate>>("listing");
        if (const Json* last = fields.find("lastCorrection")) {
            state.lastCorrection_ = correctionFromJson(*last);
        }
    } catch (const std::exception&) {
        // A damaged state file is an empty state; it is replaced on the next save.
        state.listing_.clear();
        state.lastCorrection_.reset();
    }
    return state;
}

bool CliState::rememberListing(std::vector<identity::IdentityCandidate> candidates) {
    listing_ = std::move(candidates);
    return save();
}

bool CliState::rememberCorrection(CliCorrection correction) {
    lastCorrection_ = std::move(correction);
    return save();
}

bool CliState::forgetCorrection() {
    lastCorrection_.reset();
    return save();
}

bool CliState::save() const {
    if (!file_) {
        return false;
    }
    Json saved = Json::object();
    saved["store"] = store_;
    saved["listing"] = toJson(listing_);
    saved["lastCorrection"] = lastCorrection_ ? correctionToJson(*lastCorrection_) : Json(nullptr);

    std::error_code error;
    std::filesystem::create_directories(file_->parent_path(), error);
    if (error) {
        return false;
    }
    // Write a sibling and rename it over the file, so that a reader never sees half
    // a state.
    const auto temporary =
        std::filesystem::path(file_->string() + "." + std::to_string(::getpid()) + ".tmp");
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out << saved.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
        out.flush();
        if (!out) {
            std::filesystem::remove(temporary, error);
            return false;
        }
    }
    std::filesystem::rename(temporary, *file_, error);
    if (error) {
        std::filesystem::remove(temporary, error);
        return false;
    }
    return true;
}

}  // namespace orvik::app
