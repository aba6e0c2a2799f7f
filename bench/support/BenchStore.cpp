#include "bench/support/BenchStore.h"

#include <unistd.h>

#include <cstdio>
#include <system_error>

#include "bench/support/BenchRows.h"
#include "identity/IdentityRepository.h"

namespace orvik::bench {

namespace {

// Bump when the generated content changes: cached stores of other versions are
// left alone and regenerated under the new name.
constexpr int kGeneratorVersion = 3;

std::filesystem::path benchDirectory() {
    auto directory = std::filesystem::temp_directory_path() / "orvik-bench";
    std::filesystem::create_directories(directory);
    return directory;
}

void removeStoreFiles(const std::filesystem::path& path) {
    std::error_code ignored;
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
        std::filesystem::remove(path.string() + suffix, ignored);
    }
}

class Progress {
  public:
    explicit Progress(std::string label) : label_(std::move(label)) { show(0); }
    ~Progress() { std::fprintf(stderr, "\rbuilding %s store: done%10s\n", label_.c_str(), ""); }
    void show(double fraction) {
        const int percent = static_cast<int>(fraction * 100);
        if (percent != shown_) {
            shown_ = percent;
            std::fprintf(stderr, "\rbuilding %s store: %d%%", label_.c_str(), percent);
            std::fflush(stderr);
        }
    }

  private:
    std::string label_;
    int shown_ = -1;
};

// Merges the set-aside pairs through the library, as a user confirming candidates
// would, and undoes every fourth merge: merge events with their snapshots, some
// reversed, and persons with a history.
void mergeThroughLibrary(const std::shared_ptr<store::DatabasePool>& pool,
                         const std::vector<std::pair<std::string, std::string>>& pairs,
                         Progress& progress) {
    identity::IdentityRepository repository(pool, nullptr);
    std::vector<std::pair<std::string, std::string>> kept;
    for (std::size_t k = 0; k < pairs.size(); ++k) {
        const identity::IdentityCandidate candidate{
            .sourceIdentityA = *repository.sourceIdentity(pairs[k].first),
            .sourceIdentityB = *repository.sourceIdentity(pairs[k].second),
            .existingPersonID = std::nullopt,
            .score = 0.85,
            .because = "same contact key"};
        const auto result =
            repository.confirmCandidate(candidate, identity::SubjectLineage::person, "bench");
        if (k % 4 == 3) {
            repository.undoConfirmation(result.mergeEventIDs);
        } else {
            for (const auto& event : result.mergeEventIDs) {
                kept.emplace_back("merge_event", event);
            }
            kept.emplace_back("merged_person", result.personID);
        }
        progress.show(0.9 + 0.1 * static_cast<double>(k + 1) / pairs.size());
    }
    pool->write([&](store::Connection& db) {
        for (const auto& [kind, id] : kept) {
            db.run("INSERT INTO bench_subject (kind, a) VALUES (?, ?)", {kind, id});
        }
    });
}

}  // namespace

int StoreShape::identities() const {
    int n = 1;
    for (int k = 0; k < exponent; ++k) {
        n *= 10;
    }
    return n;
}

std::string StoreShape::label() const {
    return "10^" + std::to_string(exponent) + (encrypted ? " encrypted" : " plain");
}

std::filesystem::path cachedStore(const StoreShape& shape) {
    const auto path =
        benchDirectory() /
        ("store-v" + std::to_string(kGeneratorVersion) + "-e" + std::to_string(shape.exponent) +
         (shape.encrypted ? "-encrypted-" : "-plain-") + std::to_string(shape.seed) + ".db");
    if (std::filesystem::exists(path)) {
        return path;
    }
    // Built under a private name and renamed when complete: an interrupted build
    // leaves no store that looks finished.
    const auto building =
        std::filesystem::path(path.string() + ".building-" + std::to_string(::getpid()));
    removeStoreFiles(building);
    {
        Progress progress(shape.label());
        store::PoolOptions options;
        options.create = true;
        if (shape.encrypted) {
            options.key = kBenchPassphrase;
        }
        auto pool = store::DatabasePool::open(building, options);
        RowPlan plan;
        plan.identities = shape.identities();
        plan.seed = shape.seed ^ static_cast<std::uint64_t>(shape.exponent);
        plan.benchPairs = shape.exponent <= 3 ? 16 : 64;
        plan.generationMerges = shape.exponent <= 3 ? 10 : shape.exponent == 4 ? 60 : 200;
        const auto written = pool->write([&](store::Connection& db) {
            return writeRows(db, plan, [&](double fraction) { progress.show(fraction * 0.9); });
        });
        mergeThroughLibrary(pool, written.generationMerges, progress);
        pool->checkpoint();
    }
    removeStoreFiles(path);
    std::filesystem::rename(building, path);
    return path;
}

std::filesystem::path scratchCopy(const StoreShape& shape, const std::string& tag) {
    // Copies left by processes that ended without removing them.
    for (const auto& entry : std::filesystem::directory_iterator(benchDirectory())) {
        const auto name = entry.path().filename().string();
        if (name.rfind("scratch-", 0) != 0) {
            continue;
        }
        const auto pidStart = name.find('-', 8) + 1;
        const auto pid = name.substr(pidStart, name.find('-', pidStart) - pidStart);
        if (!std::filesystem::exists("/proc/" + pid)) {
            std::error_code ignored;
            std::filesystem::remove(entry.path(), ignored);
        }
    }
    const auto original = cachedStore(shape);
    const auto copy = benchDirectory() / ("scratch-" + tag + "-" + std::to_string(::getpid()) +
                                          "-" + original.filename().string());
    removeStoreFiles(copy);
    std::filesystem::copy_file(original, copy);
    return copy;
}

void removeScratch(const std::filesystem::path& path) {
    removeStoreFiles(path);
}

std::shared_ptr<store::DatabasePool> openStore(const std::filesystem::path& path,
                                               const StoreShape& shape) {
    store::PoolOptions options;
    if (shape.encrypted) {
        options.key = kBenchPassphrase;
    }
    return store::DatabasePool::open(path, options);
}

StoreSubjects readSubjects(store::DatabasePool& pool) {
    StoreSubjects subjects;
    pool.read([&](store::Connection& db) {
        db.query("SELECT kind, a, b FROM bench_subject ORDER BY rowid", {},
                 [&](const store::Row& row) {
                     const auto kind = row.text(0);
                     auto a = row.text(1);
                     auto b = row.text(2);
                     if (kind == "merge_pair") {
                         subjects.mergePairs.emplace_back(std::move(a), std::move(b));
                     } else if (kind == "link_pair") {
                         subjects.linkPairs.emplace_back(std::move(a), std::move(b));
                     } else if (kind == "separable") {
                         subjects.separable.push_back(std::move(a));
                     } else if (kind == "chained") {
                         subjects.chained.push_back(std::move(a));
                     } else if (kind == "linked") {
                         subjects.linked.push_back(std::move(a));
                     } else if (kind == "merged_person") {
                         subjects.mergedPersons.push_back(std::move(a));
                     } else if (kind == "merge_event") {
                         subjects.mergeEvents.push_back(std::move(a));
                     } else if (kind == "unaffiliated") {
                         subjects.unaffiliated.push_back(std::move(a));
                     }
                 });
    });
    return subjects;
}

}  // namespace orvik::bench
