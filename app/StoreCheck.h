// `orvik-identity check`: SQLite's integrity check and the identity store's own
// invariants, for support and for the crash and fault sweeps.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "store/Database.h"

namespace orvik::app {

struct StoreCheckReport {
    // One named check with the problems it found (none: it holds).
    struct Finding {
        std::string check;
        std::vector<std::string> problems;
    };
    std::vector<Finding> findings;
    std::int64_t identities = 0;
    std::int64_t livePersons = 0;
    std::int64_t activeMemberships = 0;
    std::int64_t liveConstraints = 0;
    std::int64_t mergeEvents = 0;

    [[nodiscard]] bool healthy() const;
};

// Runs every check in one read transaction. At most a few problems are listed per
// check, with the count of the rest.
[[nodiscard]] StoreCheckReport checkStore(store::DatabasePool& pool);

// The report as lines a person reads: each check with "ok" or its problems, then
// the counts.
void printStoreCheck(const StoreCheckReport& report, std::ostream& out);

}  // namespace orvik::app
