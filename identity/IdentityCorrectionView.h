// Texts of the correction screens: the question on a candidate card and the
// one-line summaries of a candidate's context and of what the user has noted
// about a person. Pure functions of their inputs; safe on any thread.
//
// Dates are localised through ICU. A locale is a BCP 47 tag ("en-US", "de-DE");
// an empty tag means ICU's default locale. A time zone is an IANA name; an empty
// name means the system's zone.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "identity/IdentityHandlePresentation.h"
#include "identity/IdentityModels.h"
#include "identity/InternetDateTime.h"

namespace orvik::identity {

// What the user has noted about a person, supplied by the application.
struct PersonNoteContext {
    std::int64_t noteCount = 0;
    // ISO 8601 timestamp of the latest note.
    std::optional<std::string> lastNoteAt;
    // A short excerpt of the latest note.
    std::optional<std::string> latestNoteExcerpt;

    bool operator==(const PersonNoteContext&) const = default;
};

// The heading of a candidate card: "A = B?" with the two party labels, or
// "Also A?" when they are equal.
[[nodiscard]] std::string candidateQuestion(const IdentityCandidate& candidate,
                                            const ProviderDisplayName& providerDisplayName);

// The relative phrase of timestamp against now ("3 days ago", "vor 3 Tagen"):
// ICU's relative formatter, short style, always numeric, in the largest non-zero
// calendar unit (years to seconds) between the two, counted in timeZone. Absent
// when the timestamp does not parse.
[[nodiscard]] std::optional<std::string> relativeTimePhrase(const std::string& timestamp,
                                                            Instant now,
                                                            const std::string& locale = {},
                                                            const std::string& timeZone = {});

// The short date of timestamp: the locale's form of "MMM d" when its year in
// timeZone is now's year, else of "yMMM d". Absent when it does not parse.
[[nodiscard]] std::optional<std::string> shortDate(const std::string& timestamp, Instant now,
                                                   const std::string& timeZone,
                                                   const std::string& locale);

namespace IdentityCandidateContextSummary {

// "Mail · 12 conversations · last seen 3 days ago · 2 shared · exact handle": the
// provider name; the count with "conversation" or "conversations"; "last seen"
// with the relative time when lastSeenAt parses; the shared thread count when at
// least 1; "exact handle" when set. The display name is not shown.
[[nodiscard]] std::string line(const IdentityCandidateContext& context, Instant now,
                               const ProviderDisplayName& providerDisplayName,
                               const std::string& locale = {});

}  // namespace IdentityCandidateContextSummary

namespace PersonNoteContextSummary {

// "You told Orvik about them", then, for at least one note, the count with "note"
// or "notes", and a last part of "latest <short date>" and/or the quoted excerpt
// ("latest Mar 5: \"Call her back\"").
[[nodiscard]] std::string line(const PersonNoteContext& context, Instant now,
                               const std::string& timeZone, const std::string& locale);

}  // namespace PersonNoteContextSummary

}  // namespace orvik::identity
