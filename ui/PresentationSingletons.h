// The presentation texts as QML singletons, named as the presentation groups and
// offering the same functions. A provider-name argument is a JavaScript function
// from a source type to a name; now is an ISO 8601 text; a time zone an IANA
// name; a locale a BCP 47 tag. Records are their exec JSON objects. A record
// that cannot be read gives null.
#pragma once

#include <functional>
#include <string>

#include <QtQml/qqmlregistration.h>
#include <QJSValue>
#include <QObject>
#include <QString>
#include <QVariant>

#include "identity/IdentityHandlePresentation.h"

namespace orvik::ui {

class HandlePresentationSingleton : public QObject {
    Q_OBJECT
    QML_NAMED_ELEMENT(IdentityHandlePresentation)
    QML_SINGLETON

  public:
    using QObject::QObject;
    Q_INVOKABLE QString partyLabel(const QJSValue& displayName, const QString& handleNormalized,
                                   const QString& sourceType, const QJSValue& providerDisplayName);
    Q_INVOKABLE QString mergePreviewRowLine(const QJSValue& displayName,
                                            const QString& handleNormalized,
                                            const QString& sourceType,
                                            const QJSValue& providerDisplayName);
    // Returns a JavaScript function from a source type to its label.
    Q_INVOKABLE QJSValue collisionAwareProviderLabel(const QJSValue& renderedSourceTypes,
                                                     const QJSValue& providerDisplayName,
                                                     const QJSValue& distinguishingProviderName);
};

// The labelling function behind collisionAwareProviderLabel (internal).
class ProviderLabeller : public QObject {
    Q_OBJECT
  public:
    explicit ProviderLabeller(identity::ProviderDisplayName label) : label_(std::move(label)) {}
    Q_INVOKABLE QString label(const QString& sourceType) const;

  private:
    identity::ProviderDisplayName label_;
};

class CandidateContextSummarySingleton : public QObject {
    Q_OBJECT
    QML_NAMED_ELEMENT(IdentityCandidateContextSummary)
    QML_SINGLETON

  public:
    using QObject::QObject;
    // locale: a BCP 47 tag; Qt.locale()'s when absent.
    Q_INVOKABLE QVariant line(const QJSValue& context, const QString& now,
                              const QJSValue& providerDisplayName,
                              const QJSValue& locale = QJSValue());
};

class PersonNoteContextSummarySingleton : public QObject {
    Q_OBJECT
    QML_NAMED_ELEMENT(PersonNoteContextSummary)
    QML_SINGLETON

  public:
    using QObject::QObject;
    Q_INVOKABLE QVariant line(const QJSValue& context, const QString& now, const QString& timeZone,
                              const QString& locale);
};

class HistoryEntrySummarySingleton : public QObject {
    Q_OBJECT
    QML_NAMED_ELEMENT(IdentityHistoryEntrySummary)
    QML_SINGLETON

  public:
    using QObject::QObject;
    Q_INVOKABLE QVariant line(const QJSValue& entry, const QJSValue& providerDisplayName);
};

class HistoryErrorCopySingleton : public QObject {
    Q_OBJECT
    QML_NAMED_ELEMENT(IdentityHistoryErrorCopy)
    QML_SINGLETON

    Q_PROPERTY(QString generic READ generic CONSTANT)
    Q_PROPERTY(QString supersededByLaterCorrection READ supersededByLaterCorrection CONSTANT)
    Q_PROPERTY(QString alreadyReversed READ alreadyReversed CONSTANT)
    Q_PROPERTY(QString restoreSnapshotIncomplete READ restoreSnapshotIncomplete CONSTANT)
    Q_PROPERTY(QString corruptRestoreMap READ corruptRestoreMap CONSTANT)
    Q_PROPERTY(QString notFound READ notFound CONSTANT)
    Q_PROPERTY(QString blockedDifferent READ blockedDifferent CONSTANT)
    Q_PROPERTY(QString ownerIdentityUnmergeable READ ownerIdentityUnmergeable CONSTANT)
    Q_PROPERTY(QString cannotSeparateSoleIdentity READ cannotSeparateSoleIdentity CONSTANT)

  public:
    using QObject::QObject;
    // error: {"case": ..., "message": ...} as exec reports it. memberText gives
    // null when the error has no text of its own; text falls back to generic.
    Q_INVOKABLE QVariant memberText(const QJSValue& error) const;
    Q_INVOKABLE QString text(const QJSValue& error) const;

    [[nodiscard]] QString generic() const;
    [[nodiscard]] QString supersededByLaterCorrection() const;
    [[nodiscard]] QString alreadyReversed() const;
    [[nodiscard]] QString restoreSnapshotIncomplete() const;
    [[nodiscard]] QString corruptRestoreMap() const;
    [[nodiscard]] QString notFound() const;
    [[nodiscard]] QString blockedDifferent() const;
    [[nodiscard]] QString ownerIdentityUnmergeable() const;
    [[nodiscard]] QString cannotSeparateSoleIdentity() const;
};

}  // namespace orvik::ui
