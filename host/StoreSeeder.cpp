#include "host/StoreSeeder.h"

#include "host/HostServices.h"

#include <stdexcept>
#include <utility>

namespace orvik::seed {

namespace {

// Moves the text in; NULL when absent.
void addOptional(store::Params& params, std::optional<std::string>& value) {
    if (value) {
        params.add(std::move(*value));
    } else {
        params.add(nullptr);
    }
}

void required(const std::string& value, const char* table, const char* column) {
    if (value.empty()) {
        throw std::invalid_argument(std::string("seeding ") + table + ": " + column +
                                    " is required");
    }
}

}  // namespace

std::string timestamp(std::chrono::sys_seconds time) {
    return host::timestampText(time);
}

void insert(store::Connection& db, Person row) {
    static const std::string sql =
        "INSERT INTO person (id, display_name, tier, compiled_state_json, created_from, "
        "merged_into_person_id, created_at) VALUES (?, ?, ?, ?, ?, ?, ?)";
    required(row.createdAt, "person", "created_at");
    store::Params params;
    params.add(std::move(row.id));
    addOptional(params, row.displayName);
    params.add(std::move(row.tier));
    addOptional(params, row.compiledStateJSON);
    addOptional(params, row.createdFrom);
    addOptional(params, row.mergedIntoPersonID);
    params.add(std::move(row.createdAt));
    db.run(sql, params);
}

void insert(store::Connection& db, SourceIdentity row) {
    static const std::string sql =
        "INSERT INTO source_identity (id, source_type, handle_normalized, display_name, "
        "first_seen_at, last_seen_at, created_at) VALUES (?, ?, ?, ?, ?, ?, ?)";
    required(row.firstSeenAt, "source_identity", "first_seen_at");
    required(row.lastSeenAt, "source_identity", "last_seen_at");
    required(row.createdAt, "source_identity", "created_at");
    store::Params params;
    params.add(std::move(row.id));
    params.add(std::move(row.sourceType));
    params.add(std::move(row.handleNormalized));
    addOptional(params, row.displayName);
    params.add(std::move(row.firstSeenAt));
    params.add(std::move(row.lastSeenAt));
    params.add(std::move(row.createdAt));
    db.run(sql, params);
}

void insert(store::Connection& db, Membership row) {
    static const std::string sql =
        "INSERT INTO identity_membership (id, source_identity_id, canonical_person_id, state, "
        "because, decided_by, decided_at, ended_at, created_at) "
        "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)";
    required(row.decidedAt, "identity_membership", "decided_at");
    required(row.createdAt, "identity_membership", "created_at");
    store::Params params;
    params.add(std::move(row.id));
    params.add(std::move(row.sourceIdentityID));
    params.add(std::move(row.canonicalPersonID));
    params.add(std::move(row.state));
    addOptional(params, row.because);
    params.add(std::move(row.decidedBy));
    params.add(std::move(row.decidedAt));
    addOptional(params, row.endedAt);
    params.add(std::move(row.createdAt));
    db.run(sql, params);
}

void insert(store::Connection& db, Constraint row) {
    static const std::string sql =
        "INSERT INTO identity_constraint (id, a_type, a_id, b_type, b_id, kind, decided_by, "
        "created_at, revoked_at) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)";
    required(row.createdAt, "identity_constraint", "created_at");
    store::Params params;
    params.add(std::move(row.id));
    params.add(std::move(row.aType));
    params.add(std::move(row.aID));
    params.add(std::move(row.bType));
    params.add(std::move(row.bID));
    params.add(std::move(row.kind));
    params.add(std::move(row.decidedBy));
    params.add(std::move(row.createdAt));
    addOptional(params, row.revokedAt);
    db.run(sql, params);
}

void insert(store::Connection& db, MergeEvent row) {
    static const std::string sql =
        "INSERT INTO merge_event (id, surviving_person_id, absorbed_person_id, "
        "pre_merge_state_json, because, decided_by, created_at, reversed_at, operation_id) "
        "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)";
    required(row.createdAt, "merge_event", "created_at");
    store::Params params;
    params.add(std::move(row.id));
    params.add(std::move(row.survivingPersonID));
    addOptional(params, row.absorbedPersonID);
    params.add(std::move(row.preMergeStateJSON));
    addOptional(params, row.because);
    params.add(std::move(row.decidedBy));
    params.add(std::move(row.createdAt));
    addOptional(params, row.reversedAt);
    addOptional(params, row.operationID);
    db.run(sql, params);
}

void insert(store::Connection& db, UserCorrection row) {
    static const std::string sql =
        "INSERT INTO user_correction (id, target_type, target_id, action, subject_lineage, "
        "subject_id, created_at) VALUES (?, ?, ?, ?, ?, ?, ?)";
    required(row.createdAt, "user_correction", "created_at");
    store::Params params;
    params.add(std::move(row.id));
    params.add(std::move(row.targetType));
    params.add(std::move(row.targetID));
    params.add(std::move(row.action));
    params.add(std::move(row.subjectLineage));
    params.add(std::move(row.subjectID));
    params.add(std::move(row.createdAt));
    db.run(sql, params);
}

void insert(store::Connection& db, Claim row) {
    static const std::string sql =
        "INSERT INTO claim (id, person_id, source_identity_id, predicate, provenance, value) "
        "VALUES (?, ?, ?, ?, ?, ?)";
    store::Params params;
    params.add(std::move(row.id));
    addOptional(params, row.personID);
    addOptional(params, row.sourceIdentityID);
    params.add(std::move(row.predicate));
    params.add(std::move(row.provenance));
    addOptional(params, row.value);
    db.run(sql, params);
}

void insert(store::Connection& db, CaptureAssociation row) {
    static const std::string sql =
        "INSERT INTO capture_person_association (source_object_id, person_id, state, ended_at) "
        "VALUES (?, ?, ?, ?)";
    store::Params params;
    params.add(std::move(row.sourceObjectID));
    params.add(std::move(row.personID));
    addOptional(params, row.state);
    addOptional(params, row.endedAt);
    db.run(sql, params);
}

void insert(store::Connection& db, OpenLoop row) {
    static const std::string sql =
        "INSERT INTO open_loop (id, person_id, detected_at) VALUES (?, ?, ?)";
    store::Params params;
    params.add(std::move(row.id));
    params.add(std::move(row.personID));
    addOptional(params, row.detectedAt);
    db.run(sql, params);
}

void insert(store::Connection& db, FollowUp row) {
    static const std::string sql =
        "INSERT INTO follow_up (id, open_loop_id, person_id, state) VALUES (?, ?, ?, ?)";
    store::Params params;
    params.add(std::move(row.id));
    params.add(std::move(row.openLoopID));
    params.add(std::move(row.personID));
    params.add(std::move(row.state));
    db.run(sql, params);
}

void insert(store::Connection& db, AttentionDisposition row) {
    static const std::string sql =
        "INSERT INTO relationship_attention_disposition (candidate_key, person_id, disposition) "
        "VALUES (?, ?, ?)";
    store::Params params;
    params.add(std::move(row.candidateKey));
    params.add(std::move(row.personID));
    addOptional(params, row.disposition);
    db.run(sql, params);
}

void insert(store::Connection& db, AttentionCandidate row) {
    static const std::string sql =
        "INSERT INTO relationship_attention_candidate (candidate_key, person_id, open_loop_id, "
        "detected_at) VALUES (?, ?, ?, ?)";
    store::Params params;
    params.add(std::move(row.candidateKey));
    params.add(std::move(row.personID));
    params.add(std::move(row.openLoopID));
    addOptional(params, row.detectedAt);
    db.run(sql, params);
}

void insert(store::Connection& db, ThreadParticipant row) {
    static const std::string sql =
        "INSERT INTO thread_participant (thread_id, source_identity_id) VALUES (?, ?)";
    store::Params params;
    params.add(std::move(row.threadID));
    params.add(std::move(row.sourceIdentityID));
    db.run(sql, params);
}

void insert(store::Connection& db, SourceAccount row) {
    static const std::string sql = "INSERT INTO source_account (source_type, handle) VALUES (?, ?)";
    store::Params params;
    params.add(std::move(row.sourceType));
    params.add(std::move(row.handle));
    db.run(sql, params);
}

void insert(store::Connection& db, OwnerAlias row) {
    static const std::string sql =
        "INSERT INTO owner_alias (source_type, handle_normalized, subject_id, "
        "source_identity_id, created_at) VALUES (?, ?, ?, ?, ?)";
    store::Params params;
    params.add(std::move(row.sourceType));
    params.add(std::move(row.handleNormalized));
    addOptional(params, row.subjectID);
    addOptional(params, row.sourceIdentityID);
    addOptional(params, row.createdAt);
    db.run(sql, params);
}

void insert(store::Connection& db, ExclusionRule row) {
    static const std::string sql =
        "INSERT INTO exclusion_rule (id, scope, target_id, reason, created_at) "
        "VALUES (?, ?, ?, ?, ?)";
    store::Params params;
    params.add(std::move(row.id));
    params.add(std::move(row.scope));
    params.add(std::move(row.targetID));
    addOptional(params, row.reason);
    addOptional(params, row.createdAt);
    db.run(sql, params);
}

void insert(store::Connection& db, OwnerEgo row) {
    static const std::string sql = "INSERT INTO owner_ego (person_id) VALUES (?)";
    store::Params params;
    params.add(std::move(row.personID));
    db.run(sql, params);
}

}  // namespace orvik::seed
