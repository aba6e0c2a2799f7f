// Exact-key candidate discovery and the context shown beside a candidate.
#include <limits>

#include "identity/IdentityRepositoryInternal.h"
#include "identity/IdentityScoring.h"

namespace orvik::identity::internal {

namespace {

// Statement texts are passed to SQLite exactly as written here; the statement
// cache is keyed by them. The pair statement is completed at run time with the
// presentation predicates, which carry no bound parameters.
const std::string kExactKeyPairsHead =
    "SELECT a.id AS a_id, b.id AS b_id\n"
    "FROM source_identity a\n"
    "JOIN source_identity b\n"
    "  ON a.handle_normalized = b.handle_normalized AND a.id < b.id\n"
    "WHERE ";
const std::string kExactKeyPairsAnd = "\n  AND ";
const std::string kExactKeyPairsTail = "\nLIMIT ?";
const std::string kConversationCount =
    "SELECT count(DISTINCT thread_id) FROM thread_participant WHERE source_identity_id = ?";

// Later filters drop pairs, so the pair statement fetches four rows per wanted
// candidate.
constexpr std::int64_t kOverFetch = 4;

std::int64_t pairFetchLimit(std::int64_t limit) {
    if (limit < 1) {
        return kOverFetch;
    }
    if (limit > std::numeric_limits<std::int64_t>::max() / kOverFetch) {
        return std::numeric_limits<std::int64_t>::max();
    }
    return limit * kOverFetch;
}

}  // namespace

std::int64_t RepositoryCore::sharedThreadCount(const std::string& a, const std::string& b,
                                               store::Connection& db) {
    return countSharedThreads(a, b, db);
}

std::vector<IdentityCandidate> RepositoryCore::exactKeyCandidates(std::int64_t limit,
                                                                  store::Connection& db) {
    auto& eligibility = *services_.presentationEligibility;
    const std::string pa =
        eligibility.presentationPredicateSQL("a.id", "a.source_type", std::nullopt);
    const std::string pb =
        eligibility.presentationPredicateSQL("b.id", "b.source_type", std::nullopt);
    const std::string sql = kExactKeyPairsHead + pa + kExactKeyPairsAnd + pb + kExactKeyPairsTail;

    // The pairs are read in full before any follow-up statement runs.
    std::vector<std::pair<std::string, std::string>> pairs;
    pairs.reserve(reservedRows(pairFetchLimit(limit)));
    db.query(sql, {pairFetchLimit(limit)}, [&](const store::Row& row) {
        pairs.emplace_back(row.text(0), row.text(1));  // a_id, b_id
    });

    // The rows are filtered a batch at a time, one test over the whole batch
    // before the next: each statement then runs many times in a row, and the
    // code that serves it stays in the processor's caches. A batch is never
    // longer than the candidates still wanted, since each pair gives at most
    // one, so this reads exactly the rows that testing pair after pair would.
    struct Pending {
        const std::string* aID;
        const std::string* bID;
        const SourceIdentityRow* a = nullptr;
        const SourceIdentityRow* b = nullptr;
        const IdentityMembershipRow* memA = nullptr;
        const IdentityMembershipRow* memB = nullptr;
        bool live = true;
    };
    std::vector<Pending> batch;
    batch.reserve(reservedRows(limit));
    const auto sweep = [&batch](auto&& keep) {
        for (auto& pending : batch) {
            if (pending.live && !keep(pending)) {
                pending.live = false;
            }
        }
    };
    const auto rowPointer = [](const auto& optional) { return optional ? &*optional : nullptr; };

    std::vector<IdentityCandidate> result;
    result.reserve(reservedRows(limit));
    PersonDifferenceIndex personDifferences(*this, db);
    auto next = pairs.begin();
    while (next != pairs.end() && static_cast<std::int64_t>(result.size()) < limit) {
        const auto wanted =
            static_cast<std::size_t>(limit - static_cast<std::int64_t>(result.size()));
        batch.clear();
        for (; next != pairs.end() && batch.size() < wanted; ++next) {
            batch.push_back(Pending{.aID = &next->first, .bID = &next->second});
        }
        // A and B of a pair go through the same statement, one after the other.
        sweep([&](Pending& p) {
            p.a = rowPointer(sourceIdentityRow(*p.aID, db));
            p.b = p.a ? rowPointer(sourceIdentityRow(*p.bID, db)) : nullptr;
            return p.b != nullptr;
        });
        sweep([&](Pending& p) {
            return !isOwnerIdentity(p.a->sourceType, p.a->handleNormalized, db) &&
                   !isOwnerIdentity(p.b->sourceType, p.b->handleNormalized, db);
        });
        sweep([&](Pending& p) {
            p.memA = rowPointer(activeMembershipRow(p.a->id, db));
            p.memB = rowPointer(activeMembershipRow(p.b->id, db));
            return !(p.memA && p.memB && p.memA->canonicalPersonID == p.memB->canonicalPersonID);
        });
        sweep([&](Pending& p) {
            return !hasDifferentConstraint(ConstraintSubjectType::identity, p.a->id,
                                           ConstraintSubjectType::identity, p.b->id, db);
        });
        sweep([&](Pending& p) {
            return !(
                p.memA && p.memB &&
                personDifferences.differ(p.memA->canonicalPersonID, p.memB->canonicalPersonID));
        });
        for (const auto& p : batch) {
            if (!p.live) {
                continue;
            }
            const IdentityFeatures features{
                .exactHandleMatch = true,
                .sharedThreadCount = sharedThreadCount(p.a->id, p.b->id, db),
                .nameSimilarity = std::nullopt,
            };
            const double score = IdentityScoring::score(features);
            if (IdentityScoring::decide(score) != IdentityScoreDecision::worthSurfacing) {
                continue;
            }
            std::optional<std::string> existingPersonID;
            if (p.memA) {
                existingPersonID = p.memA->canonicalPersonID;
            } else if (p.memB) {
                existingPersonID = p.memB->canonicalPersonID;
            }
            result.push_back(IdentityCandidate{
                .sourceIdentityA = *p.a,
                .sourceIdentityB = *p.b,
                .existingPersonID = std::move(existingPersonID),
                .score = score,
                .because = IdentityScoring::because(features),
            });
        }
    }
    return result;
}

std::optional<IdentityCandidateContext> RepositoryCore::candidateContext(
    const std::string& sourceIdentityID, const std::vector<std::string>& relativeTo,
    store::Connection& db) {
    const auto& identity = sourceIdentityRow(sourceIdentityID, db);
    if (!identity) {
        return std::nullopt;
    }
    for (const auto& other : relativeTo) {
        if (other != sourceIdentityID &&
            hasDifferentConstraint(ConstraintSubjectType::identity, sourceIdentityID,
                                   ConstraintSubjectType::identity, other, db)) {
            return std::nullopt;
        }
    }
    const std::int64_t conversationCount =
        db.scalarInteger(kConversationCount, {sourceIdentityID}).value_or(0);
    std::int64_t shared = 0;
    for (const auto& other : relativeTo) {
        if (other != sourceIdentityID) {
            shared += sharedThreadCount(sourceIdentityID, other, db);
        }
    }
    bool exactHandleMatch = false;
    for (const auto& other : relativeTo) {
        const auto& row = sourceIdentityRow(other, db);
        if (row && row->handleNormalized == identity->handleNormalized) {
            exactHandleMatch = true;
            break;
        }
    }
    return IdentityCandidateContext{
        .sourceIdentityID = identity->id,
        .provider = identity->sourceType,
        .displayName = identity->displayName,
        .conversationCount = conversationCount,
        .lastSeenAt = identity->lastSeenAt,
        .sharedThreadCount = shared,
        .exactHandleMatch = exactHandleMatch,
    };
}

}  // namespace orvik::identity::internal
