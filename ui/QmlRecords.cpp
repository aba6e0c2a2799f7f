#include "ui/QmlRecords.h"

#include <cmath>
#include <limits>

#include <QJSValueIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QVariantList>
#include <QVariantMap>

namespace orvik::ui {

QVariant qmlNull() {
    return QVariant::fromValue(nullptr);
}

QVariant toQml(const codec::Json& value) {
    switch (value.type()) {
        case codec::Json::value_t::null:
        case codec::Json::value_t::discarded:
            return qmlNull();
        case codec::Json::value_t::boolean:
            return QVariant(value.get<bool>());
        case codec::Json::value_t::number_integer:
        case codec::Json::value_t::number_unsigned:
            return QVariant(static_cast<double>(value.get<std::int64_t>()));
        case codec::Json::value_t::number_float:
            return QVariant(value.get<double>());
        case codec::Json::value_t::string:
            return QVariant(QString::fromStdString(value.get<std::string>()));
        case codec::Json::value_t::array: {
            QVariantList list;
            list.reserve(static_cast<qsizetype>(value.size()));
            for (const auto& item : value) {
                list.append(toQml(item));
            }
            return list;
        }
        case codec::Json::value_t::object: {
            QVariantMap map;
            for (const auto& [key, item] : value.items()) {
                map.insert(QString::fromStdString(key), toQml(item));
            }
            return map;
        }
        case codec::Json::value_t::binary:
            break;
    }
    return qmlNull();
}

namespace {

codec::Json number(double n) {
    if (std::isfinite(n) && std::trunc(n) == n && std::abs(n) < 9.007199254740992e15) {
        return codec::Json(static_cast<std::int64_t>(n));
    }
    return codec::Json(n);
}

}  // namespace

codec::Json fromQml(const QJSValue& value) {
    if (value.isUndefined() || value.isNull() || value.isCallable()) {
        return codec::Json(nullptr);
    }
    if (value.isBool()) {
        return codec::Json(value.toBool());
    }
    if (value.isNumber()) {
        return number(value.toNumber());
    }
    if (value.isString()) {
        return codec::Json(value.toString().toStdString());
    }
    if (value.isArray()) {
        codec::Json out = codec::Json::array();
        const int length = value.property(QStringLiteral("length")).toInt();
        for (int i = 0; i < length; ++i) {
            out.push_back(fromQml(value.property(static_cast<quint32>(i))));
        }
        return out;
    }
    if (value.isVariant() || value.isQObject()) {
        return fromQml(value.toVariant());
    }
    if (value.isObject()) {
        codec::Json out = codec::Json::object();
        QJSValueIterator it(value);
        while (it.hasNext()) {
            it.next();
            out[it.name().toStdString()] = fromQml(it.value());
        }
        return out;
    }
    return codec::Json(nullptr);
}

codec::Json fromQml(const QVariant& value) {
    if (value.canConvert<QJSValue>() && value.metaType() == QMetaType::fromType<QJSValue>()) {
        return fromQml(value.value<QJSValue>());
    }
    const QJsonValue json = QJsonValue::fromVariant(value);
    if (json.isNull() || json.isUndefined()) {
        return codec::Json(nullptr);
    }
    if (json.isDouble()) {
        return number(json.toDouble());
    }
    QJsonDocument document;
    if (json.isObject()) {
        document = QJsonDocument(json.toObject());
    } else if (json.isArray()) {
        document = QJsonDocument(json.toArray());
    } else if (json.isBool()) {
        return codec::Json(json.toBool());
    } else {
        return codec::Json(json.toString().toStdString());
    }
    // Numbers inside come back through the parser: integral ones as integers.
    return codec::Json::parse(document.toJson(QJsonDocument::Compact).toStdString());
}

}  // namespace orvik::ui
