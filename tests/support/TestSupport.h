// Shared helpers for the test suite: temporary databases with the reference
// schema, seeding shortcuts over the seeding library (host/StoreSeeder.h), and
// whole-store dumps as canonical text.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "store/Database.h"

namespace orvik::test {

// The lines of a dump, but for the projection counter that every correction bumps.
std::set<std::string> dumpLines(const std::string& dump);

// The id of every row, in order.
template <typename Row>
std::vector<std::string> ids(const std::vector<Row>& rows) {
    std::vector<std::string> out;
    for (const auto& row : rows) {
        out.push_back(row.id);
    }
    return out;
}

// An SQL literal: 'text' with quotes doubled, or NULL.
std::string sql(const std::optional<std::string>& value);

// A fresh directory under the system's temporary directory, removed on
// destruction.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }

  private:
    std::filesystem::path path_;
};

inline constexpr const char* kTestKey = "correct horse battery staple";

// A temporary database file holding the reference schema, opened through a pool,
// encrypted with kTestKey or plain.
class TestDatabase {
  public:
    explicit TestDatabase(bool encrypted = false);

    [[nodiscard]] store::DatabasePool& pool() { return *pool_; }
    [[nodiscard]] std::shared_ptr<store::DatabasePool> sharedPool() { return pool_; }
    [[nodiscard]] std::filesystem::path path() const { return dir_.path() / "store.db"; }
    [[nodiscard]] bool encrypted() const noexcept { return encrypted_; }

    // Runs SQL (one or more statements) in one write transaction.
    void exec(const std::string& sql);

    // Every row of the given tables (all tables of the reference schema when
    // empty) as canonical text: tables in name order, rows sorted, columns by name.
    [[nodiscard]] std::string dump(const std::vector<std::string>& tables = {});

    // The result of a query, one string per row: the columns joined by "|", NULL
    // written as NULL. Rows in the order the query returns them.
    [[nodiscard]] std::vector<std::string> rows(const std::string& sql);

    // Seeding shortcuts, one write transaction each. Rows carry a fixed early
    // time, so that they sort before anything an operation writes; for other
    // rows, seed::insert inside pool().write.
    void addPerson(const std::string& id, const std::optional<std::string>& mergedInto = {},
                   const std::optional<std::string>& displayName = {},
                   const std::string& createdFrom = "user_stated");
    void addIdentity(const std::string& id, const std::string& sourceType,
                     const std::string& handle, const std::optional<std::string>& displayName = {});
    void addMembership(const std::string& id, const std::string& identityID,
                       const std::string& personID, const std::string& state = "confirmed",
                       const std::optional<std::string>& endedAt = {},
                       const std::string& decidedBy = "user",
                       const std::optional<std::string>& because = {});
    void addDifferent(const std::string& id, const std::string& aType, const std::string& aID,
                      const std::string& bType, const std::string& bID,
                      const std::optional<std::string>& revokedAt = {},
                      const std::string& decidedBy = "user");

  private:
    TempDir dir_;
    bool encrypted_;
    std::shared_ptr<store::DatabasePool> pool_;
};

}  // namespace orvik::test
