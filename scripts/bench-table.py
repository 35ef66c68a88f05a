#!/usr/bin/env python3
"""Runs every path's benchmark beside its bare baseline and prints one
Markdown table: medians, the ratio to the baseline, instructions per record
from callgrind where a path has a function of its own, and the machine.

  scripts/bench-table.py [--build build/release] [--runs 5]

Each program runs --runs times as separate processes, each with repetitions;
a figure is the median over processes of each process's median. Called by
scripts/bench.sh, which builds first.
"""
import argparse
import datetime
import os
import platform
import re
import shutil
import statistics
import subprocess
import sys
import tempfile

import benchrun

# (path, program, benchmark, figure, baseline benchmark, baseline figure,
#  unit, better, goal, callgrind function)
# A figure is "time" (the benchmark's median time) or a user counter.
ROWS = [
    ("typical decoded record (`_ParseMirp`, one level update)", "udp_bench",
     "BM_ParseMirp_LevelUpdate", "time", "BM_RecordBareApply", "time", "ns", "lower", 20.0,
     r"CExanicUdpFunc::_ParseMirp\(char\*, unsigned int\)"),
    ("record whose book check fails and is restored", "udp_bench",
     "BM_ParseMirp_CrossedRestored", "time", "BM_RecordBareApply", "time", "ns", "lower", 30.0,
     r"CExanicUdpFunc::_ParseMirp\(char\*, unsigned int\)"),
    ("live step: `UdpRecv` through the software card, publish, figures", "udp_bench",
     "BM_UdpRecvPublish", "time", None, None, "ns", "lower", None, None),
    ("whole feed through the software card, replay phase (cache then replay)", "feed_bench",
     "BM_FeedReplay", "replay_records_per_s", "BM_FeedBareLoop", "records_per_s", "M records/s", "higher",
     10.0, None),
    ("whole feed through the software card, live phase (records held until the snapshot is loaded)", "feed_bench",
     "BM_FeedLive", "live_records_per_s", "BM_FeedBareLoop", "records_per_s", "M records/s", "higher",
     20.0, None),
    ("full snapshot, 20480 instruments, through the packet handler", "snapshot_bench",
     "BM_FullSnapshotThroughPacketHandler", "time", "BM_SnapshotBare", "time", "ms", "lower", 3.0, None),
    ("closing price check over the full table (part of the snapshot)", "snapshot_bench",
     "BM_PriceCheckFullTable", "time", None, None, "ms", "lower", None, None),
    ("TCP checksum, 1460-byte segments (the unit, as chosen for this CPU)", "snapshot_bench",
     "BM_TcpChecksumUnitChosen", "bytes_per_second", "BM_TcpChecksumBaselineReadAvx2", "bytes_per_second",
     "GB/s", "higher", 30.0, None),
    ("TCP checksum through the packet handler's check, 1468-byte segments", "snapshot_bench",
     "BM_TcpChecksum", "bytes_per_second", None, None, "GB/s", "higher", None, None),
    ("start to snapshot requested (replay of the million-record session)", "feed_bench",
     "BM_FeedLive", "snapshot_requested_ms_from_start", None, None, "ms", "lower", 50.0, None),
    ("resident size at the end of a whole-feed run", "feed_bench",
     "BM_FeedReplay", "resident_mb_at_end", None, None, "MB", "lower", None, None),
    ("resident size one whole-feed run leaves behind", "feed_bench",
     "BM_FeedReplay", "resident_mb_growth", None, None, "MB", "lower", None, None),
]

SCALE = {"ns": 1.0, "ms": 1.0, "M records/s": 1e-6, "GB/s": 1e-9, "MB": 1.0, "KB": 1.0}


def parse_args():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--build", default="build/release")
    p.add_argument("--runs", type=int, default=5)
    p.add_argument("--repetitions", type=int, default=5)
    p.add_argument("--no-callgrind", action="store_true")
    return p.parse_args()


