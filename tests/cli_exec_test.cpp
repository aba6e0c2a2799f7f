// End-to-end tests of the orvik-identity executable: each case runs the built
// binary as a child process on a temporary database, feeds it request lines and
// reads its answers.
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/support/CliRunner.h"
#include "tests/support/TestSupport.h"

namespace orvik::test {
namespace {

using Json = nlohmann::json;

std::string readFile(const std::filesystem::path& path) {
    std::stringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

ChildRun exec(const std::filesystem::path& db, const std::string& input) {
    return runCli({"exec", "--db", db.string()}, input);
}

// Fails without a crash, says something on stderr and writes nothing on stdout.
void expectCleanFailure(const ChildRun& run) {
    EXPECT_NE(run.exitCode, 0);
    EXPECT_TRUE(run.lines.empty()) << run.text();
    EXPECT_FALSE(run.errors.empty());
    for (const char* crash : {"terminate called", "Sanitizer", "runtime error"}) {
        EXPECT_EQ(run.errors.find(crash), std::string::npos) << run.errors;
    }
}

// One request to a running exec session and its answer, which must echo the id.
Json call(ChildProcess& session, const std::string& op, const Json& args) {
    static int sent = 0;
    const Json request{{"id", ++sent}, {"op", op}, {"args", args}};
    session.send(request.dump() + "\n");
    const auto line = session.readLine();
    if (!line) {
        throw std::runtime_error("no answer to " + request.dump() +
                                 "; stderr: " + session.errorOutput());
    }
    Json answer = Json::parse(*line);
    EXPECT_EQ(answer["id"], request["id"]) << *line;
    return answer;
}

constexpr const char* kSeed = R"sql(
INSERT INTO source_identity (id, source_type, handle_normalized, display_name, first_seen_at,
                             last_seen_at, created_at)
VALUES ('si-1', 'email', 'ana@example.com', NULL, '2026-01-01T00:00:00Z',
        '2026-02-01T00:00:00Z', '2026-01-01T00:00:01Z');
INSERT INTO person (id, display_name, tier, created_from, merged_into_person_id, created_at)
VALUES ('p-old', NULL, 'stub', NULL, 'p-mid', '2026-01-02T00:00:00Z'),
       ('p-mid', NULL, 'stub', NULL, 'p-live', '2026-01-02T00:00:00Z'),
       ('p-live', 'Ana Live', 'user_stated', 'manual', NULL, '2026-01-02T00:00:00Z');
INSERT INTO identity_membership (id, source_identity_id, canonical_person_id, state, because,
                                 decided_by, decided_at, ended_at, created_at)
VALUES ('m-1', 'si-1', 'p-old', 'high_conf', NULL, 'agent+user', '2026-01-03T00:00:00Z', NULL,
        '2026-01-03T00:00:00Z');
)sql";

// init is idempotent, and exec on the fresh store knows every operation: each one
// answers, at worst asking for its missing args.
TEST(CliInit, CreatesTheStoreIdempotentlyForExec) {
    TempDir dir;
    const auto db = dir.path() / "store.db";
    for (int round = 0; round < 2; ++round) {
        const auto run = runCli({"init", "--db", db.string()});
        EXPECT_EQ(run.exitCode, 0) << run.errors;
        EXPECT_EQ(run.lines.size(), 1u);
    }
    const auto help = runCli({"exec", "--help"});
    EXPECT_EQ(help.exitCode, 0);
    std::istringstream operations(
        "sourceIdentity person activeMembership activeMemberships mergeEvent "
        "latestUndoableMergeEvent resolveCanonicalPerson linkIdentity proposeMerge "
        "markDifferent confirmCandidate rejectCandidate confirmManualLink "
        "batchConfirmManualLink predictManualLinkSurvivor separateIdentity undoMerge "
        "undoConfirmation declareOwnerAlias batchDeclareOwnerAlias undoOwnerAliasMutation "
        "searchSourceIdentities searchUserStatedPeople exactKeyCandidates candidateContext "
        "identityHistory identityCorrectionsReadback");
    std::string input;
    std::size_t count = 0;
    for (std::string op; operations >> op; ++count) {
        input += Json{{"id", op}, {"op", op}, {"args", Json::object()}}.dump() + "\n";
        EXPECT_NE(help.text().find("\n  " + op + "\n"), std::string::npos) << op;
    }
    // The last request has no final newline and is still answered.
    const auto run = exec(db, input + R"({"id":"counts","op":"identityCorrectionsReadback"})");
    ASSERT_EQ(run.exitCode, 0) << run.errors;
    ASSERT_EQ(run.lines.size(), count + 1) << run.text();
    for (std::size_t i = 0; i < count; ++i) {
        const Json answer = Json::parse(run.lines[i]);
        if (answer.contains("error")) {
            EXPECT_EQ(answer["error"]["case"], "badRequest") << run.lines[i];
            EXPECT_TRUE(answer["error"]["message"].get<std::string>().starts_with("missing args."))
                << run.lines[i];
        }
    }
    EXPECT_EQ(
        run.lines.back(),
        R"({"id":"counts","ok":{"source_identity_total":0,"source_identity_by_type":{},"exact_key_candidate_pairs":0,"active_memberships":0,"membership_states":{},"merge_events":0,"absorbed_persons":0,"unavailable_sections":[]},"witness":[]})");
}

#ifdef ORVIK_HAS_SQLCIPHER
TEST(CliInit, EncryptedStoreOpensOnlyWithItsKey) {
    TempDir dir;
    const auto db = dir.path() / "secret.db";
    ASSERT_EQ(runCli({"init", "--db", db.string(), "--key", kTestKey}).exitCode, 0);

    const std::string request = R"({"id":"k","op":"sourceIdentity","args":{"id":"s"}})";
    const auto keyed = runCli({"exec", "--db", db.string(), "--key", kTestKey}, request);
    EXPECT_EQ(keyed.exitCode, 0) << keyed.errors;
    EXPECT_EQ(keyed.lines, Lines{R"({"id":"k","ok":null,"witness":[]})"});

    const auto wrongKey = runCli({"exec", "--db", db.string(), "--key", "not the key"}, request);
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

// Reads give stored texts and nulls; a store error fails only its own request.
TEST(CliExec, ReadsAndStoreErrorsAreAnsweredLineByLine) {
    TestDatabase store;
    store.exec(std::string(kSeed) + "DROP TABLE merge_event;");
    store.addIdentity("si-2", "email", "bo@example.com");
    store.addMembership("m-2", "si-2", "p-live", "confirmed", {}, "robot");
    const auto run = exec(
        store.path(), R"({"id":1,"op":"resolveCanonicalPerson","args":{"sourceIdentityID":"si-2"}})"
                      "\n"
                      R"({"id":2,"op":"mergeEvent","args":{"id":"e-1"}})"
                      "\n"
                      R"({"id":3,"op":"sourceIdentity","args":{"id":"si-1"}})"
                      "\n"
                      R"({"id":4,"op":"activeMembership","args":{"sourceIdentityID":"si-1"}})"
                      "\n"
                      R"({"op":"resolveCanonicalPerson","args":{"sourceIdentityID":"si-1"}})"
                      "\n");
    ASSERT_EQ(run.exitCode, 0) << run.errors;
    EXPECT_EQ(
        run.lines,
        (Lines{
            R"({"id":1,"error":{"case":"corruptRestoreMap","message":null},"witness":[]})",
            R"({"id":2,"error":{"case":"database","message":"no such table: merge_event","code":1},"witness":[]})",
            R"({"id":3,"ok":{"id":"si-1","sourceType":"email","handleNormalized":"ana@example.com","displayName":null,"firstSeenAt":"2026-01-01T00:00:00Z","lastSeenAt":"2026-02-01T00:00:00Z","createdAt":"2026-01-01T00:00:01Z"},"witness":[]})",
            R"({"id":4,"ok":{"id":"m-1","sourceIdentityID":"si-1","canonicalPersonID":"p-old","state":"high_conf","because":null,"decidedBy":"agent+user","decidedAt":"2026-01-03T00:00:00Z","endedAt":null,"createdAt":"2026-01-03T00:00:00Z"},"witness":[]})",
            R"({"id":null,"ok":{"personID":"p-live","displayName":"Ana Live","membershipState":"high_conf","decidedBy":"agent+user","because":null},"witness":[]})",
        }));
}

// Junk, unknown operations and malformed arguments each get a badRequest that
// echoes the id and writes nothing; blank lines are skipped and later lines answered.
TEST(CliExec, AnswersBadRequestsAndGoesOn) {
    TestDatabase store;
    store.exec(kSeed);
    const std::string before = store.dump();
    const std::vector<std::pair<std::string, std::string>> cases{
        {"not json", "JSON"},
        {R"({"id":"u","op":"frobnicate"})", "frobnicate"},
        {R"({"id":{"k":[1]},"op":"person","args":{"id":5}})", "args.id"},
        {R"({"id":8,"op":"undoConfirmation","args":{"mergeEventIDs":["e-1",2]}})",
         "args.mergeEventIDs[1]"},
        {R"({"id":9,"op":"linkIdentity","args":{"request":{"personID":"p-live","sourceIdentityID":"si-1"}}})",
         "args.request.confirmed"},
    };
    std::string input;
    for (const auto& [request, messagePart] : cases) {
        input += request + "\n\n   \n";
    }
    const auto run =
        exec(store.path(), input + R"({"id":"last","op":"sourceIdentity","args":{"id":"si-1"}})");
    ASSERT_EQ(run.exitCode, 0) << run.errors;
    ASSERT_EQ(run.lines.size(), cases.size() + 1) << run.text();
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto& [request, messagePart] = cases[i];
        const auto response = Json::parse(run.lines[i]);
        const auto sent = Json::parse(request, nullptr, false);
        EXPECT_EQ(response["id"], sent.is_discarded() ? Json() : sent["id"]) << request;
        EXPECT_EQ(response["error"]["case"], "badRequest") << request;
        EXPECT_NE(response["error"]["message"].get<std::string>().find(messagePart),
                  std::string::npos)
            << response;
        EXPECT_EQ(response.size(), 3u) << response;  // id, error, witness
        EXPECT_EQ(response["witness"], Json::array());
    }
    EXPECT_EQ(Json::parse(run.lines.back())["ok"]["id"], "si-1");
    EXPECT_EQ(store.dump(), before);
}

// Driven one request at a time: each answer must arrive while stdin is still open.
TEST(CliCorrections, ConfirmedCandidateIsWitnessedAndUndoneOnce) {
    TestDatabase store;
    store.addIdentity("si-a", "email", "ana@example.com");
    store.addIdentity("si-b", "email", "ana.m@example.com");
    store.addIdentity("si-c", "email", "me@example.com");
    store.addPerson("p-1");
    store.addMembership("m-c", "si-c", "p-1");
    ChildProcess session(ORVIK_IDENTITY_BIN, {"exec", "--db", store.path().string()});
    const auto resolved = [&](const std::string& id) {
        return call(session, "resolveCanonicalPerson", {{"sourceIdentityID", id}})["ok"];
    };
    const Json candidate{
        {"id", "ignored on input"},
        {"sourceIdentityA", call(session, "sourceIdentity", {{"id", "si-a"}})["ok"]},
        {"sourceIdentityB", call(session, "sourceIdentity", {{"id", "si-b"}})["ok"]},
        {"score", 0.92},
        {"because", "same display name"}};

    const Json confirmed = call(
        session, "confirmCandidate",
        {{"candidate", candidate}, {"subjectLineage", "source_identity"}, {"subjectID", "si-a"}});
    const Json stub = confirmed["ok"]["personID"];
    const Json eventIDs = confirmed["ok"]["mergeEventIDs"];
    ASSERT_TRUE(stub.is_string()) << confirmed;
    ASSERT_EQ(eventIDs.size(), 2u) << confirmed;
    EXPECT_EQ(resolved("si-a")["personID"], stub);
    EXPECT_EQ(resolved("si-b")["personID"], stub);
    const Json witness = confirmed["witness"];
    ASSERT_EQ(witness.size(), 1u) << witness;
    EXPECT_EQ(witness[0]["kind"], "confirm-candidate");
    const std::string operationID = witness[0]["operationID"];
    EXPECT_EQ(witness[0]["line"],
              "identity correction committed kind=confirm-candidate identities=2 merge_events=2 "
              "absorbed_persons=0 merged_into_present=false restored_persons=0 "
              "restored_memberships=0 operation=" +
                  operationID);

    const Json undone = call(session, "undoConfirmation", {{"mergeEventIDs", eventIDs}});
    ASSERT_EQ(undone["ok"].size(), 2u) << undone;
    EXPECT_EQ(undone["ok"][0].size(), 4u) << undone;
    EXPECT_TRUE(undone["ok"][0].contains("restoredClaimCount")) << undone;
    EXPECT_TRUE(undone["ok"][0].contains("restoredMembershipCount")) << undone;
    EXPECT_EQ(undone["ok"][1]["mergeEventID"], eventIDs[1]);
    ASSERT_EQ(undone["witness"].size(), 1u) << undone;
    EXPECT_EQ(undone["witness"][0]["kind"], "undo-confirmation");
    EXPECT_EQ(undone["witness"][0]["operationID"], nullptr);
    EXPECT_TRUE(undone["witness"][0]["line"].get<std::string>().ends_with(" operation=-"));
    EXPECT_EQ(resolved("si-a"), nullptr);

    // Undo errors carry their case, and nothing is witnessed.
    const Json again = call(session, "undoMerge", {{"mergeEventID", eventIDs[0]}});
    EXPECT_EQ(again["error"], (Json{{"case", "alreadyReversed"}, {"message", nullptr}})) << again;
    EXPECT_EQ(again["witness"], Json::array());
    EXPECT_EQ(call(session, "undoMerge", {{"mergeEventID", "no-such-event"}})["error"],
              (Json{{"case", "notFound"}, {"message", "no-such-event"}}));

    // An owner alias is undone from the mutation its declaration echoed.
    const std::vector<std::string> aliasTables{"owner_alias", "exclusion_rule"};
    const std::string before = store.dump(aliasTables);
    const Json declared =
        call(session, "declareOwnerAlias", {{"sourceIdentityID", "si-c"}, {"subjectID", "owner"}});
    const Json mutation = declared["ok"]["mutation"];
    EXPECT_EQ(mutation["insertedExclusions"].size(), 1u) << declared;
    EXPECT_EQ(call(session, "undoOwnerAliasMutation", {{"mutation", mutation}})["ok"], nullptr);
    EXPECT_EQ(store.dump(aliasTables), before);

    auto [rest, exitCode] = session.finish();
    EXPECT_EQ(rest, Lines{});
    EXPECT_EQ(exitCode, 0) << session.errorOutput();
}

// The keys of an answer object, in order: every field of the record's JSON form.
std::vector<std::string> keysOf(const nlohmann::ordered_json& object) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : object.items()) {
        keys.push_back(key);
    }
    return keys;
}

