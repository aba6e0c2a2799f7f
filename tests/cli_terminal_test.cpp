// The terminal commands of orvik-identity, run as a person or a script would run
// them: exit statuses and messages of a wrong command line, corrections by number
// and their undo, --json against what exec answers, and the output on a terminal.
#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "identity/IdentityRepository.h"
#include "tests/support/CliRunner.h"
#include "tests/support/TestSupport.h"

namespace orvik::test {
namespace {

using Json = nlohmann::ordered_json;

// A store with two pairs of identities that share a handle (two candidates), each
// run with its own place for the command line's state.
struct CliStore {
    TestDatabase db;
    TempDir state;

    CliStore() {
        db.addPerson("p-dana", std::nullopt, "Dana Lee", "user_stated");
        db.addPerson("p-old", std::nullopt, "Dana (old card)", "user_stated");
        db.addIdentity("si-mail", "gmail", "dana@example.org", "Dana Lee");
        db.addIdentity("si-cal", "google_calendar", "dana@example.org", "Dana");
        db.addIdentity("si-card", "apple_contacts", "+15551234567", "Dana L.");
        db.addIdentity("si-msg", "imessage", "+15551234567");
        db.addMembership("m-mail", "si-mail", "p-dana");
        db.addMembership("m-card", "si-card", "p-old");
    }

    ChildRun run(Lines arguments, const std::string& input = {}, ChildOptions options = {}) {
        arguments.insert(arguments.end(), {"--db", db.path().string()});
        options.environment.emplace("XDG_STATE_HOME", state.path().string());
        return runCli(arguments, input, options);
    }

