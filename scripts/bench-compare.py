#!/usr/bin/env python3
"""Runs a benchmark program built with copies of its components (benchmarks
named NAME/SUFFIX, see bench/CMakeLists.txt) several times and prints, per
benchmark, each variant's figure and the difference against the baseline.

A variant is a suffix without its trailing digits ("no_health2" belongs to
"no_health"); the unsuffixed benchmarks are the variant named by --main. The
figures are medians at every step: over the repetitions of one process, over
the placements (copies) of a variant in that process, then over processes.
The spread columns say how far identical code at other addresses moves.

  scripts/bench-compare.py --runs 5 --filter 'UdpRecvPublish' build/release/bench/udp_bench
"""
import argparse
import re
import statistics
import sys
from collections import defaultdict

import benchrun


def parse_args():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("program")
    p.add_argument("--runs", type=int, default=5, help="processes to run (default 5)")
    p.add_argument("--filter", default=".", help="--benchmark_filter for the program")
    p.add_argument("--repetitions", type=int, default=10)
    p.add_argument("--min-time", default="0.1", help="--benchmark_min_time per repetition")
    p.add_argument("--main", default="health", help="variant of the unsuffixed benchmarks")
    p.add_argument("--baseline", default="no_health", help="variant the others are read against")
    p.add_argument("--json", dest="json_out", help="also write the figures as JSON to this file")
    return p.parse_args()


def run_once(args):
    return {name: (f["real_time"], f["time_unit"]) for name, f in
            benchrun.medians(args.program, args.filter, args.repetitions, args.min_time).items()}


def split_name(name, main):
    # Benchmark arguments are path parts too ("BM_X/1024"); a suffix is a
    # last part that starts with a letter.
    base, _, last = name.rpartition("/")
    if base and re.match(r"[A-Za-z_]", last):
        return base, re.sub(r"\d+$", "", last), last
    return name, main, ""


def main():
    args = parse_args()
    # per benchmark: variant -> list over processes of the median across copies
    figures = defaultdict(lambda: defaultdict(list))
    spreads = defaultdict(lambda: defaultdict(list))
    units = {}
    for run in range(args.runs):
        print(f"run {run + 1}/{args.runs}", file=sys.stderr, flush=True)
        copies = defaultdict(lambda: defaultdict(list))
        for name, (time, unit) in run_once(args).items():
            base, variant, _ = split_name(name, args.main)
            copies[base][variant].append(time)
            units[base] = unit
        for base, variants in copies.items():
            for variant, times in variants.items():
                figures[base][variant].append(statistics.median(times))
                spreads[base][variant].append(max(times) - min(times))

    report = []
    for base in sorted(figures):
        variants = figures[base]
        row = {"benchmark": base, "unit": units[base], "variants": {}}
        for variant, values in sorted(variants.items()):
            entry = {"median": statistics.median(values),
                     "placement_spread": statistics.median(spreads[base][variant])}
            if variant != args.baseline and args.baseline in variants:
                diffs = [v - b for v, b in zip(values, variants[args.baseline])]
                entry["minus_baseline"] = statistics.median(diffs)
                entry["minus_baseline_range"] = [min(diffs), max(diffs)]
                entry["ratio"] = statistics.median(v / b for v, b in zip(values, variants[args.baseline]))
            row["variants"][variant] = entry
        report.append(row)

    print(f"{'benchmark':44} {'variant':10} {'median':>10} {'spread':>8} "
          f"{'- ' + args.baseline:>12} {'range over runs':>18} {'ratio':>7}")
    for row in report:
        for variant, e in row["variants"].items():
            line = (f"{row['benchmark']:44} {variant:10} {e['median']:10.2f} "
                    f"{e['placement_spread']:8.2f}")
            if "minus_baseline" in e:
                lo, hi = e["minus_baseline_range"]
                line += f" {e['minus_baseline']:+12.2f} {f'{lo:+.2f} .. {hi:+.2f}':>18} {e['ratio']:7.3f}"
            print(line + f"  {row['unit']}")
    if args.json_out:
        with open(args.json_out, "w") as f:
            json.dump({"program": args.program, "runs": args.runs, "report": report}, f, indent=2)


if __name__ == "__main__":
    main()