const std::vector<std::string> kIdentityKeys{"id",          "sourceType",  "handleNormalized",
                                             "displayName", "firstSeenAt", "lastSeenAt",
                                             "createdAt"};

// Every operation that the confirmation test does not reach, in one session: each
// answer has exactly the documented keys, and records the session answered are
// accepted back as arguments.
TEST(CliCorrections, EveryRecordTravelsWithItsDocumentedKeys) {
    using Ordered = nlohmann::ordered_json;
    TestDatabase store;
    store.addIdentity("si-1", "gmail", "ana@example.com", "Ana");
    store.addIdentity("si-2", "imessage", "+15550001", "Ana M");
    store.addIdentity("si-3", "outlook", "bo@example.com");
    store.addIdentity("si-4", "outlook", "cy@example.com");
    store.addIdentity("si-5", "gmail", "dee@example.com");
    store.addIdentity("si-6", "gmail", "eve@example.com");
    store.addPerson("p-ana", {}, "Ana", "user_stated");
    store.addPerson("p-bo", {}, "Bo", "user_stated");
    store.addMembership("m-2", "si-2", "p-ana");
    store.addMembership("m-3", "si-3", "p-bo");
    store.exec(
        "INSERT INTO claim VALUES ('c-ana','p-ana',NULL,'display_name','user_stated','Ana')");
    ChildProcess session(ORVIK_IDENTITY_BIN, {"exec", "--db", store.path().string()});
    const auto ok = [&](const std::string& op, const Json& args) {
        static int sent = 0;
        const Json request{{"id", "k" + std::to_string(++sent)}, {"op", op}, {"args", args}};
        session.send(request.dump() + "\n");
        const auto line = session.readLine();
        if (!line) {
            throw std::runtime_error("no answer to " + op);
        }
        Ordered answer = Ordered::parse(*line);
        EXPECT_TRUE(answer.contains("ok")) << op << ": " << *line;
        return answer;
    };
    const auto row = [&](const std::string& id) {
        return ok("sourceIdentity", {{"id", id}})["ok"];
    };

    const auto memberships = ok("activeMemberships", {{"personID", "p-ana"}})["ok"];
    ASSERT_EQ(memberships.size(), 1u);
    EXPECT_EQ(keysOf(memberships[0]),
              (Lines{"id", "sourceIdentityID", "canonicalPersonID", "state", "because", "decidedBy",
                     "decidedAt", "endedAt", "createdAt"}));
    EXPECT_EQ(memberships[0]["sourceIdentityID"], "si-2");

    const auto linked =
        ok("linkIdentity",
           {{"request",
             {{"personID", "p-ana"}, {"sourceIdentityID", "si-1"}, {"confirmed", true}}}})["ok"];
    EXPECT_EQ(keysOf(linked), (Lines{"because", "message", "taxonomy", "mergeEventID", "status"}));
    EXPECT_EQ(linked["status"], "linked") << linked;
    EXPECT_EQ(linked["taxonomy"], 0);
    const auto latest = ok("latestUndoableMergeEvent", {{"personID", "p-ana"}})["ok"];
    EXPECT_EQ(keysOf(latest),
              (Lines{"id", "survivingPersonID", "absorbedPersonID", "preMergeStateJSON", "because",
                     "decidedBy", "createdAt", "reversedAt", "operationID"}));
    EXPECT_EQ(latest["id"], linked["mergeEventID"]);

    const auto proposed = ok("proposeMerge", {{"request",
                                               {{"presetValue", 7},
                                                {"personIDA", "p-ana"},
                                                {"personIDB", "p-bo"},
                                                {"subjectID", "p-ana"},
                                                {"subjectLineage", "person"},
                                                {"confirmed", true}}}})["ok"];
    EXPECT_EQ(keysOf(proposed),
              (Lines{"because", "message", "taxonomy", "mergeEventID", "status"}));
    EXPECT_EQ(proposed["status"], "merged") << proposed;
    EXPECT_EQ(ok("resolveCanonicalPerson", {{"sourceIdentityID", "si-3"}})["ok"]["personID"],
              "p-ana");
    const auto absorbed = ok("person", {{"id", "p-bo"}})["ok"];
    EXPECT_EQ(keysOf(absorbed), (Lines{"id", "displayName", "tier", "createdFrom",
                                       "mergedIntoPersonID", "createdAt"}));
    EXPECT_EQ(absorbed["mergedIntoPersonID"], "p-ana");

    const auto history = ok("identityHistory", {{"personID", "p-ana"}})["ok"];
    ASSERT_EQ(history.size(), 2u) << history;
    EXPECT_EQ(keysOf(history[1]),
              (Lines{"mergeEventID", "kind", "occurredAt", "reversedAt", "because",
                     "survivingPersonID", "absorbedPersonID", "involvedSourceIdentityIDs",
                     "providers", "operationID", "mergeEventIDs"}));
    EXPECT_EQ(history[0]["kind"], "linked");
    EXPECT_EQ(history[1]["kind"], "merged");
    EXPECT_EQ(history[1]["absorbedPersonID"], "p-bo");
    EXPECT_EQ(history[1]["mergeEventIDs"], Ordered::array({proposed["mergeEventID"]}));

    // Separation moves si-3 out to a stub person; marking that stub different from
    // Ana writes a constraint.
    const auto separated =
        ok("separateIdentity", {{"sourceIdentityID", "si-3"}, {"subjectID", "u"}});
    EXPECT_EQ(keysOf(separated["ok"]), (Lines{"personID", "mergeEventIDs"}));
    EXPECT_EQ(separated["witness"][0]["kind"], "separate-identity");
    const std::string stub = separated["ok"]["personID"];
    const auto different = ok("markDifferent", {{"request",
                                                 {{"reason", "not her"},
                                                  {"presetValue", nullptr},
                                                  {"personIDA", "p-ana"},
                                                  {"personIDB", stub},
                                                  {"subjectID", "p-ana"},
                                                  {"subjectLineage", "person"}}}})["ok"];
    EXPECT_EQ(keysOf(different), (Lines{"constraintID", "refused", "message", "taxonomy"}));
    EXPECT_EQ(different["refused"], false) << different;
    EXPECT_TRUE(different["constraintID"].is_string()) << different;

    // A rejected candidate built from answered rows.
    const Json candidate{{"sourceIdentityA", row("si-5")},
                         {"sourceIdentityB", row("si-6")},
                         {"existingPersonID", nullptr},
                         {"score", 0.5},
                         {"because", "same domain"}};
    const auto rejected =
        ok("rejectCandidate",
           {{"candidate", candidate}, {"subjectLineage", "grouping"}, {"subjectID", "g-1"}});
    EXPECT_EQ(rejected["ok"], nullptr);
    EXPECT_EQ(rejected["witness"][0]["kind"], "reject-candidate");

    // Manual links in all three forms; the prediction echoes its targets.
    const Ordered targets =
        Ordered::array({Ordered{{"person", "p-ana"}}, Ordered{{"identity", row("si-4")}}});
    const auto prediction = ok("predictManualLinkSurvivor", {{"targets", targets}})["ok"];
    EXPECT_EQ(keysOf(prediction), (Lines{"targets", "personID", "survivorTargets"}));
    EXPECT_EQ(prediction["targets"], targets);
    EXPECT_EQ(prediction["personID"], "p-ana");
    EXPECT_EQ(prediction["survivorTargets"], Ordered::array({targets[0]}));
    const auto byTargets =
        ok("confirmManualLink",
           {{"targets", targets}, {"subjectLineage", "person"}, {"subjectID", "u"}});
    EXPECT_EQ(byTargets["ok"]["personID"], "p-ana") << byTargets;
    EXPECT_EQ(byTargets["witness"][0]["kind"], "confirm-manual-link");
    const auto pair = ok(
        "confirmManualLink",
        {{"a", row("si-5")}, {"b", row("si-4")}, {"subjectLineage", "person"}, {"subjectID", "u"}});
    EXPECT_EQ(pair["ok"]["personID"], "p-ana") << pair;
    const auto batch =
        ok("batchConfirmManualLink", {{"rows", Ordered::array({row("si-6"), row("si-5")})},
                                      {"subjectLineage", "person"},
                                      {"subjectID", "u"}});
    EXPECT_EQ(batch["witness"][0]["kind"], "batch-confirm-manual-link") << batch;
    EXPECT_EQ(ok("resolveCanonicalPerson", {{"sourceIdentityID", "si-6"}})["ok"]["personID"],
              "p-ana");

    // Searches answer rows equal to the reads; si-3, separated from si-1, is left out.
    const auto found =
        ok("searchSourceIdentities",
           {{"query", "example"}, {"limit", 50}, {"excludingSourceIdentityIDs", {"si-1"}}})["ok"];
    ASSERT_FALSE(found.empty());
    for (const auto& item : found) {
        EXPECT_NE(item["id"], "si-3");
        EXPECT_EQ(item, row(item["id"]));
    }
    EXPECT_EQ(keysOf(found[0]), kIdentityKeys);
    const auto people =
        ok("searchUserStatedPeople",
           {{"query", "a"}, {"limit", 5}, {"excludingPersonIDs", Ordered::array()}})["ok"];
    ASSERT_EQ(people.size(), 1u) << people;
    EXPECT_EQ(keysOf(people[0]), (Lines{"id", "displayName", "createdAt"}));
    EXPECT_EQ(people[0]["displayName"], "Ana");

    const auto context = ok("candidateContext", {{"for", "si-2"}, {"relativeTo", {"si-1"}}})["ok"];
    EXPECT_EQ(keysOf(context),
              (Lines{"sourceIdentityID", "provider", "displayName", "conversationCount",
                     "lastSeenAt", "sharedThreadCount", "exactHandleMatch"}));
    EXPECT_EQ(context["provider"], "imessage");
    EXPECT_EQ(context["displayName"], "Ana M");

    const auto aliases = ok("batchDeclareOwnerAlias", {{"sourceIdentityIDs", {"si-2", "si-1"}},
                                                       {"subjectID", "owner"}})["ok"];
    EXPECT_EQ(keysOf(aliases), (Lines{"perIdentity", "mutation"}));
    ASSERT_EQ(aliases["perIdentity"].size(), 2u);
    EXPECT_EQ(keysOf(aliases["perIdentity"][0]), (Lines{"excludedPersonID", "wasNewAlias"}));
    EXPECT_EQ(aliases["perIdentity"][0]["wasNewAlias"], true);
    EXPECT_EQ(keysOf(aliases["mutation"]["insertedAliases"][1]),
              (Lines{"sourceIdentityID", "sourceType", "handleNormalized"}));
    EXPECT_EQ(aliases["mutation"]["insertedAliases"][1]["handleNormalized"], "ana@example.com");
    EXPECT_EQ(ok("undoOwnerAliasMutation", {{"mutation", aliases["mutation"]}})["ok"], nullptr);

    auto [rest, exitCode] = session.finish();
    EXPECT_EQ(rest, Lines{});
    EXPECT_EQ(exitCode, 0) << session.errorOutput();
}

