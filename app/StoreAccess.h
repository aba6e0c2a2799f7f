// Locating and opening the identity store for the subcommands of orvik-identity,
// and the one error type those subcommands report.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
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

// The name of the environment variable that may hold the SQLCipher passphrase.
inline constexpr const char* kKeyEnvironmentVariable = "ORVIK_IDENTITY_KEY";

// The options every subcommand takes to locate the store and unlock it. The
// passphrase comes from, in this order: --key, --key-file, --ask-key (a prompt on
// the terminal), the environment variable kKeyEnvironmentVariable; and when the
// store turns out to be encrypted and none was given, from a prompt when standard
// input is a terminal.
struct StoreArguments {
    std::string db;
    std::string key;
    std::string keyFile;
    bool askKey = false;
    CLI::Option* keyOption = nullptr;
    CLI::Option* keyFileOption = nullptr;

    // Adds --db (required, not empty), --key, --key-file and --ask-key to command.
    void addTo(CLI::App& command);

    // The passphrase, resolved once (reading the key file, the environment or the
    // terminal); absent for a plain store. Throws CommandError when the key file
    // cannot be read or a key is empty.
    [[nodiscard]] const std::optional<std::string>& passphrase() const;

    // The passphrase as resolved, and create as asked.
    [[nodiscard]] store::PoolOptions poolOptions(bool create) const;

    // How a later command gives the same key, without the key itself: " --key KEY",
    // " --key-file PATH", or nothing (environment, prompt, or no key).
    [[nodiscard]] std::string keyArgumentsText() const;

    // Asks for the passphrase on the terminal without echo when standard input is
    // one; false otherwise.
    bool promptForKey() const;

  private:
    mutable bool resolved_ = false;
    mutable std::optional<std::string> passphrase_;
};

// Warns on stderr that the store at path is created without encryption.
void warnUnencrypted(const std::string& path);

// SQLite's message with its result code, for one-line reports.
[[nodiscard]] std::string describe(const store::DatabaseError& error);

// Opens a store that must already exist. Throws CommandError naming the file when
// there is none (nothing is created) or when it cannot be opened: not a database,
// the wrong key, no key for an encrypted file.
[[nodiscard]] std::shared_ptr<store::DatabasePool> openExistingStore(
    const StoreArguments& arguments);

}  // namespace orvik::app
