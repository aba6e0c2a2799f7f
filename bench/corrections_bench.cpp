// Latency of corrections, their undo and the screens' reads on a store of 10^5
// identities. Each run works on a private copy of the generated store, so the
// cached original stays as generated.
#include <benchmark/benchmark.h>

#include <filesystem>

#include "bench/support/LargeStore.h"
#include "identity/IdentityRepository.h"

namespace orvik::bench {
namespace {

using identity::IdentityRepository;
using identity::SubjectLineage;

IdentityRepository& repository() {
    static IdentityRepository instance = [] {
        auto original = openLargeStore();
        const auto copy = std::filesystem::temp_directory_path() / "orvik-bench-corrections.db";
        original->checkpoint();
        std::filesystem::copy_file(original->path(), copy,
                                   std::filesystem::copy_options::overwrite_existing);
        std::filesystem::remove(copy.string() + "-wal");
        std::filesystem::remove(copy.string() + "-shm");
        return IdentityRepository(store::DatabasePool::open(copy), nullptr);
    }();
    return instance;
}

identity::SourceIdentityRow identity(int i) {
    return *repository().sourceIdentity(identityID(i));
}

// Links an identity into another person and undoes the link.
void BM_LinkAndUndo(benchmark::State& state) {
    auto& repo = repository();
    int i = 1;
    for (auto _ : state) {
        const auto response = repo.linkIdentity({.personID = personID(i / 2 + 1),
                                                 .sourceIdentityID = identityID(i),
                                                 .confirmed = true});
        // A pair the generated constraints mark different is refused; nothing to undo.
        if (response.mergeEventID) {
            repo.undoMerge(*response.mergeEventID);
        }
        i = (i + 2 * 7919) % 90'000 + 1;
    }
}
BENCHMARK(BM_LinkAndUndo)->Unit(benchmark::kMillisecond);

// Confirms a candidate whose identities belong to two persons (a merge) and undoes it.
void BM_ConfirmMergeAndUndo(benchmark::State& state) {
    auto& repo = repository();
    int i = 3;
    for (auto _ : state) {
        identity::IdentityCandidate candidate{.sourceIdentityA = identity(i),
                                              .sourceIdentityB = identity(i + 2),
                                              .existingPersonID = std::nullopt,
                                              .score = 0.85,
                                              .because = "same contact key"};
        try {
            const auto result = repo.confirmCandidate(candidate, SubjectLineage::person, "bench");
            repo.undoConfirmation(result.mergeEventIDs);
        } catch (const identity::IdentityStoreError&) {
            // A pair marked different by the generated constraints: refused, as it should be.
        }
        i = (i + 4 * 104729) % 90'000 + 3;
    }
}
BENCHMARK(BM_ConfirmMergeAndUndo)->Unit(benchmark::kMillisecond);

void BM_ExactKeyCandidates(benchmark::State& state) {
    auto& repo = repository();
    for (auto _ : state) {
        benchmark::DoNotOptimize(repo.exactKeyCandidates(50));
    }
}
BENCHMARK(BM_ExactKeyCandidates)->Unit(benchmark::kMillisecond);

void BM_SearchSourceIdentities(benchmark::State& state) {
    auto& repo = repository();
    for (auto _ : state) {
        benchmark::DoNotOptimize(repo.searchSourceIdentities("user12", 20, {identityID(5)}));
    }
}
BENCHMARK(BM_SearchSourceIdentities)->Unit(benchmark::kMillisecond);

void BM_IdentityHistory(benchmark::State& state) {
    auto& repo = repository();
    for (auto _ : state) {
        benchmark::DoNotOptimize(repo.identityHistory(personID(1)));
    }
}
BENCHMARK(BM_IdentityHistory)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace orvik::bench
