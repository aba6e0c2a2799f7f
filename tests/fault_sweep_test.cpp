// Every correction, failed at each of its statements in turn, at its COMMIT, and
// at each write and each sync the disk sees: a failure must leave the store exactly
// as it was and emit nothing; a correction that reports success must be whole.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <optional>

#include "identity/IdentityRepository.h"
#include "tests/support/CorrectionWorkload.h"
#include "tests/support/FaultVfs.h"
#include "tests/support/TestSupport.h"

namespace orvik::identity {
namespace {

using test::Correction;
using World = test::CorrectionWorld;
using Op = Correction::Op;
using test::corrections;

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
