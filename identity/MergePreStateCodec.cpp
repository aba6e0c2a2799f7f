// JSON encoding and decoding of the merge pre-state snapshot stored in
// merge_event.pre_merge_state_json.
//
// The writer is hand-rolled so that the bytes are fully under our control: the key
// order is fixed and every "/" is escaped, matching snapshots already on disk.
//
// Reading accepts any key order. Every undo, separation and history entry reads a
// snapshot, so the common shape is read directly into the records (SnapshotScanner):
// objects, arrays, strings and nulls, each key known and given once. Anything else
// (numbers, booleans, unknown keys, repeated keys, a byte-order mark, or any error)
// is handed to the general reader on nlohmann::json, which decides: the scanner
// only ever answers where both readers give the same answer.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

// The bytes the writer copies as they are: printable ASCII but for the quote,
// the backslash and "/", which are written escaped.
constexpr std::array<bool, 256> kWrittenAsIsBytes = [] {
    std::array<bool, 256> asIs{};
    for (int byte = 0x20; byte < 0x80; ++byte) {
        asIs[static_cast<std::size_t>(byte)] = byte != '"' && byte != '\\' && byte != '/';
    }
    return asIs;
}();

// The bytes a string runs on without a second look: printable ASCII but for the
// quote that ends it and the backslash that starts an escape.
constexpr std::array<bool, 256> kPlainStringBytes = [] {
    std::array<bool, 256> plain{};
    for (int byte = 0x20; byte < 0x80; ++byte) {
        plain[static_cast<std::size_t>(byte)] = byte != '"' && byte != '\\';
    }
    return plain;
}();

// The end of the run of bytes that starts at `at` and that a string holds as
// they are: those of kPlainStringBytes, or of kWrittenAsIsBytes when slashEnds.
// Sixteen bytes at a time where the processor has SSE2.
template <bool kSlashEnds>
std::size_t plainRunEnd(std::string_view text, std::size_t at) {
    const char* bytes = text.data();
    const std::size_t size = text.size();
#if defined(__SSE2__)
    const __m128i quote = _mm_set1_epi8('"');
    const __m128i backslash = _mm_set1_epi8('\\');
    const __m128i firstPrintable = _mm_set1_epi8(0x20);
    for (; at + 16 <= size; at += 16) {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + at));
        // As signed bytes, 0x80 and above are negative, so below 0x20 as well.
        __m128i ends = _mm_or_si128(
            _mm_cmplt_epi8(block, firstPrintable),
            _mm_or_si128(_mm_cmpeq_epi8(block, quote), _mm_cmpeq_epi8(block, backslash)));
        if constexpr (kSlashEnds) {
            ends = _mm_or_si128(ends, _mm_cmpeq_epi8(block, _mm_set1_epi8('/')));
        }
        if (const auto mask = static_cast<unsigned>(_mm_movemask_epi8(ends)); mask != 0) {
            return at + static_cast<std::size_t>(__builtin_ctz(mask));
        }
    }
#endif
    const auto& asIs = kSlashEnds ? kWrittenAsIsBytes : kPlainStringBytes;
    while (at < size && asIs[static_cast<unsigned char>(bytes[at])]) {
        ++at;
    }
    return at;
}

// Compact JSON writer for the snapshot. Members are overloads of value() so that
// the list and field templates see every record type regardless of order.
class SnapshotWriter {
  public:
    // A snapshot of a link or a merge of two small persons takes about 2 KB.
    SnapshotWriter() : out_(4096, '\0'), at_(out_.data()), end_(at_ + out_.size()) {}

    [[nodiscard]] std::string take() && {
        out_.resize(static_cast<std::size_t>(at_ - out_.data()));
        return std::move(out_);
    }

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

    // The keys here are data (identity ids), so unlike field names they are
    // escaped like any other string.
    void value(const std::map<std::string, std::string>& map) {
        beginObject();
        for (const auto& [key, text] : map) {
            if (!firstField_) {
                put(',');
            }
            value(key);
            put(':');
            value(text);
            firstField_ = false;
        }
        endObject();
    }

    template <class T>
    void value(const std::vector<T>& items) {
        put('[');
        for (std::size_t i = 0; i < items.size(); ++i) {
            if (i > 0) {
                put(',');
            }
            value(items[i]);
        }
        put(']');
    }

