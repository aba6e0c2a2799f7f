// How long the main thread stalls while the correction controller works on a
// store of 10^5 identities.
//
// The controller runs on a real event loop over the real store type, repository
// and serial worker, as in the desktop program. A 1 ms timer ticks on that loop
// throughout each operation; the longest gap between two ticks (from the start
// of the operation to its end) is the longest time the screen could not have
// drawn a frame. The aim is under 16 ms.
//
// The argument says whether a screen is bound: with 1, every change signal is
// answered by reading the changed property in its QML form, as a bound screen
// does; with 0, the controller runs alone.
//
// Counters: max_stall_ms, the longest gap over all iterations; stalls_over_16ms,
// how many gaps exceeded a frame; max_stall_cpu_ms, the most CPU time the main
// thread used within one gap (its own work, free of what other processes on the
// machine add to the gaps); wall_ms, the mean time of one operation. The CPU column is the main
// thread's own time.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include <time.h>

#include <QCoreApplication>
#include <QTimer>

#include <QCoro/QCoroTask>
#include <QCoro/QCoroTimer>

#include "bench/support/BenchStore.h"
#include "ui/IdentityCorrectionController.h"
#include "ui/IdentityStore.h"

namespace orvik::bench {
namespace {

using Clock = std::chrono::steady_clock;

double millisecondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}

// The CPU time the calling thread has used.
double threadCpuMs() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// Records the gaps between the ticks of a 1 ms timer on the main thread's loop,
// and the CPU time the main thread used within each gap: its own work, which,
// unlike the gap, does not grow when other processes take the CPU away.
class StallWatch {
  public:
    StallWatch() {
        timer_.setTimerType(Qt::PreciseTimer);
        timer_.setInterval(1);
        QObject::connect(&timer_, &QTimer::timeout, [this] { tick(); });
    }

    void start() {
        last_ = Clock::now();
        lastCpuMs_ = threadCpuMs();
        timer_.start();
    }

    // Stops ticking; the time since the last tick counts as a gap too.
    void stop() {
        tick();
        timer_.stop();
    }

    [[nodiscard]] double maxGapMs() const { return maxGapMs_; }
    [[nodiscard]] double maxGapCpuMs() const { return maxGapCpuMs_; }
    [[nodiscard]] std::int64_t gapsOverFrame() const { return gapsOverFrame_; }

  private:
    void tick() {
        const auto now = Clock::now();
        const double cpuMs = threadCpuMs();
        const double gap = millisecondsBetween(last_, now);
        maxGapMs_ = std::max(maxGapMs_, gap);
        maxGapCpuMs_ = std::max(maxGapCpuMs_, cpuMs - lastCpuMs_);
        if (gap > 16.0) {
            ++gapsOverFrame_;
        }
        last_ = now;
        lastCpuMs_ = cpuMs;
    }

    QTimer timer_;
    Clock::time_point last_;
    double lastCpuMs_ = 0;
    double maxGapMs_ = 0;
    double maxGapCpuMs_ = 0;
    std::int64_t gapsOverFrame_ = 0;
};

// The store, opened through the QML store type, and one controller over it.
struct Harness {
    ui::IdentityStore store;
    ui::IdentityCorrectionController controller;
    bool screenBound = false;

    Harness() {
        // A private copy of the plain generated store, so the cached one stays as
        // generated.
        const auto copy = scratchCopy(StoreShape{.exponent = 5, .encrypted = false}, "stall");

        store.setPath(QString::fromStdString(copy.string()));
        store.setWitnessSink(identity::IdentityCorrectionWitness::discardingSink);
        QCoro::waitFor(store.openAsync());
        if (!store.ready()) {
            throw std::runtime_error("cannot open the benchmark store: " +
                                     store.lastError().toString().toStdString());
        }
        controller.setStore(&store);
        controller.setSubjectID(QStringLiteral("bench"));
        bindScreen();
    }

