// End-to-end tests of the orvik-identity executable: each case runs the built
// binary as a child process on a temporary database, feeds it request lines and
// reads its answers.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/support/TestSupport.h"

extern char** environ;

namespace orvik::test {
namespace {

using Json = nlohmann::json;

// One running orvik-identity with its stdin and stdout on pipes and its stderr in a
// file.
class CliProcess {
  public:
    explicit CliProcess(const std::vector<std::string>& arguments) {
        // A child that exits early must not kill the test through a write to its stdin.
        std::signal(SIGPIPE, SIG_IGN);
        int in[2];
        int out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe failed");
        }
        errorPath_ = errorDir_.path() / "stderr";

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_addopen(&actions, 2, errorPath_.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        std::vector<std::string> argv{ORVIK_IDENTITY_BIN};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        std::vector<char*> pointers;
        for (auto& argument : argv) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        const int spawned =
            posix_spawn(&pid_, argv[0].c_str(), &actions, nullptr, pointers.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        input_ = in[1];
        output_ = out[0];
        if (spawned != 0) {
            throw std::runtime_error("cannot start " + argv[0]);
        }
    }

    ~CliProcess() {
        closeInput();
        if (output_ >= 0) {
            ::close(output_);
        }
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }

    CliProcess(const CliProcess&) = delete;
    CliProcess& operator=(const CliProcess&) = delete;

    void send(const std::string& text) {
        std::size_t written = 0;
        while (written < text.size()) {
            const ssize_t n = ::write(input_, text.data() + written, text.size() - written);
            if (n <= 0) {
                return;
            }
            written += static_cast<std::size_t>(n);
        }
    }

    void closeInput() {
        if (input_ >= 0) {
            ::close(input_);
            input_ = -1;
        }
    }

    // The next line of stdout; absent at end of output or when none arrives in time.
    std::optional<std::string> readLine(int timeoutMs = 30000) {
        for (;;) {
            if (const auto newline = buffer_.find('\n'); newline != std::string::npos) {
                std::string line = buffer_.substr(0, newline);
                buffer_.erase(0, newline + 1);
                return line;
            }
            pollfd ready{output_, POLLIN, 0};
            if (::poll(&ready, 1, timeoutMs) <= 0) {
                return std::nullopt;
            }
            char chunk[4096];
            const ssize_t n = ::read(output_, chunk, sizeof chunk);
            if (n <= 0) {
                return std::nullopt;
            }
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
    }

    // Whatever stdout still holds, up to its end.
    std::string rest() {
        std::string text;
        while (auto line = readLine()) {
            text += *line + "\n";
        }
        return text + std::exchange(buffer_, {});
    }

    // The exit status; -1 when the process did not exit normally.
    int wait() {
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    [[nodiscard]] std::string errorOutput() const {
        std::ifstream file(errorPath_);
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

  private:
    TempDir errorDir_;
    std::filesystem::path errorPath_;
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string buffer_;
};

struct CliRun {
    int exitCode = -1;
    std::vector<std::string> lines;
    std::string errors;
};

// Runs the program to completion with the given stdin.
CliRun runCli(const std::vector<std::string>& arguments, const std::string& input = {}) {
    CliProcess process(arguments);
    process.send(input);
    process.closeInput();
    CliRun run;
    while (auto line = process.readLine()) {
        run.lines.push_back(*line);
    }
    run.exitCode = process.wait();
    run.errors = process.errorOutput();
    return run;
}

CliRun exec(const std::filesystem::path& db, const std::string& input,
            const std::vector<std::string>& extra = {}) {
    std::vector<std::string> arguments{"exec", "--db", db.string()};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return runCli(arguments, input);
}

// Fails without a stack trace or an uncaught exception, says something on stderr
// and writes nothing on stdout.
void expectCleanFailure(const CliRun& run) {
    EXPECT_NE(run.exitCode, 0);
    EXPECT_TRUE(run.lines.empty());
    EXPECT_FALSE(run.errors.empty());
    for (const char* crash : {"terminate called", "Sanitizer", "runtime error"}) {
        EXPECT_EQ(run.errors.find(crash), std::string::npos) << run.errors;
    }
}

constexpr const char* kSeed = R"sql(
INSERT INTO source_identity (id, source_type, handle_normalized, display_name, first_seen_at,
                             last_seen_at, created_at)
VALUES ('si-1', 'email', 'ana@example.com', NULL, '2026-01-01T00:00:00Z',
        '2026-02-01T00:00:00Z', '2026-01-01T00:00:01Z');
INSERT INTO person (id, display_name, tier, created_from, merged_into_person_id, created_at)
VALUES ('p-old', NULL, 'stub', NULL, 'p-mid', '2026-01-02T00:00:00Z'),
       ('p-mid', 'Ana M', 'stub', NULL, 'p-live', '2026-01-02T00:00:00Z'),
       ('p-live', 'Ana Live', 'user_stated', 'manual', NULL, '2026-01-02T00:00:00Z');
INSERT INTO identity_membership (id, source_identity_id, canonical_person_id, state, because,
                                 decided_by, decided_at, ended_at, created_at)
VALUES ('m-1', 'si-1', 'p-old', 'high_conf', NULL, 'agent+user', '2026-01-03T00:00:00Z', NULL,
        '2026-01-03T00:00:00Z');
INSERT INTO merge_event (id, surviving_person_id, absorbed_person_id, pre_merge_state_json,
                         because, decided_by, created_at, reversed_at, operation_id)
VALUES ('e-1', 'p-mid', 'p-old', '{}', NULL, 'auto', '2026-01-04T00:00:00Z', NULL, NULL);
)sql";

TEST(CliInit, CreatesTheStoreIdempotentlyForExec) {
    TempDir dir;
    const auto db = dir.path() / "store.db";
    for (int round = 0; round < 2; ++round) {
        const auto run = runCli({"init", "--db", db.string()});
        EXPECT_EQ(run.exitCode, 0) << run.errors;
        EXPECT_EQ(run.lines.size(), 1u);
    }
    // The last request has no final newline and is still answered.
    const auto run = exec(db,
                          "{\"id\":1,\"op\":\"person\",\"args\":{\"id\":\"nobody\"}}\n"
                          "{\"id\":2,\"op\":\"activeMemberships\",\"args\":{\"personID\":\"x\"}}");
    EXPECT_EQ(run.exitCode, 0) << run.errors;
    EXPECT_EQ(run.lines, (std::vector<std::string>{R"({"id":1,"ok":null,"witness":[]})",
                                                   R"({"id":2,"ok":[],"witness":[]})"}));
}

TEST(CliStartup, FailsCleanlyOnMissingStoreAndBadArguments) {
    TempDir dir;
    const auto missing = dir.path() / "absent.db";
    const auto noStore = exec(missing, "{\"op\":\"person\",\"args\":{\"id\":\"p\"}}\n");
    expectCleanFailure(noStore);
    EXPECT_NE(noStore.errors.find("absent.db"), std::string::npos) << noStore.errors;
    EXPECT_FALSE(std::filesystem::exists(missing));

    expectCleanFailure(runCli({}));
    expectCleanFailure(runCli({"exec"}));
    expectCleanFailure(runCli({"init", "--db", (dir.path() / "no-such-dir" / "x.db").string()}));
    expectCleanFailure(runCli({"init", "--db", missing.string(), "--key", ""}));
}

#ifdef ORVIK_HAS_SQLCIPHER
TEST(CliInit, EncryptedStoreOpensOnlyWithItsKey) {
    TempDir dir;
    const auto db = dir.path() / "secret.db";
    ASSERT_EQ(runCli({"init", "--db", db.string(), "--key", kTestKey}).exitCode, 0);

    const std::string request =
        "{\"id\":\"k\",\"op\":\"sourceIdentity\",\"args\":{\"id\":\"s\"}}\n";
    const auto keyed = exec(db, request, {"--key", kTestKey});
    EXPECT_EQ(keyed.exitCode, 0) << keyed.errors;
    EXPECT_EQ(keyed.lines, std::vector<std::string>{R"({"id":"k","ok":null,"witness":[]})"});

    const auto wrongKey = exec(db, request, {"--key", "not the key"});
    expectCleanFailure(wrongKey);
    EXPECT_NE(wrongKey.errors.find("key"), std::string::npos) << wrongKey.errors;
    expectCleanFailure(exec(db, request));
}
#else
TEST(CliInit, KeyIsRefusedWithoutSQLCipher) {
    TempDir dir;
    expectCleanFailure(runCli({"init", "--db", (dir.path() / "a.db").string(), "--key", "k"}));
}
#endif

TEST(CliExec, ReadsGiveEveryFieldWithStoredTextsAndNulls) {
    TestDatabase store;
    store.exec(kSeed);
    const auto run =
        exec(store.path(), R"({"id":1,"op":"sourceIdentity","args":{"id":"si-1"}})"
                           "\n"
                           R"({"id":2,"op":"person","args":{"id":"p-old"}})"
                           "\n"
                           R"({"id":3,"op":"activeMembership","args":{"sourceIdentityID":"si-1"}})"
                           "\n"
                           R"({"id":4,"op":"latestUndoableMergeEvent","args":{"personID":"p-old"}})"
                           "\n");
    ASSERT_EQ(run.exitCode, 0) << run.errors;
    EXPECT_EQ(
        run.lines,
        (std::vector<std::string>{
            R"({"id":1,"ok":{"id":"si-1","sourceType":"email","handleNormalized":"ana@example.com","displayName":null,"firstSeenAt":"2026-01-01T00:00:00Z","lastSeenAt":"2026-02-01T00:00:00Z","createdAt":"2026-01-01T00:00:01Z"},"witness":[]})",
            R"({"id":2,"ok":{"id":"p-old","displayName":null,"tier":"stub","createdFrom":null,"mergedIntoPersonID":"p-mid","createdAt":"2026-01-02T00:00:00Z"},"witness":[]})",
            R"({"id":3,"ok":{"id":"m-1","sourceIdentityID":"si-1","canonicalPersonID":"p-old","state":"high_conf","because":null,"decidedBy":"agent+user","decidedAt":"2026-01-03T00:00:00Z","endedAt":null,"createdAt":"2026-01-03T00:00:00Z"},"witness":[]})",
            R"({"id":4,"ok":{"id":"e-1","survivingPersonID":"p-mid","absorbedPersonID":"p-old","preMergeStateJSON":"{}","because":null,"decidedBy":"auto","createdAt":"2026-01-04T00:00:00Z","reversedAt":null,"operationID":null},"witness":[]})",
        }));
}

TEST(CliExec, ResolvesThroughTheAbsorptionChain) {
    TestDatabase store;
    store.exec(kSeed);
    const auto run =
        exec(store.path(), R"({"op":"resolveCanonicalPerson","args":{"sourceIdentityID":"si-1"}})");
    ASSERT_EQ(run.exitCode, 0) << run.errors;
    EXPECT_EQ(
        run.lines,
        std::vector<std::string>{
            R"({"id":null,"ok":{"personID":"p-live","displayName":"Ana Live","membershipState":"high_conf","decidedBy":"agent+user","because":null},"witness":[]})"});
}

TEST(CliExec, AnswersBadRequestsAndGoesOn) {
    TestDatabase store;
    store.exec(kSeed);
    struct Case {
        std::string request;
        Json id;
        std::string messagePart;
    };
    const std::vector<Case> cases{
        {"not json", nullptr, "JSON"},
        {"[1,2]", nullptr, "object"},
        {R"({"id":"u","op":"frobnicate"})", "u", "frobnicate"},
        {R"({"id":7,"op":"separateIdentity","args":{}})", 7, "args.sourceIdentityID"},
        {R"({"id":{"k":[1]},"op":"sourceIdentity"})", Json::parse(R"({"k":[1]})"), "args.id"},
        {R"({"op":"person","args":{"id":5}})", nullptr, "args.id"},
        {R"({"id":8,"op":"person","args":[]})", 8, "args"},
        {R"({"id":9,"args":{"id":"si-1"}})", 9, "op"},
    };
    std::string input;
    for (const auto& c : cases) {
        input += c.request + "\n\n   \n";
    }
    input += R"({"id":"last","op":"sourceIdentity","args":{"id":"si-1"}})"
             "\n";

    const auto run = exec(store.path(), input);
    ASSERT_EQ(run.exitCode, 0) << run.errors;
    ASSERT_EQ(run.lines.size(), cases.size() + 1);
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(cases[i].request);
        const auto response = Json::parse(run.lines[i]);
        EXPECT_EQ(response["id"], cases[i].id);
        EXPECT_FALSE(response.contains("ok"));
        EXPECT_EQ(response["error"]["case"], "badRequest");
        EXPECT_NE(response["error"]["message"].get<std::string>().find(cases[i].messagePart),
                  std::string::npos)
            << response["error"]["message"];
        EXPECT_EQ(response["witness"], Json::array());
    }
    const auto last = Json::parse(run.lines.back());
    EXPECT_EQ(last["id"], "last");
    EXPECT_EQ(last["ok"]["id"], "si-1");
}

TEST(CliExec, StoreErrorsFailOnlyTheirRequest) {
    TestDatabase store;
    store.exec(kSeed);
    store.exec(R"sql(
        UPDATE identity_membership SET decided_by = 'robot' WHERE id = 'm-1';
        DROP TABLE merge_event;
    )sql");
    const auto run = exec(
        store.path(), R"({"id":1,"op":"activeMembership","args":{"sourceIdentityID":"si-1"}})"
                      "\n"
                      R"({"id":2,"op":"resolveCanonicalPerson","args":{"sourceIdentityID":"si-1"}})"
                      "\n"
                      R"({"id":3,"op":"mergeEvent","args":{"id":"e-1"}})"
                      "\n"
                      R"({"id":4,"op":"person","args":{"id":"p-live"}})"
                      "\n");
    ASSERT_EQ(run.exitCode, 0) << run.errors;
    ASSERT_EQ(run.lines.size(), 4u);
    const std::string corrupt =
        R"("error":{"case":"corruptRestoreMap","message":null},"witness":[]})";
    EXPECT_EQ(run.lines[0], R"({"id":1,)" + corrupt);
    EXPECT_EQ(run.lines[1], R"({"id":2,)" + corrupt);
    EXPECT_EQ(
        run.lines[2],
        R"({"id":3,"error":{"case":"database","message":"no such table: merge_event","code":1},"witness":[]})");
    EXPECT_EQ(Json::parse(run.lines[3])["ok"]["id"], "p-live");
}

TEST(CliExec, AnswersEachRequestBeforeTheNextArrives) {
    TestDatabase store;
    store.exec(kSeed);
    CliProcess process({"exec", "--db", store.path().string()});
    for (const std::string id : {"si-1", "si-2"}) {
        process.send(R"({"id":")" + id + R"(","op":"sourceIdentity","args":{"id":")" + id +
                     "\"}}\n");
        const auto line = process.readLine();
        ASSERT_TRUE(line) << "no answer while the input is still open";
        EXPECT_EQ(Json::parse(*line)["id"], id);
    }
    process.closeInput();
    EXPECT_EQ(process.rest(), "");
    EXPECT_EQ(process.wait(), 0) << process.errorOutput();
}

// A running exec session driven one request at a time.
class ExecClient {
  public:
    explicit ExecClient(const std::filesystem::path& db)
        : process_({"exec", "--db", db.string()}) {}

