#include "ScreenFixtures.h"

#include <stdexcept>

#include "host/StoreSeeder.h"
#include "identity/IdentityRepository.h"
#include "tests/support/TestSupport.h"

namespace identity = orvik::identity;
using orvik::test::TestDatabase;

ScreenFixtures::ScreenFixtures(QObject* parent) : QObject(parent) {}

ScreenFixtures::~ScreenFixtures() = default;

QString ScreenFixtures::candidateStore() {
    auto& db = *databases_.emplace_back(std::make_unique<TestDatabase>());
    db.addIdentity("si-dana-mail", "gmail", "dana@example.com", "Dana Lee");
    db.addIdentity("si-dana-msg", "imessage", "dana@example.com");
    db.addIdentity("si-ravi-mail", "gmail", "ravi@example.org", "Ravi Anand");
    db.addIdentity("si-ravi-cal", "google_calendar", "ravi@example.org", "Ravi Anand");
    db.addIdentity("si-kim-mail", "gmail", "kim@example.net", "Kim Ode");
    db.addIdentity("si-kim-msg", "imessage", "kim@example.net");
    db.addPerson("p-kim-mail", std::nullopt, "Kim Ode");
    db.addPerson("p-kim-msg", std::nullopt, std::nullopt, "stub");
    db.addMembership("m-kim-mail", "si-kim-mail", "p-kim-mail");
    db.addMembership("m-kim-msg", "si-kim-msg", "p-kim-msg");
    return QString::fromStdString(db.path().string());
}

QString ScreenFixtures::manualLinkStore() {
    auto& db = *databases_.emplace_back(std::make_unique<TestDatabase>());
    db.pool().write([](orvik::store::Connection& c) {
        namespace seed = orvik::seed;
        seed::insert(c, seed::Person{.id = "p-robin",
                                     .displayName = "Robin Park",
                                     .tier = "standard",
                                     .createdAt = "2019-01-01T00:00:00Z"});
        // A user-stated person is offered only with the name the user gave it.
        seed::insert(c, seed::Claim{.id = "c-robin",
                                    .personID = "p-robin",
                                    .predicate = "display_name",
                                    .provenance = "user_stated",
                                    .value = "Robin Park"});
    });
    db.addPerson("p-zed", std::nullopt, "Zed Park");
    db.addPerson("p-dana", std::nullopt, "Dana Lee");
    db.addIdentity("si-zed-mail", "gmail", "zed@example.com", "Zed Park");
    db.addIdentity("si-zed-msg", "imessage", "zed@example.com");
    db.addIdentity("si-other", "outlook", "other@example.org", "Sam Other");
    db.addIdentity("si-dana-mail", "gmail", "dana@example.com", "Dana Lee");
    db.addMembership("m-zed", "si-zed-mail", "p-zed");
    db.addMembership("m-dana", "si-dana-mail", "p-dana");
    return QString::fromStdString(db.path().string());
}

QVariantMap ScreenFixtures::historyStore() {
    auto& db = *databases_.emplace_back(std::make_unique<TestDatabase>());
    db.addIdentity("si-lee-mail", "gmail", "lee@example.com", "Lee Chan");
    db.addIdentity("si-lee-msg", "imessage", "+15550142");
    identity::IdentityRepository repository(db.sharedPool(), nullptr);
    const identity::IdentityCandidate candidate{*repository.sourceIdentity("si-lee-mail"),
                                                *repository.sourceIdentity("si-lee-msg"),
                                                std::nullopt, 1.0, "user_directed"};
    const auto confirmed =
        repository.confirmCandidate(candidate, identity::SubjectLineage::person, "screen-tests");
    repository.separateIdentity("si-lee-msg", "screen-tests");
    return {{"path", QString::fromStdString(db.path().string())},
            {"personID", QString::fromStdString(confirmed.personID)}};
}

void ScreenFixtures::markPersonsDifferent(const QString& path, const QString& personA,
                                          const QString& personB) {
    database(path).addDifferent("k-" + personA.toStdString() + "-" + personB.toStdString(),
                                "person", personA.toStdString(), "person", personB.toStdString());
}

TestDatabase& ScreenFixtures::database(const QString& path) {
    for (auto& db : databases_) {
        if (QString::fromStdString(db->path().string()) == path) {
            return *db;
        }
    }
    throw std::invalid_argument("no fixture store at " + path.toStdString());
}
