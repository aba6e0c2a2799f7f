// JSON encoding and decoding of the merge pre-state snapshot stored in
// merge_event.pre_merge_state_json.
//
// The writer is hand-rolled so that the bytes are fully under our control: the key
// order is fixed and every "/" is escaped, matching snapshots already on disk.
// Reading goes through nlohmann::json and accepts any key order.
#include <algorithm>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "identity/IdentityModels.h"

namespace orvik::identity {
namespace {

// Length of the well-formed UTF-8 sequence that starts at text[at], or 0 when there
// is none (truncated, overlong, surrogate or beyond U+10FFFF).
std::size_t utf8SequenceLength(std::string_view text, std::size_t at) {
    const auto lead = static_cast<unsigned char>(text[at]);
    if (lead < 0x80) {
        return 1;
    }
    std::size_t length = 0;
    unsigned char secondLow = 0x80;
    unsigned char secondHigh = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) {
            secondLow = 0xA0;
        } else if (lead == 0xED) {
            secondHigh = 0x9F;
        }
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) {
            secondLow = 0x90;
        } else if (lead == 0xF4) {
            secondHigh = 0x8F;
        }
    } else {
        return 0;
    }
    if (text.size() - at < length) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[at + i]);
        const unsigned char low = i == 1 ? secondLow : 0x80;
        const unsigned char high = i == 1 ? secondHigh : 0xBF;
        if (byte < low || byte > high) {
            return 0;
        }
    }
    return length;
}

// Compact JSON writer for the snapshot. Members are overloads of value() so that
// the list and field templates see every record type regardless of order.
class SnapshotWriter {
  public:
    [[nodiscard]] std::string take() && { return std::move(out_); }

    void value(const MergePreState& s) {
        beginObject();
        field("priorActiveMemberships", s.priorActiveMemberships);
        field("priorClaimPersonID", s.priorClaimPersonID);
        field("writtenMembershipIDs", s.writtenMembershipIDs);
        field("revokedDifferentConstraintIDs", s.revokedDifferentConstraintIDs);
        field("createdDifferentConstraintIDs", s.createdDifferentConstraintIDs);
        field("membershipPreimages", s.membershipPreimages);
        field("membershipPostImages", s.membershipPostImages);
        field("preExistingSurvivorClaimIDs", s.preExistingSurvivorClaimIDs);
        field("personPreimages", s.personPreimages);
        field("personPostImages", s.personPostImages);
        field("claimOwnershipImages", s.claimOwnershipImages);
        field("createdSameConstraintID", s.createdSameConstraintID);
        field("captureAssociationImages", s.captureAssociationImages);
        field("followUpOwnershipImages", s.followUpOwnershipImages);
        field("openLoopOwnershipImages", s.openLoopOwnershipImages);
        field("dispositionKeyImages", s.dispositionKeyImages);
        endObject();
    }

  private:
    void value(const MergePreState::PriorMembership& m) {
        beginObject();
        field("id", m.id);
        field("sourceIdentityID", m.sourceIdentityID);
        field("canonicalPersonID", m.canonicalPersonID);
        field("state", m.state);
        field("because", m.because);
        field("decidedBy", m.decidedBy);
        field("decidedAt", m.decidedAt);
        endObject();
    }

    void value(const MergePreState::MembershipRowImage& m) {
        beginObject();
        field("id", m.id);
        field("sourceIdentityID", m.sourceIdentityID);
        field("canonicalPersonID", m.canonicalPersonID);
        field("state", m.state);
        field("because", m.because);
        field("decidedBy", m.decidedBy);
        field("decidedAt", m.decidedAt);
        field("endedAt", m.endedAt);
        endObject();
    }

    void value(const MergePreState::PersonRowImage& p) {
        beginObject();
        field("id", p.id);
        field("displayName", p.displayName);
        field("tier", p.tier);
        field("createdFrom", p.createdFrom);
        field("mergedIntoPersonID", p.mergedIntoPersonID);
        endObject();
    }

    void value(const MergePreState::ClaimOwnershipImage& c) {
        beginObject();
        field("id", c.id);
        field("preimagePersonID", c.preimagePersonID);
        field("postimagePersonID", c.postimagePersonID);
        endObject();
    }

    void value(const MergePreState::CaptureAssociationImage& c) {
        beginObject();
        field("sourceObjectID", c.sourceObjectID);
        field("preimagePersonID", c.preimagePersonID);
        field("postimagePersonID", c.postimagePersonID);
        field("preimageState", c.preimageState);
        field("preimageEndedAt", c.preimageEndedAt);
        endObject();
    }

