// The rows of a generated benchmark store, written in one write transaction.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "store/Database.h"

namespace orvik::bench {

struct RowPlan {
    int identities = 1000;
    std::uint64_t seed = 1;
    // How many subject pairs of each kind to set aside for the benchmarks, and how
    // many pairs the generator merges through the library afterwards.
    int benchPairs = 64;
    int generationMerges = 10;
};

// Subject rows for bench_subject: kind, a, b (b empty for single subjects).
struct SubjectRow {
    std::string kind;
    std::string a;
    std::string b;
};

struct WrittenRows {
    std::vector<SubjectRow> subjects;
    // Pairs of identities (each the only member of its person) for the library to merge.
    std::vector<std::pair<std::string, std::string>> generationMerges;
};

// Writes the reference schema, every row of the plan and the bench_subject table.
// progress(fraction) is called now and then with a value in [0, 1].
WrittenRows writeRows(store::Connection& db, const RowPlan& plan,
                      const std::function<void(double)>& progress);

}  // namespace orvik::bench
