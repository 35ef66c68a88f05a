#!/usr/bin/env bash
# Usage: scripts/bench.sh [--runs N] [--repetitions N] [--no-callgrind]
#
# Builds the release preset's benchmarks and prints one Markdown table: every
# path's median beside its bare baseline, their ratio, instructions per record
# from callgrind, the goal and whether it is met, with the machine it ran on.
# bench/README.md keeps the last table. Run it on an otherwise idle machine:
# the figures are medians, but a busy neighbour still moves them.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset release >/dev/null
cmake --build --preset release --target udp_bench snapshot_bench feed_bench quvo-sim >/dev/null
exec python3 scripts/bench-table.py --build build/release "$@"