    void value(const MergePreState::DispositionKeyImage& d) {
        beginObject();
        field("oldCandidateKey", d.oldCandidateKey);
        field("newCandidateKey", d.newCandidateKey);
        field("preimagePersonID", d.preimagePersonID);
        field("postimagePersonID", d.postimagePersonID);
        endObject();
    }

    void value(const std::map<std::string, std::string>& map) {
        beginObject();
        for (const auto& [key, text] : map) {
            field(key, text);
        }
        endObject();
    }

    template <class T>
    void value(const std::vector<T>& items) {
        out_ += '[';
        for (std::size_t i = 0; i < items.size(); ++i) {
            if (i > 0) {
                out_ += ',';
            }
            value(items[i]);
        }
        out_ += ']';
    }

    void value(std::string_view text) {
        static constexpr char hex[] = "0123456789abcdef";
        // Written as a backslash pair; "/" included, as in snapshots already stored.
        static constexpr std::string_view shortEscaped = "\"\\/\b\f\n\r\t";
        static constexpr std::string_view shortEscapes = "\"\\/bfnrt";
        out_ += '"';
        for (std::size_t i = 0; i < text.size();) {
            const char c = text[i];
            const auto byte = static_cast<unsigned char>(c);
            if (byte >= 0x80) {
                const std::size_t length = utf8SequenceLength(text, i);
                if (length == 0) {
                    throw IdentityStoreError(IdentityStoreError::Case::corruptRestoreMap);
                }
                out_.append(text.substr(i, length));
                i += length;
                continue;
            }
            if (const std::size_t k = shortEscaped.find(c); k != std::string_view::npos) {
                out_ += '\\';
                out_ += shortEscapes[k];
            } else if (byte < 0x20) {
                out_ += "\\u00";
                out_ += hex[byte >> 4];
                out_ += hex[byte & 0x0F];
            } else {
                out_ += c;
            }
            ++i;
        }
        out_ += '"';
    }

    template <class T>
    void field(std::string_view key, const T& fieldValue) {
        if (!firstField_) {
            out_ += ',';
        }
        value(key);
        out_ += ':';
        value(fieldValue);
        firstField_ = false;
    }

    // Absent optionals are left out rather than written as null.
    template <class T>
    void field(std::string_view key, const std::optional<T>& fieldValue) {
        if (fieldValue) {
            field(key, *fieldValue);
        }
    }

    void beginObject() {
        out_ += '{';
        firstField_ = true;
    }

    // Whatever encloses a finished object has just received a value, so the next
    // field there needs a comma.
    void endObject() {
        out_ += '}';
        firstField_ = false;
    }

    std::string out_;
    bool firstField_ = true;
};

using Json = nlohmann::json;

// Raised by SnapshotReader on any shape or type mismatch; never leaves this file.
struct Malformed {};

class SnapshotReader {
  public:
    static MergePreState snapshot(const Json& json) {
        expectObject(json);
        MergePreState s;
        readRequired(json, "priorActiveMemberships", s.priorActiveMemberships);
        readRequired(json, "priorClaimPersonID", s.priorClaimPersonID);
        readRequired(json, "writtenMembershipIDs", s.writtenMembershipIDs);
        // Later additions to the format: older rows lack them.
        readOptional(json, "revokedDifferentConstraintIDs", s.revokedDifferentConstraintIDs);
        readOptional(json, "createdDifferentConstraintIDs", s.createdDifferentConstraintIDs);
        readOptional(json, "membershipPreimages", s.membershipPreimages);
        readOptional(json, "membershipPostImages", s.membershipPostImages);
        readOptional(json, "preExistingSurvivorClaimIDs", s.preExistingSurvivorClaimIDs);
        readOptional(json, "personPreimages", s.personPreimages);
        readOptional(json, "personPostImages", s.personPostImages);
        readOptional(json, "claimOwnershipImages", s.claimOwnershipImages);
        readOptional(json, "createdSameConstraintID", s.createdSameConstraintID);
        readOptional(json, "captureAssociationImages", s.captureAssociationImages);
        readOptional(json, "followUpOwnershipImages", s.followUpOwnershipImages);
        readOptional(json, "openLoopOwnershipImages", s.openLoopOwnershipImages);
        readOptional(json, "dispositionKeyImages", s.dispositionKeyImages);
        return s;
    }

  private:
    static void read(const Json& json, MergePreState::PriorMembership& out) {
        expectObject(json);
        readRequired(json, "id", out.id);
        readRequired(json, "sourceIdentityID", out.sourceIdentityID);
        readRequired(json, "canonicalPersonID", out.canonicalPersonID);
        readRequired(json, "state", out.state);
        readOptional(json, "because", out.because);
        readRequired(json, "decidedBy", out.decidedBy);
        readRequired(json, "decidedAt", out.decidedAt);
    }

