#include "ui/IdentityHistoryController.h"

#include <stdexcept>

#include "identity/IdentityHistoryErrorCopy.h"
#include "ui/IdentityCorrectionController.h"
#include "ui/QmlRecords.h"

namespace orvik::ui {

namespace id = orvik::identity;
namespace Copy = identity::IdentityHistoryErrorCopy;

IdentityHistoryController::IdentityHistoryController(QObject* parent) : QObject(parent) {
    registerQCoroQmlTypes();
}

void IdentityHistoryController::setRepository(
    std::shared_ptr<IdentityCorrectionRepository> repository) {
    repository_ = std::move(repository);
}

void IdentityHistoryController::setStore(IdentityStore* store) {
    if (store_ == store) {
        return;
    }
    store_ = store;
    Q_EMIT storeChanged();
}

void IdentityHistoryController::setPersonID(const QString& personID) {
    if (personID_ == personID.toStdString()) {
        return;
    }
    personID_ = personID.toStdString();
    Q_EMIT personIDChanged();
}

IdentityCorrectionRepository& IdentityHistoryController::repo() const {
    if (repository_) {
        return *repository_;
    }
    if (store_ && store_->repository()) {
        return *store_->repository();
    }
    throw std::runtime_error("the identity store is not open");
}

void IdentityHistoryController::recordError(const std::exception& error) {
    lastError_ = Copy::diagnosticText(error);
    lastErrorCopy_ = Copy::text(error);
    Q_EMIT lastErrorChanged();
}

void IdentityHistoryController::clearError() {
    if (!lastError_ && !lastErrorCopy_) {
        return;
    }
    lastError_.reset();
    lastErrorCopy_.reset();
    Q_EMIT lastErrorChanged();
}

QCoro::Task<> IdentityHistoryController::reloadAsync() {
    QPointer self(this);
    try {
        auto entries = co_await repo().identityHistory(personID_);
        if (!self) {
            co_return;
        }
        entries_ = std::move(entries);
        Q_EMIT entriesChanged();
        clearError();
    } catch (const std::exception& error) {
        if (self) {
            recordError(error);
        }
    }
}

QCoro::Task<> IdentityHistoryController::undoAsync(id::IdentityHistoryEntry entry) {
    if (entry.reversedAt) {
        co_return;
    }
    QPointer self(this);
    try {
        co_await repo().undoConfirmation(entry.mergeEventIDs);
    } catch (const std::exception& error) {
        if (self) {
            recordError(error);
        }
        co_return;
    }
    if (!self) {
        co_return;
    }
    co_await reloadAsync();
    // After the reload, so that an error the reload recorded is cleared as well.
    if (self) {
        clearError();
    }
}

QCoro::QmlTask IdentityHistoryController::reload() {
    return reloadAsync();
}

QCoro::QmlTask IdentityHistoryController::undo(const QJSValue& entry) {
    try {
        return undoAsync(recordFromQml<id::IdentityHistoryEntry>(entry, "entry"));
    } catch (const codec::BadRequest& error) {
        recordError(error);
        return []() -> QCoro::Task<> { co_return; }();
    }
}

QVariantList IdentityHistoryController::entriesForQml() const {
    return toQml(codec::toJson(entries_)).toList();
}

QVariant IdentityHistoryController::lastErrorForQml() const {
    return lastError_ ? QVariant(QString::fromStdString(*lastError_)) : qmlNull();
}

QVariant IdentityHistoryController::lastErrorCopyForQml() const {
    return lastErrorCopy_ ? QVariant(QString::fromStdString(*lastErrorCopy_)) : qmlNull();
}

}  // namespace orvik::ui