def run_program(path, names, repetitions):
    """One process: each named benchmark's median figures (time and counters)."""
    pattern = "|".join(f"^{re.escape(n)}(/iterations:1/manual_time)?$" for n in sorted(names))
    # The whole feed runs once per repetition, for as long as it takes.
    steady = "feed_bench" not in path
    figures = benchrun.medians(path, pattern, repetitions, min_time="0.1" if steady else None,
                               interleave=steady)
    return {name.split("/")[0]: entry for name, entry in figures.items()}


def callgrind_per_call(path, benchmark, function):
    """Instructions per call of `function` while `benchmark` runs."""
    with tempfile.TemporaryDirectory() as work:
        out = os.path.join(work, "cg.out")
        subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}", path,
                        f"--benchmark_filter=^{benchmark}$", "--benchmark_min_time=0.01"],
                       check=True, capture_output=True)
        text = subprocess.run(["callgrind_annotate", "--inclusive=yes", "--tree=caller", out],
                              check=True, capture_output=True, text=True).stdout
    best = None
    calls = 0
    for line in text.splitlines():
        m = re.match(r"\s*([\d,]+) \(\s*[\d.]+%\)\s+<.*\(([\d,]+)x\)", line)
        if m:
            calls += int(m.group(2).replace(",", ""))
            continue
        m = re.match(r"\s*([\d,]+) \(\s*[\d.]+%\)\s+\*\s+(.*)", line)
        if m:
            if re.search(function, m.group(2)) and calls > 0:
                per = int(m.group(1).replace(",", "")) / calls
                if best is None or calls > best[1]:
                    best = (per, calls)
            calls = 0
        elif not line.strip():
            calls = 0
    return best[0] if best else None


def machine():
    model = "unknown CPU"
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    return f"{model}, {os.cpu_count()} cores, Linux {platform.release()}"


def main():
    args = parse_args()
    programs = {}
    for row in ROWS:
        names = programs.setdefault(row[1], set())
        names.add(row[2])
        if row[4]:
            names.add(row[4])
    results = {}
    for program, names in programs.items():
        path = os.path.join(args.build, "bench", program)
        per_run = []
        for run in range(args.runs):
            print(f"{program}: run {run + 1}/{args.runs}", file=sys.stderr, flush=True)
            per_run.append(run_program(path, names, args.repetitions))
        results[program] = per_run

    def figure(program, bench, key):
        values = [r[bench][key] for r in results[program] if bench in r and key in r[bench]]
        return statistics.median(values) if values else None

    print(f"Measured {datetime.date.today().isoformat()} on {machine()}; "
          f"{args.runs} processes of {args.repetitions} repetitions each, medians.\n")
    print("| Path | Median | Bare baseline | Ratio | Instructions per record | Goal | Met |")
    print("|---|---|---|---|---|---|---|")
    for (label, program, bench, key, base, base_key, unit, better, goal, function) in ROWS:
        value = figure(program, bench, key)
        base_value = figure(program, base, base_key) if base else None
        scale = {"ns": 1.0, "ms": 1e-6}[unit] if key == "time" else SCALE[unit]
        if not value and key.endswith("_per_s"):
            value = None  # a phase the run never reached
        cells = [label]
        cells.append(f"{value * scale:.3g} {unit}" if value is not None else "not reached")
        cells.append(f"{base_value * scale:.3g} {unit}" if base_value is not None else "none")
        ratio = None
        if value and base_value:
            ratio = value / base_value if better == "lower" else base_value / value
        cells.append(f"{ratio:.2f}x" if ratio is not None else "")
        instructions = None
        if function and not args.no_callgrind and shutil.which("valgrind"):
            instructions = callgrind_per_call(os.path.join(args.build, "bench", program), bench, function)
        cells.append(f"{instructions:.0f}" if instructions is not None else "")
        if goal is None:
            cells += ["", ""]
        else:
            cells.append(("≤ " if better == "lower" else "≥ ") + f"{goal:g} {unit}")
            met = value is not None and (value * scale <= goal if better == "lower" else value * scale >= goal)
            cells.append("yes" if met else "no")
        print("| " + " | ".join(cells) + " |")


if __name__ == "__main__":
    main()
