// The floor: what an operation costs when nothing but its statements runs.
//
// For each operation the library is run once per subject on a private copy of
// the store while the store records every statement and its parameters. The
// floor then runs exactly those statements, on another copy of the same store,
// with raw SQLite: each text prepared once per connection, one transaction per
// call on the same pool (BEGIN IMMEDIATE for corrections), every column of every
// row read. What the library needs to decide is left out, and so is a read that
// repeats an earlier one of the same transaction word for word with no write in
// between: an operation that reads a row once gives the same answers.
//
// Identifiers a correction mints (the UUIDs it inserts) are replaced by fresh
// ones for every run, in its parameters and in the texts that carry them (the
// snapshot JSON), so that a correction and its undo can be run again and again.
// With ORVIK_FLOOR_TRACE set, every recorded statement is printed to stderr as
// it is recorded, "repeat" marking the reads the floor leaves out.
//
// Benchmarks are named after the library's (BM_x here is the floor of BM_x in
// identity_bench) and report the counter "statements" the same way.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <unordered_map>
#include <unordered_set>

#include "bench/support/BenchWorld.h"

namespace orvik::bench {
namespace {

using identity::IdentityCandidate;
using Value = std::variant<std::nullptr_t, std::int64_t, double, std::string>;

struct Step {
    std::string sql;
    std::vector<Value> params;
};

struct FloorTransaction {
    bool write = false;
    std::vector<Step> steps;
};

// The transactions of one subject: a read, or a correction and its undo.
struct Trace {
    std::vector<FloorTransaction> transactions;
    // Minted identifiers, replaced on every run.
    std::vector<std::string> minted;
};

bool isRead(const std::string& sql) {
    return sql.rfind("SELECT", 0) == 0 || sql.rfind("WITH", 0) == 0;
}

bool looksLikeUUID(const std::string& text) {
    if (text.size() != 36) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) {
            return false;
        }
    }
    return true;
}

std::string keyOf(const Step& step) {
    std::string key = step.sql;
    for (const auto& value : step.params) {
        key += '\x1f';
        if (const auto* s = std::get_if<std::string>(&value)) {
            key += 's' + *s;
        } else if (const auto* i = std::get_if<std::int64_t>(&value)) {
            key += 'i' + std::to_string(*i);
        } else if (const auto* d = std::get_if<double>(&value)) {
            key += 'd' + std::to_string(*d);
        } else {
            key += 'n';
        }
    }
    return key;
}

// One transaction from the statements the library ran in it: lists flattened, and
// reads that repeat an earlier read since the last write dropped.
FloorTransaction floorOf(bool write, const std::vector<RecordedStatement>& recorded,
                         std::vector<std::string>& minted) {
    FloorTransaction tx{.write = write, .steps = {}};
    std::unordered_set<std::string> readSinceWrite;
    std::unordered_set<std::string> seen(minted.begin(), minted.end());
    for (const auto& statement : recorded) {
        Step step{.sql = statement.sql, .params = {}};
        for (const auto& param : statement.params.values()) {
            param.visit([&](const auto& value) {
                using T = std::decay_t<decltype(value)>;
                if constexpr (std::is_same_v<T, std::span<const std::string>>) {
                    step.params.insert(step.params.end(), value.begin(), value.end());
                } else if constexpr (std::is_same_v<T, std::string_view>) {
                    step.params.emplace_back(std::string(value));
                } else {
                    step.params.emplace_back(value);
                }
            });
        }
        const bool inserts = step.sql.rfind("INSERT", 0) == 0;
        for (const auto& value : step.params) {
            if (const auto* s = std::get_if<std::string>(&value)) {
                if (inserts && looksLikeUUID(*s) && !seen.contains(*s)) {
                    minted.push_back(*s);
                }
                seen.insert(*s);
            }
        }
        bool repeated = false;
        if (isRead(step.sql)) {
            repeated = !readSinceWrite.insert(keyOf(step)).second;
        } else {
            readSinceWrite.clear();
        }
        if (std::getenv("ORVIK_FLOOR_TRACE") != nullptr) {
            std::fprintf(stderr, "%s %s\n", repeated ? "repeat" : "run   ", step.sql.c_str());
        }
        if (!repeated) {
            tx.steps.push_back(std::move(step));
        }
    }
    return tx;
}

