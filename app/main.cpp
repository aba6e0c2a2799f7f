// orvik-identity: creates an identity store, drives it from other processes and
// lets a person at a terminal look at it and correct it.
//
// Exit status: 0 on success, 1 when the command failed (no such store, person or
// candidate, a refused correction, a database error), 2 when the command line is
// wrong. Every failure is one line on stderr beginning "orvik-identity: ".
#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "app/CliState.h"
#include "app/Demo.h"
#include "app/ExecSession.h"
#include "app/StoreAccess.h"
#include "app/TerminalCommands.h"
#include "host/HostServices.h"
#include "identity/IdentityHistoryErrorCopy.h"
#include "identity/IdentityRepository.h"
#include "store/Database.h"

namespace {

using namespace orvik::app;
namespace identity = orvik::identity;
namespace store = orvik::store;

constexpr int kFailed = 1;
constexpr int kUsage = 2;

int fail(const std::string& message, int status = kFailed) {
    std::cerr << kProgramName << ": " << message << '\n';
    return status;
}

int finishOutput() {
    std::cout.flush();
    return std::cout ? 0 : fail("cannot write to standard output");
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

// What later commands are given to find the same store; the key is never echoed.
std::string storeArgumentsText(const StoreArguments& arguments) {
    return "--db " + shellQuoted(arguments.db) + arguments.keyArgumentsText();
}

// The system log sink that names the store by its absolute path.
identity::IdentityCorrectionWitness::Sink storeLogSink(const StoreArguments& arguments) {
    std::error_code ignored;
    const auto absolute = std::filesystem::absolute(arguments.db, ignored);
    return identity::IdentityCorrectionWitness::systemLogSink(
        absolute.empty() ? arguments.db : absolute.lexically_normal().string());
}

// Edit distance, for suggesting the closest command or option.
std::size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t above = row[j];
            row[j] =
                std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

// The candidate closest to text, when it is close enough to be a likely typo (or
// starts with text).
std::optional<std::string> closest(std::string_view text, const std::vector<std::string>& names) {
    std::optional<std::string> best;
    std::size_t bestDistance = 0;
    for (const auto& name : names) {
        const std::size_t d = name.starts_with(text) && text.size() >= 2 ? 1 : distance(text, name);
        if (!best || d < bestDistance) {
            best = name;
            bestDistance = d;
        }
    }
    if (best && bestDistance <= std::max<std::size_t>(2, text.size() / 3)) {
        return best;
    }
    return std::nullopt;
}

std::vector<std::string> optionNames(const CLI::App& command) {
    std::vector<std::string> names;
    for (const CLI::Option* option : command.get_options()) {
        for (const auto& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
        for (const auto& name : option->get_snames()) {
            names.push_back("-" + name);
        }
    }
    return names;
}

std::vector<std::string> commandNames(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* command : app.get_subcommands({})) {
        names.push_back(command->get_name());
    }
    return names;
}

// The deepest command that was given on the command line.
const CLI::App* parsedCommand(const CLI::App& app) {
    for (const CLI::App* command : app.get_subcommands({})) {
        if (command->parsed()) {
            return command;
        }
    }
    return &app;
}

// A parse error as one line (two with a suggestion), exit status 2.
int usageError(const CLI::App& app, const CLI::ParseError& error) {
    const CLI::App* command = parsedCommand(app);
    const std::string where = command == &app ? std::string() : command->get_name() + ": ";
    const std::string help =
        command == &app ? std::string(kProgramName) + " --help"
                        : std::string(kProgramName) + " " + command->get_name() + " --help";
    if (const auto* extras = dynamic_cast<const CLI::ExtrasError*>(&error); extras != nullptr) {
        const auto remaining = command->remaining();
        for (const auto& extra : remaining) {
            if (!extra.starts_with("-")) {
                continue;
            }
            const auto name = extra.substr(0, extra.find('='));
            std::string message = where + "unknown option '" + name + "'";
            if (const auto suggestion = closest(name, optionNames(*command))) {
                message += "; did you mean '" + *suggestion + "'?";
            }
            return fail(message + "\nSee '" + help + "'.", kUsage);
        }
        if (!remaining.empty()) {
            return fail(
                where + "unexpected argument '" + remaining.front() + "'\nSee '" + help + "'.",
                kUsage);
        }
    }
    return fail(where + error.what() + "\nSee '" + help + "'.", kUsage);
}

// Validates a --limit value: a whole number from 1 on.
std::string checkLimit(const std::string& text) {
    std::int64_t value = 0;
    const auto* end = text.data() + text.size();
    const auto [stop, problem] = std::from_chars(text.data(), end, value);
    if (text.empty() || problem != std::errc() || stop != end) {
        return "'" + text + "' is not a number";
    }
    if (value < 1) {
        return "must be at least 1, not " + text;
    }
    return {};
}

void addLimit(CLI::App& command, std::int64_t& limit, const char* what) {
    command.add_option("--limit", limit, std::string("Show at most this many ") + what)
        ->check(CLI::Validator(checkLimit, "N"))
        ->capture_default_str();
}

void addJson(CLI::App& command, bool& json) {
    command.add_flag("--json", json,
                     "Print the result as one line of JSON, exactly as exec answers it");
}

std::string operationsFooter() {
    std::string footer = "Operations:";
    for (const auto name : ExecSession::availableOperations()) {
        footer += "\n  ";
        footer += name;
    }
    footer += "\n\nThe protocol is described in docs/exec-protocol.md.";
    return footer;
}

// One terminal command: its store arguments, the shared output options and what
// it runs.
struct TerminalCommand {
    CLI::App* app = nullptr;
    StoreArguments store;
    bool json = false;
    std::string subject = "orvik-identity";
    std::function<void(Terminal&)> run;
};

int runTerminal(TerminalCommand& command) {
    identity::IdentityRepository repository(openExistingStore(command.store),
                                            storeLogSink(command.store),
                                            orvik::host::HostServices::reference());
    CliState state = CliState::forStore(command.store.db);
    Terminal terminal{.repository = repository,
                      .state = state,
                      .out = std::cout,
                      .style = Style::forStandardOutput(),
                      .json = command.json,
                      .storeArguments = storeArgumentsText(command.store),
                      .subjectID = command.subject};
    command.run(terminal);
    return finishOutput();
}

int runInit(const StoreArguments& arguments) {
    std::shared_ptr<store::DatabasePool> pool;
    std::error_code ignored;
    const bool created = !std::filesystem::exists(arguments.db, ignored);
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
    if (created && !arguments.passphrase()) {
        warnUnencrypted(arguments.db);
    }
    std::cout << "identity store ready at " << arguments.db << '\n';
    return finishOutput();
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

int runDemo(const StoreArguments& arguments) {
    DemoSummary summary;
    try {
        summary = createDemoStore(arguments.db, arguments.poolOptions(true));
    } catch (const store::DatabaseError& error) {
        return fail("cannot fill the demo store at " + arguments.db + ": " + describe(error));
    } catch (const identity::IdentityStoreError& error) {
        return fail("a correction of the demo failed: " + std::string(error.what()));
    }
    if (!arguments.passphrase()) {
        warnUnencrypted(arguments.db);
    }
    std::cout << "Created a demo identity store at " << arguments.db << '\n';
    printDemoSummary(summary, storeArgumentsText(arguments), std::cout);
    return finishOutput();
}

// A refusal of the store in the words the screens use, with its case (and its
// message) for searching the docs and the log.
std::string describe(const identity::IdentityStoreError& error) {
    const auto diagnostic = identity::IdentityHistoryErrorCopy::diagnosticText(error);
    if (const auto text = identity::IdentityHistoryErrorCopy::memberText(error)) {
        return *text + " (" + diagnostic + ")";
    }
    return "refused: " + diagnostic;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app{
            "Creates an identity store, shows it, corrects it and drives it through "
            "JSON requests.",
            kProgramName};
        app.require_subcommand(1);
        app.set_version_flag("--version", std::string(kProgramName) + " " + ORVIK_VERSION);
        app.footer("Corrections made here go to the system log with the store's path. Run '" +
                   std::string(kProgramName) + " COMMAND --help' for a command's options.");

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
            "file; logs nothing)");
        demoArguments.addTo(*demo);

        std::vector<std::unique_ptr<TerminalCommand>> terminals;
        const auto terminal = [&](const char* name, const char* description, bool corrects) {
            auto& command = *terminals.emplace_back(std::make_unique<TerminalCommand>());
            command.app = app.add_subcommand(name, description);
            command.store.addTo(*command.app);
            addJson(*command.app, command.json);
            if (corrects) {
                command.app
                    ->add_option("--subject", command.subject,
                                 "On whose behalf the correction is recorded")
                    ->capture_default_str();
            }
            return &command;
        };

        // Reads.
        std::int64_t candidatesLimit = 20;
        auto* candidates = terminal(
            "candidates",
            "List pairs of identities that share a handle but not yet a person, numbered for "
            "confirm and reject",
            false);
        addLimit(*candidates->app, candidatesLimit, "candidates");
        candidates->run = [&](Terminal& t) { showCandidates(t, candidatesLimit); };

        std::string personID;
        auto* person =
            terminal("person",
                     "Show a person (or the person of an identity): identities and history", false);
        person->app->add_option("ID", personID, "A person id or a source identity id")->required();
        person->run = [&](Terminal& t) { showPerson(t, personID); };

        std::string historyPerson;
        auto* history = terminal("history", "List the identity corrections of one person", false);
        history->app->add_option("--person", historyPerson, "The person's id")->required();
        history->run = [&](Terminal& t) { showHistory(t, historyPerson); };

        std::string searchQuery;
        std::int64_t searchLimit = 20;
        bool searchPeople = false;
        auto* search = terminal(
            "search",
            "Find source identities by name or handle, or with --people, persons you named", false);
        search->app->add_option("QUERY", searchQuery,
                                "Text to find, taken literally, ignoring case (none: everything)");
        addLimit(*search->app, searchLimit, "results");
        search->app->add_flag("--people", searchPeople, "Search the persons you named instead");
        search->run = [&](Terminal& t) { showSearch(t, searchQuery, searchLimit, searchPeople); };

        auto* readback =
            terminal("readback", "Show the diagnostic counts of the identity store", false);
        readback->run = [&](Terminal& t) { showReadback(t); };

        // Corrections.
        std::string confirmWhich;
        auto* confirm = terminal(
            "confirm", "Confirm a candidate: its two identities are the same person", true);
        confirm->app
            ->add_option("CANDIDATE", confirmWhich,
                         "Its number in the last `candidates` listing, or its id (A|B)")
            ->required();
        confirm->run = [&](Terminal& t) { confirmCandidate(t, confirmWhich); };

        std::string rejectWhich;
        auto* reject =
            terminal("reject", "Reject a candidate: its two identities are different people", true);
        reject->app
            ->add_option("CANDIDATE", rejectWhich,
                         "Its number in the last `candidates` listing, or its id (A|B)")
            ->required();
        reject->run = [&](Terminal& t) { rejectCandidate(t, rejectWhich); };

        std::vector<std::string> linkIDs;
        auto* link =
            terminal("link",
                     "Join two or more identities and persons into one person, overriding earlier "
                     "decisions",
                     true);
        link->app->add_option("ID", linkIDs, "Source identity or person ids (two or more)")
            ->required()
            ->expected(2, 1000);
        link->run = [&](Terminal& t) { linkTargets(t, linkIDs); };

        std::string separateID;
        auto* separate = terminal(
            "separate", "Move an identity out of its person into a person of its own", true);
        separate->app->add_option("IDENTITY", separateID, "The source identity id")->required();
        separate->run = [&](Terminal& t) { separateIdentity(t, separateID); };

        std::vector<std::string> differentIDs;
        auto* different = terminal(
            "different",
            "Mark two persons as different people (splitting them when they were merged)", true);
        different->app
            ->add_option("PERSON", differentIDs,
                         "Two person ids (an identity id stands for its person)")
            ->required()
            ->expected(2);
        different->run = [&](Terminal& t) {
            markDifferent(t, differentIDs.at(0), differentIDs.at(1));
        };

        std::vector<std::string> meHandles;
        auto* me = terminal("me", "Declare handles as your own", true);
        me->app
            ->add_option("HANDLE", meHandles,
                         "Source identity ids, or handles as stored (every identity with it)")
            ->required();
        me->run = [&](Terminal& t) { declareOwn(t, meHandles); };

        std::string undoEntry;
        auto* undo = terminal(
            "undo",
            "Undo a correction: the one of EVENT (as `history` and `person` list them), or "
            "without EVENT the last correction made from the command line",
            false);
        auto* undoEvent = undo->app->add_option("EVENT", undoEntry, "A merge event id");
        undo->run = [&](Terminal& t) {
            undoCorrection(t, undoEvent->count() > 0 ? std::optional(undoEntry) : std::nullopt);
        };

        // An unknown command is reported before anything else is read.
        if (argc > 1 && argv[1][0] != '-') {
            const std::string name = argv[1];
            const auto names = commandNames(app);
            if (std::find(names.begin(), names.end(), name) == names.end()) {
                std::string message = "'" + name + "' is not a command";
                if (const auto suggestion = closest(name, names)) {
                    message += "; did you mean '" + *suggestion + "'?";
                }
                return fail(message + "\nSee '" + kProgramName + " --help'.", kUsage);
            }
        }

        try {
            app.parse(argc, argv);
        } catch (const CLI::CallForHelp& help) {
            return app.exit(help);
        } catch (const CLI::CallForAllHelp& help) {
            return app.exit(help);
        } catch (const CLI::CallForVersion& version) {
            return app.exit(version);
        } catch (const CLI::ParseError& error) {
            return usageError(app, error);
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
            for (auto& command : terminals) {
                if (command->app->parsed()) {
                    return runTerminal(*command);
                }
            }
            return fail("no command given", kUsage);
        } catch (const UsageError& error) {
            return fail(error.what(), kUsage);
        } catch (const CommandError& error) {
            return fail(error.what());
        } catch (const store::DatabaseError& error) {
            return fail(describe(error));
        } catch (const identity::IdentityStoreError& error) {
            return fail(describe(error));
        }
    } catch (const std::exception& error) {
        return fail(error.what());
    } catch (...) {
        return fail("unexpected failure");
    }
}
