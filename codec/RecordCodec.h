// The JSON form of the identity store's records: the one encoding that the exec
// interface answers with and that the QML layer hands to scripts.
//
// Each record's fields are listed once, in RecordFields<T> (RecordFields.h), and
// both directions follow from that list:
//
// Output (toJson): a record becomes an object with every field present under the
// name the library gives it, in declaration order; an absent optional is null;
// enumerations are their stored texts; a taxonomy is its ordinal.
//
// Input (decode<T>): a missing key and null both mean an absent optional; every
// other field is required and must have its JSON type (integers must be integral
// numbers). Unknown keys are ignored. Any violation throws BadRequest with a
// message naming the field by its path, such as "args.request.personID".
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include <nlohmann/json.hpp>

namespace orvik::codec {

// Keys keep their insertion order, so that output follows the documented order.
using Json = nlohmann::ordered_json;

// Input that cannot be understood: not JSON, not an object, a missing or ill-typed
// field.
class BadRequest : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// ---------------------------------------------------------------------------
// Field lists.

// A stored field: the JSON key and the member it holds.
template <typename Record, typename Member>
struct Field {
    std::string_view key;
    Member Record::*member;
};

// An output-only field computed from the record (for example a candidate's "id");
// ignored on input.
template <typename Record>
struct Derived {
    std::string_view key;
    Json (*compute)(const Record&);
};

template <typename Record, typename Member>
constexpr Field<Record, Member> field(std::string_view key, Member Record::*member) {
    return {key, member};
}
template <typename Record>
constexpr Derived<Record> derived(std::string_view key, Json (*compute)(const Record&)) {
    return {key, compute};
}

// Specialised for every record as
//     static constexpr auto fields = std::tuple{field("id", &Row::id), ...};
// in output order.
template <typename T>
struct RecordFields;

// Specialised for every enumeration as
//     static constexpr std::array values{E::a, E::b};
//     static std::string_view text(E value);
template <typename E>
struct EnumTexts;

// Specialised for a value with a form of its own (a choice of cases, a fixed
// external form) as static encode(const T&) and decode(const Json&, path).
template <typename T>
struct ValueCodec;

template <typename T>
concept IsRecord = requires {
    RecordFields<T>::fields;
};
template <typename T>
concept IsEnumText = requires {
    EnumTexts<T>::values;
};
template <typename T>
concept HasValueCodec = requires(const T& value) {
    ValueCodec<T>::encode(value);
};

template <typename T>
struct IsOptional : std::false_type {};
template <typename T>
struct IsOptional<std::optional<T>> : std::true_type {};
template <typename T>
struct IsVector : std::false_type {};
template <typename T>
struct IsVector<std::vector<T>> : std::true_type {};

// ---------------------------------------------------------------------------
// Plain values.

// The JSON type of a value in messages: "an integer", "a text", ...
[[nodiscard]] const char* typeName(const Json& value);
[[noreturn]] void wrongType(const std::string& path, const char* expected, const Json& value);
[[nodiscard]] std::string textValue(const Json& value, const std::string& path);
[[nodiscard]] std::int64_t integerValue(const Json& value, const std::string& path);
[[nodiscard]] double numberValue(const Json& value, const std::string& path);
[[nodiscard]] bool booleanValue(const Json& value, const std::string& path);

// ---------------------------------------------------------------------------
// Encoding.

template <typename T>
[[nodiscard]] Json toJson(const T& value);

namespace detail {

template <typename T>
Json encodeRecord(const T& record) {
    Json out = Json::object();
    std::apply(
        [&](const auto&... fields) {
            (
                [&](const auto& f) {
                    if constexpr (requires { f.compute; }) {
                        out[std::string(f.key)] = f.compute(record);
                    } else {
                        out[std::string(f.key)] = toJson(record.*(f.member));
                    }
                }(fields),
                ...);
        },
        RecordFields<T>::fields);
    return out;
}

}  // namespace detail

template <typename T>
Json toJson(const T& value) {
    if constexpr (HasValueCodec<T>) {
        return ValueCodec<T>::encode(value);
    } else if constexpr (IsOptional<T>::value) {
        return value ? toJson(*value) : Json(nullptr);
    } else if constexpr (IsVector<T>::value) {
        Json out = Json::array();
        for (const auto& item : value) {
            out.push_back(toJson(item));
        }
        return out;
    } else if constexpr (IsRecord<T>) {
        return detail::encodeRecord(value);
    } else if constexpr (IsEnumText<T>) {
        return Json(EnumTexts<T>::text(value));
    } else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, bool> ||
                         std::is_same_v<T, std::int64_t> || std::is_same_v<T, double>) {
        return Json(value);
    } else {
        static_assert(sizeof(T) == 0, "no JSON form for this type");
    }
}

