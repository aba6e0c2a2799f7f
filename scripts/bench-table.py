#!/usr/bin/env python3
"""Runs the identity benchmarks and their floor in one run and prints the table.

    python3 scripts/bench-table.py [--min-time 0.2] [--repetitions 1] [--no-build]

Builds identity_bench and floor_bench in the default preset (RelWithDebInfo),
runs both over the generated stores (10^3, 10^4 and 10^5 identities, plain and
encrypted; generated once and cached under the temporary directory), and prints
a Markdown table per operation:

- library / floor at 10^5, encrypted and plain (operations with a floor);
- growth from 10^3 to 10^5, encrypted and plain, and the floor's growth beside
  it: where both grow alike, the growth is the statements' own;
- encrypted / plain at 10^5;
- statements per call at 10^5, the library's (and the floor's);
- the library's time per call at 10^5 encrypted;

and a second table with library / floor at each of the three scales.

Times are CPU time of the calling thread per call (see bench/support/BenchWorld.h).
A value past its goal (library/floor > 1.1, growth > 1.5, encrypted/plain > 1.3)
is marked with "!". Nothing here fails on speed; it only reports.
"""

import argparse
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
NAME = re.compile(r"^BM_(?P<op>[^/]+)/scale:(?P<scale>\d)/encrypted:(?P<enc>\d)")
UNIT = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}

# Operation names as the table shows them, where they differ from the benchmark's.
LABELS = {
    "exactKeyCandidates": "exactKeyCandidates(50)",
    "confirmCandidate": "confirmCandidate (merge)",
    "undoMerge_link": "undoMerge (of a link)",
    "searchSourceIdentities_records": "searchSourceIdentities: its records alone",
    "exactKeyCandidates_records": "exactKeyCandidates(50): its records alone",
    "undoMerge": "undoMerge (of a merge)",
    "confirmManualLink": "confirmManualLink (two identities)",
    "confirmManualLinkTargets": "confirmManualLink (identity and person)",
    "batchConfirmManualLink": "batchConfirmManualLink (three)",
    "searchSourceIdentities_askedAgain": "searchSourceIdentities, asked again",
    "exactKeyCandidates_askedAgain": "exactKeyCandidates(50), asked again",
    "identityHistory_askedAgain": "identityHistory, asked again",
}

ASKED_AGAIN = "_askedAgain"


def floor_of(op):
    """The floor an operation is compared with: a read asked again (answered from
    what the repository kept) against the statements of the read itself."""
    return op[:-len(ASKED_AGAIN)] if op.endswith(ASKED_AGAIN) else op


def run(command, **kwargs):
    print("+ " + " ".join(command), file=sys.stderr, flush=True)
    subprocess.run(command, check=True, **kwargs)


def measure(binary, out, args):
    run([binary, "--benchmark_format=console", "--benchmark_out_format=json",
         "--benchmark_out=" + out] + args, stdout=sys.stderr)
    with open(out) as f:
        text = f.read()
    if not text.strip():
        # Google Benchmark leaves the report empty when the filter matched nothing.
        sys.exit(f"{os.path.basename(binary)} ran no benchmark; the operations are named "
                 f"as in the table without their parentheses, e.g. --filter 'linkIdentity|undoMerge_link'")
    return json.loads(text)


def collect(reports):
    """{(op, scale, encrypted): (median seconds per call, statements per call)} over
    every run in the reports."""
    samples = {}
    for bench in (bench for report in reports for bench in report["benchmarks"]):
        if bench.get("run_type") == "aggregate" or bench.get("error_occurred"):
            continue
        match = NAME.match(bench["name"])
        if not match:
            continue
        key = (match["op"], int(match["scale"]), int(match["enc"]))
        seconds = bench["real_time"] * UNIT[bench.get("time_unit", "ns")]
        samples.setdefault(key, []).append((seconds, bench.get("statements", float("nan"))))
    return {key: (statistics.median(s for s, _ in values), statistics.median(n for _, n in values))
            for key, values in samples.items()}


def ratio(a, b):
    if a is None or b is None or b == 0:
        return None
    return a / b


def cell(value, goal=None, suffix=""):
    if value is None:
        return "-"
    text = f"{value:.2f}{suffix}"
    if goal is not None and value > goal:
        text += " !"
    return text


def duration(seconds):
    if seconds is None:
        return "-"
    if seconds >= 1e-3:
        return f"{seconds * 1e3:.2f} ms"
    return f"{seconds * 1e6:.1f} µs"