    void value(std::string_view text) {
        static constexpr char hex[] = "0123456789abcdef";
        // Written as a backslash pair; "/" included, as in snapshots already stored.
        static constexpr std::string_view shortEscaped = "\"\\/\b\f\n\r\t";
        static constexpr std::string_view shortEscapes = "\"\\/bfnrt";
        // Room for the common case, a string without escapes, in one check.
        room(text.size() + 2);
        put('"');
        for (std::size_t i = 0; i < text.size();) {
            // A run of bytes written as they are, copied at once.
            const std::size_t plain = plainRunEnd<true>(text, i);
            put(text.substr(i, plain - i));
            i = plain;
            if (i == text.size()) {
                break;
            }
            const char c = text[i];
            const auto byte = static_cast<unsigned char>(c);
            if (byte >= 0x80) {
                const std::size_t length = utf8SequenceLength(text, i);
                if (length == 0) {
                    throw IdentityStoreError(IdentityStoreError::Case::corruptRestoreMap);
                }
                put(text.substr(i, length));
                i += length;
                continue;
            }
            if (const std::size_t k = shortEscaped.find(c); k != std::string_view::npos) {
                room(2);
                *at_++ = '\\';
                *at_++ = shortEscapes[k];
            } else if (byte < 0x20) {
                room(6);
                at_ = std::copy_n("\\u00", 4, at_);
                *at_++ = hex[byte >> 4];
                *at_++ = hex[byte & 0x0F];
            } else {
                put(c);
            }
            ++i;
        }
        put('"');
    }

    // name is one of the format's field names: plain ASCII, written as it is.
    template <class T>
    void field(std::string_view name, const T& fieldValue) {
        room(name.size() + 4);
        if (!firstField_) {
            *at_++ = ',';
        }
        *at_++ = '"';
        at_ = std::copy_n(name.data(), name.size(), at_);
        *at_++ = '"';
        *at_++ = ':';
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
        put('{');
        firstField_ = true;
    }

    // Whatever encloses a finished object has just received a value, so the next
    // field there needs a comma.
    void endObject() {
        put('}');
        firstField_ = false;
    }

    // The text is written through a cursor into out_, which is kept larger than
    // what it holds until take() trims it: a byte costs a store, where appending
    // to a std::string checks and updates its length each time.
    void room(std::size_t n) {
        if (static_cast<std::size_t>(end_ - at_) < n) {
            const auto used = static_cast<std::size_t>(at_ - out_.data());
            out_.resize(std::max(out_.size() * 2, used + n));
            at_ = out_.data() + used;
            end_ = out_.data() + out_.size();
        }
    }
    void put(char c) {
        room(1);
        *at_++ = c;
    }
    void put(std::string_view bytes) {
        room(bytes.size());
        at_ = std::copy_n(bytes.data(), bytes.size(), at_);
    }

    std::string out_;
    char* at_;
    char* end_;
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

// The index of key among the names, looked for at `from` first and then round
// from there: reading what the writer wrote, the next key is the one after the
// last. names.size() when the key is none of them.
template <class Names, class Projection = std::identity>
std::size_t nameIndex(const Names& names, std::string_view key, std::size_t from,
                      Projection project = {}) {
    const std::size_t count = names.size();
    for (std::size_t k = 0; k < count; ++k) {
        std::size_t i = from + k;
        if (i >= count) {
            i -= count;
        }
        if (std::invoke(project, names[i]) == key) {
            return i;
        }
    }
    return count;
}

// The direct reader for snapshots in the common shape. Each read returns false
// when the text leaves that shape; the caller then asks the general reader.
class SnapshotScanner {
  public:
    explicit SnapshotScanner(std::string_view text) : text_(text) {}

