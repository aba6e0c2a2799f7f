// A store of realistic size for benchmarks: 10^5 identities, most of them linked
// to persons, with absorption chains, claims and different-person constraints.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "store/Database.h"

namespace orvik::bench {

struct LargeStoreShape {
    int identities = 100'000;
    // One person per this many identities.
    int identitiesPerPerson = 2;
    // Every this-many-th person was absorbed into the next one.
    int absorbedEvery = 10;
    int personConstraints = 2'000;
    int identityConstraints = 5'000;
};

// Opens (creating once, then reusing) a plain database under the system's
// temporary directory holding a store of the given shape.
std::shared_ptr<store::DatabasePool> openLargeStore(const LargeStoreShape& shape = {});

// Identifiers used by the generated store.
std::string identityID(int i);
std::string personID(int i);

}  // namespace orvik::bench
