#include "tests/support/TestSupport.h"

#include <algorithm>
#include <random>
#include <sstream>

#include "host/HostServices.h"
#include "host/StoreSeeder.h"

namespace orvik::test {

TempDir::TempDir() {
    std::random_device rd;
    for (int attempt = 0; attempt < 100; ++attempt) {
        auto candidate = std::filesystem::temp_directory_path() /
                         ("orvik-test-" + std::to_string(rd()) + std::to_string(rd()));
        if (std::filesystem::create_directory(candidate)) {
            path_ = candidate;
            return;
        }
    }
    throw std::runtime_error("cannot create a temporary directory");
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

TestDatabase::TestDatabase(bool encrypted) : encrypted_(encrypted) {
    store::PoolOptions options;
    options.create = true;
    if (encrypted) {
        options.key = kTestKey;
    }
    pool_ = store::DatabasePool::open(path(), options);
    pool_->write([](store::Connection& db) { host::createReferenceSchema(db); });
}

std::set<std::string> dumpLines(const std::string& dump) {
    std::set<std::string> out;
    std::istringstream in(dump);
    for (std::string line; std::getline(in, line);) {
        if (!line.starts_with("relationship_projection_generation(")) {
            out.insert(line);
        }
    }
    return out;
}

std::string sql(const std::optional<std::string>& value) {
    if (!value) {
        return "NULL";
    }
    std::string out = "'";
    for (char c : *value) {
        out += c == '\'' ? std::string("''") : std::string(1, c);
    }
    return out + "'";
}

namespace {

// Rows a test seeds carry this time, early enough to sort before anything an
// operation writes.
const std::string kSeededAt = "2020-01-01T00:00:00Z";
const std::string kSeenLastAt = "2020-01-02T00:00:00Z";

}  // namespace

void TestDatabase::addPerson(const std::string& id, const std::optional<std::string>& mergedInto,
                             const std::optional<std::string>& displayName,
                             const std::string& createdFrom) {
    pool_->write([&](store::Connection& db) {
        seed::insert(db, seed::Person{.id = id,
                                      .displayName = displayName,
                                      .createdFrom = createdFrom,
                                      .mergedIntoPersonID = mergedInto,
                                      .createdAt = kSeededAt});
    });
}

void TestDatabase::addIdentity(const std::string& id, const std::string& sourceType,
                               const std::string& handle,
                               const std::optional<std::string>& displayName) {
    pool_->write([&](store::Connection& db) {
        seed::insert(db, seed::SourceIdentity{.id = id,
                                              .sourceType = sourceType,
                                              .handleNormalized = handle,
                                              .displayName = displayName,
                                              .firstSeenAt = kSeededAt,
                                              .lastSeenAt = kSeenLastAt,
                                              .createdAt = kSeededAt});
    });
}

void TestDatabase::addMembership(const std::string& id, const std::string& identityID,
                                 const std::string& personID, const std::string& state,
                                 const std::optional<std::string>& endedAt,
                                 const std::string& decidedBy,
                                 const std::optional<std::string>& because) {
    pool_->write([&](store::Connection& db) {
        seed::insert(db, seed::Membership{.id = id,
                                          .sourceIdentityID = identityID,
                                          .canonicalPersonID = personID,
                                          .state = state,
                                          .because = because,
                                          .decidedBy = decidedBy,
                                          .decidedAt = kSeededAt,
                                          .endedAt = endedAt,
                                          .createdAt = kSeededAt});
    });
}

void TestDatabase::addDifferent(const std::string& id, const std::string& aType,
                                const std::string& aID, const std::string& bType,
                                const std::string& bID, const std::optional<std::string>& revokedAt,
                                const std::string& decidedBy) {
    pool_->write([&](store::Connection& db) {
        seed::insert(db, seed::Constraint{.id = id,
                                          .aType = aType,
                                          .aID = aID,
                                          .bType = bType,
                                          .bID = bID,
                                          .decidedBy = decidedBy,
                                          .createdAt = kSeededAt,
                                          .revokedAt = revokedAt});
    });
}

void TestDatabase::exec(const std::string& sql) {
    pool_->write([&](store::Connection& db) { db.executeScript(sql); });
}

std::string TestDatabase::dump(const std::vector<std::string>& tables) {
    return pool_->read([&](store::Connection& db) {
        std::vector<std::string> names = tables;
        if (names.empty()) {
            db.query("SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name", {},
                     [&](const store::Row& row) { names.push_back(row.text(0)); });
        }
        std::sort(names.begin(), names.end());
        std::string out;
        for (const auto& table : names) {
            std::vector<std::string> rows;
            db.query("SELECT * FROM " + table, {}, [&](const store::Row& row) {
                std::vector<std::pair<std::string, std::string>> cells;
                for (int i = 0; i < row.columnCount(); ++i) {
                    cells.emplace_back(row.columnName(i),
                                       row.isNull(i) ? "NULL" : "'" + row.text(i) + "'");
                }
                std::sort(cells.begin(), cells.end());
                std::string line = table + "(";
                for (std::size_t i = 0; i < cells.size(); ++i) {
                    line += (i ? "," : "") + cells[i].first + "=" + cells[i].second;
                }
                rows.push_back(line + ")");
            });
            std::sort(rows.begin(), rows.end());
            for (const auto& line : rows) {
                out += line + "\n";
            }
        }
        return out;
    });
}

std::vector<std::string> TestDatabase::rows(const std::string& sql) {
    return pool_->read([&](store::Connection& db) {
        std::vector<std::string> out;
        db.query(sql, {}, [&](const store::Row& row) {
            std::string line;
            for (int i = 0; i < row.columnCount(); ++i) {
                line += (i ? "|" : "") + (row.isNull(i) ? std::string("NULL") : row.text(i));
            }
            out.push_back(std::move(line));
        });
        return out;
    });
}

}  // namespace orvik::test
