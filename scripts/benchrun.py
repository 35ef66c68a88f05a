"""Runs a Google Benchmark program once and returns its median figures; shared
by bench-compare.py and bench-table.py."""
import json
import os
import subprocess
import sys
import tempfile

_NS_PER = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def medians(program, pattern, repetitions, min_time=None, interleave=True):
    """{run name: figures} of one process: each benchmark's median real time
    in ns under "time" (and as reported, "real_time" in "time_unit"), and its
    counters. Exits on a benchmark error or when
    nothing matched."""
    # The whole feed logs to standard output, so the figures go to a file.
    with tempfile.TemporaryDirectory() as work:
        out_path = os.path.join(work, "out.json")
        cmd = [program, f"--benchmark_filter={pattern}", f"--benchmark_repetitions={repetitions}",
               "--benchmark_report_aggregates_only=true", f"--benchmark_out={out_path}",
               "--benchmark_out_format=json"]
        if interleave:
            cmd.append("--benchmark_enable_random_interleaving=true")
        if min_time is not None:
            cmd.append(f"--benchmark_min_time={min_time}")
        subprocess.run(cmd, check=True, capture_output=True)
        with open(out_path) as f:
            report = json.load(f)
    figures = {}
    for b in report["benchmarks"]:
        if b.get("aggregate_name") != "median":
            continue
        if b.get("error_occurred"):
            sys.exit(f"{b['run_name']}: {b.get('error_message', 'failed')}")
        entry = {k: v for k, v in b.items() if isinstance(v, (int, float))}
        entry["time_unit"] = b.get("time_unit", "ns")
        entry["time"] = b["real_time"] * _NS_PER[entry["time_unit"]]
        figures[b["run_name"]] = entry
    if not figures:
        sys.exit(f"{program}: no benchmark matched {pattern}")
    return figures
