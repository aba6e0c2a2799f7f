// orvik-identity: creates an identity store, drives it from other processes and
// shows it to a person at a terminal.
//
//     orvik-identity init       --db PATH [--key KEY]   create the schema (idempotent)
//     orvik-identity exec       --db PATH [--key KEY]   answer JSON requests on stdin
//     orvik-identity demo       --db PATH [--key KEY]   a new store with sample data
//     orvik-identity candidates --db PATH [--key KEY] [--limit N] [--json]
//     orvik-identity history    --db PATH [--key KEY] --person ID [--json]
//     orvik-identity search     --db PATH [--key KEY] [QUERY] [--limit N] [--people] [--json]
//     orvik-identity readback   --db PATH [--key KEY] [--json]
//
// Failures are reported on stderr as one line with a non-zero exit status.
#include <csignal>
#include <cstdint>
#include <exception>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "app/Demo.h"
#include "app/ExecSession.h"
#include "app/StoreAccess.h"
#include "app/TerminalCommands.h"
#include "host/HostServices.h"
#include "identity/IdentityRepository.h"
#include "store/Database.h"

namespace {

using namespace orvik::app;
namespace identity = orvik::identity;
namespace store = orvik::store;

int fail(const std::string& message) {
    std::cerr << kProgramName << ": " << message << '\n';
    return 1;
}

int finishOutput() {
    std::cout.flush();
    return std::cout ? 0 : fail("cannot write to standard output");
}

int runInit(const StoreArguments& arguments) {
    std::shared_ptr<store::DatabasePool> pool;
    try {
        pool = store::DatabasePool::open(arguments.db, arguments.poolOptions(true));
    } catch (const store::DatabaseError& error) {
        return fail("cannot open " + arguments.db + ": " + describe(error));
    }
    try {
        pool->write([](store::Connection& db) { orvik::host::createReferenceSchema(db); });
    } catch (const store::DatabaseError& error) {
        return fail("cannot create the schema in " + arguments.db + ": " + describe(error));
    }
    std::cout << "identity store ready at " << arguments.db << '\n';
    return finishOutput();
}

// The system log sink that names the store by its absolute path.
identity::IdentityCorrectionWitness::Sink storeLogSink(const StoreArguments& arguments) {
    std::error_code ignored;
    const auto absolute = std::filesystem::absolute(arguments.db, ignored);
    return identity::IdentityCorrectionWitness::systemLogSink(absolute.empty() ? arguments.db
                                                                               : absolute.string());
}

int runExec(const StoreArguments& arguments) {
    auto pool = openExistingStore(arguments);
    // A reader that goes away closes our output; report that instead of dying of
    // SIGPIPE.
    std::signal(SIGPIPE, SIG_IGN);
    std::ios::sync_with_stdio(false);
    ExecSession session(std::move(pool), storeLogSink(arguments));
    if (!session.run(std::cin, std::cout)) {
        return fail("cannot write to standard output");
    }
    return 0;
}

// Runs show over a repository on the existing store.
template <typename Show>
int runReadCommand(const StoreArguments& arguments, Show show) {
    identity::IdentityRepository repository(openExistingStore(arguments));
    show(repository);
    return finishOutput();
}

// A path as it can be pasted into a POSIX shell.
std::string shellQuoted(const std::string& text) {
    const bool plain = !text.empty() && text.find_first_not_of(
                                            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                            "0123456789_./:@%+=,-") == std::string::npos;
    if (plain) {
        return text;
    }
    std::string quoted = "'";
    for (const char c : text) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

int runDemo(const StoreArguments& arguments) {
    DemoSummary summary;
    try {
        summary = createDemoStore(arguments.db, arguments.poolOptions(true));
    } catch (const store::DatabaseError& error) {
        return fail("cannot fill the demo store at " + arguments.db + ": " + describe(error));
    } catch (const identity::IdentityStoreError& error) {
        return fail("a correction of the demo failed: " + std::string(error.what()));
    }
    std::string storeArguments = "--db " + shellQuoted(arguments.db);
    if (arguments.poolOptions(false).key) {
        // The passphrase is not echoed.
        storeArguments += " --key KEY";
    }
    std::cout << "Created a demo identity store at " << arguments.db << '\n';
    printDemoSummary(summary, storeArguments, std::cout);
    return finishOutput();
}

std::string operationsFooter() {
    std::string footer = "Operations:";
    for (const auto name : ExecSession::availableOperations()) {
        footer += "\n  ";
        footer += name;
    }
    return footer;
}

// --limit N, at least 1.
void addLimit(CLI::App& command, std::int64_t& limit, const char* what) {
    command.add_option("--limit", limit, std::string("Show at most this many ") + what)
        ->check(CLI::Range(std::int64_t{1}, std::int64_t{100000}))
        ->capture_default_str();
}

void addJson(CLI::App& command, bool& json) {
    command.add_flag("--json", json,
                     "Print the result as one line of JSON, as the exec operation answers it");
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app{"Creates an identity store, drives it through JSON requests and shows it.",
                     kProgramName};
        app.require_subcommand(1);
        app.set_version_flag("--version", std::string(kProgramName) + " " + ORVIK_VERSION);

        StoreArguments initArguments;
        CLI::App* init =
            app.add_subcommand("init", "Create the database and its schema (safe to repeat)");
        initArguments.addTo(*init);

        StoreArguments execArguments;
        CLI::App* exec = app.add_subcommand(
            "exec", "Answer JSON requests on stdin, one per line, with one JSON line each");
        execArguments.addTo(*exec);
        exec->footer(operationsFooter());

        StoreArguments demoArguments;
        CLI::App* demo = app.add_subcommand(
            "demo",
            "Create a new database filled with a realistic sample: identities from eight "
            "sources, threads, persons, candidates and a few corrections (refuses an existing "
            "file)");
        demoArguments.addTo(*demo);

        StoreArguments candidatesArguments;
        std::int64_t candidatesLimit = 20;
        bool candidatesJson = false;
        CLI::App* candidates = app.add_subcommand(
            "candidates", "List pairs of identities that share a handle but not yet a person");
        candidatesArguments.addTo(*candidates);
        addLimit(*candidates, candidatesLimit, "candidates");
        addJson(*candidates, candidatesJson);

        StoreArguments historyArguments;
        std::string historyPerson;
        bool historyJson = false;
        CLI::App* history =
            app.add_subcommand("history", "List the identity corrections of one person");
        historyArguments.addTo(*history);
        history->add_option("--person", historyPerson, "The person's identifier")->required();
        addJson(*history, historyJson);

        StoreArguments searchArguments;
        std::string searchQuery;
        std::int64_t searchLimit = 20;
        bool searchPeople = false;
        bool searchJson = false;
        CLI::App* search = app.add_subcommand(
            "search",
            "Find source identities by display name or handle, or with --people, persons the "
            "user named");
        searchArguments.addTo(*search);
        search->add_option("query", searchQuery,
                           "Text to find, taken literally and ignoring case (none: everything)");
        addLimit(*search, searchLimit, "results");
        search->add_flag("--people", searchPeople, "Search the persons the user named instead");
        addJson(*search, searchJson);

        StoreArguments readbackArguments;
        bool readbackJson = false;
        CLI::App* readback =
            app.add_subcommand("readback", "Show the diagnostic counts of the identity store");
        readbackArguments.addTo(*readback);
        readback->add_flag("--json", readbackJson, "Print the counts in their JSON form");

        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error);
        }

