// orvik-identity exec and the store options against input an attacker or an
// unlucky user would give: every line gets one answer and the process goes on;
// passphrases need not appear on the command line.
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/support/CliRunner.h"
#include "tests/support/TestSupport.h"

namespace orvik::test {
namespace {

using Json = nlohmann::json;

class HostileInput : public ::testing::Test {
  protected:
    HostileInput() { EXPECT_EQ(runCli({"init", "--db", db_.string()}).exitCode, 0); }

    TempDir dir_;
    std::filesystem::path db_ = dir_.path() / "store.db";
};

TEST_F(HostileInput, EveryLineIsAnsweredAndTheSessionGoesOn) {
    const std::string deepID = "{\"id\":" + std::string(50000, '[') + std::string(50000, ']') +
                               ",\"op\":\"person\",\"args\":{\"id\":\"p\"}}";
    const std::string deepArgs = R"({"id":2,"op":"person","args":{"id":)" + std::string(5000, '[') +
                                 std::string(5000, ']') + "}}";
    std::string withNul = R"({"id":4,"op":"person","args":{"id":"p"}})";
    withNul.insert(10, 1, '\0');
    // Brackets inside texts do not count as nesting.
    const std::string bracketsInText =
        R"({"id":5,"op":"person","args":{"id":")" + std::string(200, '[') + "\"}}";
    const std::string input = deepID + "\n" + deepArgs + "\n" +
                              R"({"id":1e999999,"op":"person","args":{"id":"p"}})" + "\n" +
                              withNul + "\n" + bracketsInText + "\n" +
                              R"({"id":6,"op":"person","args":{"id":"p"}})" + "\n";
    const auto run = runCli({"exec", "--db", db_.string()}, input);
    EXPECT_EQ(run.exitCode, 0) << run.errors;
    ASSERT_EQ(run.lines.size(), 6U) << run.text() << run.errors;
    for (int i = 0; i < 4; ++i) {
        const Json answer = Json::parse(run.lines[i]);
        EXPECT_EQ(answer["error"]["case"], "badRequest") << run.lines[i];
    }
    EXPECT_NE(run.lines[0].find("nests deeper"), std::string::npos) << run.lines[0];
    EXPECT_NE(run.lines[3].find("NUL"), std::string::npos) << run.lines[3];
    EXPECT_EQ(Json::parse(run.lines[4])["ok"], nullptr);
    EXPECT_EQ(Json::parse(run.lines[5])["id"], 6);
}

TEST_F(HostileInput, AnEmptyDatabasePathIsAUsageError) {
    const auto run = runCli({"init", "--db", ""});
    EXPECT_NE(run.exitCode, 0);
    EXPECT_NE(run.errors.find("must not be empty"), std::string::npos) << run.errors;
}

#ifdef ORVIK_HAS_SQLCIPHER
// The passphrase from a file, from the environment, or on the command line opens
// the same store; creating a plain store warns.
TEST(KeyOptions, KeyFileEnvironmentAndKeyAreEquivalent) {
    TempDir dir;
    const auto db = (dir.path() / "enc.db").string();
    const auto keyFile = (dir.path() / "key").string();
    std::ofstream(keyFile) << "file secret\n";

    const auto created = runCli({"init", "--db", db, "--key-file", keyFile});
    EXPECT_EQ(created.exitCode, 0) << created.errors;
    EXPECT_EQ(created.errors.find("warning"), std::string::npos) << created.errors;

    const std::string readback = R"({"id":1,"op":"identityCorrectionsReadback"})"
                                 "\n";
    for (const auto& run : {runCli({"exec", "--db", db, "--key", "file secret"}, readback),
                            runCli({"exec", "--db", db}, readback,
                                   {.environment = {{"ORVIK_IDENTITY_KEY", "file secret"}}}),
                            runCli({"exec", "--db", db, "--key-file", keyFile}, readback)}) {
        EXPECT_EQ(run.exitCode, 0) << run.errors;
        ASSERT_EQ(run.lines.size(), 1U) << run.errors;
        EXPECT_TRUE(Json::parse(run.lines[0]).contains("ok")) << run.lines[0];
    }
    // No key and no terminal: a clear refusal, not a prompt.
    const auto withoutKey = runCli({"exec", "--db", db}, readback);
    EXPECT_NE(withoutKey.exitCode, 0);
    EXPECT_NE(withoutKey.errors.find("encrypted"), std::string::npos) << withoutKey.errors;
    const auto missingFile =
        runCli({"exec", "--db", db, "--key-file", (dir.path() / "absent").string()});
    EXPECT_NE(missingFile.exitCode, 0);
    EXPECT_NE(missingFile.errors.find("cannot read the key file"), std::string::npos);

    const auto plain = runCli({"init", "--db", (dir.path() / "plain.db").string()});
    EXPECT_EQ(plain.exitCode, 0);
    EXPECT_NE(plain.errors.find("is not encrypted"), std::string::npos) << plain.errors;
    const auto help = runCli({"exec", "--help"});
    EXPECT_NE(help.text().find("Visible to other users"), std::string::npos);
}
#endif

}  // namespace
}  // namespace orvik::test
