#include "app/StoreAccess.h"

#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <system_error>

namespace orvik::app {

namespace {

std::string nonEmpty(const std::string& value, const char* what) {
    return value.empty() ? std::string(what) + " must not be empty" : std::string();
}

// A key file holds the passphrase; one final line break is not part of it.
std::string readKeyFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw CommandError("cannot read the key file " + path + ": " + std::strerror(errno));
    }
    std::stringstream bytes;
    bytes << in.rdbuf();
    std::string key = bytes.str();
    if (key.ends_with("\r\n")) {
        key.resize(key.size() - 2);
    } else if (key.ends_with('\n')) {
        key.pop_back();
    }
    if (key.empty()) {
        throw CommandError("the key file " + path + " is empty");
    }
    return key;
}

// Reads one line from the terminal on standard input with echo off.
std::optional<std::string> readHidden(const std::string& prompt) {
    if (::isatty(STDIN_FILENO) == 0) {
        return std::nullopt;
    }
    std::cerr << prompt << std::flush;
    termios saved{};
    const bool haveTerminal = ::tcgetattr(STDIN_FILENO, &saved) == 0;
    if (haveTerminal) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    }
    std::string line;
    const bool read = static_cast<bool>(std::getline(std::cin, line));
    if (haveTerminal) {
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    }
    std::cerr << '\n';
    if (!read) {
        return std::nullopt;
    }
    return line;
}

}  // namespace

void StoreArguments::addTo(CLI::App& command) {
    command.add_option("--db", db, "The database file")
        ->required()
        ->check([](const std::string& v) { return nonEmpty(v, "the database path"); });
    keyOption = command
                    .add_option("--key", key,
                                "The SQLCipher passphrase. Visible to other users of this "
                                "machine in the process list: prefer --key-file, --ask-key or " +
                                    std::string(kKeyEnvironmentVariable))
                    ->check([](const std::string& v) { return nonEmpty(v, "the key"); });
    keyFileOption =
        command
            .add_option("--key-file", keyFile,
                        "Read the SQLCipher passphrase from this file (one final line break is "
                        "ignored)")
            ->excludes(keyOption);
    command
        .add_flag("--ask-key", askKey,
                  "Ask for the SQLCipher passphrase on the terminal, without echo")
        ->excludes(keyOption)
        ->excludes(keyFileOption);
    command.footer(
        "Without a key the file is plain SQLite. The passphrase may also be given in the "
        "environment variable " +
        std::string(kKeyEnvironmentVariable) +
        "; for an encrypted store opened without one, it is asked for on the terminal.");
}

const std::optional<std::string>& StoreArguments::passphrase() const {
    if (resolved_) {
        return passphrase_;
    }
    if (keyOption != nullptr && keyOption->count() > 0) {
        passphrase_ = key;
    } else if (keyFileOption != nullptr && keyFileOption->count() > 0) {
        passphrase_ = readKeyFile(keyFile);
    } else if (askKey) {
        auto typed = readHidden("Passphrase for " + db + ": ");
        if (!typed) {
            throw CommandError("--ask-key needs a terminal on standard input");
        }
        if (typed->empty()) {
            throw CommandError("the key must not be empty");
        }
        passphrase_ = std::move(*typed);
    } else if (const char* fromEnvironment = std::getenv(kKeyEnvironmentVariable);
               fromEnvironment != nullptr) {
        if (*fromEnvironment == '\0') {
            throw CommandError(std::string(kKeyEnvironmentVariable) + " is set but empty");
        }
        passphrase_ = fromEnvironment;
    }
    resolved_ = true;
    return passphrase_;
}

bool StoreArguments::promptForKey() const {
    auto typed = readHidden("Passphrase for " + db + ": ");
    if (!typed || typed->empty()) {
        return false;
    }
    passphrase_ = std::move(*typed);
    resolved_ = true;
    return true;
}

store::PoolOptions StoreArguments::poolOptions(bool create) const {
    store::PoolOptions options;
    options.key = passphrase();
    options.create = create;
    return options;
}

std::string StoreArguments::keyArgumentsText() const {
    if (keyOption != nullptr && keyOption->count() > 0) {
        return " --key KEY";
    }
    if (keyFileOption != nullptr && keyFileOption->count() > 0) {
        return " --key-file " + keyFile;
    }
    return {};
}

void warnUnencrypted(const std::string& path) {
    std::cerr << kProgramName << ": warning: " << path
              << " is not encrypted; give a passphrase with --key-file, --ask-key or "
              << kKeyEnvironmentVariable << " to create an encrypted store\n";
}

std::string describe(const store::DatabaseError& error) {
    return error.sqliteMessage() + " (SQLite code " + std::to_string(error.code()) + ")";
}

std::shared_ptr<store::DatabasePool> openExistingStore(const StoreArguments& arguments) {
    std::error_code ignored;
    if (!std::filesystem::exists(arguments.db, ignored)) {
        throw CommandError("no database at " + arguments.db + "; create it with `" + kProgramName +
                           " init`");
    }
    try {
        return store::DatabasePool::open(arguments.db, arguments.poolOptions(false));
    } catch (const store::DatabaseError& error) {
        // An encrypted store opened without a key: ask for it at a terminal.
        if (error.primaryCode() == 26 /* SQLITE_NOTADB */ && !arguments.passphrase() &&
            arguments.promptForKey()) {
            try {
                return store::DatabasePool::open(arguments.db, arguments.poolOptions(false));
            } catch (const store::DatabaseError& retried) {
                throw CommandError("cannot open " + arguments.db + ": " + describe(retried));
            }
        }
        throw CommandError("cannot open " + arguments.db + ": " + describe(error));
    }
}

}  // namespace orvik::app
