// Every correction, failed at each of its statements in turn, at its COMMIT, and
// at each write and each sync the disk sees: a failure must leave the store exactly
// as it was and emit nothing; a correction that reports success must be whole.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <optional>

#include "identity/IdentityRepository.h"
#include "tests/support/FaultVfs.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using Event = IdentityCorrectionWitness::Event;
using Op = std::function<void()>;
constexpr auto kLineage = SubjectLineage::person;

// Persons pA (identities iA1, iA2), pB (iB1) and pC (iC1); unaffiliated iN1 and
// iN2 with one handle, and iX.
struct World {
    test::TestDatabase db;
    std::shared_ptr<store::DatabasePool> pool;
    std::vector<Event> events;
    std::unique_ptr<IdentityRepository> repo;

    // pool: the repository's pool; the database's own when absent.
    explicit World(const std::string& vfs = {}) {
        for (const auto& [person, name] : {std::pair{"pA", "Ann"}, {"pB", "Bob"}, {"pC", "Cy"}}) {
            db.addPerson(person, std::nullopt, std::string(name));
        }
        db.addIdentity("iA1", "gmail", "ann@example.com", "Ann");
        db.addIdentity("iA2", "outlook", "ann@work.example", "Ann");
        db.addIdentity("iB1", "outlook", "ann@example.com", "Ann B");
        db.addIdentity("iC1", "imessage", "+15550001", "Cy");
        db.addIdentity("iN1", "gmail", "new@example.com", "New");
        db.addIdentity("iN2", "outlook", "new@example.com", "New");
        db.addIdentity("iX", "gmail", "me@example.com");
        db.addMembership("m1", "iA1", "pA");
        db.addMembership("m2", "iA2", "pA");
        db.addMembership("m3", "iB1", "pB");
        db.addMembership("m4", "iC1", "pC");
        if (vfs.empty()) {
            pool = db.sharedPool();
        } else {
            store::PoolOptions options;
            options.vfs = vfs;
            pool = store::DatabasePool::open(db.path(), options);
        }
        repo = std::make_unique<IdentityRepository>(
            pool, [this](const Event& e) { events.push_back(e); });
    }

    SourceIdentityRow row(const std::string& id) { return repo->sourceIdentity(id).value(); }
    IdentityCandidate candidate(const std::string& a, const std::string& b) {
        return IdentityCandidate{.sourceIdentityA = row(a),
                                 .sourceIdentityB = row(b),
                                 .existingPersonID = std::nullopt,
                                 .score = 0.9,
                                 .because = "same handle"};
    }

    // Rows per table: what a whole correction must have written.
    std::map<std::string, std::string> shape() {
        std::map<std::string, std::string> counts;
        for (const char* table : {"person", "identity_membership", "identity_constraint",
                                  "merge_event", "user_correction", "owner_alias"}) {
            counts[table] = db.rows(std::string("SELECT count(*) FROM ") + table)[0];
        }
        counts["live"] =
            db.rows("SELECT count(*) FROM identity_membership WHERE ended_at IS NULL")[0];
        return counts;
    }
};

struct Correction {
    const char* name;
    std::function<Op(World&)> prepare;
};

const std::vector<Correction>& corrections() {
    static const std::vector<Correction> all = {
        {"linkIdentity",
         [](World& w) { return Op([&w] {
                            w.repo->linkIdentity({"pA", "iN1", true});
                        }); }},
        {"proposeMerge",
         [](World& w) {
             return Op([&w] {
                 w.repo->proposeMerge({std::nullopt, "pA", "pB", "s", kLineage, true});
             });
         }},
        {"markDifferent",
         [](World& w) {
             return Op([&w] {
                 w.repo->markDifferent({"not the same", std::nullopt, "pA", "pC", "s", kLineage});
             });
         }},
        {"confirmCandidate merge",
         [](World& w) {
             return Op(
                 [&w] { w.repo->confirmCandidate(w.candidate("iA1", "iB1"), kLineage, "s"); });
         }},
        {"confirmCandidate stub",
         [](World& w) {
             return Op(
                 [&w] { w.repo->confirmCandidate(w.candidate("iN1", "iN2"), kLineage, "s"); });
         }},
        {"rejectCandidate",
         [](World& w) {
             return Op([&w] { w.repo->rejectCandidate(w.candidate("iA1", "iC1"), kLineage, "s"); });
         }},
        {"confirmManualLink pair",
         [](World& w) {
             return Op(
                 [&w] { w.repo->confirmManualLink(w.row("iA1"), w.row("iC1"), kLineage, "s"); });
         }},
        {"confirmManualLink targets",
         [](World& w) {
             return Op([&w] {
                 w.repo->confirmManualLink(
                     {ManualLinkTarget::person("pB"), ManualLinkTarget::identity(w.row("iN1"))},
                     kLineage, "s");
             });
         }},
        {"batchConfirmManualLink",
         [](World& w) {
             return Op([&w] {
                 w.repo->batchConfirmManualLink({w.row("iN1"), w.row("iN2"), w.row("iX")}, kLineage,
                                                "s");
             });
         }},
        {"separateIdentity",
         [](World& w) { return Op([&w] { w.repo->separateIdentity("iA2", "s"); }); }},
        {"undoMerge",
         [](World& w) {
             const auto ids =
                 w.repo->confirmCandidate(w.candidate("iA1", "iB1"), kLineage, "s").mergeEventIDs;
             return Op([&w, ids] { w.repo->undoMerge(ids.at(0)); });
         }},
        {"undoConfirmation",
         [](World& w) {
             const auto ids =
                 w.repo->confirmCandidate(w.candidate("iN1", "iA1"), kLineage, "s").mergeEventIDs;
             return Op([&w, ids] { w.repo->undoConfirmation(ids); });
         }},
        {"declareOwnerAlias",
         [](World& w) { return Op([&w] { w.repo->declareOwnerAlias("iX", "s"); }); }},
        {"batchDeclareOwnerAlias",
         [](World& w) { return Op([&w] {
                            w.repo->batchDeclareOwnerAlias({"iX", "iA2"}, "s");
                        }); }},
        {"undoOwnerAliasMutation",
         [](World& w) {
             const auto mutation = w.repo->batchDeclareOwnerAlias({"iX", "iA2"}, "s").mutation;
             return Op([&w, mutation] { w.repo->undoOwnerAliasMutation(mutation); });
         }},
    };
    return all;
}

