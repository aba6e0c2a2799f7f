#include "PersonNames.h"

#include <QCoreApplication>
#include <QPointer>
#include <QThreadPool>
#include <QVariant>

#include "identity/IdentityRepository.h"
#include "store/Database.h"

PersonNames::PersonNames(QString path, QString key, QObject* parent)
    : QObject(parent), path_(std::move(path)), key_(std::move(key)) {}

void PersonNames::lookUp(const QString& personID) {
    QPointer<PersonNames> self(this);
    QThreadPool::globalInstance()->start(
        [self, path = path_.toStdString(), key = key_.toStdString(), personID]() {
            QVariant name;
            try {
                orvik::store::PoolOptions options;
                options.readerCount = 1;
                if (!key.empty()) {
                    options.key = key;
                }
                orvik::identity::IdentityRepository repository(
                    orvik::store::DatabasePool::open(path, options), nullptr);
                const auto person = repository.person(personID.toStdString());
                if (person && person->displayName && !person->displayName->empty()) {
                    name = QString::fromStdString(*person->displayName);
                }
            } catch (const std::exception&) {
                // An unreadable store shows up in the window's own IdentityStore; the
                // name just stays unknown.
            }
            // Back on the main thread, where the object lives and may have gone away.
            QMetaObject::invokeMethod(
                QCoreApplication::instance(),
                [self, personID, name]() {
                    if (self) {
                        Q_EMIT self->found(personID, name);
                    }
                },
                Qt::QueuedConnection);
        });
}