def table(library, floor):
    ops = []
    for (op, _, _) in library:
        if op not in ops:
            ops.append(op)
    lines = [
        "| Operation | library / floor at 10^5 (encrypted, plain) | growth 10^3 -> 10^5 "
        "(encrypted, plain; floor) | encrypted / plain at 10^5 | statements per call at 10^5: "
        "library (floor) | time at 10^5 encrypted |",
        "|---|---|---|---|---|---|",
    ]
    def t(source, op, scale, enc):
        value = source.get((op, scale, enc))
        return value[0] if value else None
    for op in ops:
        fop = floor_of(op)
        vs_floor = "-"
        if any(key[0] == fop for key in floor):
            vs_floor = ", ".join(cell(ratio(t(library, op, 5, e), t(floor, fop, 5, e)), 1.1)
                                 for e in (1, 0))
        growth = ", ".join(cell(ratio(t(library, op, 5, e), t(library, op, 3, e)), 1.5, "x")
                           for e in (1, 0))
        if any(key[0] == fop for key in floor):
            growth += " (floor " + ", ".join(
                f"{ratio(t(floor, fop, 5, e), t(floor, fop, 3, e)):.2f}x"
                if ratio(t(floor, fop, 5, e), t(floor, fop, 3, e)) is not None else "-"
                for e in (1, 0)) + ")"
        encrypted = cell(ratio(t(library, op, 5, 1), t(library, op, 5, 0)), 1.3)
        statements = library.get((op, 5, 1), library.get((op, 5, 0), (None, None)))[1]
        statement_text = "-" if statements is None else f"{statements:.4g}"
        floor_statements = floor.get((fop, 5, 1), floor.get((fop, 5, 0), (None, None)))[1]
        if floor_statements is not None:
            statement_text += f" ({floor_statements:.4g})"
        lines.append(f"| {LABELS.get(op, op)} | {vs_floor} | {growth} | {encrypted} | "
                     f"{statement_text} | {duration(t(library, op, 5, 1))} |")
    return "\n".join(lines)


def scales_table(library, floor):
    """Library / floor at each of the three scales, for the operations with a floor:
    the goal holds at every scale, and on the small stores what an operation does
    around its statements weighs the most."""
    floor_ops = {op for (op, _, _) in floor}
    ops = []
    for (op, _, _) in library:
        if op not in ops and floor_of(op) in floor_ops:
            ops.append(op)
    lines = [
        "| Operation | library / floor at 10^3 (encrypted, plain) | at 10^4 | at 10^5 |",
        "|---|---|---|---|",
    ]
    for op in ops:
        cells = []
        for scale in (3, 4, 5):
            cells.append(", ".join(
                cell(ratio(library.get((op, scale, e), (None,))[0],
                           floor.get((floor_of(op), scale, e), (None,))[0]), 1.1)
                for e in (1, 0)))
        lines.append(f"| {LABELS.get(op, op)} | " + " | ".join(cells) + " |")
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build-dir", default=os.path.join(ROOT, "build", "default"))
    parser.add_argument("--min-time", default="0.2",
                        help="seconds of measured time per benchmark (default 0.2)")
    parser.add_argument("--repetitions", type=int, default=1,
                        help="rounds: runs of each benchmark, the library's and the "
                             "floor's in turn; the table takes the median")
    parser.add_argument("--filter", default="",
                        help="only operations matching this regular expression")
    parser.add_argument("--no-build", action="store_true")
    parser.add_argument("--keep", metavar="DIR",
                        help="keep the JSON reports of both programs in DIR")
    options = parser.parse_args()

    if not options.no_build:
        run(["cmake", "--preset", "default"], cwd=ROOT, stdout=subprocess.DEVNULL)
        run(["cmake", "--build", "--preset", "default", "-j2", "--target", "identity_bench",
             "floor_bench"], cwd=ROOT)

    args = ["--benchmark_min_time=" + options.min_time]
    if options.filter:
        args.append("--benchmark_filter=BM_(" + options.filter + ")/")
    out_dir = options.keep or tempfile.mkdtemp(prefix="orvik-bench-table-")
    os.makedirs(out_dir, exist_ok=True)
    started = time.time()
    bench_dir = os.path.join(options.build_dir, "bench")
    # One run of every benchmark of the library, then of the floor, in rounds: a
    # machine that gets slower or faster for a while moves both sides alike.
    library_reports = []
    floor_reports = []
    for round_number in range(1, options.repetitions + 1):
        library_reports.append(measure(os.path.join(bench_dir, "identity_bench"),
                                       os.path.join(out_dir, f"library-{round_number}.json"),
                                       args))
        floor_reports.append(measure(os.path.join(bench_dir, "floor_bench"),
                                     os.path.join(out_dir, f"floor-{round_number}.json"), args))
    elapsed = time.time() - started

    context = library_reports[0].get("context", {})
    load = ", ".join(f"{x:.1f}" for x in context.get("load_avg", []))
    print(f"Measured {time.strftime('%Y-%m-%d %H:%M UTC', time.gmtime(started))} on "
          f"{context.get('num_cpus', '?')} CPUs at {context.get('mhz_per_cpu', '?')} MHz, "
          f"load average {load or '?'}; {elapsed / 60:.1f} minutes; "
          f"--min-time {options.min_time}, {options.repetitions} round(s) of library "
          f"and floor.")
    print()
    library = collect(library_reports)
    floor = collect(floor_reports)
    print(table(library, floor))
    print()
    print(scales_table(library, floor))
    if not options.keep:
        print(f"\nJSON reports: {out_dir}", file=sys.stderr)


if __name__ == "__main__":
    main()