    bool snapshot(MergePreState& s) {
        // The general reader skips a byte-order mark; leave that to it.
        if (text_.substr(0, 3) == "\xEF\xBB\xBF") {
            return false;
        }
        // The members in the writer's order; the first three are required.
        static constexpr std::array<std::string_view, 16> kMembers{
            "priorActiveMemberships",
            "priorClaimPersonID",
            "writtenMembershipIDs",
            "revokedDifferentConstraintIDs",
            "createdDifferentConstraintIDs",
            "membershipPreimages",
            "membershipPostImages",
            "preExistingSurvivorClaimIDs",
            "personPreimages",
            "personPostImages",
            "claimOwnershipImages",
            "createdSameConstraintID",
            "captureAssociationImages",
            "followUpOwnershipImages",
            "openLoopOwnershipImages",
            "dispositionKeyImages",
        };
        constexpr std::uint32_t kRequired = 0b111;
        std::uint32_t seen = 0;
        std::size_t next = 0;
        const bool read = object([&](std::string_view key, bool null) {
            const std::size_t index = nameIndex(kMembers, key, next);
            if (index == kMembers.size()) {
                return false;
            }
            next = index + 1;
            // A key given twice is left to the general reader (it keeps the last).
            if ((seen & (1u << index)) != 0) {
                return false;
            }
            seen |= 1u << index;
            if (null) {
                // A null required value is malformed: left to the general reader.
                if ((kRequired & (1u << index)) != 0) {
                    return false;
                }
                clearMember(s, index);
                return true;
            }
            switch (index) {
                case 0:
                    return list(s.priorActiveMemberships);
                case 1:
                    return map(s.priorClaimPersonID);
                case 2:
                    return list(s.writtenMembershipIDs);
                case 3:
                    return list(s.revokedDifferentConstraintIDs);
                case 4:
                    return list(s.createdDifferentConstraintIDs);
                case 5:
                    return list(s.membershipPreimages);
                case 6:
                    return list(s.membershipPostImages);
                case 7:
                    return list(s.preExistingSurvivorClaimIDs);
                case 8:
                    return list(s.personPreimages);
                case 9:
                    return list(s.personPostImages);
                case 10:
                    return list(s.claimOwnershipImages);
                case 11:
                    return string(reused(s.createdSameConstraintID));
                case 12:
                    return list(s.captureAssociationImages);
                case 13:
                    return list(s.followUpOwnershipImages);
                case 14:
                    return list(s.openLoopOwnershipImages);
                default:
                    return list(s.dispositionKeyImages);
            }
        });
        skipSpace();
        if (!read || at_ != text_.size() || (seen & kRequired) != kRequired) {
            return false;
        }
        // Members an older snapshot lacks: what s held before goes.
        for (std::size_t index = 0; index < kMembers.size(); ++index) {
            if ((seen & (1u << index)) == 0) {
                clearMember(s, index);
            }
        }
        return true;
    }

  private:
    // Empties the member at index (in the order of kMembers), as a snapshot
    // without it decodes.
    static void clearMember(MergePreState& s, std::size_t index) {
        switch (index) {
            case 0:
                return s.priorActiveMemberships.clear();
            case 1:
                return s.priorClaimPersonID.clear();
            case 2:
                return s.writtenMembershipIDs.clear();
            case 3:
                return s.revokedDifferentConstraintIDs.clear();
            case 4:
                return s.createdDifferentConstraintIDs.clear();
            case 5:
                return s.membershipPreimages.clear();
            case 6:
                return s.membershipPostImages.clear();
            case 7:
                return s.preExistingSurvivorClaimIDs.clear();
            case 8:
                return s.personPreimages.clear();
            case 9:
                return s.personPostImages.clear();
            case 10:
                return s.claimOwnershipImages.clear();
            case 11:
                return s.createdSameConstraintID.reset();
            case 12:
                return s.captureAssociationImages.clear();
            case 13:
                return s.followUpOwnershipImages.clear();
            case 14:
                return s.openLoopOwnershipImages.clear();
            default:
                return s.dispositionKeyImages.clear();
        }
    }

    // The string an optional holds, made present; one it held already keeps its
    // storage for the text read into it.
    static std::string& reused(std::optional<std::string>& optional) {
        return optional ? *optional : optional.emplace();
    }

    // One record's fields: the name, the field, and whether it is required.
    struct Field {
        std::string_view name;
        std::string* text = nullptr;
        std::optional<std::string>* optional = nullptr;
    };

    template <std::size_t N>
    bool record(const std::array<Field, N>& fields) {
        std::uint32_t seen = 0;
        std::size_t next = 0;
        const bool read = object([&](std::string_view key, bool null) {
            const std::size_t i = nameIndex(fields, key, next, &Field::name);
            if (i < N) {
                next = i + 1;
                if ((seen & (1u << i)) != 0) {
                    return false;
                }
                seen |= 1u << i;
                if (null) {
                    if (fields[i].optional == nullptr) {
                        return false;
                    }
                    fields[i].optional->reset();
                    return true;
                }
                return fields[i].text != nullptr ? string(*fields[i].text)
                                                 : string(reused(*fields[i].optional));
            }
            return false;
        });
        if (!read) {
            return false;
        }
        for (std::size_t i = 0; i < N; ++i) {
            if ((seen & (1u << i)) != 0) {
                continue;
            }
            if (fields[i].text != nullptr) {
                return false;
            }
            fields[i].optional->reset();  // absent, whatever the record held before
        }
        return true;
    }

