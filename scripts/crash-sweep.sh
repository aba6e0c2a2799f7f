#!/usr/bin/env bash
# The crash test at length: a process streaming corrections is killed with SIGKILL
# at random points RUNS times (default 500) on an encrypted and on a plain store;
# every acknowledged correction must survive and `orvik-identity check` must pass.
# Uses the default preset's build.
#
#     bash scripts/crash-sweep.sh 2000
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-500}
cmake --build --preset default -j"$(nproc)" --target multiprocess_test orvik-identity >/dev/null
ORVIK_CRASH_RUNS="${runs}" build/default/tests/multiprocess_test \
    --gtest_filter='*KilledMidStreamLosesNoAcknowledgedCorrection*'