// ---------------------------------------------------------------------------
// Decoding.

// A value of type T read from value; path names it in messages.
template <typename T>
[[nodiscard]] T decode(const Json& value, const std::string& path);

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

    // The field as a T. An optional T is absent when the field is missing or null;
    // anything else is required.
    template <typename T>
    [[nodiscard]] T read(std::string_view key) const {
        if constexpr (IsOptional<T>::value) {
            const Json* value = find(key);
            if (value == nullptr) {
                return std::nullopt;
            }
            return decode<typename T::value_type>(*value, pathOf(key));
        } else {
            return decode<T>(required(key), pathOf(key));
        }
    }

    [[nodiscard]] std::string text(std::string_view key) const { return read<std::string>(key); }
    [[nodiscard]] std::int64_t integer(std::string_view key) const {
        return read<std::int64_t>(key);
    }
    [[nodiscard]] std::vector<std::string> texts(std::string_view key) const {
        return read<std::vector<std::string>>(key);
    }

  private:
    const Json& object_;
    std::string path_;
};

namespace detail {

template <typename T>
T decodeRecord(const Json& value, const std::string& path) {
    const FieldReader in(value, path);
    T record{};
    std::apply(
        [&](const auto&... fields) {
            (
                [&](const auto& f) {
                    if constexpr (!requires { f.compute; }) {
                        using Member = std::remove_cvref_t<decltype(record.*(f.member))>;
                        record.*(f.member) = in.read<Member>(f.key);
                    }
                }(fields),
                ...);
        },
        RecordFields<T>::fields);
    return record;
}

template <typename E>
E decodeEnum(const Json& value, const std::string& path) {
    const std::string text = textValue(value, path);
    for (const E candidate : EnumTexts<E>::values) {
        if (EnumTexts<E>::text(candidate) == text) {
            return candidate;
        }
    }
    std::string expected;
    const auto& values = EnumTexts<E>::values;
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0) {
            expected += i + 1 == values.size() ? " or " : ", ";
        }
        expected += "\"" + std::string(EnumTexts<E>::text(values[i])) + "\"";
    }
    throw BadRequest(path + " must be " + expected + ", not \"" + text + "\"");
}

}  // namespace detail

template <typename T>
T decode(const Json& value, const std::string& path) {
    if constexpr (HasValueCodec<T>) {
        return ValueCodec<T>::decode(value, path);
    } else if constexpr (IsOptional<T>::value) {
        if (value.is_null()) {
            return std::nullopt;
        }
        return decode<typename T::value_type>(value, path);
    } else if constexpr (IsVector<T>::value) {
        if (!value.is_array()) {
            throw BadRequest(path + " must be a list");
        }
        T out;
        out.reserve(value.size());
        for (std::size_t i = 0; i < value.size(); ++i) {
            out.push_back(
                decode<typename T::value_type>(value[i], path + "[" + std::to_string(i) + "]"));
        }
        return out;
    } else if constexpr (IsRecord<T>) {
        return detail::decodeRecord<T>(value, path);
    } else if constexpr (IsEnumText<T>) {
        return detail::decodeEnum<T>(value, path);
    } else if constexpr (std::is_same_v<T, std::string>) {
        return textValue(value, path);
    } else if constexpr (std::is_same_v<T, bool>) {
        return booleanValue(value, path);
    } else if constexpr (std::is_same_v<T, std::int64_t>) {
        return integerValue(value, path);
    } else if constexpr (std::is_same_v<T, double>) {
        return numberValue(value, path);
    } else {
        static_assert(sizeof(T) == 0, "no JSON form for this type");
    }
}

}  // namespace orvik::codec

// The field lists, so that including this header is enough to encode and decode
// every record.
#include "codec/RecordFields.h"
