// Real identity stores for the screen tests, made in temporary directories that
// live as long as the fixtures object. QML opens each by its path with an
// IdentityStore, as the application does; these fixtures write through their own
// pool and repository, and SQLite coordinates the two.
#pragma once

#include <memory>
#include <vector>

#include <QObject>
#include <QString>
#include <QVariantMap>

namespace orvik::test {
class TestDatabase;
}

class ScreenFixtures : public QObject {
    Q_OBJECT

  public:
    explicit ScreenFixtures(QObject* parent = nullptr);
    ~ScreenFixtures() override;

    // Three exact-key pairs: two of unaffiliated identities (Dana, Ravi) and one of
    // identities of two different persons (Kim: p-kim-mail, p-kim-msg).
    Q_INVOKABLE QString candidateStore();

    // For the manual-link screen: Zed Park (p-zed, user-stated) with his gmail
    // address si-zed-mail; his iMessage handle si-zed-msg, unaffiliated; an
    // unrelated unaffiliated address si-other; Robin Park (p-robin, user-stated, no
    // identities, created first) and Dana Lee (p-dana) with si-dana-mail.
    Q_INVOKABLE QString manualLinkStore();

    // One person (the returned personID) made by confirming an unaffiliated pair,
    // and afterwards one of the pair separated from it again: the history holds the
    // confirmation, then the separation. Keys: path, personID.
    Q_INVOKABLE QVariantMap historyStore();

    // Marks two persons of a store different, behind any screen's back.
    Q_INVOKABLE void markPersonsDifferent(const QString& path, const QString& personA,
                                          const QString& personB);

  private:
    orvik::test::TestDatabase& database(const QString& path);

    std::vector<std::unique_ptr<orvik::test::TestDatabase>> databases_;
};
