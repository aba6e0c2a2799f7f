// IdentityHistoryController: the view-model of one person's identity history.
//
// Main thread only. reload() publishes the history in the order the repository
// returns it; undo(entry) reverses the whole correction the entry stands for and
// reloads. It keeps no generation counter: overlapping reloads publish in the
// order they finish. It never touches the undo offer of the correction screens.
//
// Nothing is thrown to the caller: a failure is recorded in lastError (the
// diagnostic form) and lastErrorCopy (the error's user text, or "Couldn't load or
// update identity history." when it has none); entries keep their contents. A
// successful reload or undo clears both.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <QtQml/qqmlregistration.h>
#include <QJSValue>
#include <QObject>
#include <QPointer>
#include <QVariant>

#include <QCoro/QCoroQmlTask>
#include <QCoro/QCoroTask>

#include "identity/IdentityModels.h"
#include "ui/CorrectionRepository.h"
#include "ui/IdentityStore.h"

namespace orvik::ui {

class IdentityHistoryController : public QObject {
    Q_OBJECT
    QML_ELEMENT

    // The store whose repository the controller uses. Set once.
    Q_PROPERTY(orvik::ui::IdentityStore* repository READ store WRITE setStore NOTIFY storeChanged)
    // The person whose history is shown. Set once.
    Q_PROPERTY(QString personID READ personID WRITE setPersonID NOTIFY personIDChanged)
    // The history (IdentityHistoryEntry objects), oldest first.
    Q_PROPERTY(QVariantList entries READ entriesForQml NOTIFY entriesChanged)
    // Diagnostic text of the last failure, or null.
    Q_PROPERTY(QVariant lastError READ lastErrorForQml NOTIFY lastErrorChanged)
    // User-facing text of the last failure, or null.
    Q_PROPERTY(QVariant lastErrorCopy READ lastErrorCopyForQml NOTIFY lastErrorChanged)

  public:
    explicit IdentityHistoryController(QObject* parent = nullptr);

    void setRepository(std::shared_ptr<IdentityCorrectionRepository> repository);
    [[nodiscard]] IdentityStore* store() const { return store_; }
    void setStore(IdentityStore* store);
    [[nodiscard]] QString personID() const { return QString::fromStdString(personID_); }
    void setPersonID(const QString& personID);

    [[nodiscard]] const std::vector<identity::IdentityHistoryEntry>& entries() const {
        return entries_;
    }
    [[nodiscard]] const std::optional<std::string>& lastError() const { return lastError_; }
    [[nodiscard]] const std::optional<std::string>& lastErrorCopy() const { return lastErrorCopy_; }

    QCoro::Task<> reloadAsync();
    // An entry already undone (reversedAt present) is refused silently, before
    // any repository call.
    QCoro::Task<> undoAsync(identity::IdentityHistoryEntry entry);

    Q_INVOKABLE QCoro::QmlTask reload();
    Q_INVOKABLE QCoro::QmlTask undo(const QJSValue& entry);

    [[nodiscard]] QVariantList entriesForQml() const;
    [[nodiscard]] QVariant lastErrorForQml() const;
    [[nodiscard]] QVariant lastErrorCopyForQml() const;

  Q_SIGNALS:
    void storeChanged();
    void personIDChanged();
    void entriesChanged();
    void lastErrorChanged();

  private:
    IdentityCorrectionRepository& repo() const;
    void recordError(const std::exception& error);
    void clearError();

    std::shared_ptr<IdentityCorrectionRepository> repository_;
    QPointer<IdentityStore> store_;
    std::string personID_;
    std::vector<identity::IdentityHistoryEntry> entries_;
    std::optional<std::string> lastError_;
    std::optional<std::string> lastErrorCopy_;
};

}  // namespace orvik::ui
