#!/usr/bin/env bash
# Sets everything up, builds, creates an encrypted sample store with
# `orvik-identity init` and shows what is in it through `orvik-identity exec`.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default -j"$(nproc)"

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
{"id": 8, "op": "linkIdentity", "args": {}}
REQUESTS