// The shape of the store after the correction ran without a fault.
std::map<std::string, std::string> cleanShape(const Correction& correction,
                                              const std::string& vfs = {}) {
    World w(vfs);
    const Op op = correction.prepare(w);
    op();
    return w.shape();
}

TEST(FaultSweep, EveryStatementAndTheCommitOfEveryCorrection) {
    for (const auto& correction : corrections()) {
        SCOPED_TRACE(correction.name);
        const auto whole = cleanShape(correction);
        auto w = std::make_unique<World>();
        Op op = correction.prepare(*w);
        bool ranThrough = false;
        for (int n = 1; n < 2000 && !ranThrough; ++n) {
            SCOPED_TRACE("fault at statement " + std::to_string(n));
            const std::string before = w->db.dump();
            w->events.clear();
            w->pool->armFault(
                {.failAtStatement = n, .code = 10, .writesOnly = true, .fired = false});
            bool threw = false;
            try {
                op();
            } catch (const store::DatabaseError&) {
                threw = true;
            }
            const bool fired = w->pool->faultFired();
            w->pool->disarmFault();
            if (threw) {
                EXPECT_TRUE(fired);
                EXPECT_EQ(w->db.dump(), before);
                EXPECT_TRUE(w->events.empty());
                continue;
            }
            // Reported success (a failed read it can do without may have been
            // absorbed): the correction is whole.
            EXPECT_EQ(w->shape(), whole);
            ranThrough = !fired;
            w = std::make_unique<World>();
            op = correction.prepare(*w);
        }
        EXPECT_TRUE(ranThrough);

        const std::string before = w->db.dump();
        w->events.clear();
        w->pool->armFault({.failAtStatement = store::FaultPlan::atCommit,
                           .code = 10,
                           .writesOnly = true,
                           .fired = false});
        EXPECT_THROW(op(), store::DatabaseError);
        w->pool->disarmFault();
        EXPECT_EQ(w->db.dump(), before);
        EXPECT_TRUE(w->events.empty());
        // The writer is free again: the correction now runs whole.
        op();
        EXPECT_EQ(w->shape(), whole);
    }
}

TEST(FaultSweep, EveryWriteAndSyncOfEveryCorrectionFailsCleanly) {
    const std::string vfs = test::FaultVfs::name();
    for (const auto target : {test::FaultVfs::Target::write, test::FaultVfs::Target::sync}) {
        for (const auto& correction : corrections()) {
            SCOPED_TRACE(std::string(correction.name) +
                         (target == test::FaultVfs::Target::write ? " write" : " sync"));
            const auto whole = cleanShape(correction, vfs);
            bool reachedEnd = false;
            for (int n = 1; n < 500 && !reachedEnd; ++n) {
                SCOPED_TRACE("I/O fault at " + std::to_string(n));
                World w(vfs);
                const Op op = correction.prepare(w);
                const std::string before = w.db.dump();
                w.events.clear();
                test::FaultVfs::arm(target, n);
                bool threw = false;
                try {
                    op();
                } catch (const store::DatabaseError&) {
                    threw = true;
                }
                const bool fired = test::FaultVfs::fired();
                test::FaultVfs::disarm();
                reachedEnd = !fired;
                if (threw) {
                    EXPECT_EQ(w.db.dump(), before);
                    EXPECT_TRUE(w.events.empty());
                } else {
                    EXPECT_EQ(w.shape(), whole);
                }
                // Whatever happened, the file is sound and reopens to the same state.
                w.repo.reset();
                w.pool.reset();
                auto reopened = store::DatabasePool::open(w.db.path());
                EXPECT_EQ(reopened->read([](store::Connection& db) {
                    return db.scalarInteger("SELECT count(*) FROM person").value_or(-1);
                }),
                          std::stoll(w.db.rows("SELECT count(*) FROM person")[0]));
                EXPECT_EQ(w.db.rows("PRAGMA integrity_check"), std::vector<std::string>{"ok"});
            }
            EXPECT_TRUE(reachedEnd);
        }
    }
}

}  // namespace
}  // namespace orvik::identity
