// A realistic sample identity store for trying orvik-identity out.
//
// The sample is the address book and message history of one user across eight
// sources ("gmail", "outlook", "google_calendar", "apple_calendar",
// "apple_contacts", "google_contacts", "imessage", "hybrid_archive"): a few
// hundred source identities with normalised addresses and phone numbers, the
// threads they take part in, the user's own accounts and person, persons the user
// named and stub persons, memberships in every state, identities across sources
// that share a handle and wait as exact-key candidates, and a few corrections made
// through the repository, so that every subcommand has something to show.
//
// The seeded rows are the same on every run (a fixed seed and fixed timestamps);
// the corrections carry fresh identifiers and the time they were made.
#pragma once

#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

#include "store/Database.h"

namespace orvik::app {

struct DemoSummary {
    struct CorrectedPerson {
        std::string personID;
        std::string displayName;
        // What was done to the person, in a few words.
        std::string what;
    };

    std::int64_t sourceIdentities = 0;
    std::map<std::string, std::int64_t> sourceIdentitiesByType;
    std::int64_t threads = 0;
    std::int64_t threadParticipants = 0;
    std::int64_t userStatedPersons = 0;
    std::int64_t stubPersons = 0;
    std::int64_t activeMemberships = 0;
    std::int64_t possibleMemberships = 0;
    std::int64_t ownerAccounts = 0;
    // As the readback counts them (which stops counting at some point).
    std::int64_t exactKeyCandidatePairs = 0;
    std::vector<CorrectedPerson> correctedPersons;
};

// Creates the database file at path with the reference schema and fills it with
// the sample. Refuses, with CommandError, when anything exists at path: the sample
// is only ever written to a new file, so nothing is replaced. When filling fails
// the new file is removed again and the error propagates (CommandError,
// store::DatabaseError or identity::IdentityStoreError).
DemoSummary createDemoStore(const std::filesystem::path& path, const store::PoolOptions& options);

// The summary as a few lines for a terminal, with commands to try next. storeArguments
// is what those commands should be given to find the store ("--db PATH ...").
void printDemoSummary(const DemoSummary& summary, const std::string& storeArguments,
                      std::ostream& out);

}  // namespace orvik::app
