// IdentityStore: the QML type that opens the store and owns the one repository
// and the serial worker its operations run on.
//
// Set path (and key for an encrypted store) and call open(). Opening the pool and
// deriving the key run off the main thread; ready turns true once the repository
// can be used, or lastError says why not. The file must already exist: open()
// never creates one.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <QtQml/qqmlregistration.h>
#include <QObject>
#include <QString>
#include <QVariant>

#include <QCoro/QCoroTask>

#include "identity/IdentityCorrectionWitness.h"
#include "ui/CorrectionRepository.h"

namespace orvik::ui {

class IdentityStore : public QObject {
    Q_OBJECT
    QML_ELEMENT

    // The database file. Set before open().
    Q_PROPERTY(QString path READ path WRITE setPath NOTIFY pathChanged)
    // The SQLCipher passphrase; empty for a plain SQLite file. Set before open().
    Q_PROPERTY(QString key READ key WRITE setKey NOTIFY keyChanged)
    // True once open() has succeeded.
    Q_PROPERTY(bool ready READ ready NOTIFY readyChanged)
    // Why the last open() failed (diagnostic text), or null.
    Q_PROPERTY(QVariant lastError READ lastError NOTIFY lastErrorChanged)

  public:
    explicit IdentityStore(QObject* parent = nullptr);
    ~IdentityStore() override;

    [[nodiscard]] const QString& path() const noexcept { return path_; }
    void setPath(const QString& path);
    [[nodiscard]] const QString& key() const noexcept { return key_; }
    void setKey(const QString& key);
    [[nodiscard]] bool ready() const noexcept { return repository_ != nullptr; }
    [[nodiscard]] QVariant lastError() const;

    // Opens the store at path with key, off the main thread. Returns at once; a
    // second call while the store is open or opening does nothing.
    Q_INVOKABLE void open();

    // The repository behind the controllers; null until ready. witnessSink (set
    // before open) receives every committed correction; by default the system
    // log's sink for this store.
    [[nodiscard]] std::shared_ptr<IdentityCorrectionRepository> repository() const {
        return repository_;
    }
    void setWitnessSink(identity::IdentityCorrectionWitness::Sink sink) {
        witnessSink_ = std::move(sink);
    }

    // Opens the store as open() does and completes when it is ready or failed.
    QCoro::Task<> openAsync();

  Q_SIGNALS:
    void pathChanged();
    void keyChanged();
    void readyChanged();
    void lastErrorChanged();

  private:
    QCoro::Task<> finishOpening(
        std::function<std::shared_ptr<IdentityCorrectionRepository>()> opener, std::string path);

    QString path_;
    QString key_;
    bool opening_ = false;
    std::optional<std::string> lastError_;
    identity::IdentityCorrectionWitness::Sink witnessSink_;
    std::shared_ptr<IdentityCorrectionRepository> repository_;
    // Runs the opening, off the main thread.
    std::unique_ptr<SerialExecutor> opener_;
};

}  // namespace orvik::ui
