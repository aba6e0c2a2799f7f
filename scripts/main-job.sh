#!/usr/bin/env bash
# Sets everything up, builds, creates an encrypted sample store with
# `orvik-identity init` and shows what is in it through `orvik-identity exec`.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake --preset default >/dev/null
# Only what this script runs; scripts/test.sh builds the tests and benchmarks.
cmake --build --preset default -j"$(nproc)" --target orvik-identity

cli=build/default/app/orvik-identity
store=build/sample/sample.db
key="sample passphrase"
mkdir -p build/sample
rm -f "$store" "$store-wal" "$store-shm"

echo "== orvik-identity init"
"$cli" init --db "$store" --key "$key"
{ printf "PRAGMA key = '%s';\n" "$key"; cat scripts/sample-store.sql; } | sqlcipher "$store" >/dev/null

echo "== orvik-identity exec (one request per line, one answer per line)"
"$cli" exec --db "$store" --key "$key" <<'REQUESTS'
{"id": 1, "op": "sourceIdentity", "args": {"id": "si-dana-phone"}}
{"id": 2, "op": "resolveCanonicalPerson", "args": {"sourceIdentityID": "si-dana-phone"}}
{"id": 3, "op": "person", "args": {"id": "p-dana-old"}}
{"id": 4, "op": "activeMemberships", "args": {"personID": "p-dana"}}
{"id": 5, "op": "activeMembership", "args": {"sourceIdentityID": "si-dana-work"}}
{"id": 6, "op": "latestUndoableMergeEvent", "args": {"personID": "p-dana"}}
{"id": 7, "op": "resolveCanonicalPerson", "args": {"sourceIdentityID": "si-unlinked"}}
REQUESTS

echo "== a correction and its undo: confirm that the unlinked contact card is Ravi"
exec_one() { "$cli" exec --db "$store" --key "$key"; }
ravi='{"id":"si-ravi-cal","sourceType":"google_calendar","handleNormalized":"ravi@example.org","displayName":"Ravi Anand","firstSeenAt":"2026-02-11T18:30:00Z","lastSeenAt":"2026-11-18T09:00:00Z","createdAt":"2026-02-11T18:30:00Z"}'
card='{"id":"si-unlinked","sourceType":"apple_contacts","handleNormalized":"ravi.anand@example.net","displayName":"Ravi A.","firstSeenAt":"2026-06-01T12:00:00Z","lastSeenAt":"2026-06-01T12:00:00Z","createdAt":"2026-06-01T12:00:00Z"}'
confirmed=$(printf '{"id":"confirm","op":"confirmCandidate","args":{"candidate":{"sourceIdentityA":%s,"sourceIdentityB":%s,"existingPersonID":"p-ravi","score":0.85,"because":"user_directed"},"subjectLineage":"person","subjectID":"sample-user"}}\n' "$ravi" "$card" | exec_one)
echo "$confirmed"
events=$(echo "$confirmed" | grep -o '"mergeEventIDs":\[[^]]*\]' | sed 's/"mergeEventIDs"://')

echo "== the resulting person"
exec_one <<REQUESTS
{"id": "after-confirm", "op": "resolveCanonicalPerson", "args": {"sourceIdentityID": "si-unlinked"}}
{"id": "members", "op": "activeMemberships", "args": {"personID": "p-ravi"}}
REQUESTS

echo "== undo of the whole confirmation"
exec_one <<REQUESTS
{"id": "undo", "op": "undoConfirmation", "args": {"mergeEventIDs": $events}}
{"id": "after-undo", "op": "resolveCanonicalPerson", "args": {"sourceIdentityID": "si-unlinked"}}
REQUESTS

echo "== orvik-identity demo: a realistic sample store"
demo=build/sample/demo.db
rm -f "$demo" "$demo-wal" "$demo-shm"
summary=$("$cli" demo --db "$demo" --key "$key")
echo "$summary"
person=$(echo "$summary" | grep -m1 -oE '[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}')

echo "== candidates waiting for the user"
"$cli" candidates --db "$demo" --key "$key" --limit 5
echo "== search"
"$cli" search --db "$demo" --key "$key" garcia --limit 5
echo "== history of a corrected person"
"$cli" history --db "$demo" --key "$key" --person "$person"
echo "== readback"
"$cli" readback --db "$demo" --key "$key"
