// Locating and opening the identity store for the subcommands of orvik-identity,
// and the one error type those subcommands report.
#pragma once

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include <CLI/CLI.hpp>

#include "store/Database.h"

namespace orvik::app {

inline constexpr const char* kProgramName = "orvik-identity";

// A failure that the program reports as one line on stderr, exiting non-zero. The
// message is complete: it names the file or the value at fault.
class CommandError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A command line that cannot be understood: reported like CommandError, with the
// exit status of a usage error (2).
class UsageError : public CommandError {
  public:
    using CommandError::CommandError;
};

// The options every subcommand takes to locate the store.
struct StoreArguments {
    std::string db;
    std::string key;
    CLI::Option* keyOption = nullptr;

    // Adds --db (required) and --key (optional, never empty) to command.
    void addTo(CLI::App& command);

    // The key when --key was given; create as asked.
    [[nodiscard]] store::PoolOptions poolOptions(bool create) const;
};

// SQLite's message with its result code, for one-line reports.
[[nodiscard]] std::string describe(const store::DatabaseError& error);

// Opens a store that must already exist. Throws CommandError naming the file when
// there is none (nothing is created) or when it cannot be opened: not a database,
// the wrong key, no key for an encrypted file.
[[nodiscard]] std::shared_ptr<store::DatabasePool> openExistingStore(
    const StoreArguments& arguments);

}  // namespace orvik::app
