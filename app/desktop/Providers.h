// The source names of app/ProviderNames.h for the screens: the context property
// "providers", whose displayName and distinguishingName are handed to the
// module's providerDisplayName and distinguishingProviderName.
#pragma once

#include <QObject>
#include <QString>

#include "app/ProviderNames.h"

class Providers : public QObject {
    Q_OBJECT

  public:
    using QObject::QObject;

    Q_INVOKABLE QString displayName(const QString& sourceType) const {
        return QString::fromStdString(orvik::app::providerDisplayName(sourceType.toStdString()));
    }
    Q_INVOKABLE QString distinguishingName(const QString& sourceType) const {
        return QString::fromStdString(
            orvik::app::distinguishingProviderName(sourceType.toStdString()));
    }
};
