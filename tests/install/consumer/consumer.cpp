// Uses the installed library as an application would: opens a new store, creates
// the schema, confirms a pair and undoes it. Prints "ok" and exits 0 when all of
// that behaves.
#include <orvik/host/HostServices.h>
#include <orvik/identity/IdentityRepository.h>
#include <orvik/store/Database.h>

#include <filesystem>
#include <iostream>
#include <string>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: consumer DIRECTORY\n";
        return 2;
    }
    namespace identity = orvik::identity;
    const auto path = std::filesystem::path(argv[1]) / "consumer.db";
    orvik::store::PoolOptions options{.create = true};
#ifdef ORVIK_HAS_SQLCIPHER
    // The definition travels with the library: set when it was built with SQLCipher.
    options.key = "consumer key";
#endif
    auto pool = orvik::store::DatabasePool::open(path, options);
    pool->write([](orvik::store::Connection& db) {
        orvik::host::createReferenceSchema(db);
        db.executeScript(
            "INSERT INTO source_identity (id, source_type, handle_normalized, display_name, "
            "first_seen_at, last_seen_at, created_at) VALUES "
            "('a', 'gmail', 'dana@example.org', 'Dana', '2026-01-01T00:00:00Z', "
            "'2026-01-01T00:00:00Z', '2026-01-01T00:00:00Z'), "
            "('b', 'imessage', 'dana@example.org', NULL, '2026-01-01T00:00:00Z', "
            "'2026-01-01T00:00:00Z', '2026-01-01T00:00:00Z')");
    });

    int events = 0;
    identity::IdentityRepository repository(
        pool, [&](const identity::IdentityCorrectionWitness::Event&) { ++events; });
    const auto candidates = repository.exactKeyCandidates(10);
    if (candidates.size() != 1) {
        std::cerr << "expected one candidate, found " << candidates.size() << '\n';
        return 1;
    }
    const auto confirmed =
        repository.confirmCandidate(candidates[0], identity::SubjectLineage::person, "consumer");
    const auto joined = repository.resolveCanonicalPerson("b");
    if (!joined || joined->personID != confirmed.personID) {
        std::cerr << "the confirmation did not join the pair\n";
        return 1;
    }
    repository.undoConfirmation(confirmed.mergeEventIDs);
    if (repository.resolveCanonicalPerson("b") || events != 2) {
        std::cerr << "the undo did not restore the pair\n";
        return 1;
    }
    std::cout << "ok\n";
    return 0;
}
