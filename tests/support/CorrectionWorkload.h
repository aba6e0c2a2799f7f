// A small store and every correction the repository offers, each ready to run
// once on it: the workload of the fault sweep and of the query-plan check.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "identity/IdentityRepository.h"
#include "tests/support/TestSupport.h"

namespace orvik::test {

// Persons pA (identities iA1, iA2), pB (iB1) and pC (iC1); unaffiliated iN1 and
// iN2 with one handle, and iX.
struct CorrectionWorld {
    using Event = identity::IdentityCorrectionWitness::Event;

    TestDatabase db;
    std::shared_ptr<store::DatabasePool> pool;
    std::vector<Event> events;
    std::unique_ptr<identity::IdentityRepository> repo;

    // vfs: the SQLite VFS the repository's pool opens the file with; the
    // database's own pool when empty.
    explicit CorrectionWorld(const std::string& vfs = {});

    identity::SourceIdentityRow row(const std::string& id);
    identity::IdentityCandidate candidate(const std::string& a, const std::string& b);

    // Rows per table: what a whole correction must have written.
    std::map<std::string, std::string> shape();
};

// One correction: prepare does what the correction needs beforehand (an undo
// needs something to undo) and returns the correction itself.
struct Correction {
    using Op = std::function<void()>;
    const char* name;
    std::function<Op(CorrectionWorld&)> prepare;
};

const std::vector<Correction>& corrections();

}  // namespace orvik::test
