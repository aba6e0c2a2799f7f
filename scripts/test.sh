#!/usr/bin/env bash
# Sets everything up and runs the whole test suite through ctest: the default
# SQLCipher build, the same under AddressSanitizer and UndefinedBehaviorSanitizer,
# and the plain SQLite 3 build.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

jobs=$(nproc)
for preset in ${ORVIK_TEST_PRESETS:-default asan plain-sqlite}; do
    echo "== ${preset}: configure and build"
    cmake --preset "${preset}" >/dev/null
    cmake --build --preset "${preset}" -j"${jobs}"
    echo "== ${preset}: tests"
    ctest --preset "${preset}" -j"${jobs}"
done

# The fuzz targets, briefly (ORVIK_FUZZ_SECONDS each, 5 by default; 0 skips them). Longer runs:
# scripts/fuzz.sh.
fuzzSeconds=${ORVIK_FUZZ_SECONDS:-5}
if [[ "${fuzzSeconds}" != 0 ]]; then
    echo "== fuzz: ${fuzzSeconds} s per target"
    bash scripts/fuzz.sh "${fuzzSeconds}"
fi
