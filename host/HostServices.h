// Services of the application's sibling modules that the identity library calls,
// as interfaces, with reference implementations that follow the host contract.
//
// The repository receives a HostServices at construction. An application passes
// its own implementations; the CLI, the desktop app, the tests and the benchmarks
// use HostServices::reference(). A test may substitute one service (for example an
// eligibility service that fails) and keep the others.
//
// Every operation that takes a Connection runs inside the caller's open
// transaction and never opens one of its own. Any of them may throw the store's
// DatabaseError.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "store/Database.h"

namespace orvik::host {

// Deterministic identifier from ordered text parts: SHA-256 of the parts joined by
// the byte 0x1F, first 16 bytes as lower-case hex grouped 8-4-4-4-12.
[[nodiscard]] std::string stableIDOf(const std::vector<std::string_view>& parts);

template <typename... Parts>
[[nodiscard]] std::string stableID(const Parts&... parts) {
    return stableIDOf({std::string_view(parts)...});
}

// A fresh random UUID in lower case.
[[nodiscard]] std::string newUUID();

// Now, as ISO 8601 UTC with whole seconds and "Z".
[[nodiscard]] std::string nowTimestamp();

// A time as the store writes it: ISO 8601 UTC with whole seconds and "Z"
// (2026-11-16T20:20:49Z). Throws std::out_of_range outside the years 0000 to 9999.
[[nodiscard]] std::string timestampText(std::chrono::sys_seconds time);

// The person that represents the user.
class OwnerEgoProjection {
  public:
    virtual ~OwnerEgoProjection() = default;
    // Read at each use inside the current transaction; the empty text when there
    // is none (no person has an empty identifier, so nothing matches it).
    virtual std::string personID(store::Connection& db) = 0;
};

// The user's own handles.
class OwnerAliasRegistry {
  public:
    struct Declaration {
        bool wasNewAlias = false;
        std::optional<std::string> excludedPersonID;
        bool insertedExclusion = false;

        bool operator==(const Declaration&) const = default;
    };

    virtual ~OwnerAliasRegistry() = default;
    virtual bool isAlias(store::Connection& db, const std::string& sourceType,
                         const std::string& handleNormalized) = 0;
    // Registers the handle (when new) and excludes the person the identity is
    // bound to by an active membership (when any).
    virtual Declaration declareAliasAndExcludeBoundPerson(store::Connection& db,
                                                          const std::string& sourceType,
                                                          const std::string& handleNormalized,
                                                          const std::string& subjectID,
                                                          const std::string& sourceIdentityID) = 0;
    virtual void removeAlias(store::Connection& db, const std::string& sourceType,
                             const std::string& handleNormalized) = 0;
};

// The counter by which other parts of the application notice that person
// relationships changed.
class RelationshipProjectionGeneration {
  public:
    virtual ~RelationshipProjectionGeneration() = default;
    // Advances the counter inside the current write transaction.
    virtual void bump(store::Connection& db) = 0;
};

// SQL fragments deciding which source identities may be shown. Each returns a
// boolean SQL expression with the given column names spliced in. May throw.
class SourceIdentityPresentationEligibility {
  public:
    virtual ~SourceIdentityPresentationEligibility() = default;
    virtual std::string presentationPredicateSQL(
        const std::string& identityIDColumn, const std::string& sourceTypeColumn,
        const std::optional<std::string>& personIDColumn) = 0;
    virtual std::string manualCorrectionPredicateSQL(const std::string& identityIDColumn,
                                                     const std::string& sourceTypeColumn,
                                                     const std::string& handleColumn) = 0;
};

// SQL fragments deciding which persons are eligible. May throw.
class SourceEligibility {
  public:
    // Ordinal 2 (identityCorrection) is the policy the identity library uses.
    enum class Policy { any = 0, presentation = 1, identityCorrection = 2 };

    virtual ~SourceEligibility() = default;
    virtual std::string personPredicateSQL(Policy policy, const std::string& personIDColumn) = 0;
};

// Relationship-attention candidates derived from follow-ups.
class FollowUpScheduler {
  public:
    struct AttentionCatchUpItem {
        // The key under which dispositions are stored.
        std::string candidateKey;
        std::string personID;
        std::string openLoopID;
        std::string detectedAt;

        bool operator==(const AttentionCatchUpItem&) const = default;
    };

    virtual ~FollowUpScheduler() = default;
    // Pure: none when detectedAt is absent or empty.
    virtual std::optional<AttentionCatchUpItem> attentionItem(
        const std::string& personID, const std::string& openLoopID,
        const std::optional<std::string>& detectedAt) = 0;
    virtual void retractCandidate(store::Connection& db, const std::string& openLoopID) = 0;
    virtual void reprojectCandidatesCore(store::Connection& db, const std::string& personID) = 0;
};

struct HostServices {
    std::shared_ptr<OwnerEgoProjection> ownerEgo;
    std::shared_ptr<OwnerAliasRegistry> ownerAliases;
    std::shared_ptr<RelationshipProjectionGeneration> projectionGeneration;
    std::shared_ptr<SourceIdentityPresentationEligibility> presentationEligibility;
    std::shared_ptr<SourceEligibility> sourceEligibility;
    std::shared_ptr<FollowUpScheduler> followUps;

    // The reference implementations over the reference schema.
    static HostServices reference();
};

// The reference schema: every table of the host contract with the indexes the
// identity library's statements use. Idempotent (CREATE ... IF NOT EXISTS).
[[nodiscard]] const std::string& referenceSchemaSQL();

// Runs referenceSchemaSQL() on db (inside or outside a transaction).
void createReferenceSchema(store::Connection& db);

}  // namespace orvik::host
