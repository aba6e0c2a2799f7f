// Generated stores for the benchmarks: 10^3, 10^4 or 10^5 identities, encrypted
// with a fixed passphrase or plain, with persons, absorption chains, different
// constraints (N/50 person-person, N/20 identity-identity), dependent rows of the
// neighbouring modules, and merge events written by the library itself.
//
// The rows are a function of the seed; the merge events the library writes carry
// fresh identifiers and the time of generation. Each store is generated once and
// cached under the temporary directory, keyed by size, encryption, seed and
// generator version; benchmarks work on private copies of it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "store/Database.h"

namespace orvik::bench {

// The passphrase of every encrypted benchmark store.
inline constexpr const char* kBenchPassphrase = "orvik-bench-passphrase";

struct StoreShape {
    // 3, 4 or 5: the store holds 10^exponent identities.
    int exponent = 3;
    bool encrypted = false;
    std::uint64_t seed = 20261123;

    [[nodiscard]] int identities() const;
    // "10^4 encrypted"
    [[nodiscard]] std::string label() const;
};

// Subjects the generator set aside for the benchmarks, recorded with the store
// (table bench_subject) so that each benchmark finds what it needs without
// searching.
struct StoreSubjects {
    // Two identities, each the only active member of a live person, with no
    // constraint between them or their persons: a confirmation merges them.
    std::vector<std::pair<std::string, std::string>> mergePairs;
    // An identity without a person and a live person with no constraint between them.
    std::vector<std::pair<std::string, std::string>> linkPairs;
    // An identity of a person with three identities.
    std::vector<std::string> separable;
    // Identities whose membership names a person absorbed once or twice.
    std::vector<std::string> chained;
    // Ordinary linked identities.
    std::vector<std::string> linked;
    // Persons that survived merges the library made (they have a history).
    std::vector<std::string> mergedPersons;
    // Merge events the library wrote and that are still in force.
    std::vector<std::string> mergeEvents;
    // Identities without a person, for owner-alias declarations.
    std::vector<std::string> unaffiliated;
};

// The cached store of this shape, generated first when missing (with a progress
// line on stderr). Safe to call from one thread at a time.
std::filesystem::path cachedStore(const StoreShape& shape);

// A private copy of the cached store under the temporary directory, named by tag;
// replaced when it exists. Copies left behind by processes that have ended are
// removed first.
std::filesystem::path scratchCopy(const StoreShape& shape, const std::string& tag);

// Removes a scratch copy and its -wal and -shm files (once nothing has it open).
void removeScratch(const std::filesystem::path& path);

// Opens a store of this shape at path, with the passphrase when encrypted.
std::shared_ptr<store::DatabasePool> openStore(const std::filesystem::path& path,
                                               const StoreShape& shape);

StoreSubjects readSubjects(store::DatabasePool& pool);

}  // namespace orvik::bench