// The trace with every minted identifier replaced by one unique to this run.
Trace freshCopy(const Trace& trace, std::uint64_t run) {
    std::vector<std::pair<std::string, std::string>> replacements;
    for (std::size_t k = 0; k < trace.minted.size(); ++k) {
        char tail[16];
        std::snprintf(tail, sizeof tail, "%012llx",
                      static_cast<unsigned long long>((run << 12) + k) & 0xffffffffffffULL);
        replacements.emplace_back(trace.minted[k], trace.minted[k].substr(0, 24) + tail);
    }
    Trace copy = trace;
    for (auto& tx : copy.transactions) {
        for (auto& step : tx.steps) {
            for (auto& value : step.params) {
                auto* s = std::get_if<std::string>(&value);
                if (s == nullptr || s->size() < 36) {
                    continue;
                }
                for (const auto& [from, to] : replacements) {
                    for (auto at = s->find(from); at != std::string::npos;
                         at = s->find(from, at + to.size())) {
                        s->replace(at, from.size(), to);
                    }
                }
            }
        }
    }
    return copy;
}

// Prepared statements, once per connection and text.
sqlite3_stmt* prepared(sqlite3* db, const std::string& sql) {
    static std::unordered_map<sqlite3*, std::unordered_map<std::string, sqlite3_stmt*>> cache;
    auto& statements = cache[db];
    auto it = statements.find(sql);
    if (it == statements.end()) {
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &stmt, nullptr) !=
            SQLITE_OK) {
            throw store::DatabaseError(sqlite3_extended_errcode(db), sqlite3_errmsg(db), sql);
        }
        it = statements.emplace(sql, stmt).first;
    }
    return it->second;
}

std::int64_t runSteps(sqlite3* db, const FloorTransaction& tx) {
    std::int64_t sink = 0;
    for (const auto& step : tx.steps) {
        sqlite3_stmt* stmt = prepared(db, step.sql);
        int position = 1;
        for (const auto& value : step.params) {
            if (const auto* s = std::get_if<std::string>(&value)) {
                sqlite3_bind_text(stmt, position, s->data(), static_cast<int>(s->size()),
                                  SQLITE_STATIC);
            } else if (const auto* i = std::get_if<std::int64_t>(&value)) {
                sqlite3_bind_int64(stmt, position, *i);
            } else if (const auto* d = std::get_if<double>(&value)) {
                sqlite3_bind_double(stmt, position, *d);
            } else {
                sqlite3_bind_null(stmt, position);
            }
            ++position;
        }
        int rc = SQLITE_ROW;
        while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
            const int columns = sqlite3_column_count(stmt);
            for (int c = 0; c < columns; ++c) {
                if (sqlite3_column_type(stmt, c) == SQLITE_INTEGER) {
                    sink += sqlite3_column_int64(stmt, c);
                } else {
                    sink += sqlite3_column_bytes(stmt, c);
                    benchmark::DoNotOptimize(sqlite3_column_text(stmt, c));
                }
            }
        }
        if (rc != SQLITE_DONE) {
            const std::string message = sqlite3_errmsg(db);
            sqlite3_reset(stmt);
            throw store::DatabaseError(sqlite3_extended_errcode(db), message, step.sql);
        }
        sqlite3_reset(stmt);
        sqlite3_clear_bindings(stmt);
    }
    return sink;
}

void runTransaction(store::DatabasePool& pool, const FloorTransaction& tx) {
    auto body = [&](store::Connection& db) { benchmark::DoNotOptimize(runSteps(db.handle(), tx)); };
    if (tx.write) {
        pool.write(body);
    } else {
        pool.read(body);
    }
}

// The timed transaction, in a frame of its own so that a profiler can single it
// out (callgrind --toggle-collect='*timedTransaction*').
[[gnu::noinline]] double timedTransaction(store::DatabasePool& pool, const FloorTransaction& tx) {
    const double start = threadSeconds();
    runTransaction(pool, tx);
    return threadSeconds() - start;
}

