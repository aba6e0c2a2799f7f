#!/usr/bin/env bash
# Builds the libFuzzer targets (preset `fuzz`, clang 14) and runs each for the given
# number of seconds (default 60) on a copy of its seed corpus; prints the
# executions each reached. Any crash fails the script and leaves the input in
# build/fuzz/artifacts/.
#
#     bash scripts/fuzz.sh 600        # ten minutes per target
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j"$(nproc)"

mkdir -p build/fuzz/artifacts
for target in snapshot_fuzz exec_request_fuzz; do
    corpus=build/fuzz/corpus/${target%_fuzz}
    mkdir -p "$corpus"
    cp -n tests/fuzz/corpus/"${target%_fuzz}"/* "$corpus"/ 2>/dev/null || true
    log=build/fuzz/${target}.log
    echo "== ${target}: ${seconds} s"
    if ! build/fuzz/tests/fuzz/"${target}" -max_total_time="${seconds}" -max_len=65536 \
        -artifact_prefix=build/fuzz/artifacts/ -print_final_stats=1 "$corpus" >"$log" 2>&1; then
        tail -40 "$log"
        echo "${target}: FAILED (input in build/fuzz/artifacts/)"
        exit 1
    fi
    echo "${target}: $(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$') executions, no failure"
done