TEST(CliDemo, TerminalCommandsShowWhatExecAnswers) {
    TempDir dir;
    const std::string db = (dir.path() / "demo.db").string();
    const auto demo = runCli({"demo", "--db", db});
    ASSERT_EQ(demo.exitCode, 0) << demo.errors;

    const auto answers = exec(db, R"({"op":"identityCorrectionsReadback"})"
                                  "\n"
                                  R"({"op":"exactKeyCandidates","args":{"limit":5}})"
                                  "\n");
    ASSERT_EQ(answers.lines.size(), 2u) << answers.errors;
    const auto okText = [&](std::size_t i) {
        return nlohmann::ordered_json::parse(answers.lines[i])["ok"].dump();
    };
    EXPECT_EQ(runCli({"readback", "--db", db, "--json"}).lines, Lines{okText(0)});
    EXPECT_EQ(runCli({"candidates", "--db", db, "--limit", "5", "--json"}).lines, Lines{okText(1)});
    EXPECT_GE(Json::parse(okText(0))["source_identity_total"].get<int>(), 300);

    // A second demo never touches an existing file.
    const std::string bytes = readFile(db);
    const auto again = runCli({"demo", "--db", db});
    expectCleanFailure(again);
    EXPECT_NE(again.errors.find("already exists"), std::string::npos) << again.errors;
    EXPECT_EQ(readFile(db), bytes);
}

