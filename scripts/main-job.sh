#!/usr/bin/env bash
# Sets everything up, builds the command-line program, creates an encrypted sample
# store and walks through a correction and its undo with the terminal commands;
# then one request through `exec`, the interface for programs, and a realistic
# demo store.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake --preset default >/dev/null
# Only what this script runs; scripts/test.sh builds the tests and benchmarks.
cmake --build --preset default -j"$(nproc)" --target orvik-identity orvik-identity-desktop

cli=build/default/app/orvik-identity
store=build/sample/sample.db
key="sample passphrase"
mkdir -p build/sample
rm -f "$store" "$store-wal" "$store-shm"
# What the terminal commands remember between runs (the last listing, the last
# correction) stays under build/ instead of ~/.local/state.
export XDG_STATE_HOME="$PWD/build/sample/state"
rm -rf "$XDG_STATE_HOME"
db=(--db "$store" --key "$key")

echo "== orvik-identity init"
"$cli" init "${db[@]}"
{ printf "PRAGMA key = '%s';\n" "$key"; cat scripts/sample-store.sql; } | sqlcipher "$store" >/dev/null

echo
echo "== candidates: identities that share a handle but not a person"
"$cli" candidates "${db[@]}"

echo
echo "== confirm 1: they are the same person"
"$cli" confirm 1 "${db[@]}"

echo
echo "== joined: the card and Ravi's addresses are one person"
"$cli" person si-ravi-card "${db[@]}"

echo
echo "== undo: the last correction made here"
"$cli" undo "${db[@]}"

echo
echo "== apart again: Ravi is back as a person of his own"
"$cli" person si-ravi-card "${db[@]}"
echo
"$cli" history --person p-ravi "${db[@]}"

echo
echo "== exec: programs send one JSON request per line and read one answer per line"
"$cli" exec "${db[@]}" <<'REQUESTS'
{"id": 1, "op": "resolveCanonicalPerson", "args": {"sourceIdentityID": "si-dana-phone"}}
REQUESTS

echo
echo "== orvik-identity demo: a realistic sample store"
demo=build/sample/demo.db
rm -f "$demo" "$demo-wal" "$demo-shm"
summary=$("$cli" demo --db "$demo" --key "$key")
echo "$summary"
person=$(echo "$summary" | grep -m1 -oE '[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}')

echo
echo "== candidates waiting for the user"
"$cli" candidates --db "$demo" --key "$key" --limit 5
echo
echo "== search"
"$cli" search --db "$demo" --key "$key" garcia --limit 5
echo
echo "== a corrected person"
"$cli" person "$person" --db "$demo" --key "$key"
echo
echo "== readback"
"$cli" readback --db "$demo" --key "$key"

echo
echo "== the screens of the demo store, as orvik-identity-desktop shows them"
desktop=build/default/app/desktop/orvik-identity-desktop
mkdir -p build/screens
for screen in candidates manual-link history; do
    "$desktop" --db "$demo" --key "$key" --person "$person" --screen "$screen" \
        --screenshot "$PWD/build/screens/$screen.png"
done
