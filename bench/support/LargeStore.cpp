#include "bench/support/LargeStore.h"

#include "host/HostServices.h"

namespace orvik::bench {

std::string identityID(int i) {
    return "si-" + std::to_string(i);
}
std::string personID(int i) {
    return "p-" + std::to_string(i);
}

std::shared_ptr<store::DatabasePool> openLargeStore(const LargeStoreShape& shape) {
    const auto path = std::filesystem::temp_directory_path() /
                      ("orvik-bench-" + std::to_string(shape.identities) + "-" +
                       std::to_string(shape.personConstraints) + ".db");
    const bool fresh = !std::filesystem::exists(path);
    store::PoolOptions options;
    options.create = true;
    auto pool = store::DatabasePool::open(path, options);
    if (!fresh) {
        return pool;
    }
    pool->write([&](store::Connection& db) {
        host::createReferenceSchema(db);
        const int persons = shape.identities / shape.identitiesPerPerson;
        for (int p = 0; p < persons; ++p) {
            const bool absorbed = p % shape.absorbedEvery == 0 && p + 1 < persons;
            db.run(
                "INSERT INTO person (id, display_name, tier, created_from, "
                "merged_into_person_id, created_at) VALUES (?, ?, 'stub', 'user_stated', ?, "
                "'2024-01-01T00:00:00Z')",
                {personID(p), "Person " + std::to_string(p),
                 absorbed ? store::Param(personID(p + 1)) : store::Param(nullptr)});
        }
        for (int i = 0; i < shape.identities; ++i) {
            db.run(
                "INSERT INTO source_identity (id, source_type, handle_normalized, display_name, "
                "first_seen_at, last_seen_at, created_at) VALUES (?, 'gmail', ?, NULL, "
                "'2024-01-01T00:00:00Z', '2024-01-01T00:00:00Z', '2024-01-01T00:00:00Z')",
                {identityID(i),
                 "user" + std::to_string(i % (shape.identities / 3 + 1)) + "@example.com"});
            db.run(
                "INSERT INTO identity_membership (id, source_identity_id, canonical_person_id, "
                "state, decided_by, decided_at, created_at) VALUES (?, ?, ?, 'confirmed', "
                "'user', '2024-01-01T00:00:00Z', '2024-01-01T00:00:00Z')",
                {"m-" + std::to_string(i), identityID(i), personID(i / shape.identitiesPerPerson)});
        }
        auto constraint = [&](const std::string& id, const char* type, const std::string& a,
                              const std::string& b) {
            db.run(
                "INSERT INTO identity_constraint (id, a_type, a_id, b_type, b_id, kind, "
                "decided_by, created_at) VALUES (?, ?, ?, ?, ?, 'different', 'user', "
                "'2024-01-01T00:00:00Z')",
                {id, type, a, type, b});
        };
        for (int k = 0; k < shape.personConstraints; ++k) {
            constraint("kp-" + std::to_string(k), "person", personID((k * 7) % persons),
                       personID((k * 13 + 1) % persons));
        }
        for (int k = 0; k < shape.identityConstraints; ++k) {
            constraint("ki-" + std::to_string(k), "identity",
                       identityID((k * 11) % shape.identities),
                       identityID((k * 17 + 3) % shape.identities));
        }
    });
    return pool;
}

}  // namespace orvik::bench