        try {
            if (init->parsed()) {
                return runInit(initArguments);
            }
            if (exec->parsed()) {
                return runExec(execArguments);
            }
            if (demo->parsed()) {
                return runDemo(demoArguments);
            }
            if (candidates->parsed()) {
                return runReadCommand(candidatesArguments, [&](auto& repository) {
                    showCandidates(repository, candidatesLimit, candidatesJson, std::cout);
                });
            }
            if (history->parsed()) {
                return runReadCommand(historyArguments, [&](auto& repository) {
                    showHistory(repository, historyPerson, historyJson, std::cout);
                });
            }
            if (search->parsed()) {
                return runReadCommand(searchArguments, [&](auto& repository) {
                    showSearch(repository, searchQuery, searchLimit, searchPeople, searchJson,
                               std::cout);
                });
            }
            return runReadCommand(readbackArguments, [&](auto& repository) {
                showReadback(repository, readbackJson, std::cout);
            });
        } catch (const CommandError& error) {
            return fail(error.what());
        } catch (const store::DatabaseError& error) {
            return fail(describe(error));
        } catch (const identity::IdentityStoreError& error) {
            return fail(error.what());
        }
    } catch (const std::exception& error) {
        return fail(error.what());
    } catch (...) {
        return fail("unexpected failure");
    }
}