    // The answer to {"id": <n>, "op": op, "args": args}, whose id must echo n.
    Json call(const std::string& op, const Json& args) {
        const Json request{{"id", ++sent_}, {"op", op}, {"args", args}};
        process_.send(request.dump() + "\n");
        const auto line = process_.readLine();
        if (!line) {
            hung_ = true;
            throw std::runtime_error("no answer to " + request.dump() +
                                     "; stderr: " + process_.errorOutput());
        }
        Json answer = Json::parse(*line);
        EXPECT_EQ(answer["id"], sent_) << *line;
        return answer;
    }

    // The "ok" part of the answer; fails the test when the answer is an error.
    Json ok(const std::string& op, const Json& args, Json* witness = nullptr) {
        const Json answer = call(op, args);
        EXPECT_TRUE(answer.contains("ok")) << op << " answered " << answer;
        if (witness != nullptr) {
            *witness = answer["witness"];
        } else {
            EXPECT_EQ(answer["witness"], Json::array()) << op;
        }
        return answer.contains("ok") ? answer["ok"] : Json();
    }

    // Ends the input and expects a clean exit; a hung process is left to CliProcess
    // to kill.
    ~ExecClient() {
        if (hung_) {
            return;
        }
        process_.closeInput();
        EXPECT_EQ(process_.rest(), "");
        EXPECT_EQ(process_.wait(), 0) << process_.errorOutput();
    }

