// The texts the screens show, table by table, with a fixed now and time zone, in
// an English and a German locale.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "identity/IdentityCorrectionView.h"
#include "identity/IdentityHistoryErrorCopy.h"
#include "identity/IdentityHistoryView.h"
#include "store/Database.h"

namespace orvik::identity {
namespace {

namespace Handle = IdentityHandlePresentation;

std::string provider(const std::string& sourceType) {
    if (sourceType == "gmail" || sourceType == "outlook") {
        return "Mail";
    }
    if (sourceType == "imessage") {
        return "Messages";
    }
    return "Calendar";
}

Instant at(const char* text) {
    return *parseInternetDateTime(text);
}

const std::string kDigest(64, 'a');

SourceIdentityRow identity(std::string id, std::string type, std::string handle,
                           std::optional<std::string> name = {}) {
    SourceIdentityRow row;
    row.id = std::move(id);
    row.sourceType = std::move(type);
    row.handleNormalized = std::move(handle);
    row.displayName = std::move(name);
    return row;
}

IdentityHistoryEntry entry(IdentityHistoryEntry::Kind kind, std::vector<std::string> providers) {
    IdentityHistoryEntry out;
    out.kind = kind;
    out.providers = std::move(providers);
    return out;
}

TEST(HandlePresentation, PartyLabelsAndQuestions) {
    struct Case {
        SourceIdentityRow a, b;
        std::string question;
    };
    const std::vector<Case> cases{
        {identity("1", "gmail", "dana@x.com", "Dana Lee"),
         identity("2", "imessage", "+15551234567"), "Dana Lee = +15551234567?"},
        {identity("1", "gmail", "a@x.com", "Dana"), identity("2", "outlook", "b@x.com", "Dana"),
         "Also Dana?"},
        {identity("1", "gmail", "a@x.com"), identity("2", "gmail", "a@x.com"), "Also a@x.com?"},
        // A digest is not readable; 63 digits or upper-case digits are.
        {identity("1", "imessage", kDigest), identity("2", "imessage", kDigest.substr(1)),
         "Messages contact = " + kDigest.substr(1) + "?"},
        {identity("1", "imessage", std::string(64, 'A')), identity("2", "imessage", kDigest + "\n"),
         std::string(64, 'A') + " = " + kDigest + "\n?"},
        // A present but empty name is the label; an unknown source type is not readable.
        {identity("1", "gmail", "a@x.com", ""), identity("2", "slack", "u123"),
         " = Calendar contact?"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(candidateQuestion(IdentityCandidate{c.a, c.b, {}, 1.0, "test"}, provider),
                  c.question);
    }
    EXPECT_EQ(Handle::mergePreviewRowLine(std::nullopt, "a@x.com", "gmail", provider),
              "a@x.com \u00b7 Mail \u00b7 a@x.com");
    EXPECT_EQ(Handle::mergePreviewRowLine("Ana", kDigest, "imessage", provider),
              "Ana \u00b7 Messages");

    const auto label = Handle::collisionAwareProviderLabel(
        {"gmail", "imessage"}, provider,
        [](const std::string& type) { return "Mail (" + type + ")"; });
    EXPECT_EQ(label("outlook"), "Mail (outlook)");  // collides with gmail, itself not rendered
    EXPECT_EQ(label("gmail"), "Mail");              // the only Mail among the others
    EXPECT_EQ(label("imessage"), "Messages");
}

TEST(HandlePresentation, ContextLinesInTwoLocales) {
    const Instant now = at("2026-03-10T12:00:00Z");
    struct Case {
        std::int64_t conversations;
        std::string lastSeenAt;
        std::int64_t shared;
        bool exact;
        std::string english, german;
    };
    const std::string dot = " \u00b7 ";
    const std::vector<Case> cases{
        {12, "2026-03-07T12:00:00Z", 2, true,
         "Mail" + dot + "12 conversations" + dot + "last seen 3 days ago" + dot + "2 shared" + dot +
             "exact handle",
         "Mail" + dot + "12 conversations" + dot + "last seen vor 3 Tagen" + dot + "2 shared" +
             dot + "exact handle"},
        // 24 hours is one day, never "yesterday"; fractional seconds parse.
        {1, "2026-03-09T11:59:59.750Z", 0, false,
         "Mail" + dot + "1 conversation" + dot + "last seen 1 day ago",
         "Mail" + dot + "1 conversation" + dot + "last seen vor 1 Tag"},
        {0, "2025-01-10T12:00:00+01:00", 1, false,
         "Mail" + dot + "0 conversations" + dot + "last seen 1 yr. ago" + dot + "1 shared",
         "Mail" + dot + "0 conversations" + dot + "last seen vor 1 Jahr" + dot + "1 shared"},
        {1000, "2026-03-10T11:15:00Z", 0, false,
         "Mail" + dot + "1000 conversations" + dot + "last seen 45 min. ago",
         "Mail" + dot + "1000 conversations" + dot + "last seen vor 45 Min."},
        // No zone designator, no date: the part is left out.
        {2, "2026-03-07T12:00:00", 0, false, "Mail" + dot + "2 conversations",
         "Mail" + dot + "2 conversations"},
        {2, "yesterday", 0, false, "Mail" + dot + "2 conversations",
         "Mail" + dot + "2 conversations"},
    };
    for (const auto& c : cases) {
        const IdentityCandidateContext context{"s",          "gmail",  "Ignored", c.conversations,
                                               c.lastSeenAt, c.shared, c.exact};
        EXPECT_EQ(IdentityCandidateContextSummary::line(context, now, provider, "en-US"),
                  c.english);
        EXPECT_EQ(IdentityCandidateContextSummary::line(context, now, provider, "de-DE"), c.german);
    }
}

TEST(HandlePresentation, NoteLinesInTwoLocales) {
    const Instant now = at("2026-03-10T12:00:00Z");
    const std::string dot = " \u00b7 ";
    const std::string told = "You told Orvik about them";
    struct Case {
        PersonNoteContext context;
        std::string english, german;
    };
    const std::vector<Case> cases{
        {{3, "2026-03-05T14:22:10Z", "Call her back"},
         told + dot + "3 notes" + dot + "latest Mar 5: \"Call her back\"",
         told + dot + "3 notes" + dot + "latest 5. M\u00e4rz: \"Call her back\""},
        {{1, "2024-03-05T14:22:10Z", std::nullopt},
         told + dot + "1 note" + dot + "latest Mar 5, 2024",
         told + dot + "1 note" + dot + "latest 5. M\u00e4rz 2024"},
        // The year is taken in the given zone: 23:30 UTC on 31 Dec is already the
        // new year in Berlin.
        {{1, "2025-12-31T23:30:00Z", std::nullopt},
         told + dot + "1 note" + dot + "latest Jan 1",
         told + dot + "1 note" + dot + "latest 1. Jan."},
        {{0, "2026-03-05T14:22:10Z", "ignored"}, told, told},
        {{2, "not a date", ""}, told + dot + "2 notes", told + dot + "2 notes"},
        {{2, std::nullopt, "Hi"},
         told + dot + "2 notes" + dot + "\"Hi\"",
         told + dot + "2 notes" + dot + "\"Hi\""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(PersonNoteContextSummary::line(c.context, now, "Europe/Berlin", "en-US"),
                  c.english);
        EXPECT_EQ(PersonNoteContextSummary::line(c.context, now, "Europe/Berlin", "de-DE"),
                  c.german);
    }
}

TEST(HandlePresentation, StrictTimestamps) {
    for (const char* good : {"2026-03-05T14:22:10Z", "2026-03-05T14:22:10.123Z",
                             "2026-03-05T15:22:10+01:00", "2026-03-05T14:22:10.1234567Z"}) {
        EXPECT_EQ(parseInternetDateTime(good).has_value(), true) << good;
    }
    EXPECT_EQ(*parseInternetDateTime("2026-03-05T15:22:10+01:00"),
              *parseInternetDateTime("2026-03-05T14:22:10Z"));
    for (const char* bad : {"2026-03-05T14:22:10", "2026-03-05 14:22:10Z", "2026-02-30T00:00:00Z",
                            "2026-03-05T24:00:00Z", "2026-03-05T14:22:10Z\n", "", "2026-03-05",
                            "2026-03-05T14:22:10.Z"}) {
        EXPECT_FALSE(parseInternetDateTime(bad).has_value()) << bad;
    }
}

TEST(HandlePresentation, HistoryLinesAndErrorTexts) {
    using Kind = IdentityHistoryEntry::Kind;
    EXPECT_EQ(
        IdentityHistoryEntrySummary::line(entry(Kind::merged, {"gmail", "imessage"}), provider),
        "Merged with another person (Mail, Messages)");
    EXPECT_EQ(IdentityHistoryEntrySummary::line(entry(Kind::linked, {}), provider),
              "Linked an identity");
    EXPECT_EQ(IdentityHistoryEntrySummary::line(entry(Kind::separated, {"x"}), provider),
              "Separated Calendar into a new person");

    namespace Copy = IdentityHistoryErrorCopy;
    using Case = IdentityStoreError::Case;
    struct Row {
        IdentityStoreError error;
        std::optional<std::string_view> member;
        std::string diagnostic;
    };
    const std::vector<Row> rows{
        {IdentityStoreError::notFound("source identity not found"), Copy::notFound,
         "notFound(\"source identity not found\")"},
        {IdentityStoreError::invalidArgs("bad"), std::nullopt, "invalidArgs(\"bad\")"},
        {IdentityStoreError::excluded("Hidden \"x\""), "Hidden \"x\"",
         "excluded(\"Hidden \"x\"\")"},
        {IdentityStoreError(Case::cannotOpenStore), std::nullopt, "cannotOpenStore"},
        {IdentityStoreError(Case::supersededByLaterCorrection), Copy::supersededByLaterCorrection,
         "supersededByLaterCorrection"},
        {IdentityStoreError(Case::cannotSeparateSoleIdentity), Copy::cannotSeparateSoleIdentity,
         "cannotSeparateSoleIdentity"},
        {IdentityStoreError(Case::blockedDifferent), Copy::blockedDifferent, "blockedDifferent"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Copy::memberText(row.error), row.member) << row.diagnostic;
        EXPECT_EQ(Copy::text(row.error), row.member.value_or(Copy::generic));
        EXPECT_EQ(Copy::diagnosticText(row.error), row.diagnostic);
    }
    const store::DatabaseError database(5, "database is locked");
    EXPECT_EQ(Copy::memberText(database), std::nullopt);
    EXPECT_EQ(Copy::text(database), Copy::generic);
    EXPECT_EQ(Copy::diagnosticText(database), "database is locked");
}

}  // namespace
}  // namespace orvik::identity
