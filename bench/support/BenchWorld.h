// What every benchmark of the identity library shares: one private copy of the
// generated store per shape, its repository and subjects, the store shapes as
// benchmark arguments, a statement counter and the restoring of the constraint
// table between iterations of a correction.
#pragma once

#include <benchmark/benchmark.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "bench/support/BenchStore.h"
#include "identity/IdentityRepository.h"

namespace orvik::bench {

// The shape given by a benchmark's arguments: range(0) the exponent, range(1)
// 1 for encrypted.
StoreShape shapeOf(const benchmark::State& state);

// Registers the six shapes (10^3, 10^4, 10^5; plain and encrypted) as arguments.
void allShapes(benchmark::internal::Benchmark* benchmark);

struct World {
    World() = default;
    World(const World&) = delete;
    World& operator=(const World&) = delete;
    // Closes the store and removes the private copy.
    ~World();

    StoreShape shape;
    std::filesystem::path path;
    std::shared_ptr<store::DatabasePool> pool;
    // Reads the store on every call: what each operation costs the first time it
    // is asked after a change, and what the floor replays.
    std::unique_ptr<identity::IdentityRepository> repository;
    // Keeps its answers while the store does not change, as applications run it.
    std::unique_ptr<identity::IdentityRepository> keeping;
    StoreSubjects subjects;
};

// The world of a shape under a tag ("library", "floor", ...): a private copy of
// the cached store, opened once per process and kept for the process's lifetime.
World& world(const StoreShape& shape, const std::string& tag);

// Statements run through the store since the process started (BEGIN and COMMIT
// not included). Counting starts with the first call.
std::uint64_t statementsRun();

// One statement as the store ran it.
struct RecordedStatement {
    std::string sql;
    store::Params params;
};

// Records every statement the store runs while it is alive (one at a time).
class StatementRecording {
  public:
    StatementRecording();
    ~StatementRecording();
    StatementRecording(const StatementRecording&) = delete;
    StatementRecording& operator=(const StatementRecording&) = delete;
    // The statements recorded so far; the recording starts over.
    std::vector<RecordedStatement> take();
};

// CPU time of the calling thread, in seconds, user and system. The repository
// runs each operation on the calling thread, and unlike wall time this does not
// count the time other processes of a busy machine take from it.
double threadSeconds();

// Measures calls: their thread CPU time and the statements they ran. Benchmarks use
// manual time, so that restoring the store between iterations stays untimed.
class Meter {
  public:
    // Runs fn and returns the CPU time it took, in seconds.
    template <typename F>
    double measure(F&& fn) {
        const auto statementsBefore = statementsRun();
        const double start = threadSeconds();
        fn();
        const double seconds = threadSeconds() - start;
        statements_ += statementsRun() - statementsBefore;
        return seconds;
    }
    // Reports the statements per iteration as the counter "statements".
    void finish(benchmark::State& state) const;

  private:
    std::uint64_t statements_ = 0;
};

// Times fn once per iteration.
template <typename F>
void timeEach(benchmark::State& state, F&& fn) {
    Meter meter;
    for (auto _ : state) {
        state.SetIterationTime(meter.measure(fn));
    }
    meter.finish(state);
}

// The last rowid of each table a correction adds rows to.
struct StoreMark {
    std::vector<std::pair<std::string, std::int64_t>> lastRowids;
};

// Takes the mark before a correction; restoreStore removes every row added after
// it. A correction followed by its undo leaves rows behind (the reversed event,
// the ended membership, the guard constraints, the correction records);
// removing them untimed puts the store back as it was, so that every iteration
// of a benchmark, and the floor's, finds the same store and not a history that
// grows with each repetition of the same subjects.
StoreMark markStore(store::DatabasePool& pool);
void restoreStore(store::DatabasePool& pool, const StoreMark& mark);

}  // namespace orvik::bench