    ExecClient(const ExecClient&) = delete;
    ExecClient& operator=(const ExecClient&) = delete;

  private:
    CliProcess process_;
    int sent_ = 0;
    bool hung_ = false;
};

bool isLowerCaseUUID(const Json& value) {
    static const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
    return value.is_string() && std::regex_match(value.get<std::string>(), uuid);
}

// A candidate pairing two stored identities, with both rows as exec reads them.
Json candidateOf(ExecClient& client, const std::string& a, const std::string& b) {
    return {{"id", "ignored on input"},
            {"sourceIdentityA", client.ok("sourceIdentity", {{"id", a}})},
            {"sourceIdentityB", client.ok("sourceIdentity", {{"id", b}})},
            {"existingPersonID", nullptr},
            {"score", 0.92},
            {"because", "same display name"}};
}

Json resolvedPersonID(ExecClient& client, const std::string& identityID) {
    const Json resolved = client.ok("resolveCanonicalPerson", {{"sourceIdentityID", identityID}});
    return resolved.is_null() ? Json() : resolved["personID"];
}

TEST(CliCorrections, ConfirmedCandidateIsWitnessedAndUndoneOnce) {
    TestDatabase store;
    store.addIdentity("si-a", "email", "ana@example.com");
    store.addIdentity("si-b", "email", "ana.m@example.com");
    ExecClient client(store.path());
    const Json candidate = candidateOf(client, "si-a", "si-b");

    Json witness;
    const Json confirmed = client.ok(
        "confirmCandidate",
        {{"candidate", candidate}, {"subjectLineage", "source_identity"}, {"subjectID", "si-a"}},
        &witness);
    const Json stub = confirmed["personID"];
    ASSERT_TRUE(stub.is_string()) << confirmed;
    const Json eventIDs = confirmed["mergeEventIDs"];
    ASSERT_EQ(eventIDs.size(), 2u) << confirmed;
    EXPECT_EQ(resolvedPersonID(client, "si-a"), stub);
    EXPECT_EQ(resolvedPersonID(client, "si-b"), stub);

    ASSERT_EQ(witness.size(), 1u) << witness;
    const Json operationID = witness[0]["operationID"];
    EXPECT_TRUE(isLowerCaseUUID(operationID)) << operationID;
    EXPECT_EQ(witness[0],
              (Json{{"kind", "confirm-candidate"},
                    {"identityCount", 2},
                    {"mergeEventCount", 2},
                    {"absorbedPersonCount", 0},
                    {"restoredPersonCount", 0},
                    {"restoredMembershipCount", 0},
                    {"operationID", operationID},
                    {"line",
                     "identity correction committed kind=confirm-candidate identities=2 "
                     "merge_events=2 absorbed_persons=0 merged_into_present=false "
                     "restored_persons=0 restored_memberships=0 operation=" +
                         operationID.get<std::string>()}}));

    const Json undone = client.ok("undoConfirmation", {{"mergeEventIDs", eventIDs}}, &witness);
    ASSERT_EQ(undone.size(), 2u) << undone;
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(undone[i], (Json{{"mergeEventID", eventIDs[i]},
                                   {"restoredPersonID", nullptr},
                                   {"restoredMembershipCount", 0},
                                   {"restoredClaimCount", 0}}));
    }
    ASSERT_EQ(witness.size(), 1u) << witness;
    EXPECT_EQ(witness[0]["kind"], "undo-confirmation");
    EXPECT_EQ(witness[0]["identityCount"], 2);
    EXPECT_EQ(witness[0]["mergeEventCount"], 2);
    EXPECT_EQ(witness[0]["operationID"], nullptr);
    EXPECT_TRUE(witness[0]["line"].get<std::string>().ends_with(" operation=-")) << witness;
    EXPECT_NE(resolvedPersonID(client, "si-a"), stub);
    EXPECT_NE(client.ok("mergeEvent", {{"id", eventIDs[0]}})["reversedAt"], nullptr);

