// The subcommands of orvik-identity for a person at a terminal: the reads
// (candidates, history, search, readback, person) and the corrections with their
// undo (confirm, reject, link, separate, different, me, undo).
//
// Each prints readable text (see TerminalOutput.h) or, with json set, exactly the
// JSON value that the matching exec operation answers with, as one line. Every
// correction says what changed and how to undo it, and is remembered as the last
// correction of the store, so that a bare `undo` reverses it. Failures are thrown:
// CommandError for what the user asked wrongly (an unknown id, a number not in the
// last listing), IdentityStoreError and store::DatabaseError from the repository.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "app/CliState.h"
#include "app/TerminalOutput.h"
#include "identity/IdentityRepository.h"

namespace orvik::app {

struct Terminal {
    identity::IdentityRepository& repository;
    CliState& state;
    std::ostream& out;
    Style style;
    bool json = false;
    // How a later command finds the same store ("--db PATH [--key KEY]"), for the
    // commands suggested in the output.
    std::string storeArguments;
    // On whose behalf corrections are made (written with each correction).
    std::string subjectID;
};

// The source name shown for a source type: the screens' name
// (app/ProviderNames.h), made printable.
[[nodiscard]] std::string providerName(const std::string& sourceType);

// --- Reads.

// The exact-key candidates, numbered, with how many there are in all, and
// remembered for confirm N and reject N.
void showCandidates(Terminal& terminal, std::int64_t limit);
// The person's corrections, oldest first, each with its summary, time and state.
void showHistory(Terminal& terminal, const std::string& personID);
void showSearch(Terminal& terminal, const std::string& query, std::int64_t limit, bool people);
void showReadback(Terminal& terminal);
// A person (or the person of an identity): its names, identities and history.
void showPerson(Terminal& terminal, const std::string& id);

// --- Corrections. which is a candidate id ("A|B") or its number in the last
// listing.

void confirmCandidate(Terminal& terminal, const std::string& which);
void rejectCandidate(Terminal& terminal, const std::string& which);
// Two or more identity or person ids, joined into one person.
void linkTargets(Terminal& terminal, const std::vector<std::string>& ids);
void separateIdentity(Terminal& terminal, const std::string& identityID);
// Two person ids (or identity ids, standing for their persons).
void markDifferent(Terminal& terminal, const std::string& a, const std::string& b);
// Identity ids, or handles that name identities exactly, declared as the user's own.
void declareOwn(Terminal& terminal, const std::vector<std::string>& handles);
// Undoes a history entry (by any of its merge event ids), or without one the last
// correction made from the command line.
void undoCorrection(Terminal& terminal, const std::optional<std::string>& entry);

}  // namespace orvik::app