    // The person an identity resolves to now, or "-".
    std::string personOf(const std::string& identityID) {
        identity::IdentityRepository repository(
            db.sharedPool(), &identity::IdentityCorrectionWitness::discardingSink);
        const auto resolved = repository.resolveCanonicalPerson(identityID);
        return resolved ? resolved->personID : "-";
    }
};

void expectUsageError(const ChildRun& run, const std::string& expected) {
    EXPECT_EQ(run.exitCode, 2) << run.errors;
    EXPECT_TRUE(run.lines.empty()) << run.text();
    EXPECT_TRUE(run.errors.starts_with("orvik-identity: ")) << run.errors;
    EXPECT_NE(run.errors.find(expected), std::string::npos) << run.errors;
}

// Fresh identifiers differ between two runs of the same correction; everything
// else must not.
std::string withoutFreshIDs(const std::string& text) {
    static const std::regex kUUID("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
    return std::regex_replace(text, kUUID, "<uuid>");
}

TEST(CliUsage, WrongCommandLinesExitTwoWithAPrefixAndASuggestion) {
    CliStore store;
    expectUsageError(runCli({"confrim"}), "'confrim' is not a command; did you mean 'confirm'?");
    expectUsageError(runCli({"histroy"}), "did you mean 'history'?");
    expectUsageError(store.run({"candidates", "--limt", "3"}),
                     "unknown option '--limt'; did you mean '--limit'?");
    expectUsageError(store.run({"candidates", "--limit", "abc"}), "'abc' is not a number");
    expectUsageError(store.run({"search", "--limit", "0"}), "at least 1");
    expectUsageError(runCli({"candidates"}), "--db is required");
    expectUsageError(store.run({"link", "si-mail"}), "link: ");
    expectUsageError(store.run({"confirm", "dana"}), "not a candidate");
    expectUsageError(runCli({}), "");

    const auto version = runCli({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.lines, Lines{"orvik-identity " ORVIK_IDENTITY_VERSION});

    // Failures that are not about the command line exit 1, with the same prefix.
    TempDir dir;
    const auto missing = runCli({"person", "p", "--db", (dir.path() / "none.db").string()});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_TRUE(missing.errors.starts_with("orvik-identity: no database at ")) << missing.errors;
    const auto nobody = store.run({"person", "nobody"});
    EXPECT_EQ(nobody.exitCode, 1);
    EXPECT_NE(nobody.errors.find("no person or source identity nobody"), std::string::npos);
}

// confirm N acts on the N-th candidate of the last listing; a bare undo reverses
// it and only once.
TEST(CliCorrections, ConfirmByNumberThenUndoRestoresThePair) {
    CliStore store;
    const auto listed = store.run({"candidates"});
    ASSERT_EQ(listed.exitCode, 0) << listed.errors;
    EXPECT_EQ(listed.lines.at(0), "Showing 2 of 2 candidates, most likely first.");
    const std::string text = listed.text();
    // The card question, as the screens ask it, and names instead of ids.
    EXPECT_NE(text.find("Dana = Dana Lee?"), std::string::npos) << text;
    EXPECT_NE(text.find("Dana L. = +15551234567?"), std::string::npos) << text;
    EXPECT_NE(text.find("one of them is already Dana Lee (p-dana)"), std::string::npos) << text;

    // The same listing as JSON says which pair is number 1.
    const auto first = Json::parse(store.run({"candidates", "--json"}).lines.at(0)).at(0);
    const std::string owner = first["existingPersonID"];
    const std::string joined =
        first["sourceIdentityA"]["id"] == "si-mail" || first["sourceIdentityA"]["id"] == "si-card"
            ? first["sourceIdentityB"]["id"]
            : first["sourceIdentityA"]["id"];
    const auto untouched = store.db.dump();
    const auto files = [&] {
        std::set<std::string> names;
        for (const auto& entry :
             std::filesystem::directory_iterator(store.db.path().parent_path())) {
            names.insert(entry.path().filename().string());
        }
        return names;
    };
    const auto filesBefore = files();
    const auto confirmed = store.run({"confirm", "1"});
    ASSERT_EQ(confirmed.exitCode, 0) << confirmed.errors;
    EXPECT_EQ(store.personOf(joined), owner);
    EXPECT_NE(confirmed.text().find("To undo: `orvik-identity undo --db "), std::string::npos)
        << confirmed.text();
    // Nothing is written next to the store; the listing is kept in the state folder.
    EXPECT_EQ(files(), filesBefore);
    EXPECT_FALSE(std::filesystem::is_empty(store.state.path() / "orvik-identity"));

    const auto undone = store.run({"undo"});
    ASSERT_EQ(undone.exitCode, 0) << undone.errors;
    EXPECT_TRUE(undone.text().starts_with("Undid the confirmation ")) << undone.text();
    EXPECT_EQ(store.personOf(joined), "-");
    EXPECT_NE(store.db.dump(), untouched);  // the undo is recorded, not erased

    const auto again = store.run({"undo"});
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_NE(again.errors.find("nothing to undo"), std::string::npos) << again.errors;

    // The history shows the correction, undone, and undo by its event is refused now.
    const auto history = store.run({"history", "--person", owner});
    ASSERT_EQ(history.exitCode, 0) << history.errors;
    EXPECT_NE(history.text().find("Linked "), std::string::npos) << history.text();
    EXPECT_NE(history.text().find("undone 20"), std::string::npos) << history.text();
}

// reject N rejects exactly the N-th listed pair; a number outside the listing or a
// store that was never listed is refused without writing anything.
TEST(CliCorrections, RejectByNumberTakesThatPairOnly) {
    CliStore store;
    const auto notListed = store.run({"reject", "1"});
    EXPECT_EQ(notListed.exitCode, 1);
    EXPECT_NE(notListed.errors.find("run `orvik-identity candidates"), std::string::npos)
        << notListed.errors;

    const auto listed = store.run({"candidates", "--json"});
    ASSERT_EQ(listed.exitCode, 0) << listed.errors;
    const auto candidates = Json::parse(listed.lines.at(0));
    ASSERT_EQ(candidates.size(), 2u);
    const std::string secondA = candidates[1]["sourceIdentityA"]["id"];
    const std::string secondB = candidates[1]["sourceIdentityB"]["id"];

    const auto before = store.db.dump();
    const auto outside = store.run({"reject", "3"});
    EXPECT_EQ(outside.exitCode, 1);
    EXPECT_NE(outside.errors.find("no candidate 3 in the last listing (1 to 2)"), std::string::npos)
        << outside.errors;
    EXPECT_EQ(store.db.dump(), before);

    const auto rejected = store.run({"reject", "2"});
    ASSERT_EQ(rejected.exitCode, 0) << rejected.errors;
    EXPECT_NE(rejected.text().find("link " + secondA + " " + secondB), std::string::npos)
        << rejected.text();
    const auto remaining = Json::parse(store.run({"candidates", "--json"}).lines.at(0));
    ASSERT_EQ(remaining.size(), 1u);
    EXPECT_EQ(remaining[0]["id"], candidates[0]["id"]);

    // A rejection has no undo of its own; undo says how to join them instead.
    const auto undo = store.run({"undo"});
    EXPECT_EQ(undo.exitCode, 1);
    EXPECT_NE(undo.errors.find("cannot be undone; to join them"), std::string::npos) << undo.errors;
}

// Each correction's --json is what exec answers for the same request on an
// identical store (apart from the fresh identifiers each run makes).
TEST(CliCorrections, JsonIsWhatExecAnswers) {
    struct Case {
        const char* name;
        Lines arguments;
        std::string request;
    };
    const std::string subject = R"("subjectLineage":"person","subjectID":"orvik-identity")";
    const std::vector<Case> cases{
        {"link",
         {"link", "si-cal", "p-dana", "p-old"},
         R"({"op":"confirmManualLink","args":{"targets":[{"identity":)"
         R"(SI_CAL},{"person":"p-dana"},{"person":"p-old"}],)" +
             subject + "}}"},
        {"separate",
         {"separate", "si-mail"},
         R"({"op":"separateIdentity","args":{"sourceIdentityID":"si-mail",)"
         R"("subjectID":"orvik-identity"}})"},
        {"me",
         {"me", "+15551234567"},
         R"({"op":"batchDeclareOwnerAlias","args":{"sourceIdentityIDs":["si-card","si-msg"],)"
         R"("subjectID":"orvik-identity"}})"},
        {"different",
         {"different", "p-dana", "si-card"},
         R"({"op":"markDifferent","args":{"request":{"reason":"marked different by the user",)"
         R"("presetValue":3000,"personIDA":"p-dana","personIDB":"p-old",)" +
             subject + "}}}"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CliStore viaCli;
        CliStore viaExec;
        viaCli.db.addMembership("m-extra", "si-cal", "p-dana");
        viaExec.db.addMembership("m-extra", "si-cal", "p-dana");
        std::string request = c.request;
        if (const auto at = request.find("SI_CAL"); at != std::string::npos) {
            const auto row =
                Json::parse(viaExec
                                .run({"exec"}, R"({"op":"sourceIdentity","args":{"id":"si-cal"}})"
                                               "\n")
                                .lines.at(0))["ok"];
            request.replace(at, 6, row.dump());
        }
        Lines arguments = c.arguments;
        arguments.push_back("--json");
        const auto cli = viaCli.run(arguments);
        ASSERT_EQ(cli.exitCode, 0) << cli.errors;
        const auto answered = viaExec.run({"exec"}, request + "\n");
        ASSERT_EQ(answered.lines.size(), 1u) << answered.errors;
        const auto answer = Json::parse(answered.lines[0]);
        ASSERT_TRUE(answer.contains("ok")) << answered.lines[0];
        ASSERT_EQ(cli.lines.size(), 1u);
        EXPECT_EQ(withoutFreshIDs(cli.lines[0]), withoutFreshIDs(answer["ok"].dump()));
        EXPECT_EQ(viaCli.db.rows("SELECT count(*) FROM user_correction"),
                  viaExec.db.rows("SELECT count(*) FROM user_correction"));
    }

    // Reads: byte for byte.
    CliStore store;
    store.run({"link", "si-cal", "si-mail"});
    const auto answers =
        store.run({"exec"}, R"({"op":"identityHistory","args":{"personID":"p-dana"}})"
                            "\n"
                            R"({"op":"searchSourceIdentities","args":{"query":"dana","limit":3,)"
                            R"("excludingSourceIdentityIDs":[]}})"
                            "\n");
    ASSERT_EQ(answers.lines.size(), 2u) << answers.errors;
    EXPECT_EQ(store.run({"history", "--person", "p-dana", "--json"}).lines,
              Lines{Json::parse(answers.lines[0])["ok"].dump()});
    EXPECT_EQ(store.run({"search", "dana", "--limit", "3", "--json"}).lines,
              Lines{Json::parse(answers.lines[1])["ok"].dump()});
}

// On a terminal: tables cut to its width with an ellipsis, times in local time,
// words for stored codes. In a pipe: nothing cut, times as stored.
TEST(CliOutput, FitsTheTerminalAndStaysStableInAPipe) {
    CliStore store;
    store.db.addIdentity("si-long", "gmail", "a.very.long.address.for.testing@example.org",
                         "Someone With A Remarkably Long Display Name For A Contact");
    ASSERT_EQ(store.run({"separate", "si-mail"}).exitCode, 1);  // the only identity of p-dana
    store.db.addMembership("m-cal", "si-cal", "p-dana");
    ASSERT_EQ(store.run({"separate", "si-cal"}).exitCode, 0);

    const ChildOptions terminal{.environment = {{"COLUMNS", "60"}, {"TZ", "Asia/Kolkata"}},
                                .terminal = true};
    const auto search = store.run({"search", "example.org"}, {}, terminal);
    ASSERT_EQ(search.exitCode, 0) << search.errors;
    bool cut = false;
    for (const auto& line : search.lines) {
        EXPECT_LE(
            std::count_if(line.begin(), line.end(),
                          [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; }),
            60)
            << line;
        cut = cut || line.find("…") != std::string::npos;
    }
    EXPECT_TRUE(cut) << search.text();
    // Last seen 2020-01-02T00:00:00Z is half past five in the morning in Kolkata.
    EXPECT_NE(search.text().find("2020-01-02 05:30"), std::string::npos) << search.text();

    const auto piped =
        store.run({"search", "example.org"}, {}, {.environment = {{"COLUMNS", "60"}}});
    EXPECT_NE(piped.text().find("Someone With A Remarkably Long Display Name For A Contact"),
              std::string::npos);
    EXPECT_NE(piped.text().find("2020-01-02T00:00:00Z"), std::string::npos) << piped.text();

    // The separated identity's new person, in words: how it was made, what was
    // decided, the history line the screens show.
    const auto person = store.run({"person", "si-cal"});
    ASSERT_EQ(person.exitCode, 0) << person.errors;
    for (const char* words : {"(identity correction)", "confirmed, by you",
                              "Separated Google Calendar into a new person", "in effect"}) {
        EXPECT_NE(person.text().find(words), std::string::npos) << words << "\n" << person.text();
    }
    for (const char* code : {"identity_correction", "separated_by_user", "google_calendar"}) {
        EXPECT_EQ(person.text().find(code), std::string::npos) << code << "\n" << person.text();
    }
}

}  // namespace
}  // namespace orvik::test
