#include "app/StoreCheck.h"

#include <ostream>
#include <unordered_map>

#include "identity/IdentityModels.h"

namespace orvik::app {

namespace {

constexpr std::size_t kProblemsShown = 10;
constexpr int kMaxChainHops = 20;

// Collects problems, keeping the first few texts and counting the rest.
class Problems {
  public:
    void add(std::string text) {
        ++count_;
        if (texts_.size() < kProblemsShown) {
            texts_.push_back(std::move(text));
        }
    }
    StoreCheckReport::Finding finding(std::string check) && {
        if (count_ > texts_.size()) {
            texts_.push_back("... and " + std::to_string(count_ - texts_.size()) + " more");
        }
        return {std::move(check), std::move(texts_)};
    }

  private:
    std::vector<std::string> texts_;
    std::size_t count_ = 0;
};

StoreCheckReport::Finding integrity(store::Connection& db) {
    Problems problems;
    db.query("PRAGMA integrity_check", {}, [&](const store::Row& row) {
        if (row.text(0) != "ok") {
            problems.add(row.text(0));
        }
    });
    return std::move(problems).finding("integrity_check");
}

StoreCheckReport::Finding oneActiveMembership(store::Connection& db) {
    Problems problems;
    db.query(
        "SELECT source_identity_id, count(*) AS n FROM identity_membership WHERE ended_at IS NULL "
        "AND state IN ('high_conf','confirmed') GROUP BY source_identity_id HAVING count(*) > 1",
        {}, [&](const store::Row& row) {
            problems.add("identity " + row.text(0) + " has " + std::to_string(row.integer(1)) +
                         " active memberships");
        });
    return std::move(problems).finding("at most one active membership per identity");
}

StoreCheckReport::Finding chainsEnd(store::Connection& db) {
    std::unordered_map<std::string, std::optional<std::string>> mergedInto;
    db.query("SELECT id, merged_into_person_id FROM person", {}, [&](const store::Row& row) {
        mergedInto.emplace(row.text(0),
                           row.isNull(1) ? std::nullopt : std::optional<std::string>(row.text(1)));
    });
    Problems problems;
    for (const auto& [id, next] : mergedInto) {
        if (!next) {
            continue;
        }
        std::string at = id;
        int hops = 0;
        for (;;) {
            const auto it = mergedInto.find(at);
            if (it == mergedInto.end()) {
                problems.add("person " + id + " is absorbed into missing person " + at);
                break;
            }
            if (!it->second) {
                break;
            }
            if (++hops > kMaxChainHops) {
                problems.add("the absorption chain of person " + id + " does not end within " +
                             std::to_string(kMaxChainHops) + " hops");
                break;
            }
            at = *it->second;
        }
    }
    return std::move(problems).finding("absorption chains end at a live person");
}

StoreCheckReport::Finding constraintSubjectsExist(store::Connection& db) {
    Problems problems;
    for (const char* side : {"a", "b"}) {
        const std::string type = std::string(side) + "_type";
        const std::string id = std::string(side) + "_id";
        db.query("SELECT c.id, c." + type + ", c." + id +
                     " FROM identity_constraint c WHERE c.revoked_at IS NULL AND NOT ("
                     "(c." +
                     type + " = 'person' AND EXISTS (SELECT 1 FROM person p WHERE p.id = c." + id +
                     ")) OR (c." + type +
                     " = 'identity' AND EXISTS (SELECT 1 FROM source_identity s WHERE s.id = c." +
                     id + ")))",
                 {}, [&](const store::Row& row) {
                     problems.add("live constraint " + row.text(0) + " names " + row.text(1) + " " +
                                  row.text(2) + ", which does not exist");
                 });
    }
    return std::move(problems).finding("live constraints name existing subjects");
}

StoreCheckReport::Finding snapshotsDecode(store::Connection& db) {
    Problems problems;
    db.query("SELECT id, pre_merge_state_json FROM merge_event", {}, [&](const store::Row& row) {
        if (!identity::decodeMergePreState(row.text(1))) {
            problems.add("merge event " + row.text(0) + " has a snapshot that does not decode");
        }
    });
    return std::move(problems).finding("every merge snapshot decodes");
}

std::int64_t count(store::Connection& db, const std::string& sql) {
    return db.scalarInteger(sql).value_or(0);
}

}  // namespace

bool StoreCheckReport::healthy() const {
    for (const auto& finding : findings) {
        if (!finding.problems.empty()) {
            return false;
        }
    }
    return true;
}

StoreCheckReport checkStore(store::DatabasePool& pool) {
    return pool.read([](store::Connection& db) {
        StoreCheckReport report;
        report.findings.push_back(integrity(db));
        report.findings.push_back(oneActiveMembership(db));
        report.findings.push_back(chainsEnd(db));
        report.findings.push_back(constraintSubjectsExist(db));
        report.findings.push_back(snapshotsDecode(db));
        report.identities = count(db, "SELECT count(*) FROM source_identity");
        report.livePersons =
            count(db, "SELECT count(*) FROM person WHERE merged_into_person_id IS NULL");
        report.activeMemberships = count(db,
                                         "SELECT count(*) FROM identity_membership WHERE ended_at "
                                         "IS NULL AND state IN ('high_conf','confirmed')");
        report.liveConstraints =
            count(db, "SELECT count(*) FROM identity_constraint WHERE revoked_at IS NULL");
        report.mergeEvents = count(db, "SELECT count(*) FROM merge_event");
        return report;
    });
}

void printStoreCheck(const StoreCheckReport& report, std::ostream& out) {
    for (const auto& finding : report.findings) {
        out << (finding.problems.empty() ? "ok      " : "FAILED  ") << finding.check << '\n';
        for (const auto& problem : finding.problems) {
            out << "        " << problem << '\n';
        }
    }
    out << report.identities << " identities, " << report.livePersons << " live persons, "
        << report.activeMemberships << " active memberships, " << report.liveConstraints
        << " live constraints, " << report.mergeEvents << " merge events\n";
    out << (report.healthy() ? "the store is sound" : "the store has problems") << '\n';
}

}  // namespace orvik::app
