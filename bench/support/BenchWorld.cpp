#include "bench/support/BenchWorld.h"

#include <time.h>

#include <array>
#include <mutex>
#include <utility>

namespace orvik::bench {

namespace {

std::atomic<std::uint64_t> statementCounter{0};
std::mutex recordingMutex;
std::vector<RecordedStatement>* recording = nullptr;
// Set while a recording is alive, so that counting alone takes no lock: the
// counter runs inside every timed call of the library.
std::atomic<bool> recordingAlive{false};

void countStatement(const std::string& sql, const store::Params& params) {
    statementCounter.fetch_add(1, std::memory_order_relaxed);
    if (!recordingAlive.load(std::memory_order_acquire)) {
        return;
    }
    const std::lock_guard lock(recordingMutex);
    if (recording != nullptr) {
        recording->push_back({sql, params.owned()});
    }
}

}  // namespace

StoreShape shapeOf(const benchmark::State& state) {
    return StoreShape{.exponent = static_cast<int>(state.range(0)),
                      .encrypted = state.range(1) != 0};
}

void allShapes(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"scale", "encrypted"});
#ifdef ORVIK_HAS_SQLCIPHER
    const std::vector<int> kEncryption = {0, 1};
#else
    const std::vector<int> kEncryption = {0};
#endif
    for (int exponent : {3, 4, 5}) {
        for (int encrypted : kEncryption) {
            benchmark->Args({exponent, encrypted});
        }
    }
}

World::~World() {
    repository.reset();
    keeping.reset();
    pool.reset();
    if (!path.empty()) {
        removeScratch(path);
    }
}

World& world(const StoreShape& shape, const std::string& tag) {
    static std::map<std::string, std::unique_ptr<World>> worlds;
    const auto key = tag + "/" + shape.label();
    auto& entry = worlds[key];
    if (!entry) {
        entry = std::make_unique<World>();
        entry->shape = shape;
        entry->path = scratchCopy(shape, tag);
        entry->pool = openStore(entry->path, shape);
        entry->repository = std::make_unique<identity::IdentityRepository>(
            entry->pool, nullptr, host::HostServices::reference(),
            identity::IdentityRepositoryOptions{.keepRepeatedAnswers = false});
        entry->keeping = std::make_unique<identity::IdentityRepository>(entry->pool, nullptr);
        entry->subjects = readSubjects(*entry->pool);
    }
    return *entry;
}

std::uint64_t statementsRun() {
    static const bool installed = [] {
        store::setStatementObserver(&countStatement);
        return true;
    }();
    (void)installed;
    return statementCounter.load(std::memory_order_relaxed);
}

StatementRecording::StatementRecording() {
    statementsRun();
    const std::lock_guard lock(recordingMutex);
    recording = new std::vector<RecordedStatement>();
    recordingAlive.store(true, std::memory_order_release);
}

StatementRecording::~StatementRecording() {
    const std::lock_guard lock(recordingMutex);
    recordingAlive.store(false, std::memory_order_release);
    delete recording;
    recording = nullptr;
}

std::vector<RecordedStatement> StatementRecording::take() {
    const std::lock_guard lock(recordingMutex);
    return std::exchange(*recording, {});
}

double threadSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void Meter::finish(benchmark::State& state) const {
    state.counters["statements"] =
        benchmark::Counter(static_cast<double>(statements_), benchmark::Counter::kAvgIterations);
}

namespace {
constexpr std::array<const char*, 8> kGrowingTables = {
    "identity_constraint", "identity_membership", "merge_event", "user_correction", "person",
    "owner_alias",         "exclusion_rule",      "claim"};
}  // namespace

StoreMark markStore(store::DatabasePool& pool) {
    return pool.read([](store::Connection& db) {
        StoreMark mark;
        for (const char* table : kGrowingTables) {
            mark.lastRowids.emplace_back(
                table,
                db.scalarInteger(std::string("SELECT max(rowid) FROM ") + table).value_or(0));
        }
        return mark;
    });
}

void restoreStore(store::DatabasePool& pool, const StoreMark& mark) {
    pool.write([&](store::Connection& db) {
        for (const auto& [table, rowid] : mark.lastRowids) {
            db.run("DELETE FROM " + table + " WHERE rowid > ?", {rowid});
        }
    });
}

}  // namespace orvik::bench