TEST(CliCommands, KeepStoredTextOffTheTerminalAndFailCleanly) {
    TestDatabase store;
    store.addIdentity("si-x", "gmail", "x@example.com", "Mallory\x1b]0;owned\x07\x1b[2J\nNext");
    const std::string db = store.path().string();

    const auto search = runCli({"search", "--db", db, "mallory"});
    ASSERT_EQ(search.exitCode, 0) << search.errors;
    ASSERT_EQ(search.lines.size(), 2u) << search.text();
    EXPECT_NE(search.lines[1].find("Mallory"), std::string::npos);
    EXPECT_EQ(search.lines[1].find_first_of("\x1b\x07"), std::string::npos) << search.lines[1];

    TempDir dir;
    const auto missing = dir.path() / "missing.db";
    const auto noStore = exec(missing, R"({"op":"person","args":{"id":"p"}})");
    expectCleanFailure(noStore);
    EXPECT_NE(noStore.errors.find("missing.db"), std::string::npos) << noStore.errors;
    expectCleanFailure(runCli({"candidates", "--db", missing.string()}));
    EXPECT_FALSE(std::filesystem::exists(missing));
    expectCleanFailure(runCli({"init", "--db", (dir.path() / "no-dir" / "x.db").string()}));
    expectCleanFailure(runCli({"history", "--db", db, "--person", "nobody"}));
    expectCleanFailure(runCli({"search", "--db", db, "--limit", "0"}));
    expectCleanFailure(runCli({"exec"}));
    expectCleanFailure(runCli({}));
}

}  // namespace
}  // namespace orvik::test
