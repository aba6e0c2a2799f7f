#include "host/HostServices.h"

namespace orvik::host {

namespace {

// Kept to what SQLite 3.15 understands (the SQLCipher builds still in use): no
// UPSERT, no generated columns, no JSON functions. Every table is an ordinary
// rowid table; the keys are the only uniqueness constraints, because several
// identities legitimately share a source type and a normalised handle.
constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS source_identity (
    id TEXT NOT NULL PRIMARY KEY,
    source_type TEXT NOT NULL,
    handle_normalized TEXT NOT NULL,
    display_name TEXT,
    first_seen_at TEXT NOT NULL,
    last_seen_at TEXT NOT NULL,
    created_at TEXT NOT NULL
);
-- Owner checks match on the pair. Duplicate detection joins on the handle with
-- the later id, which this index answers without reading the table.
CREATE INDEX IF NOT EXISTS source_identity_by_type_handle
    ON source_identity (source_type, handle_normalized);
DROP INDEX IF EXISTS source_identity_by_handle;
CREATE INDEX IF NOT EXISTS source_identity_by_handle_id
    ON source_identity (handle_normalized, id);
-- The manual-correction search sorts by exactly these terms and stops at its
-- limit, so walking this index avoids sorting the whole table.
CREATE INDEX IF NOT EXISTS source_identity_by_search_order
    ON source_identity (display_name IS NULL, display_name, handle_normalized, id);

CREATE TABLE IF NOT EXISTS person (
    id TEXT NOT NULL PRIMARY KEY,
    display_name TEXT,
    tier TEXT NOT NULL,
    compiled_state_json TEXT,
    created_from TEXT,
    merged_into_person_id TEXT,
    created_at TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS person_by_merged_into ON person (merged_into_person_id);
CREATE INDEX IF NOT EXISTS person_by_created_from
    ON person (created_from, merged_into_person_id);

CREATE TABLE IF NOT EXISTS identity_membership (
    id TEXT NOT NULL PRIMARY KEY,
    source_identity_id TEXT NOT NULL,
    canonical_person_id TEXT NOT NULL,
    state TEXT NOT NULL,
    because TEXT,
    decided_by TEXT NOT NULL,
    decided_at TEXT NOT NULL,
    ended_at TEXT,
    created_at TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS identity_membership_by_identity
    ON identity_membership (source_identity_id, ended_at, canonical_person_id);
CREATE INDEX IF NOT EXISTS identity_membership_by_person
    ON identity_membership (canonical_person_id, ended_at, state);

CREATE TABLE IF NOT EXISTS identity_constraint (
    id TEXT NOT NULL PRIMARY KEY,
    a_type TEXT NOT NULL,
    a_id TEXT NOT NULL,
    b_type TEXT NOT NULL,
    b_id TEXT NOT NULL,
    kind TEXT NOT NULL,
    decided_by TEXT NOT NULL,
    created_at TEXT NOT NULL,
    revoked_at TEXT
);
-- Each side of the symmetric pair lookup is one probe of this index.
CREATE INDEX IF NOT EXISTS identity_constraint_by_ends
    ON identity_constraint (a_id, b_id, a_type, b_type);
-- Live person-person constraints are scanned as a whole (absorption heads are
-- compared in code); the partial index keeps that scan to the live rows.
CREATE INDEX IF NOT EXISTS identity_constraint_live_person_pairs
    ON identity_constraint (kind)
    WHERE revoked_at IS NULL AND a_type = 'person' AND b_type = 'person';

CREATE TABLE IF NOT EXISTS merge_event (
    id TEXT NOT NULL PRIMARY KEY,
    surviving_person_id TEXT NOT NULL,
    absorbed_person_id TEXT,
    pre_merge_state_json TEXT NOT NULL,
    because TEXT,
    decided_by TEXT NOT NULL,
    created_at TEXT NOT NULL,
    reversed_at TEXT,
    operation_id TEXT
);
CREATE INDEX IF NOT EXISTS merge_event_by_survivor
    ON merge_event (surviving_person_id, absorbed_person_id);
CREATE INDEX IF NOT EXISTS merge_event_by_absorbed ON merge_event (absorbed_person_id);
CREATE INDEX IF NOT EXISTS merge_event_by_operation ON merge_event (operation_id, created_at);
-- History reads the newest events first; the implicit rowid breaks ties.
CREATE INDEX IF NOT EXISTS merge_event_by_created_at ON merge_event (created_at);

CREATE TABLE IF NOT EXISTS user_correction (
    id TEXT NOT NULL PRIMARY KEY,
    target_type TEXT NOT NULL,
    target_id TEXT NOT NULL,
    action TEXT NOT NULL,
    subject_lineage TEXT NOT NULL,
    subject_id TEXT NOT NULL,
    created_at TEXT NOT NULL
);

CREATE TABLE IF NOT EXISTS claim (
    id TEXT NOT NULL PRIMARY KEY,
    person_id TEXT,
    source_identity_id TEXT,
    predicate TEXT NOT NULL,
    provenance TEXT NOT NULL,
    value TEXT
);
CREATE INDEX IF NOT EXISTS claim_by_person ON claim (person_id, source_identity_id);
CREATE INDEX IF NOT EXISTS claim_by_identity ON claim (source_identity_id);

CREATE TABLE IF NOT EXISTS capture_person_association (
    source_object_id TEXT NOT NULL,
    person_id TEXT NOT NULL,
    state TEXT,
    ended_at TEXT,
    PRIMARY KEY (source_object_id, person_id)
);
CREATE INDEX IF NOT EXISTS capture_person_association_by_person
    ON capture_person_association (person_id);

CREATE TABLE IF NOT EXISTS follow_up (
    id TEXT NOT NULL PRIMARY KEY,
    open_loop_id TEXT NOT NULL,
    person_id TEXT NOT NULL,
    state TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS follow_up_by_person ON follow_up (person_id, id);
CREATE INDEX IF NOT EXISTS follow_up_by_open_loop ON follow_up (open_loop_id);

CREATE TABLE IF NOT EXISTS open_loop (
    id TEXT NOT NULL PRIMARY KEY,
    person_id TEXT NOT NULL,
    detected_at TEXT
);
CREATE INDEX IF NOT EXISTS open_loop_by_person ON open_loop (person_id, id);

CREATE TABLE IF NOT EXISTS relationship_attention_disposition (
    candidate_key TEXT NOT NULL PRIMARY KEY,
    person_id TEXT NOT NULL,
    disposition TEXT
);
CREATE INDEX IF NOT EXISTS relationship_attention_disposition_by_person
    ON relationship_attention_disposition (person_id);

CREATE TABLE IF NOT EXISTS relationship_attention_candidate (
    candidate_key TEXT NOT NULL PRIMARY KEY,
    person_id TEXT NOT NULL,
    open_loop_id TEXT NOT NULL,
    detected_at TEXT
);
CREATE INDEX IF NOT EXISTS relationship_attention_candidate_by_person
    ON relationship_attention_candidate (person_id);
CREATE INDEX IF NOT EXISTS relationship_attention_candidate_by_open_loop
    ON relationship_attention_candidate (open_loop_id);

CREATE TABLE IF NOT EXISTS thread_participant (
    thread_id TEXT NOT NULL,
    source_identity_id TEXT NOT NULL,
    PRIMARY KEY (thread_id, source_identity_id)
);
CREATE INDEX IF NOT EXISTS thread_participant_by_identity
    ON thread_participant (source_identity_id, thread_id);

CREATE TABLE IF NOT EXISTS source_account (
    source_type TEXT NOT NULL,
    handle TEXT NOT NULL,
    PRIMARY KEY (source_type, handle)
);

CREATE TABLE IF NOT EXISTS owner_alias (
    source_type TEXT NOT NULL,
    handle_normalized TEXT NOT NULL,
    subject_id TEXT,
    source_identity_id TEXT,
    created_at TEXT,
    PRIMARY KEY (source_type, handle_normalized)
);

CREATE TABLE IF NOT EXISTS exclusion_rule (
    id TEXT NOT NULL PRIMARY KEY,
    scope TEXT NOT NULL,
    target_id TEXT NOT NULL,
    reason TEXT,
    created_at TEXT
);
CREATE INDEX IF NOT EXISTS exclusion_rule_by_target ON exclusion_rule (scope, target_id);

CREATE TABLE IF NOT EXISTS owner_ego (
    person_id TEXT NOT NULL
);
-- Every row has the same index key, so a second row is refused (and INSERT OR
-- REPLACE swaps the owner).
CREATE UNIQUE INDEX IF NOT EXISTS owner_ego_single_row ON owner_ego ((0));

CREATE TABLE IF NOT EXISTS relationship_projection_generation (
    id INTEGER NOT NULL PRIMARY KEY,
    generation INTEGER NOT NULL
);
)sql";

}  // namespace

const std::string& referenceSchemaSQL() {
    static const std::string sql(kSchema);
    return sql;
}

void createReferenceSchema(store::Connection& db) {
    db.executeScript(referenceSchemaSQL());
}

}  // namespace orvik::host