    // Undo errors carry their case, and nothing is witnessed.
    const auto error = [](const Json& errorCase, const Json& message) {
        return Json{{"case", errorCase}, {"message", message}};
    };
    const Json again = client.call("undoMerge", {{"mergeEventID", eventIDs[0]}});
    EXPECT_EQ(again["error"], error("alreadyReversed", nullptr)) << again;
    EXPECT_EQ(again["witness"], Json::array());
    const Json unknown = client.call("undoMerge", {{"mergeEventID", "no-such-event"}});
    EXPECT_EQ(unknown["error"], error("notFound", "no-such-event")) << unknown;
    EXPECT_EQ(unknown["witness"], Json::array());
}

TEST(CliCorrections, RejectedCandidateRecordsTheIdentitiesAsDifferent) {
    TestDatabase store;
    store.addIdentity("si-a", "email", "ana@example.com");
    store.addIdentity("si-b", "phone", "+15550100");
    {
        ExecClient client(store.path());
        Json witness;
        EXPECT_EQ(client.ok("rejectCandidate",
                            {{"candidate", candidateOf(client, "si-a", "si-b")},
                             {"subjectLineage", "grouping"},
                             {"subjectID", "g-1"}},
                            &witness),
                  nullptr);
        ASSERT_EQ(witness.size(), 1u) << witness;
        EXPECT_EQ(witness[0]["kind"], "reject-candidate");
        EXPECT_EQ(witness[0]["identityCount"], 2);
        EXPECT_EQ(witness[0]["operationID"], nullptr);
    }
    const std::string constraints = store.dump({"identity_constraint"});
    EXPECT_NE(constraints.find("kind='different'"), std::string::npos) << constraints;
    EXPECT_NE(constraints.find("'si-a'"), std::string::npos) << constraints;
    EXPECT_NE(constraints.find("'si-b'"), std::string::npos) << constraints;
}

TEST(CliCorrections, ProgrammaticLinkAnswersRefusalsAsResponses) {
    TestDatabase store;
    store.addIdentity("si-a", "email", "ana@example.com");
    store.addPerson("p-1");
    ExecClient client(store.path());
    const auto link = [&](const std::string& personID, bool confirmed) {
        return client.ok(
            "linkIdentity",
            {{"request",
              {{"personID", personID}, {"sourceIdentityID", "si-a"}, {"confirmed", confirmed}}}});
    };

    Json question = link("p-1", false);
    EXPECT_TRUE(question["because"].is_string()) << question;
    question.erase("because");
    EXPECT_EQ(question, (Json{{"message", nullptr},
                              {"taxonomy", 0},
                              {"mergeEventID", nullptr},
                              {"status", "below_threshold_question"}}));
    EXPECT_EQ(client.ok("activeMembership", {{"sourceIdentityID", "si-a"}}), nullptr);

    const Json missing = link("p-missing", true);
    EXPECT_EQ(missing["status"], "error") << missing;
    EXPECT_EQ(missing["message"], "person not found or absorbed");
    EXPECT_EQ(missing["taxonomy"], 3);
    EXPECT_EQ(missing["mergeEventID"], nullptr);

    // The programmatic link witnesses nothing (ok() checks the empty witness).
    const Json linked = link("p-1", true);
    EXPECT_EQ(linked["status"], "linked") << linked;
    EXPECT_TRUE(linked["mergeEventID"].is_string()) << linked;
    EXPECT_EQ(resolvedPersonID(client, "si-a"), "p-1");
}

TEST(CliCorrections, MarkDifferentFirstUndoesTheMergeJoiningThePersons) {
    TestDatabase store;
    store.addPerson("p-a");
    store.addPerson("p-b");
    ExecClient client(store.path());
    const auto propose = [&] {
        return client.ok("proposeMerge", {{"request",
                                           {{"presetValue", nullptr},
                                            {"personIDA", "p-a"},
                                            {"personIDB", "p-b"},
                                            {"subjectID", "p-a"},
                                            {"subjectLineage", "person"},
                                            {"confirmed", true}}}});
    };
    const auto markDifferent = [&](const std::string& b, Json* witness) {
        return client.ok("markDifferent",
                         {{"request",
                           {{"reason", "two people"},
                            {"personIDA", "p-a"},
                            {"personIDB", b},
                            {"subjectID", "p-a"},
                            {"subjectLineage", "person"}}}},
                         witness);
    };

    const Json merged = propose();
    EXPECT_EQ(merged["status"], "merged") << merged;
    ASSERT_TRUE(merged["mergeEventID"].is_string()) << merged;
    EXPECT_EQ(client.ok("person", {{"id", "p-b"}})["mergedIntoPersonID"], "p-a");

    Json witness;
    const Json different = markDifferent("p-b", &witness);
    EXPECT_TRUE(different["constraintID"].is_string()) << different;
    EXPECT_EQ(different, (Json{{"constraintID", different["constraintID"]},
                               {"refused", false},
                               {"message", nullptr},
                               {"taxonomy", nullptr}}));
    ASSERT_EQ(witness.size(), 1u) << witness;
    EXPECT_EQ(witness[0]["kind"], "mark-different");
    EXPECT_EQ(client.ok("person", {{"id", "p-b"}})["mergedIntoPersonID"], nullptr);
    EXPECT_NE(client.ok("mergeEvent", {{"id", merged["mergeEventID"]}})["reversedAt"], nullptr);

    EXPECT_EQ(propose()["status"], "blocked_different");

    // A refusal is an ok response; it writes nothing, so nothing is witnessed.
    EXPECT_EQ(markDifferent("p-a", nullptr),
              (Json{{"constraintID", nullptr},
                    {"refused", true},
                    {"message", "person_id_a and person_id_b must differ"},
                    {"taxonomy", 2}}));
}

TEST(CliCorrections, MalformedRequestsAreRefusedBeforeAnythingIsWritten) {
    TestDatabase store;
    store.addIdentity("si-a", "email", "ana@example.com");
    store.addIdentity("si-b", "email", "ana.m@example.com");
    store.addPerson("p-a");
    store.addPerson("p-b");
    const std::string before = store.dump();

    const Json row{{"id", "si-a"},
                   {"sourceType", "email"},
                   {"handleNormalized", "ana@example.com"},
                   {"firstSeenAt", "2020-01-01T00:00:00Z"},
                   {"lastSeenAt", "2020-01-02T00:00:00Z"},
                   {"createdAt", "2020-01-01T00:00:00Z"}};
    Json rowB = row;
    rowB["id"] = "si-b";
    const Json candidate{
        {"sourceIdentityA", row}, {"sourceIdentityB", rowB}, {"score", 1}, {"because", "x"}};
    const Json decision{
        {"candidate", candidate}, {"subjectLineage", "person"}, {"subjectID", "p-a"}};
    const Json merge{{"personIDA", "p-a"},
                     {"personIDB", "p-b"},
                     {"subjectID", "p-a"},
                     {"subjectLineage", "person"},
                     {"confirmed", true}};

    struct Case {
        std::string op;
        Json args;
        std::string messagePart;
    };
    Json lineageCase = decision;
    lineageCase["subjectLineage"] = "Person";
    Json incompleteRow = decision;
    incompleteRow["candidate"]["sourceIdentityB"].erase("createdAt");
    Json textScore = decision;
    textScore["candidate"]["score"] = "1";
    Json unconfirmed = merge;
    unconfirmed.erase("confirmed");
    Json fractionalPreset = merge;
    fractionalPreset["presetValue"] = 1.5;
    const Json bothTargets{{"person", "p-a"}, {"identity", row}};
    const Json mutation{{"insertedAliases", Json::array()}};
    const std::vector<Case> cases{
        {"confirmCandidate", lineageCase, "args.subjectLineage"},
        {"confirmCandidate", incompleteRow, "args.candidate.sourceIdentityB.createdAt"},
        {"rejectCandidate", textScore, "args.candidate.score"},
        {"rejectCandidate",
         {{"candidate", candidate}, {"subjectLineage", "person"}},
         "args.subjectID"},
        {"linkIdentity",
         {{"request", {{"personID", "p-a"}, {"sourceIdentityID", "si-a"}}}},
         "args.request.confirmed"},
        {"proposeMerge", {{"request", unconfirmed}}, "args.request.confirmed"},
        {"proposeMerge", {{"request", fractionalPreset}}, "args.request.presetValue"},
        // Unknown keys are ignored, and the request lacks its reason.
        {"markDifferent", {{"request", merge}}, "args.request.reason"},
        {"undoMerge", Json::object(), "args.mergeEventID"},
        {"undoConfirmation", {{"mergeEventIDs", {"e-1", 2}}}, "args.mergeEventIDs[1]"},
        {"undoConfirmation", {{"mergeEventIDs", "e-1"}}, "args.mergeEventIDs"},
        {"confirmManualLink", {{"subjectLineage", "person"}, {"subjectID", "p-a"}}, "args.targets"},
        {"confirmManualLink",
         {{"targets", Json::array()}, {"a", row}, {"subjectLineage", "person"}, {"subjectID", "p"}},
         "not both"},
        {"confirmManualLink",
         {{"a", row}, {"subjectLineage", "person"}, {"subjectID", "p-a"}},
         "args.b"},
        {"predictManualLinkSurvivor", {{"targets", Json::array({bothTargets})}}, "args.targets[0]"},
        {"batchConfirmManualLink",
         {{"rows", Json::array({row, "si-b"})}, {"subjectLineage", "person"}, {"subjectID", "p-a"}},
         "args.rows[1]"},
        {"batchDeclareOwnerAlias",
         {{"sourceIdentityIDs", Json::array({"si-a"})}},
         "args.subjectID"},
        {"undoOwnerAliasMutation", {{"mutation", mutation}}, "args.mutation.insertedExclusions"},
        {"searchSourceIdentities",
         {{"query", "a"}, {"limit", "5"}, {"excludingSourceIdentityIDs", Json::array()}},
         "args.limit"},
        {"searchUserStatedPeople", {{"query", "a"}, {"limit", 5}}, "args.excludingPersonIDs"},
        {"candidateContext", {{"for", "si-a"}}, "args.relativeTo"},
        {"exactKeyCandidates", {{"limit", 2.5}}, "args.limit"},
    };
    {
        ExecClient client(store.path());
        for (const auto& c : cases) {
            SCOPED_TRACE(c.op + " " + c.args.dump());
            const Json answer = client.call(c.op, c.args);
            EXPECT_EQ(answer["error"]["case"], "badRequest") << answer;
            EXPECT_NE(answer["error"]["message"].get<std::string>().find(c.messagePart),
                      std::string::npos)
                << answer;
            EXPECT_EQ(answer["witness"], Json::array());
        }
    }
    EXPECT_EQ(store.dump(), before);
}

Json identityRow(ExecClient& client, const std::string& id) {
    return client.ok("sourceIdentity", {{"id", id}});
}

TEST(CliManualLink, LinksTargetsIntoThePredictedSurvivor) {
    TestDatabase store;
    store.addIdentity("si-a", "email", "ana@example.com", "Ana");
    store.addIdentity("si-b", "phone", "+15550100");
    store.addIdentity("si-c", "email", "cy@example.com");
    store.addIdentity("si-d", "email", "cy.work@example.com");
    store.addPerson("p-ana", {}, "Ana");
    store.addMembership("m-a", "si-a", "p-ana");
    ExecClient client(store.path());

    const Json targets =
        Json::array({Json{{"identity", identityRow(client, "si-b")}}, Json{{"person", "p-ana"}}});
    const Json prediction = client.ok("predictManualLinkSurvivor", {{"targets", targets}});
    EXPECT_EQ(prediction, (Json{{"targets", targets},
                                {"personID", "p-ana"},
                                {"survivorTargets", Json::array({targets[1]})}}));

    // The prediction's own echo of the targets is valid input again.
    Json witness;
    const Json linked = client.ok(
        "confirmManualLink",
        {{"targets", prediction["targets"]}, {"subjectLineage", "person"}, {"subjectID", "p-ana"}},
        &witness);
    EXPECT_EQ(linked["personID"], prediction["personID"]);
    EXPECT_EQ(linked["mergeEventIDs"].size(), 1u) << linked;
    ASSERT_EQ(witness.size(), 1u) << witness;
    EXPECT_EQ(witness[0]["kind"], "confirm-manual-link");
    EXPECT_EQ(resolvedPersonID(client, "si-b"), "p-ana");

    const Json c = identityRow(client, "si-c");
    const Json d = identityRow(client, "si-d");
    EXPECT_EQ(
        client.ok("predictManualLinkSurvivor", {{"targets", Json::array({Json{{"identity", c}}})}}),
        nullptr);
    const Json pair = client.ok(
        "confirmManualLink",
        {{"a", c}, {"b", d}, {"subjectLineage", "source_identity"}, {"subjectID", "si-c"}},
        &witness);
    EXPECT_TRUE(pair["personID"].is_string()) << pair;
    EXPECT_EQ(resolvedPersonID(client, "si-c"), pair["personID"]);
    EXPECT_EQ(resolvedPersonID(client, "si-d"), pair["personID"]);
    EXPECT_EQ(witness.size(), 1u) << witness;

    const Json lonely = client.call(
        "batchConfirmManualLink",
        {{"rows", Json::array({c})}, {"subjectLineage", "person"}, {"subjectID", "p-ana"}});
    EXPECT_EQ(lonely["error"]["case"], "invalidArgs") << lonely;
}

TEST(CliSeparation, SeparatedIdentityStaysInHistoryAsReversedAfterUndo) {
    TestDatabase store;
    store.addIdentity("si-a", "email", "ana@example.com");
    store.addIdentity("si-b", "imessage", "+15550100");
    store.addPerson("p-1");
    store.addMembership("m-a", "si-a", "p-1");
    store.addMembership("m-b", "si-b", "p-1");
    ExecClient client(store.path());

    Json witness;
    const Json separated = client.ok(
        "separateIdentity", {{"sourceIdentityID", "si-b"}, {"subjectID", "p-1"}}, &witness);
    const Json stub = separated["personID"];
    ASSERT_TRUE(stub.is_string()) << separated;
    EXPECT_NE(stub, "p-1");
    ASSERT_EQ(separated["mergeEventIDs"].size(), 1u) << separated;
    ASSERT_EQ(witness.size(), 1u) << witness;
    EXPECT_EQ(witness[0]["kind"], "separate-identity");
    EXPECT_EQ(resolvedPersonID(client, "si-b"), stub);

    const auto history = [&] { return client.ok("identityHistory", {{"personID", "p-1"}}); };
    Json entries = history();
    ASSERT_EQ(entries.size(), 1u) << entries;
    EXPECT_EQ(entries[0]["kind"], "separated");
    EXPECT_EQ(entries[0]["mergeEventID"], separated["mergeEventIDs"][0]);
    EXPECT_EQ(entries[0]["mergeEventIDs"], separated["mergeEventIDs"]);
    EXPECT_EQ(entries[0]["involvedSourceIdentityIDs"], Json::array({"si-b"}));
    EXPECT_EQ(entries[0]["providers"], Json::array({"imessage"}));
    EXPECT_EQ(entries[0]["reversedAt"], nullptr);

    // Now the only identity of its stub.
    const Json sole =
        client.call("separateIdentity", {{"sourceIdentityID", "si-b"}, {"subjectID", "p-1"}});
    EXPECT_EQ(sole["error"], (Json{{"case", "cannotSeparateSoleIdentity"}, {"message", nullptr}}));

    const Json undone =
        client.ok("undoMerge", {{"mergeEventID", separated["mergeEventIDs"][0]}}, &witness);
    EXPECT_EQ(undone["mergeEventID"], separated["mergeEventIDs"][0]);
    EXPECT_EQ(resolvedPersonID(client, "si-b"), "p-1");
    entries = history();
    ASSERT_EQ(entries.size(), 1u) << entries;
    EXPECT_TRUE(entries[0]["reversedAt"].is_string()) << entries;
}

TEST(CliOwnerAlias, DeclarationIsUndoneFromItsEchoedMutation) {
    TestDatabase store;
    store.addIdentity("si-a", "email", "me@example.com");
    store.addIdentity("si-b", "email", "old-me@example.com");
    store.addPerson("p-1");
    store.addMembership("m-a", "si-a", "p-1");
    const std::vector<std::string> tables{"owner_alias", "exclusion_rule"};
    const std::string before = store.dump(tables);
    {
        ExecClient client(store.path());
        Json witness;
        const Json outcome = client.ok(
            "declareOwnerAlias", {{"sourceIdentityID", "si-a"}, {"subjectID", "owner"}}, &witness);
        EXPECT_EQ(outcome["perIdentity"],
                  Json::array({Json{{"excludedPersonID", "p-1"}, {"wasNewAlias", true}}}));
        const Json mutation = outcome["mutation"];
        EXPECT_EQ(mutation["insertedAliases"],
                  Json::array({Json{{"sourceIdentityID", "si-a"},
                                    {"sourceType", "email"},
                                    {"handleNormalized", "me@example.com"}}}));
        ASSERT_EQ(mutation["insertedExclusions"].size(), 1u) << mutation;
        EXPECT_EQ(mutation["insertedExclusions"][0]["personID"], "p-1");
        EXPECT_TRUE(mutation["insertedExclusions"][0]["exclusionRuleID"].is_string());
        ASSERT_EQ(witness.size(), 1u) << witness;
        EXPECT_EQ(witness[0]["kind"], "declare-owner-alias");

        // Declaring the same handle again inserts nothing new.
        const Json again = client.ok(
            "batchDeclareOwnerAlias",
            {{"sourceIdentityIDs", Json::array({"si-a"})}, {"subjectID", "owner"}}, &witness);
        EXPECT_EQ(again["perIdentity"][0]["wasNewAlias"], false) << again;
        EXPECT_EQ(again["mutation"], (Json{{"insertedAliases", Json::array()},
                                           {"insertedExclusions", Json::array()}}));

        EXPECT_EQ(client.ok("undoOwnerAliasMutation", {{"mutation", mutation}}, &witness), nullptr);
        ASSERT_EQ(witness.size(), 1u) << witness;
        EXPECT_EQ(witness[0]["kind"], "undo-owner-alias");

        // A batch with an unknown identity declares none of them.
        const Json unknown = client.call(
            "batchDeclareOwnerAlias",
            {{"sourceIdentityIDs", Json::array({"si-b", "si-missing"})}, {"subjectID", "owner"}});
        EXPECT_EQ(unknown["error"], (Json{{"case", "notFound"}, {"message", "si-missing"}}));
    }
    EXPECT_EQ(store.dump(tables), before);
}

TEST(CliSearch, QueriesAreLiteralAndCandidatesCarryTheirContext) {
    TestDatabase store;
    store.addIdentity("si-sale", "gmail", "deals@shop.example", "50% Off Deals");
    store.addIdentity("si-fifty", "gmail", "fifty@shop.example", "50 Off");
    store.addIdentity("si-a", "gmail", "ana@example.com", "Ana");
    store.addIdentity("si-b", "imessage", "ana@example.com", "Ana R");
    store.addPerson("p-ana", {}, "Ana Ruiz");
    store.addPerson("p-bo", {}, "Bo Lind");
    store.exec(R"sql(
        INSERT INTO thread_participant (thread_id, source_identity_id)
        VALUES ('t-1', 'si-a'), ('t-1', 'si-b'), ('t-2', 'si-b');
        INSERT INTO claim (id, person_id, source_identity_id, predicate, provenance, value)
        VALUES ('c-1', 'p-ana', NULL, 'display_name', 'user_stated', 'Ana Ruiz'),
               ('c-2', 'p-bo', NULL, 'display_name', 'user_stated', 'Bo Lind');
    )sql");
    ExecClient client(store.path());

    const auto identities = [&](const std::string& query, const Json& excluding) {
        Json ids = Json::array();
        for (const Json& row : client.ok(
                 "searchSourceIdentities",
                 {{"query", query}, {"limit", 10}, {"excludingSourceIdentityIDs", excluding}})) {
            ids.push_back(row["id"]);
        }
        return ids;
    };
    EXPECT_EQ(identities("%", Json::array()), Json::array({"si-sale"}));
    EXPECT_EQ(identities("", Json::array()).size(), 4u);
    EXPECT_EQ(
        client.ok("searchUserStatedPeople",
                  {{"query", " ana "}, {"limit", 5}, {"excludingPersonIDs", Json::array()}}),
        Json::array({Json{
            {"id", "p-ana"}, {"displayName", "Ana Ruiz"}, {"createdAt", "2020-01-01T00:00:00Z"}}}));

    const Json candidates = client.ok("exactKeyCandidates", {{"limit", 10}});
    ASSERT_EQ(candidates.size(), 1u) << candidates;
    EXPECT_EQ(candidates[0]["id"], "si-a|si-b");
    EXPECT_EQ(candidates[0]["because"], "same contact key; 1 shared thread");
    EXPECT_EQ(candidates[0]["existingPersonID"], nullptr);
    EXPECT_EQ(client.ok("candidateContext", {{"for", "si-b"}, {"relativeTo", {"si-a"}}}),
              (Json{{"sourceIdentityID", "si-b"},
                    {"provider", "imessage"},
                    {"displayName", "Ana R"},
                    {"conversationCount", 2},
                    {"lastSeenAt", "2020-01-02T00:00:00Z"},
                    {"sharedThreadCount", 1},
                    {"exactHandleMatch", true}}));
    EXPECT_EQ(client.ok("candidateContext", {{"for", "si-missing"}, {"relativeTo", {"si-a"}}}),
              nullptr);
}

TEST(CliExec, EveryOperationIsAvailableAndReadbackKeepsItsOwnForm) {
    TestDatabase store;
    const std::vector<std::string> operations{"sourceIdentity",
                                              "person",
                                              "activeMembership",
                                              "activeMemberships",
                                              "mergeEvent",
                                              "latestUndoableMergeEvent",
                                              "resolveCanonicalPerson",
                                              "linkIdentity",
                                              "proposeMerge",
                                              "markDifferent",
                                              "confirmCandidate",
                                              "rejectCandidate",
                                              "confirmManualLink",
                                              "batchConfirmManualLink",
                                              "predictManualLinkSurvivor",
                                              "separateIdentity",
                                              "undoMerge",
                                              "undoConfirmation",
                                              "declareOwnerAlias",
                                              "batchDeclareOwnerAlias",
                                              "undoOwnerAliasMutation",
                                              "searchSourceIdentities",
                                              "searchUserStatedPeople",
                                              "exactKeyCandidates",
                                              "candidateContext",
                                              "identityHistory",
                                              "identityCorrectionsReadback"};
    const auto help = runCli({"exec", "--help"});
    EXPECT_EQ(help.exitCode, 0);
    std::string listed;
    for (const auto& line : help.lines) {
        listed += line + "\n";
    }

    std::string input = R"({"id":"counts","op":"identityCorrectionsReadback"})"
                        "\n";
    for (const auto& op : operations) {
        input += Json{{"id", op}, {"op", op}, {"args", Json::object()}}.dump() + "\n";
        EXPECT_NE(listed.find("\n  " + op + "\n"), std::string::npos) << op;
    }
    const auto run = exec(store.path(), input);
    ASSERT_EQ(run.exitCode, 0) << run.errors;
    ASSERT_EQ(run.lines.size(), operations.size() + 1);
    EXPECT_EQ(
        run.lines[0],
        R"({"id":"counts","ok":{"source_identity_total":0,"source_identity_by_type":{},"exact_key_candidate_pairs":0,"active_memberships":0,"membership_states":{},"merge_events":0,"absorbed_persons":0,"unavailable_sections":[]},"witness":[]})");
    for (std::size_t i = 1; i < run.lines.size(); ++i) {
        const Json answer = Json::parse(run.lines[i]);
        if (answer.contains("error")) {
            EXPECT_EQ(answer["error"]["case"], "badRequest") << run.lines[i];
            EXPECT_TRUE(answer["error"]["message"].get<std::string>().starts_with("missing args."))
                << run.lines[i];
        }
    }
}

// ---------------------------------------------------------------------------
// The terminal commands.

std::string joinedLines(const CliRun& run) {
    std::string text;
    for (const auto& line : run.lines) {
        text += line + "\n";
    }
    return text;
}

std::string fileBytes(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

TEST(CliDemo, BuildsASampleThatEveryCommandCanShow) {
    TempDir dir;
    const std::string db = (dir.path() / "demo.db").string();
    const auto demo = runCli({"demo", "--db", db});
    ASSERT_EQ(demo.exitCode, 0) << demo.errors;
    const std::string summary = joinedLines(demo);
    std::smatch match;
    ASSERT_TRUE(std::regex_search(summary, match, std::regex("--person ([0-9a-f-]{36})")))
        << summary;
    const std::string person = match[1];

    const auto candidates = runCli({"candidates", "--db", db, "--json"});
    ASSERT_EQ(candidates.exitCode, 0) << candidates.errors;
    ASSERT_EQ(candidates.lines.size(), 1u);
    const Json pairs = Json::parse(candidates.lines[0]);
    ASSERT_FALSE(pairs.empty());
    for (const Json& pair : pairs) {
        EXPECT_EQ(pair["id"], pair["sourceIdentityA"]["id"].get<std::string>() + "|" +
                                  pair["sourceIdentityB"]["id"].get<std::string>());
        EXPECT_EQ(pair["sourceIdentityA"]["handleNormalized"],
                  pair["sourceIdentityB"]["handleNormalized"]);
    }
    const auto shown = runCli({"candidates", "--db", db, "--limit", "3"});
    EXPECT_EQ(shown.exitCode, 0) << shown.errors;
    EXPECT_NE(joinedLines(shown).find(pairs[0]["sourceIdentityB"]["id"].get<std::string>()),
              std::string::npos)
        << joinedLines(shown);

    const auto counts = runCli({"readback", "--db", db, "--json"});
    ASSERT_EQ(counts.exitCode, 0) << counts.errors;
    const Json total = Json::parse(counts.lines.at(0))["source_identity_total"];
    EXPECT_GE(total.get<int>(), 300);
    EXPECT_EQ(Json::parse(counts.lines[0])["source_identity_by_type"].size(), 8u);
    const auto readback = runCli({"readback", "--db", db});
    ASSERT_EQ(readback.exitCode, 0) << readback.errors;
    EXPECT_TRUE(std::regex_search(joinedLines(readback),
                                  std::regex("Source identities +" + total.dump() + "\n")))
        << joinedLines(readback);

    const auto history = runCli({"history", "--db", db, "--person", person, "--json"});
    ASSERT_EQ(history.exitCode, 0) << history.errors;
    const Json entries = Json::parse(history.lines.at(0));
    ASSERT_FALSE(entries.empty());
    const auto text = joinedLines(runCli({"history", "--db", db, "--person", person}));
    EXPECT_NE(text.find(entries[0]["mergeEventIDs"][0].get<std::string>()), std::string::npos)
        << text;
    EXPECT_NE(text.find(entries[0]["kind"].get<std::string>()), std::string::npos) << text;

    // A second demo never touches an existing file.
    const std::string bytes = fileBytes(db);
    const auto again = runCli({"demo", "--db", db});
    expectCleanFailure(again);
    EXPECT_NE(again.errors.find("already exists"), std::string::npos) << again.errors;
    EXPECT_EQ(fileBytes(db), bytes);
}

TEST(CliCommands, JsonOutputIsWhatExecAnswersAndTheSampleIsRepeatable) {
    TempDir dir;
    const std::string a = (dir.path() / "a.db").string();
    const std::string b = (dir.path() / "b.db").string();
    ASSERT_EQ(runCli({"demo", "--db", a}).exitCode, 0);
    ASSERT_EQ(runCli({"demo", "--db", b}).exitCode, 0);

    const auto everything = [](const std::string& db, const char* flag) {
        std::vector<std::string> arguments{"search", "--db", db, "--limit", "2000", "--json"};
        if (flag != nullptr) {
            arguments.emplace_back(flag);
        }
        const auto run = runCli(arguments);
        EXPECT_EQ(run.exitCode, 0) << run.errors;
        return run.lines;
    };
    EXPECT_EQ(everything(a, nullptr), everything(b, nullptr));
    EXPECT_EQ(everything(a, "--people"), everything(b, "--people"));

    const auto answers = exec(
        a,
        R"({"op":"identityCorrectionsReadback"})"
        "\n"
        R"({"op":"exactKeyCandidates","args":{"limit":5}})"
        "\n"
        R"({"op":"searchSourceIdentities","args":{"query":"garcia","limit":7,"excludingSourceIdentityIDs":[]}})"
        "\n");
    ASSERT_EQ(answers.lines.size(), 3u) << answers.errors;
    const auto okText = [&](std::size_t i) {
        return nlohmann::ordered_json::parse(answers.lines[i])["ok"].dump();
    };
    EXPECT_EQ(runCli({"readback", "--db", a, "--json"}).lines, std::vector<std::string>{okText(0)});
    EXPECT_EQ(runCli({"candidates", "--db", a, "--limit", "5", "--json"}).lines,
              std::vector<std::string>{okText(1)});
    EXPECT_EQ(runCli({"search", "--db", a, "garcia", "--limit", "7", "--json"}).lines,
              std::vector<std::string>{okText(2)});
}

TEST(CliCommands, FailCleanlyAndKeepStoredTextOffTheTerminal) {
    TestDatabase store;
    store.addIdentity("si-x", "gmail", "x@example.com", "Mallory\x1b]0;owned\x07\x1b[2J\nNext");
    const std::string db = store.path().string();

    const auto search = runCli({"search", "--db", db, "mallory"});
    ASSERT_EQ(search.exitCode, 0) << search.errors;
    ASSERT_EQ(search.lines.size(), 2u) << joinedLines(search);
    EXPECT_NE(search.lines[1].find("Mallory"), std::string::npos);
    EXPECT_EQ(search.lines[1].find_first_of("\x1b\x07"), std::string::npos) << search.lines[1];

    for (const char* command : {"demo", "candidates", "history", "search", "readback"}) {
        const auto help = runCli({command, "--help"});
        EXPECT_EQ(help.exitCode, 0) << command;
        EXPECT_NE(joinedLines(help).find("--db"), std::string::npos) << command;
    }

    TempDir dir;
    const auto missing = dir.path() / "missing.db";
    const auto notADatabase = dir.path() / "notes.txt";
    std::ofstream(notADatabase) << "not a database, just some notes that are long enough\n";
    expectCleanFailure(runCli({"history", "--db", db, "--person", "nobody"}));
    expectCleanFailure(runCli({"candidates", "--db", missing.string()}));
    EXPECT_FALSE(std::filesystem::exists(missing));
    expectCleanFailure(runCli({"readback", "--db", notADatabase.string()}));
    expectCleanFailure(runCli({"search", "--db", db, "--limit", "0"}));
    expectCleanFailure(runCli({"history", "--db", db}));
    expectCleanFailure(runCli({"demo", "--db", (dir.path() / "no-dir" / "x.db").string()}));
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "no-dir"));
}

}  // namespace
}  // namespace orvik::test