// Records the library's statements: each entry of `operations` is one call, and a
// subject's calls (a correction and its undo) form one trace. The store is
// restored after each subject, as the library benchmark does.
struct Operation {
    bool write;
    std::function<void()> call;
};

Trace record(World& w, const std::vector<Operation>& operations) {
    Trace trace;
    const auto mark = markStore(*w.pool);
    {
        StatementRecording recording;
        for (const auto& operation : operations) {
            operation.call();
            trace.transactions.push_back(floorOf(operation.write, recording.take(), trace.minted));
        }
    }
    restoreStore(*w.pool, mark);
    return trace;
}

// Runs the traces in turn, timing the transaction at index timed.
void replay(benchmark::State& state, const std::vector<Trace>& traces, std::size_t timed,
            const StoreShape& shape) {
    auto& floor = world(shape, "floor");
    // Minted identifiers must differ across every run of the process.
    static std::uint64_t runs = 0;
    std::size_t next = 0;
    std::uint64_t statements = 0;
    for (auto _ : state) {
        const Trace trace = freshCopy(traces[next++ % traces.size()], ++runs);
        const auto mark = trace.transactions.size() > 1 ? markStore(*floor.pool) : StoreMark{};
        double seconds = 0;
        for (std::size_t t = 0; t < trace.transactions.size(); ++t) {
            if (t == timed) {
                seconds = timedTransaction(*floor.pool, trace.transactions[t]);
                statements += trace.transactions[t].steps.size();
            } else {
                runTransaction(*floor.pool, trace.transactions[t]);
            }
        }
        if (trace.transactions.size() > 1) {
            restoreStore(*floor.pool, mark);
        }
        state.SetIterationTime(seconds);
    }
    state.counters["statements"] =
        benchmark::Counter(static_cast<double>(statements), benchmark::Counter::kAvgIterations);
}

// The traces of one operation and shape, recorded once per process.
template <typename Make>
const std::vector<Trace>& tracesFor(const std::string& name, const StoreShape& shape, Make&& make) {
    static std::map<std::string, std::vector<Trace>> traces;
    auto& entry = traces[name + "/" + shape.label()];
    if (entry.empty()) {
        entry = make(world(shape, "record"));
    }
    return entry;
}

template <typename T>
const T& nth(const std::vector<T>& items, std::size_t i) {
    if (items.empty()) {
        throw std::runtime_error("the generated store has no subject of this kind");
    }
    return items[i % items.size()];
}

// The floor records one trace per subject the library's benchmark takes in turn,
// so that both go through the same rows: fewer subjects would keep the floor's
// rows in the processor's caches while the library's come from memory.

// --- Reads.

void BM_resolveCanonicalPerson(benchmark::State& state) {
    const auto shape = shapeOf(state);
    const auto& traces = tracesFor("resolve", shape, [](World& w) {
        std::vector<Trace> made;
        // The library alternates the two kinds, each taken in turn by i / 2.
        const std::size_t turns = 2 * std::max(w.subjects.linked.size(), w.subjects.chained.size());
        for (std::size_t i = 0; i < turns; ++i) {
            const auto& id =
                i % 2 == 0 ? nth(w.subjects.linked, i / 2) : nth(w.subjects.chained, i / 2);
            made.push_back(record(w, {{false, [&] { w.repository->resolveCanonicalPerson(id); }}}));
        }
        return made;
    });
    replay(state, traces, 0, shape);
}
BENCHMARK(BM_resolveCanonicalPerson)->Apply(allShapes)->UseManualTime();

// Records one read per merged person and replays them.
template <typename Read>
void replayPersonReads(benchmark::State& state, const std::string& name, Read read) {
    const auto shape = shapeOf(state);
    const auto& traces = tracesFor(name, shape, [&](World& w) {
        std::vector<Trace> made;
        for (std::size_t i = 0; i < w.subjects.mergedPersons.size(); ++i) {
            const auto& id = nth(w.subjects.mergedPersons, i);
            made.push_back(record(w, {{false, [&] { read(*w.repository, id); }}}));
        }
        return made;
    });
    replay(state, traces, 0, shape);
}

void BM_activeMemberships(benchmark::State& state) {
    replayPersonReads(state, "activeMemberships",
                      [](auto& repository, const auto& id) { repository.activeMemberships(id); });
}
BENCHMARK(BM_activeMemberships)->Apply(allShapes)->UseManualTime();

