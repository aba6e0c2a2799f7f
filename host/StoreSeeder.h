// Rows written straight into a store with the reference schema, for the demo
// store, the benchmark stores and the test fixtures. One row type and one insert
// per table; each INSERT text exists once, here, so the connection's statement
// cache prepares it once per connection.
//
// The inserts take the caller's open connection and run inside the caller's
// transaction; they never open one. Seed a whole store in one write:
//
//     using namespace std::chrono;
//     pool->write([&](store::Connection& db) {
//         host::createReferenceSchema(db);
//         const std::string at = seed::timestamp(sys_days{2024y / January / 1} + 9h);
//         seed::insert(db, seed::Person{.id = "p-1", .tier = "named", .createdAt = at});
//         seed::insert(db, seed::SourceIdentity{.id = "si-1", .sourceType = "gmail",
//                                               .handleNormalized = "ana@example.com",
//                                               .firstSeenAt = at, .lastSeenAt = at,
//                                               .createdAt = at});
//         seed::insert(db, seed::Membership{.id = "m-1", .sourceIdentityID = "si-1",
//                                           .canonicalPersonID = "p-1", .decidedAt = at,
//                                           .createdAt = at});
//     });
//
// Rows are taken by value and their text moved into the statement's parameters:
// pass temporaries (or std::move) in a loop of 10^5 rows and nothing is copied.
// Columns that may be NULL, and those with a usual value, have defaults; the
// others have none, so that leaving one out of a designated initializer is a
// compiler warning (an error in this project's builds).
// Timestamps are the stored text ("YYYY-MM-DDTHH:MM:SSZ"); build them with
// timestamp() from std::chrono time points. A timestamp the table requires that is
// left empty is refused with std::invalid_argument, before anything is written.
// Nothing here checks references between rows: the seeder writes what it is told,
// including states an application would never reach, which is what tests need.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "store/Database.h"

namespace orvik::seed {

// "YYYY-MM-DDTHH:MM:SSZ" in UTC, the form the store keeps every time in. Years
// outside 0000 to 9999 have no such form: std::out_of_range.
[[nodiscard]] std::string timestamp(std::chrono::sys_seconds time);

struct Person {
    std::string id;
    std::optional<std::string> displayName{};
    std::string tier = "stub";
    std::optional<std::string> compiledStateJSON{};
    std::optional<std::string> createdFrom = "user_stated";
    std::optional<std::string> mergedIntoPersonID{};
    std::string createdAt;
};

struct SourceIdentity {
    std::string id;
    std::string sourceType;
    std::string handleNormalized;
    std::optional<std::string> displayName{};
    std::string firstSeenAt;
    std::string lastSeenAt;
    std::string createdAt;
};

struct Membership {
    std::string id;
    std::string sourceIdentityID;
    std::string canonicalPersonID;
    std::string state = "confirmed";
    std::optional<std::string> because{};
    std::string decidedBy = "user";
    std::string decidedAt;
    // Set for a membership that has ended (separated, superseded).
    std::optional<std::string> endedAt{};
    std::string createdAt;
};

// A constraint between two identities, two persons or one of each; aType and
// bType are "identity" or "person".
struct Constraint {
    std::string id;
    std::string aType;
    std::string aID;
    std::string bType;
    std::string bID;
    std::string kind = "different";
    std::string decidedBy = "user";
    std::string createdAt;
    std::optional<std::string> revokedAt{};
};

// A merge as history records it: preMergeStateJSON is the snapshot that undo
// restores from, written as the caller gives it.
struct MergeEvent {
    std::string id;
    std::string survivingPersonID;
    std::optional<std::string> absorbedPersonID{};
    std::string preMergeStateJSON;
    std::optional<std::string> because{};
    std::string decidedBy = "user";
    std::string createdAt;
    std::optional<std::string> reversedAt{};
    std::optional<std::string> operationID{};
};

struct UserCorrection {
    std::string id;
    std::string targetType;
    std::string targetID;
    std::string action;
    std::string subjectLineage = "person";
    std::string subjectID;
    std::string createdAt;
};

struct Claim {
    std::string id;
    std::optional<std::string> personID{};
    std::optional<std::string> sourceIdentityID{};
    std::string predicate;
    std::string provenance;
    std::optional<std::string> value{};
};

struct CaptureAssociation {
    std::string sourceObjectID;
    std::string personID;
    std::optional<std::string> state{};
    std::optional<std::string> endedAt{};
};

struct OpenLoop {
    std::string id;
    std::string personID;
    std::optional<std::string> detectedAt{};
};

struct FollowUp {
    std::string id;
    std::string openLoopID;
    std::string personID;
    std::string state;
};

struct AttentionDisposition {
    std::string candidateKey;
    std::string personID;
    std::optional<std::string> disposition{};
};

struct AttentionCandidate {
    std::string candidateKey;
    std::string personID;
    std::string openLoopID;
    std::optional<std::string> detectedAt{};
};

struct ThreadParticipant {
    std::string threadID;
    std::string sourceIdentityID;
};

// One of the user's own accounts.
struct SourceAccount {
    std::string sourceType;
    std::string handle;
};

struct OwnerAlias {
    std::string sourceType;
    std::string handleNormalized;
    std::optional<std::string> subjectID{};
    std::optional<std::string> sourceIdentityID{};
    std::optional<std::string> createdAt{};
};

struct ExclusionRule {
    std::string id;
    std::string scope;
    std::string targetID;
    std::optional<std::string> reason{};
    std::optional<std::string> createdAt{};
};

// The person that represents the user; the table holds at most one row.
struct OwnerEgo {
    std::string personID;
};

void insert(store::Connection& db, Person row);
void insert(store::Connection& db, SourceIdentity row);
void insert(store::Connection& db, Membership row);
void insert(store::Connection& db, Constraint row);
void insert(store::Connection& db, MergeEvent row);
void insert(store::Connection& db, UserCorrection row);
void insert(store::Connection& db, Claim row);
void insert(store::Connection& db, CaptureAssociation row);
void insert(store::Connection& db, OpenLoop row);
void insert(store::Connection& db, FollowUp row);
void insert(store::Connection& db, AttentionDisposition row);
void insert(store::Connection& db, AttentionCandidate row);
void insert(store::Connection& db, ThreadParticipant row);
void insert(store::Connection& db, SourceAccount row);
void insert(store::Connection& db, OwnerAlias row);
void insert(store::Connection& db, ExclusionRule row);
void insert(store::Connection& db, OwnerEgo row);

}  // namespace orvik::seed
