// orvik-identity: creates an identity store and drives it from other processes.
//
//     orvik-identity init --db PATH [--key KEY]   create the schema (idempotent)
//     orvik-identity exec --db PATH [--key KEY]   answer JSON requests on stdin
//
// Failures are reported on stderr as one line with a non-zero exit status.
#include <csignal>
#include <exception>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "app/ExecSession.h"
#include "host/HostServices.h"
#include "store/Database.h"

namespace {

using orvik::app::ExecSession;
namespace store = orvik::store;

constexpr const char* kProgram = "orvik-identity";

// The options every subcommand takes to locate the store.
struct StoreArguments {
    std::string db;
    std::string key;
    CLI::Option* keyOption = nullptr;

    void addTo(CLI::App& command) {
        command.add_option("--db", db, "The database file")->required();
        keyOption =
            command
                .add_option("--key", key,
                            "The SQLCipher passphrase; without it the file is plain SQLite")
                ->check([](const std::string& value) {
                    return value.empty() ? std::string("the key must not be empty") : std::string();
                });
    }

    [[nodiscard]] store::PoolOptions poolOptions(bool create) const {
        store::PoolOptions options;
        if (keyOption->count() > 0) {
            options.key = key;
        }
        options.create = create;
        return options;
    }
};

int fail(const std::string& message) {
    std::cerr << kProgram << ": " << message << '\n';
    return 1;
}

std::string describe(const store::DatabaseError& error) {
    return error.sqliteMessage() + " (SQLite code " + std::to_string(error.code()) + ")";
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
    std::cout << "identity store ready at " << arguments.db << std::endl;
    return 0;
}

int runExec(const StoreArguments& arguments) {
    std::error_code ignored;
    if (!std::filesystem::exists(arguments.db, ignored)) {
        return fail("no database at " + arguments.db + "; create it with `" + kProgram + " init`");
    }
    std::shared_ptr<store::DatabasePool> pool;
    try {
        pool = store::DatabasePool::open(arguments.db, arguments.poolOptions(false));
    } catch (const store::DatabaseError& error) {
        return fail("cannot open " + arguments.db + ": " + describe(error));
    }

    // A reader that goes away closes our output; report that instead of dying of
    // SIGPIPE.
    std::signal(SIGPIPE, SIG_IGN);
    std::ios::sync_with_stdio(false);
    ExecSession session(std::move(pool));
    if (!session.run(std::cin, std::cout)) {
        return fail("cannot write to standard output");
    }
    return 0;
}

std::string operationsFooter() {
    std::string footer = "Operations:";
    for (const auto name : ExecSession::availableOperations()) {
        footer += "\n  ";
        footer += name;
    }
    return footer;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app{"Creates an identity store and drives it through JSON requests.", kProgram};
        app.require_subcommand(1);

        StoreArguments initArguments;
        CLI::App* init =
            app.add_subcommand("init", "Create the database and its schema (safe to repeat)");
        initArguments.addTo(*init);

        StoreArguments execArguments;
        CLI::App* exec = app.add_subcommand(
            "exec", "Answer JSON requests on stdin, one per line, with one JSON line each");
        execArguments.addTo(*exec);
        exec->footer(operationsFooter());

        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error);
        }

        if (init->parsed()) {
            return runInit(initArguments);
        }
        return runExec(execArguments);
    } catch (const std::exception& error) {
        return fail(error.what());
    } catch (...) {
        return fail("unexpected failure");
    }
}