    static void read(const Json& json, MergePreState::MembershipRowImage& out) {
        expectObject(json);
        readRequired(json, "id", out.id);
        readRequired(json, "sourceIdentityID", out.sourceIdentityID);
        readRequired(json, "canonicalPersonID", out.canonicalPersonID);
        readRequired(json, "state", out.state);
        readOptional(json, "because", out.because);
        readRequired(json, "decidedBy", out.decidedBy);
        readRequired(json, "decidedAt", out.decidedAt);
        readOptional(json, "endedAt", out.endedAt);
    }

    static void read(const Json& json, MergePreState::PersonRowImage& out) {
        expectObject(json);
        readRequired(json, "id", out.id);
        readOptional(json, "displayName", out.displayName);
        readRequired(json, "tier", out.tier);
        readOptional(json, "createdFrom", out.createdFrom);
        readOptional(json, "mergedIntoPersonID", out.mergedIntoPersonID);
    }

    static void read(const Json& json, MergePreState::ClaimOwnershipImage& out) {
        expectObject(json);
        readRequired(json, "id", out.id);
        readRequired(json, "preimagePersonID", out.preimagePersonID);
        readRequired(json, "postimagePersonID", out.postimagePersonID);
    }

    static void read(const Json& json, MergePreState::CaptureAssociationImage& out) {
        expectObject(json);
        readRequired(json, "sourceObjectID", out.sourceObjectID);
        readRequired(json, "preimagePersonID", out.preimagePersonID);
        readRequired(json, "postimagePersonID", out.postimagePersonID);
        readOptional(json, "preimageState", out.preimageState);
        readOptional(json, "preimageEndedAt", out.preimageEndedAt);
    }

    static void read(const Json& json, MergePreState::DispositionKeyImage& out) {
        expectObject(json);
        readRequired(json, "oldCandidateKey", out.oldCandidateKey);
        readRequired(json, "newCandidateKey", out.newCandidateKey);
        readRequired(json, "preimagePersonID", out.preimagePersonID);
        readRequired(json, "postimagePersonID", out.postimagePersonID);
    }

    static void read(const Json& json, std::map<std::string, std::string>& out) {
        expectObject(json);
        for (const auto& [key, item] : json.items()) {
            read(item, out[key]);
        }
    }

    template <class T>
    static void read(const Json& json, std::vector<T>& out) {
        if (!json.is_array()) {
            throw Malformed{};
        }
        out.reserve(json.size());
        for (const Json& item : json) {
            read(item, out.emplace_back());
        }
    }

    template <class T>
    static void read(const Json& json, std::optional<T>& out) {
        read(json, out.emplace());
    }

    static void read(const Json& json, std::string& out) {
        if (!json.is_string()) {
            throw Malformed{};
        }
        out = json.get_ref<const std::string&>();
    }

    // A null value counts as a missing key.
    static const Json* member(const Json& object, const char* key) {
        const auto it = object.find(key);
        return it == object.end() || it->is_null() ? nullptr : &*it;
    }

    template <class T>
    static void readRequired(const Json& object, const char* key, T& out) {
        const Json* found = member(object, key);
        if (found == nullptr) {
            throw Malformed{};
        }
        read(*found, out);
    }

    // Missing or null leaves out at its default (empty list, absent value).
    template <class T>
    static void readOptional(const Json& object, const char* key, T& out) {
        if (const Json* found = member(object, key)) {
            read(*found, out);
        }
    }

    static void expectObject(const Json& json) {
        if (!json.is_object()) {
            throw Malformed{};
        }
    }
};

}  // namespace

std::string encodeJSON(const MergePreState& state) {
    SnapshotWriter writer;
    writer.value(state);
    return std::move(writer).take();
}

std::optional<MergePreState> decodeMergePreState(std::string_view text) noexcept {
    try {
        // The parser rejects ill-formed UTF-8 inside strings, so no separate check.
        const Json root = Json::parse(text.begin(), text.end(), nullptr,
                                      /*allow_exceptions=*/false);
        return SnapshotReader::snapshot(root);
    } catch (...) {
        return std::nullopt;
    }
}

std::vector<std::string> affectedIdentityIDs(const MergePreState& state) {
    std::vector<std::string> ids;
    ids.reserve(state.membershipPostImages.size() + state.membershipPreimages.size());
    for (const auto& image : state.membershipPostImages) {
        ids.push_back(image.sourceIdentityID);
    }
    for (const auto& image : state.membershipPreimages) {
        ids.push_back(image.sourceIdentityID);
    }
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    return ids;
}

}  // namespace orvik::identity
