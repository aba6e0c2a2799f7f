-- A small sample: four people, handles from several sources, one person absorbed
-- into another by an earlier merge, and Ravi's address on a contact card that
-- made a person of its own: a candidate waiting for the user.
INSERT INTO person (id, display_name, tier, created_from, merged_into_person_id, created_at) VALUES
  ('p-dana', 'Dana Whitfield', 'full', 'user_stated', NULL, '2026-01-04T09:00:00Z'),
  ('p-dana-old', 'D. Whitfield', 'stub', 'identity_correction', 'p-dana', '2026-01-02T09:00:00Z'),
  ('p-ravi', 'Ravi Anand', 'full', 'user_stated', NULL, '2026-02-11T18:30:00Z'),
  ('p-ravi-card', 'Ravi A.', 'stub', 'identity_correction', NULL, '2026-06-01T12:00:00Z');
INSERT INTO source_identity (id, source_type, handle_normalized, display_name, first_seen_at, last_seen_at, created_at) VALUES
  ('si-dana-mail', 'gmail', 'dana@example.com', 'Dana Whitfield', '2025-11-01T08:00:00Z', '2026-11-20T17:45:00Z', '2025-11-01T08:00:00Z'),
  ('si-dana-phone', 'imessage', '+14155550142', NULL, '2025-12-24T20:10:00Z', '2026-11-21T07:05:00Z', '2025-12-24T20:10:00Z'),
  ('si-dana-work', 'outlook', 'dana.whitfield@work.example', 'Whitfield, Dana', '2026-03-02T13:00:00Z', '2026-11-19T10:00:00Z', '2026-03-02T13:00:00Z'),
  ('si-ravi-cal', 'google_calendar', 'ravi@example.org', 'Ravi Anand', '2026-02-11T18:30:00Z', '2026-11-18T09:00:00Z', '2026-02-11T18:30:00Z'),
  ('si-ravi-mail', 'gmail', 'ravi.anand@example.net', 'Ravi Anand', '2026-02-12T08:00:00Z', '2026-11-17T16:20:00Z', '2026-02-12T08:00:00Z'),
  ('si-ravi-card', 'apple_contacts', 'ravi.anand@example.net', 'Ravi A.', '2026-06-01T12:00:00Z', '2026-06-01T12:00:00Z', '2026-06-01T12:00:00Z');
INSERT INTO identity_membership (id, source_identity_id, canonical_person_id, state, because, decided_by, decided_at, ended_at, created_at) VALUES
  ('m-1', 'si-dana-mail', 'p-dana', 'confirmed', 'user stated', 'user', '2026-01-04T09:00:00Z', NULL, '2026-01-04T09:00:00Z'),
  ('m-2', 'si-dana-phone', 'p-dana-old', 'high_conf', 'same display name', 'auto', '2026-01-02T09:00:00Z', NULL, '2026-01-02T09:00:00Z'),
  ('m-3', 'si-dana-work', 'p-dana', 'possible', 'similar name', 'auto', '2026-03-02T13:00:00Z', NULL, '2026-03-02T13:00:00Z'),
  ('m-4', 'si-ravi-cal', 'p-ravi', 'confirmed', NULL, 'agent+user', '2026-02-11T18:30:00Z', NULL, '2026-02-11T18:30:00Z'),
  ('m-5', 'si-ravi-mail', 'p-ravi', 'confirmed', 'user stated', 'user', '2026-02-12T08:00:00Z', NULL, '2026-02-12T08:00:00Z'),
  ('m-6', 'si-ravi-card', 'p-ravi-card', 'high_conf', 'contact card', 'auto', '2026-06-01T12:00:00Z', NULL, '2026-06-01T12:00:00Z');
INSERT INTO merge_event (id, surviving_person_id, absorbed_person_id, pre_merge_state_json, because, decided_by, created_at, reversed_at, operation_id) VALUES
  ('e-1', 'p-dana', 'p-dana-old', '{"priorActiveMemberships":[],"priorClaimPersonID":{},"writtenMembershipIDs":[]}', 'same person', 'user', '2026-01-05T10:00:00Z', NULL, 'op-1');
