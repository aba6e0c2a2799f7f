#!/usr/bin/env python3
"""Counts the instructions of one call of each operation, library and floor.

    python3 scripts/bench-instructions.py [--scale 5] [--encrypted] [--no-build]
                                          [operation ...]

Timed ratios on a shared virtual machine move by 15% and more between runs; the
instructions a call executes do not. This runs identity_bench and floor_bench
under callgrind (valgrind) with collection switched on only inside the timed
part: the library's public operation, and the floor's timed transaction. Each
total is divided by the calls of that function, and the table gives both and
their ratio. Operations are the floor's benchmarks (all of them by default).

Under valgrind every call is about fifty times slower, so each benchmark runs for
--min-time seconds of its own measured (slowed) time; the long scans at 10^5 run
a few calls only. The counts include the allocator's work for what the previous
(untimed) call left behind, as a real sequence of calls would.
"""

import argparse
import os
import re
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# Floor benchmark name -> the library's public operation it times.
OPERATIONS = {
    "resolveCanonicalPerson": "resolveCanonicalPerson",
    "activeMemberships": "activeMemberships",
    "searchSourceIdentities": "searchSourceIdentities",
    "exactKeyCandidates": "exactKeyCandidates",
    "identityHistory": "identityHistory",
    "linkIdentity": "linkIdentity",
    "undoMerge_link": "undoMerge",
    "confirmCandidate": "confirmCandidate",
    "undoConfirmation": "undoConfirmation",
}
# The scans run a few calls in the time the others run hundreds.
MIN_TIME = {"exactKeyCandidates": 3.0, "confirmCandidate": 3.0, "identityHistory": 1.0}


def count(profile, pattern):
    """Total instructions of a callgrind profile and the calls of the functions
    whose names match pattern."""
    names = {}
    total = 0
    calls = 0
    callee = None
    with open(profile, errors="replace") as f:
        for line in f:
            m = re.match(r"(c?fn)=\((\d+)\)(?: (.*))?", line)
            if m:
                if m.group(3):
                    names[m.group(2)] = m.group(3)
                callee = names.get(m.group(2), "") if m.group(1) == "cfn" else None
                continue
            if line.startswith("calls=") and callee is not None:
                if re.search(pattern, callee):
                    calls += int(line.split()[0][len("calls="):])
                callee = None
            elif line.startswith(("summary:", "totals:")):
                total = int(line.split()[1])
    return total, calls


def profile(binary, bench_filter, toggle, out, min_time):
    subprocess.run(
        ["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out,
         "--collect-atstart=no", "--toggle-collect=" + toggle, binary,
         "--benchmark_filter=" + bench_filter, "--benchmark_min_time=%g" % min_time],
        check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("operations", nargs="*", help="floor benchmarks (default: all)")
    parser.add_argument("--build-dir", default=os.path.join(ROOT, "build", "default"))
    parser.add_argument("--scale", type=int, default=5, choices=[3, 4, 5],
                        help="10^scale identities (default 5)")
    parser.add_argument("--encrypted", action="store_true", help="the encrypted store")
    parser.add_argument("--min-time", type=float, default=0.3,
                        help="seconds of measured time per benchmark under valgrind")
    parser.add_argument("--no-build", action="store_true")
    args = parser.parse_args()

    operations = args.operations or list(OPERATIONS)
    unknown = [op for op in operations if op not in OPERATIONS]
    if unknown:
        parser.error("no floor for %s; choose from %s" % (", ".join(unknown),
                                                         ", ".join(OPERATIONS)))
    if not args.no_build:
        subprocess.run(["cmake", "--build", args.build_dir, "-j2", "--target", "identity_bench",
                        "floor_bench"], check=True, stdout=sys.stderr)

    bench = os.path.join(args.build_dir, "bench")
    shape = "scale:%d/encrypted:%d/" % (args.scale, 1 if args.encrypted else 0)
    print("Instructions per call at 10^%d, %s (callgrind)\n" %
          (args.scale, "encrypted" if args.encrypted else "plain"))
    print("| Operation | library | floor | library / floor |")
    print("|---|---|---|---|")
    with tempfile.TemporaryDirectory(prefix="orvik-instructions-") as scratch:
        for op in operations:
            min_time = max(args.min_time, MIN_TIME.get(op, 0))
            library = os.path.join(scratch, op + ".library")
            floor = os.path.join(scratch, op + ".floor")
            public = OPERATIONS[op]
            print("+ %s" % op, file=sys.stderr, flush=True)
            profile(os.path.join(bench, "identity_bench"), "BM_%s/%s" % (op, shape),
                    "orvik::identity::IdentityRepository::%s(*" % public, library, min_time)
            profile(os.path.join(bench, "floor_bench"), "BM_%s/%s" % (op, shape),
                    "*timedTransaction*", floor, min_time)
            lt, lc = count(library, r"IdentityRepository::%s\(" % re.escape(public))
            ft, fc = count(floor, r"timedTransaction\(")
            if lc == 0 or fc == 0:
                print("| %s | no calls counted | | |" % op, flush=True)
                continue
            print("| %s | %s | %s | %.2f |" % (op, "{:,.0f}".format(lt / lc),
                                              "{:,.0f}".format(ft / fc), (lt / lc) / (ft / fc)),
                  flush=True)


if __name__ == "__main__":
    main()
