// Records crossing into QML: a record is its exec JSON form as a JavaScript
// object, an absent optional is null (never undefined). Records coming from QML
// are read exactly as exec reads its arguments.
#pragma once

#include <string>

#include <QJSValue>
#include <QVariant>

#include "codec/RecordCodec.h"

namespace orvik::ui {

// The JSON value as a QVariant that QML sees as the same JavaScript value: null
// is a null QVariant of std::nullptr_t, objects are QVariantMaps, lists
// QVariantLists.
[[nodiscard]] QVariant toQml(const codec::Json& value);

template <typename T>
[[nodiscard]] QVariant recordToQml(const T& record) {
    return toQml(codec::toJson(record));
}

// null as QML sees it.
[[nodiscard]] QVariant qmlNull();

// A JavaScript value as JSON: undefined and null are null; a number with an
// integral value that fits is an integer. Functions are dropped (null).
[[nodiscard]] codec::Json fromQml(const QJSValue& value);
[[nodiscard]] codec::Json fromQml(const QVariant& value);

// A record of type T read from a JavaScript value; what names it in messages.
// Throws codec::BadRequest when it is malformed.
template <typename T>
[[nodiscard]] T recordFromQml(const QJSValue& value, const std::string& what) {
    return codec::decode<T>(fromQml(value), what);
}

}  // namespace orvik::ui
