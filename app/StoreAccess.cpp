#include "app/StoreAccess.h"

#include <system_error>

namespace orvik::app {

void StoreArguments::addTo(CLI::App& command) {
    command.add_option("--db", db, "The database file")->required();
    keyOption =
        command
            .add_option("--key", key,
                        "The SQLCipher passphrase; without it the file is plain SQLite")
            ->check([](const std::string& value) {
                return value.empty() ? std::string("the key must not be empty") : std::string();
            });
}

store::PoolOptions StoreArguments::poolOptions(bool create) const {
    store::PoolOptions options;
    if (keyOption != nullptr && keyOption->count() > 0) {
        options.key = key;
    }
    options.create = create;
    return options;
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
        throw CommandError("cannot open " + arguments.db + ": " + describe(error));
    }
}

}  // namespace orvik::app
