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
        {R"({"id":7,"op":"linkIdentity","args":{"request":{}}})", 7, "not available"},
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

}  // namespace
}  // namespace orvik::test