    bool value(MergePreState::PriorMembership& m) {
        return record(std::array<Field, 7>{{{"id", &m.id},
                                            {"sourceIdentityID", &m.sourceIdentityID},
                                            {"canonicalPersonID", &m.canonicalPersonID},
                                            {"state", &m.state},
                                            {"because", nullptr, &m.because},
                                            {"decidedBy", &m.decidedBy},
                                            {"decidedAt", &m.decidedAt}}});
    }

    bool value(MergePreState::MembershipRowImage& m) {
        return record(std::array<Field, 8>{{{"id", &m.id},
                                            {"sourceIdentityID", &m.sourceIdentityID},
                                            {"canonicalPersonID", &m.canonicalPersonID},
                                            {"state", &m.state},
                                            {"because", nullptr, &m.because},
                                            {"decidedBy", &m.decidedBy},
                                            {"decidedAt", &m.decidedAt},
                                            {"endedAt", nullptr, &m.endedAt}}});
    }

    bool value(MergePreState::PersonRowImage& p) {
        return record(
            std::array<Field, 5>{{{"id", &p.id},
                                  {"displayName", nullptr, &p.displayName},
                                  {"tier", &p.tier},
                                  {"createdFrom", nullptr, &p.createdFrom},
                                  {"mergedIntoPersonID", nullptr, &p.mergedIntoPersonID}}});
    }

    bool value(MergePreState::ClaimOwnershipImage& c) {
        return record(std::array<Field, 3>{{{"id", &c.id},
                                            {"preimagePersonID", &c.preimagePersonID},
                                            {"postimagePersonID", &c.postimagePersonID}}});
    }

    bool value(MergePreState::CaptureAssociationImage& c) {
        return record(std::array<Field, 5>{{{"sourceObjectID", &c.sourceObjectID},
                                            {"preimagePersonID", &c.preimagePersonID},
                                            {"postimagePersonID", &c.postimagePersonID},
                                            {"preimageState", nullptr, &c.preimageState},
                                            {"preimageEndedAt", nullptr, &c.preimageEndedAt}}});
    }

    bool value(MergePreState::DispositionKeyImage& d) {
        return record(std::array<Field, 4>{{{"oldCandidateKey", &d.oldCandidateKey},
                                            {"newCandidateKey", &d.newCandidateKey},
                                            {"preimagePersonID", &d.preimagePersonID},
                                            {"postimagePersonID", &d.postimagePersonID}}});
    }

    bool value(std::string& text) { return string(text); }

    template <class T>
    bool list(std::vector<T>& out) {
        skipSpace();
        if (!take('[')) {
            return false;
        }
        skipSpace();
        if (take(']')) {
            out.clear();
            return true;
        }
        // The items out holds already are read into, keeping their storage.
        std::size_t count = 0;
        do {
            skipSpace();
            T& item = count < out.size() ? out[count] : out.emplace_back();
            ++count;
            if (!value(item)) {
                return false;
            }
            skipSpace();
        } while (take(','));
        out.erase(out.begin() + static_cast<std::ptrdiff_t>(count), out.end());
        return take(']');
    }

    bool map(std::map<std::string, std::string>& out) {
        out.clear();
        return object([&](std::string_view key, bool null) {
            if (null) {
                return false;
            }
            const auto [entry, added] = out.try_emplace(std::string(key));
            return added && string(entry->second);
        });
    }

    // Reads an object, calling onMember(key, valueIsNull) with the text positioned at
    // the member's value; unless the value is null, onMember reads it. The key is
    // valid until the next member. onMember refuses a key given twice (the general
    // reader keeps the last).
    template <typename OnMember>
    bool object(OnMember&& onMember) {
        skipSpace();
        if (!take('{')) {
            return false;
        }
        skipSpace();
        if (take('}')) {
            return true;
        }
        do {
            skipSpace();
            std::string_view key;
            if (!plainString(key)) {
                return false;
            }
            skipSpace();
            if (!take(':')) {
                return false;
            }
            skipSpace();
            const bool null = text_.substr(at_, 4) == "null";
            if (null) {
                at_ += 4;
            }
            if (!onMember(key, null)) {
                return false;
            }
            skipSpace();
        } while (take(','));
        return take('}');
    }

    // A string of printable ASCII without escapes, as every key the writer writes;
    // anything else is left to the general reader.
    bool plainString(std::string_view& out) {
        if (!take('"')) {
            return false;
        }
        const std::size_t start = at_;
        skipPlain();
        if (at_ < text_.size() && text_[at_] == '"') {
            out = text_.substr(start, at_ - start);
            ++at_;
            return true;
        }
        return false;
    }

