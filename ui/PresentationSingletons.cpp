#include "ui/PresentationSingletons.h"

#include <set>
#include <stdexcept>

#include <QJSEngine>
#include <QLocale>

#include "identity/IdentityCorrectionView.h"
#include "identity/IdentityHistoryErrorCopy.h"
#include "identity/IdentityHistoryView.h"
#include "ui/QmlRecords.h"

namespace orvik::ui {

namespace id = orvik::identity;
namespace Copy = identity::IdentityHistoryErrorCopy;

namespace {

QString q(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

// A JavaScript provider-name function as a C++ one; without a function the
// source type is its own name.
id::ProviderDisplayName providerFrom(const QJSValue& fn) {
    if (!fn.isCallable()) {
        return [](const std::string& sourceType) { return sourceType; };
    }
    return [fn](const std::string& sourceType) {
        QJSValue f = fn;
        const QJSValue name = f.call({QJSValue(QString::fromStdString(sourceType))});
        return name.isError() || name.isUndefined() || name.isNull()
                   ? sourceType
                   : name.toString().toStdString();
    };
}

std::optional<std::string> optionalTextFrom(const QJSValue& value) {
    return recordFromQml<std::optional<std::string>>(value, "displayName");
}

std::optional<id::Instant> instantFrom(const QString& now) {
    return id::parseInternetDateTime(now.toStdString());
}

// The exec form of an error as a store error, when it is one.
std::optional<id::IdentityStoreError> storeErrorFrom(const QJSValue& error) {
    const auto json = fromQml(error);
    if (!json.is_object() || !json.contains("case") || !json["case"].is_string()) {
        return std::nullopt;
    }
    const std::string name = json["case"].get<std::string>();
    const std::string message = json.contains("message") && json["message"].is_string()
                                    ? json["message"].get<std::string>()
                                    : "";
    using Case = id::IdentityStoreError::Case;
    for (int i = 0; i <= static_cast<int>(Case::blockedDifferent); ++i) {
        const auto c = static_cast<Case>(i);
        if (id::caseName(c) != name) {
            continue;
        }
        switch (c) {
            case Case::notFound:
                return id::IdentityStoreError::notFound(message);
            case Case::invalidArgs:
                return id::IdentityStoreError::invalidArgs(message);
            case Case::excluded:
                return id::IdentityStoreError::excluded(message);
            default:
                return id::IdentityStoreError(c);
        }
    }
    return std::nullopt;
}

}  // namespace

QString HandlePresentationSingleton::partyLabel(const QJSValue& displayName,
                                                const QString& handleNormalized,
                                                const QString& sourceType,
                                                const QJSValue& providerDisplayName) {
    return QString::fromStdString(id::IdentityHandlePresentation::partyLabel(
        optionalTextFrom(displayName), handleNormalized.toStdString(), sourceType.toStdString(),
        providerFrom(providerDisplayName)));
}

QString HandlePresentationSingleton::mergePreviewRowLine(const QJSValue& displayName,
                                                         const QString& handleNormalized,
                                                         const QString& sourceType,
                                                         const QJSValue& providerDisplayName) {
    return QString::fromStdString(id::IdentityHandlePresentation::mergePreviewRowLine(
        optionalTextFrom(displayName), handleNormalized.toStdString(), sourceType.toStdString(),
        providerFrom(providerDisplayName)));
}

QJSValue HandlePresentationSingleton::collisionAwareProviderLabel(
    const QJSValue& renderedSourceTypes, const QJSValue& providerDisplayName,
    const QJSValue& distinguishingProviderName) {
    QJSEngine* engine = qjsEngine(this);
    if (engine == nullptr) {
        return QJSValue(QJSValue::NullValue);
    }
    std::set<std::string> types;
    const auto list = fromQml(renderedSourceTypes);
    if (list.is_array()) {
        for (const auto& item : list) {
            if (item.is_string()) {
                types.insert(item.get<std::string>());
            }
        }
    }
    auto* labeller =
        new ProviderLabeller(id::IdentityHandlePresentation::collisionAwareProviderLabel(
            std::move(types), providerFrom(providerDisplayName),
            providerFrom(distinguishingProviderName)));
    // The closure keeps the labeller's wrapper (and so the labeller) alive for as
    // long as the function is referenced; the engine deletes it afterwards.
    QJSValue wrap = engine->evaluate(QStringLiteral(
        "(function (o) { return function (sourceType) { return o.label(sourceType); }; })"));
    return wrap.call({engine->newQObject(labeller)});
}

QString ProviderLabeller::label(const QString& sourceType) const {
    return QString::fromStdString(label_(sourceType.toStdString()));
}

QVariant CandidateContextSummarySingleton::line(const QJSValue& context, const QString& now,
                                                const QJSValue& providerDisplayName,
                                                const QJSValue& locale) {
    try {
        const auto instant = instantFrom(now);
        if (!instant) {
            return qmlNull();
        }
        const std::string tag = locale.isString() ? locale.toString().toStdString()
                                                  : QLocale().bcp47Name().toStdString();
        return QString::fromStdString(id::IdentityCandidateContextSummary::line(
            recordFromQml<id::IdentityCandidateContext>(context, "context"), *instant,
            providerFrom(providerDisplayName), tag));
    } catch (const codec::BadRequest&) {
        return qmlNull();
    }
}

QVariant PersonNoteContextSummarySingleton::line(const QJSValue& context, const QString& now,
                                                 const QString& timeZone, const QString& locale) {
    try {
        const auto instant = instantFrom(now);
        if (!instant) {
            return qmlNull();
        }
        return QString::fromStdString(id::PersonNoteContextSummary::line(
            recordFromQml<id::PersonNoteContext>(context, "context"), *instant,
            timeZone.toStdString(), locale.toStdString()));
    } catch (const codec::BadRequest&) {
        return qmlNull();
    }
}

QVariant HistoryEntrySummarySingleton::line(const QJSValue& entry,
                                            const QJSValue& providerDisplayName) {
    try {
        return QString::fromStdString(id::IdentityHistoryEntrySummary::line(
            recordFromQml<id::IdentityHistoryEntry>(entry, "entry"),
            providerFrom(providerDisplayName)));
    } catch (const codec::BadRequest&) {
        return qmlNull();
    }
}

QVariant HistoryErrorCopySingleton::memberText(const QJSValue& error) const {
    const auto storeError = storeErrorFrom(error);
    if (!storeError) {
        return qmlNull();
    }
    const auto member = Copy::memberText(*storeError);
    return member ? QVariant(QString::fromStdString(*member)) : qmlNull();
}

QString HistoryErrorCopySingleton::text(const QJSValue& error) const {
    const auto storeError = storeErrorFrom(error);
    return storeError ? QString::fromStdString(Copy::text(*storeError)) : q(Copy::generic);
}

QString HistoryErrorCopySingleton::generic() const {
    return q(Copy::generic);
}
QString HistoryErrorCopySingleton::supersededByLaterCorrection() const {
    return q(Copy::supersededByLaterCorrection);
}
QString HistoryErrorCopySingleton::alreadyReversed() const {
    return q(Copy::alreadyReversed);
}
QString HistoryErrorCopySingleton::restoreSnapshotIncomplete() const {
    return q(Copy::restoreSnapshotIncomplete);
}
QString HistoryErrorCopySingleton::corruptRestoreMap() const {
    return q(Copy::corruptRestoreMap);
}
QString HistoryErrorCopySingleton::notFound() const {
    return q(Copy::notFound);
}
QString HistoryErrorCopySingleton::blockedDifferent() const {
    return q(Copy::blockedDifferent);
}
QString HistoryErrorCopySingleton::ownerIdentityUnmergeable() const {
    return q(Copy::ownerIdentityUnmergeable);
}
QString HistoryErrorCopySingleton::cannotSeparateSoleIdentity() const {
    return q(Copy::cannotSeparateSoleIdentity);
}

}  // namespace orvik::ui
