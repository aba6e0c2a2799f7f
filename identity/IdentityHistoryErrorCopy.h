// The user-facing sentence for each store error, and the diagnostic text that the
// view-models record for any error. Pure functions; safe on any thread.
#pragma once

#include <exception>
#include <optional>
#include <string>
#include <string_view>

namespace orvik::identity::IdentityHistoryErrorCopy {

inline constexpr std::string_view generic = "Couldn't load or update identity history.";
inline constexpr std::string_view supersededByLaterCorrection =
    "A newer correction changed this person. Undo the newer correction first.";
inline constexpr std::string_view alreadyReversed = "This correction was already undone.";
inline constexpr std::string_view restoreSnapshotIncomplete =
    "This correction predates undo support and can't be undone.";
inline constexpr std::string_view corruptRestoreMap =
    "This correction can't be undone automatically.";
inline constexpr std::string_view notFound =
    "This person or identity changed since you opened it. Reopen it and try again.";
inline constexpr std::string_view blockedDifferent =
    "You marked these as different people. To combine them, use Link two people.";
inline constexpr std::string_view ownerIdentityUnmergeable =
    "This person is you and can't be combined with someone else.";
// The dash is an em dash (U+2014).
inline constexpr std::string_view cannotSeparateSoleIdentity =
    "This is the only identity linked to this person \u2014 nothing to separate.";

// The error's own user text: absent for anything but an IdentityStoreError, and
// for the store cases invalidArgs, invalidKeyLength and cannotOpenStore. An
// excluded error gives its message unchanged; notFound never shows its message.
[[nodiscard]] std::optional<std::string> memberText(const std::exception& error);

// memberText when present, else generic.
[[nodiscard]] std::string text(const std::exception& error);

// The diagnostic form recorded as lastError: for a store error its case name,
// followed for the three cases with a message by the message in straight double
// quotes inside parentheses, unescaped (notFound("source identity not found"),
// supersededByLaterCorrection); for a database error its SQLite message; for any
// other error its what().
[[nodiscard]] std::string diagnosticText(const std::exception& error);

}  // namespace orvik::identity::IdentityHistoryErrorCopy