void BM_searchSourceIdentities(benchmark::State& state) {
    const auto shape = shapeOf(state);
    const auto& traces = tracesFor("search", shape, [](World& w) {
        const std::vector<std::string> excluding{nth(w.subjects.linked, 0)};
        return std::vector<Trace>{record(
            w, {{false, [&] { w.repository->searchSourceIdentities("ann", 20, excluding); }}})};
    });
    replay(state, traces, 0, shape);
}
BENCHMARK(BM_searchSourceIdentities)->Apply(allShapes)->UseManualTime();

void BM_exactKeyCandidates(benchmark::State& state) {
    const auto shape = shapeOf(state);
    const auto& traces = tracesFor("candidates", shape, [](World& w) {
        return std::vector<Trace>{
            record(w, {{false, [&] { w.repository->exactKeyCandidates(50); }}})};
    });
    replay(state, traces, 0, shape);
}
BENCHMARK(BM_exactKeyCandidates)->Apply(allShapes)->UseManualTime();

void BM_identityHistory(benchmark::State& state) {
    replayPersonReads(state, "history",
                      [](auto& repository, const auto& id) { repository.identityHistory(id); });
}
BENCHMARK(BM_identityHistory)->Apply(allShapes)->UseManualTime();

// --- Corrections, each with its undo.

const std::vector<Trace>& linkTraces(const StoreShape& shape) {
    return tracesFor("link", shape, [](World& w) {
        std::vector<Trace> made;
        for (std::size_t i = 0; i < w.subjects.linkPairs.size(); ++i) {
            const auto& pair = nth(w.subjects.linkPairs, i);
            std::optional<std::string> event;
            made.push_back(record(w, {{true,
                                       [&] {
                                           event =
                                               w.repository
                                                   ->linkIdentity({.personID = pair.second,
                                                                   .sourceIdentityID = pair.first,
                                                                   .confirmed = true})
                                                   .mergeEventID;
                                       }},
                                      {true, [&] { w.repository->undoMerge(event.value()); }}}));
        }
        return made;
    });
}
void BM_linkIdentity(benchmark::State& state) {
    replay(state, linkTraces(shapeOf(state)), 0, shapeOf(state));
}
BENCHMARK(BM_linkIdentity)->Apply(allShapes)->UseManualTime();
void BM_undoMerge_link(benchmark::State& state) {
    replay(state, linkTraces(shapeOf(state)), 1, shapeOf(state));
}
BENCHMARK(BM_undoMerge_link)->Apply(allShapes)->UseManualTime();

const std::vector<Trace>& confirmTraces(const StoreShape& shape) {
    return tracesFor("confirm", shape, [](World& w) {
        std::vector<Trace> made;
        for (std::size_t i = 0; i < w.subjects.mergePairs.size(); ++i) {
            const auto& pair = nth(w.subjects.mergePairs, i);
            const IdentityCandidate candidate{
                .sourceIdentityA = w.repository->sourceIdentity(pair.first).value(),
                .sourceIdentityB = w.repository->sourceIdentity(pair.second).value(),
                .existingPersonID = std::nullopt,
                .score = 0.85,
                .because = "same contact key"};
            std::vector<std::string> events;
            made.push_back(record(
                w, {{true,
                     [&] {
                         events = w.repository
                                      ->confirmCandidate(candidate,
                                                         identity::SubjectLineage::person, "bench")
                                      .mergeEventIDs;
                     }},
                    {true, [&] { w.repository->undoConfirmation(events); }}}));
        }
        return made;
    });
}
void BM_confirmCandidate(benchmark::State& state) {
    replay(state, confirmTraces(shapeOf(state)), 0, shapeOf(state));
}
BENCHMARK(BM_confirmCandidate)->Apply(allShapes)->UseManualTime();
void BM_undoConfirmation(benchmark::State& state) {
    replay(state, confirmTraces(shapeOf(state)), 1, shapeOf(state));
}
BENCHMARK(BM_undoConfirmation)->Apply(allShapes)->UseManualTime();

}  // namespace
}  // namespace orvik::bench
