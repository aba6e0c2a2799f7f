#include "ui/IdentityStore.h"

#include <filesystem>

#include <QPointer>

#include "host/HostServices.h"
#include "identity/IdentityHistoryErrorCopy.h"
#include "store/Database.h"
#include "ui/QmlRecords.h"

namespace orvik::ui {

IdentityStore::IdentityStore(QObject* parent)
    : QObject(parent), opener_(std::make_unique<SerialExecutor>()) {}

IdentityStore::~IdentityStore() = default;

void IdentityStore::setPath(const QString& path) {
    if (path_ == path) {
        return;
    }
    path_ = path;
    Q_EMIT pathChanged();
}

void IdentityStore::setKey(const QString& key) {
    if (key_ == key) {
        return;
    }
    key_ = key;
    Q_EMIT keyChanged();
}

QVariant IdentityStore::lastError() const {
    return lastError_ ? QVariant(QString::fromStdString(*lastError_)) : qmlNull();
}

void IdentityStore::open() {
    // Fire and forget: the task finishes on the main thread and publishes there.
    [[maybe_unused]] auto task = openAsync();
}

namespace {

using Opener = std::function<std::shared_ptr<IdentityCorrectionRepository>()>;

// The work of opening, run off the main thread: the pool (and with it the key
// derivation) and the repository over it.
Opener makeOpener(std::string path, std::optional<std::string> key,
                  identity::IdentityCorrectionWitness::Sink sink) {
    return [path = std::move(path), key = std::move(key), sink = std::move(sink)] {
        if (path.empty()) {
            throw std::runtime_error("no store path was set");
        }
        std::error_code ignored;
        if (!std::filesystem::exists(path, ignored)) {
            throw std::runtime_error("no store at " + path);
        }
        store::PoolOptions options;
        options.key = key;
        auto pool = store::DatabasePool::open(path, options);
        auto repository = std::make_unique<identity::IdentityRepository>(
            std::move(pool), sink, host::HostServices::reference());
        return std::shared_ptr<IdentityCorrectionRepository>(
            std::make_shared<SerialIdentityRepository>(std::move(repository)));
    };
}

}  // namespace

QCoro::Task<> IdentityStore::openAsync() {
    if (opening_ || repository_) {
        return []() -> QCoro::Task<> { co_return; }();
    }
    opening_ = true;
    const std::string path = path_.toStdString();
    std::optional<std::string> key;
    if (!key_.isEmpty()) {
        key = key_.toStdString();
    }
    identity::IdentityCorrectionWitness::Sink sink = witnessSink_;
    if (!sink) {
        sink = identity::IdentityCorrectionWitness::systemLogSink(path);
    }
    return finishOpening(makeOpener(path, std::move(key), std::move(sink)), path);
}

// Kept free of conditional temporaries and braced lists: g++ 12 mishandles them
// in coroutine bodies.
QCoro::Task<> IdentityStore::finishOpening(Opener opener, std::string path) {
    QPointer self(this);
    std::shared_ptr<IdentityCorrectionRepository> repository;
    std::string error;
    try {
        repository = co_await opener_->run(std::move(opener));
    } catch (const std::exception& e) {
        error =
            "cannot open " + path + ": " + identity::IdentityHistoryErrorCopy::diagnosticText(e);
    }
    if (!self) {
        co_return;
    }
    opening_ = false;
    if (!repository) {
        lastError_ = error;
        Q_EMIT lastErrorChanged();
        co_return;
    }
    repository_ = std::move(repository);
    if (lastError_) {
        lastError_.reset();
        Q_EMIT lastErrorChanged();
    }
    Q_EMIT readyChanged();
}

}  // namespace orvik::ui