    // What a bound screen reads when the controller announces a change.
    void bindScreen() {
        using C = ui::IdentityCorrectionController;
        auto read = [this](auto getter) {
            return [this, getter] {
                if (screenBound) {
                    benchmark::DoNotOptimize((controller.*getter)());
                }
            };
        };
        QObject::connect(&controller, &C::candidatesChanged, read(&C::candidatesForQml));
        QObject::connect(&controller, &C::manualSearchResultsChanged,
                         read(&C::manualSearchResultsForQml));
        QObject::connect(&controller, &C::manualPersonResultsChanged,
                         read(&C::manualPersonResultsForQml));
        QObject::connect(&controller, &C::candidateContextsChanged,
                         read(&C::candidateContextsForQml));
        QObject::connect(&controller, &C::personNoteContextsChanged,
                         read(&C::personNoteContextsForQml));
        QObject::connect(&controller, &C::currentUndoOfferChanged,
                         read(&C::currentUndoOfferForQml));
        QObject::connect(&controller, &C::currentUndoOfferChanged,
                         read(&C::lastConfirmationForQml));
        QObject::connect(&controller, &C::lastErrorChanged, read(&C::lastErrorForQml));
    }
};

std::unique_ptr<Harness> harnessInstance;

Harness& harness() {
    if (!harnessInstance) {
        harnessInstance = std::make_unique<Harness>();
    }
    return *harnessInstance;
}

// Runs one controller operation on the event loop under the stall watch.
class Measurement {
  public:
    template <typename Start>
    void run(Start start) {
        watch_.start();
        const auto began = Clock::now();
        // The operation's synchronous start runs inside the watched time.
        QCoro::waitFor(start());
        wallMs_ += millisecondsBetween(began, Clock::now());
        watch_.stop();
        ++operations_;
    }

    void report(benchmark::State& state) const {
        state.counters["max_stall_ms"] = watch_.maxGapMs();
        state.counters["max_stall_cpu_ms"] = watch_.maxGapCpuMs();
        state.counters["stalls_over_16ms"] = static_cast<double>(watch_.gapsOverFrame());
        state.counters["wall_ms"] = operations_ == 0 ? 0.0 : wallMs_ / operations_;
    }

  private:
    StallWatch watch_;
    double wallMs_ = 0;
    std::int64_t operations_ = 0;
};

void checkNoError(benchmark::State& state, const char* operation) {
    if (const auto& error = harness().controller.lastError()) {
        state.SkipWithError((std::string(operation) + " failed: " + *error).c_str());
    }
}

// The noise floor: the loop waits 30 ms with nothing to do, so the gaps are what
// the machine itself adds (other processes taking the CPU, timer slack).
void BM_IdleLoop(benchmark::State& state) {
    Measurement measurement;
    for (auto _ : state) {
        measurement.run([] { return QCoro::sleepFor(std::chrono::milliseconds(30)); });
    }
    measurement.report(state);
}
BENCHMARK(BM_IdleLoop)->Unit(benchmark::kMillisecond)->UseRealTime();

// The desktop program's candidate list: 100 exact-key candidates.
void BM_Reload(benchmark::State& state) {
    auto& h = harness();
    h.screenBound = state.range(0) != 0;
    Measurement measurement;
    for (auto _ : state) {
        measurement.run([&] { return h.controller.reloadAsync(100); });
    }
    checkNoError(state, "reload");
    measurement.report(state);
}
BENCHMARK(BM_Reload)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// The manual-link search: up to 50 identities and 50 people, then the context of
// every identity found, one repository call each.
void BM_ManualSearch(benchmark::State& state) {
    auto& h = harness();
    h.screenBound = state.range(0) != 0;
    Measurement measurement;
    for (auto _ : state) {
        measurement.run([&] { return h.controller.manualSearchAsync("c12"); });
    }
    checkNoError(state, "manualSearch");
    if (h.controller.manualSearchResults().empty()) {
        state.SkipWithError("the search found nothing");
    }
    measurement.report(state);
}
BENCHMARK(BM_ManualSearch)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// Confirms a candidate of the list (a merge of two persons) and undoes it, so
// the store stays as it was.
void BM_ConfirmAndUndo(benchmark::State& state) {
    auto& h = harness();
    h.screenBound = state.range(0) != 0;
    QCoro::waitFor(h.controller.reloadAsync(100));
    if (h.controller.candidates().empty()) {
        state.SkipWithError("the store has no candidates");
        return;
    }
    // The first candidate the store accepts (some name absorbed persons or pairs
    // marked different, which are refused).
    std::optional<identity::IdentityCandidate> candidate;
    for (const auto& tried : std::vector(h.controller.candidates())) {
        QCoro::waitFor(h.controller.confirmAsync(tried));
        if (!h.controller.lastError()) {
            QCoro::waitFor(h.controller.undoLastConfirmationAsync());
            candidate = tried;
            break;
        }
    }
    if (!candidate || h.controller.lastError()) {
        state.SkipWithError("no candidate of the list can be confirmed");
        return;
    }
    Measurement measurement;
    for (auto _ : state) {
        measurement.run([&]() -> QCoro::Task<> {
            co_await h.controller.confirmAsync(*candidate);
            co_await h.controller.undoLastConfirmationAsync();
        });
        if (h.controller.lastError()) {
            break;
        }
    }
    checkNoError(state, "confirm and undo");
    measurement.report(state);
}
BENCHMARK(BM_ConfirmAndUndo)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace orvik::bench

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    // The controller and the store go while the application still exists.
    orvik::bench::harnessInstance.reset();
    return 0;
}
