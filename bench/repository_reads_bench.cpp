// Latency of the reads and constraint tests every correction starts with, on a
// store of 10^5 identities.
#include <benchmark/benchmark.h>

#include "bench/support/LargeStore.h"
#include "identity/IdentityRepository.h"
#include "identity/IdentityRepositoryInternal.h"

namespace orvik::bench {
namespace {

identity::IdentityRepository& repository() {
    static identity::IdentityRepository instance(openLargeStore(), nullptr);
    return instance;
}

void BM_ResolveCanonicalPerson(benchmark::State& state) {
    auto& repo = repository();
    int i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(repo.resolveCanonicalPerson(identityID(i)));
        i = (i + 7919) % 100'000;
    }
}
BENCHMARK(BM_ResolveCanonicalPerson);

void BM_ActiveMembershipsOfPerson(benchmark::State& state) {
    auto& repo = repository();
    int p = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(repo.activeMemberships(personID(p)));
        p = (p + 104729) % 50'000;
    }
}
BENCHMARK(BM_ActiveMembershipsOfPerson);

void BM_LatestUndoableMergeEvent(benchmark::State& state) {
    auto& repo = repository();
    for (auto _ : state) {
        benchmark::DoNotOptimize(repo.latestUndoableMergeEvent(personID(42)));
    }
}
BENCHMARK(BM_LatestUndoableMergeEvent);

// The person-pair test resolves the absorption heads of every live person-person
// constraint: the most expensive check a merge makes.
void BM_PersonPairDifferentConstraint(benchmark::State& state) {
    auto pool = openLargeStore();
    identity::internal::RepositoryCore core(host::HostServices::reference());
    int p = 1;
    for (auto _ : state) {
        pool->read([&](store::Connection& db) {
            benchmark::DoNotOptimize(core.hasDifferentConstraint(
                identity::ConstraintSubjectType::person, personID(p),
                identity::ConstraintSubjectType::person, personID(p + 1), db));
        });
        p = (p + 31) % 49'000 + 1;
    }
}
BENCHMARK(BM_PersonPairDifferentConstraint)->Unit(benchmark::kMillisecond);

void BM_IdentityPairDifferentConstraint(benchmark::State& state) {
    auto pool = openLargeStore();
    identity::internal::RepositoryCore core(host::HostServices::reference());
    int i = 0;
    for (auto _ : state) {
        pool->read([&](store::Connection& db) {
            benchmark::DoNotOptimize(core.hasDifferentConstraint(
                identity::ConstraintSubjectType::identity, identityID(i),
                identity::ConstraintSubjectType::identity, identityID(i + 3), db));
        });
        i = (i + 11) % 99'000;
    }
}
BENCHMARK(BM_IdentityPairDifferentConstraint);

}  // namespace
}  // namespace orvik::bench