    // A string value with its escapes resolved; well-formed UTF-8 only.
    bool string(std::string& out) {
        if (!take('"')) {
            return false;
        }
        out.clear();
        while (at_ < text_.size()) {
            const std::size_t start = at_;
            skipPlain();
            out.append(text_.substr(start, at_ - start));
            if (at_ == text_.size()) {
                return false;
            }
            const auto byte = static_cast<unsigned char>(text_[at_]);
            if (byte == '"') {
                ++at_;
                return true;
            }
            if (byte < 0x20) {
                return false;
            }
            if (byte >= 0x80) {
                const std::size_t length = utf8SequenceLength(text_, at_);
                if (length == 0) {
                    return false;
                }
                out.append(text_.substr(at_, length));
                at_ += length;
                continue;
            }
            if (!escape(out)) {
                return false;
            }
        }
        return false;
    }

    bool escape(std::string& out) {
        ++at_;  // the backslash
        if (at_ == text_.size()) {
            return false;
        }
        const char c = text_[at_++];
        switch (c) {
            case '"':
                out += '"';
                return true;
            case '\\':
                out += '\\';
                return true;
            case '/':
                out += '/';
                return true;
            case 'b':
                out += '\b';
                return true;
            case 'f':
                out += '\f';
                return true;
            case 'n':
                out += '\n';
                return true;
            case 'r':
                out += '\r';
                return true;
            case 't':
                out += '\t';
                return true;
            case 'u':
                break;
            default:
                return false;
        }
        std::uint32_t code = 0;
        if (!hex4(code)) {
            return false;
        }
        if (code >= 0xD800 && code <= 0xDBFF) {
            std::uint32_t low = 0;
            if (text_.substr(at_, 2) != "\\u") {
                return false;
            }
            at_ += 2;
            if (!hex4(low) || low < 0xDC00 || low > 0xDFFF) {
                return false;
            }
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
        } else if (code >= 0xDC00 && code <= 0xDFFF) {
            return false;
        }
        if (code < 0x80) {
            out += static_cast<char>(code);
        } else if (code < 0x800) {
            out += static_cast<char>(0xC0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (code >> 18));
            out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        }
        return true;
    }

    bool hex4(std::uint32_t& code) {
        if (text_.size() - at_ < 4) {
            return false;
        }
        for (int i = 0; i < 4; ++i) {
            const char c = text_[at_++];
            code <<= 4;
            if (c >= '0' && c <= '9') {
                code |= static_cast<std::uint32_t>(c - '0');
            } else if (c >= 'a' && c <= 'f') {
                code |= static_cast<std::uint32_t>(c - 'a' + 10);
            } else if (c >= 'A' && c <= 'F') {
                code |= static_cast<std::uint32_t>(c - 'A' + 10);
            } else {
                return false;
            }
        }
        return true;
    }

    // Moves past the bytes of kPlainStringBytes.
    void skipPlain() { at_ = plainRunEnd<false>(text_, at_); }

    void skipSpace() {
        // The writer writes none: one look at the next byte, as a rule.
        if (at_ == text_.size() || static_cast<unsigned char>(text_[at_]) > ' ') {
            return;
        }
        while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\t' ||
                                      text_[at_] == '\n' || text_[at_] == '\r')) {
            ++at_;
        }
    }

    bool take(char c) {
        if (at_ < text_.size() && text_[at_] == c) {
            ++at_;
            return true;
        }
        return false;
    }

    std::string_view text_;
    std::size_t at_ = 0;
};

}  // namespace

std::string encodeJSON(const MergePreState& state) {
    SnapshotWriter writer;
    writer.value(state);
    return std::move(writer).take();
}

bool decodeMergePreStateInto(std::string_view text, MergePreState& state) noexcept {
    try {
        if (SnapshotScanner(text).snapshot(state)) {
            return true;
        }
    } catch (...) {
        // Out of memory: the general reader decides.
    }
    auto general = decodeMergePreStateInGeneral(text);
    if (!general) {
        return false;
    }
    state = std::move(*general);
    return true;
}

std::optional<MergePreState> decodeMergePreState(std::string_view text) noexcept {
    try {
        MergePreState state;
        if (decodeMergePreStateInto(text, state)) {
            return state;
        }
    } catch (...) {
        // Out of memory before anything was read.
    }
    return std::nullopt;
}

std::optional<MergePreState> decodeMergePreStateInGeneral(std::string_view text) noexcept {
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
