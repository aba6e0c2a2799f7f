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

    std::vector<IdentityCandidate> result;
    result.reserve(reservedRows(limit));
    PersonDifferenceIndex personDifferences(*this, db);
    for (const auto& [aID, bID] : pairs) {
        if (static_cast<std::int64_t>(result.size()) >= limit) {
            break;
        }
        const auto& a = sourceIdentityRow(aID, db);
        if (!a) {
            continue;
        }
        const auto& b = sourceIdentityRow(bID, db);
        if (!b) {
            continue;
        }
        if (isOwnerIdentity(a->sourceType, a->handleNormalized, db) ||
            isOwnerIdentity(b->sourceType, b->handleNormalized, db)) {
            continue;
        }
        const auto& memA = activeMembershipRow(a->id, db);
        const auto& memB = activeMembershipRow(b->id, db);
        if (memA && memB && memA->canonicalPersonID == memB->canonicalPersonID) {
            continue;
        }
        if (hasDifferentConstraint(ConstraintSubjectType::identity, a->id,
                                   ConstraintSubjectType::identity, b->id, db)) {
            continue;
        }
        if (memA && memB &&
            personDifferences.differ(memA->canonicalPersonID, memB->canonicalPersonID)) {
            continue;
        }
        const IdentityFeatures features{
            .exactHandleMatch = true,
            .sharedThreadCount = sharedThreadCount(a->id, b->id, db),
            .nameSimilarity = std::nullopt,
        };
        const double score = IdentityScoring::score(features);
        if (IdentityScoring::decide(score) != IdentityScoreDecision::worthSurfacing) {
            continue;
        }
        std::optional<std::string> existingPersonID;
        if (memA) {
            existingPersonID = memA->canonicalPersonID;
        } else if (memB) {
            existingPersonID = memB->canonicalPersonID;
        }
        result.push_back(IdentityCandidate{
            .sourceIdentityA = *a,
            .sourceIdentityB = *b,
            .existingPersonID = std::move(existingPersonID),
            .score = score,
            .because = IdentityScoring::because(features),
        });
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
