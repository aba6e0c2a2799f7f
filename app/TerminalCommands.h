// The read-only subcommands of orvik-identity for a person at a terminal:
// candidates, history, search and readback.
//
// Each prints either aligned, human-readable text or, with json set, exactly the
// JSON value that the matching exec operation answers with (one line). Stored
// texts are printed with control characters replaced, so that a display name
// cannot move the cursor or rewrite the screen. Repository and database errors
// propagate to the caller.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "identity/IdentityRepository.h"

namespace orvik::app {

// The exact-key candidates: each pair with its score and reason, and the person
// one of them already belongs to.
void showCandidates(identity::IdentityRepository& repository, std::int64_t limit, bool json,
                    std::ostream& out);

// One line per correction of the person, oldest first: when, what kind, why, the
// providers involved, whether it was reversed, and its merge events. Throws
// CommandError when there is no such person.
void showHistory(identity::IdentityRepository& repository, const std::string& personID, bool json,
                 std::ostream& out);

// Source identities matching query (a literal, case-insensitive substring of the
// display name or handle; blank matches everything), or with people set, the
// user-stated persons whose name matches.
void showSearch(identity::IdentityRepository& repository, const std::string& query,
                std::int64_t limit, bool people, bool json, std::ostream& out);

// The diagnostic counts of the store; with json, their own JSON form.
void showReadback(identity::IdentityRepository& repository, bool json, std::ostream& out);

}  // namespace orvik::app
