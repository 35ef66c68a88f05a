#!/usr/bin/env bash
# Sets up a fresh machine, then builds and runs every test in the release,
# asan (AddressSanitizer + UndefinedBehaviorSanitizer) and tsan
# (ThreadSanitizer) presets, and in the card
# preset (the card library built from its source, QUVO_EXANIC_SRC, default
# ../shared/libexanic), then fuzzes the decoded-record parser, the snapshot
# packet handler, the configuration reader and a whole software-card session
# for a bounded time (fuzz preset). Fails if any step fails.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh

for preset in release asan tsan; do
    echo "=== $preset: configure"
    cmake --preset "$preset"
    echo "=== $preset: build"
    cmake --build --preset "$preset"
    echo "=== $preset: test"
    ctest --preset "$preset"
done
echo "=== all tests passed in release, asan and tsan"
# Five minutes of the release feed on the simulator with every fault at
# once. The process's heap (the simulator inside it included) settles over
# the first two to three minutes of restarts, so the first half has to cover
# the settling.
scripts/soak.sh 5

exanic_src="${QUVO_EXANIC_SRC:-../shared/libexanic}"
if [ -f "$exanic_src/fifo_rx.c" ]; then
    exanic_src="$(cd "$exanic_src" && pwd)"
    echo "=== card: configure (libexanic from $exanic_src)"
    cmake --preset card -DQUVO_EXANIC_SRC="$exanic_src"
    echo "=== card: build"
    cmake --build --preset card
    echo "=== card: test"
    ctest --preset card
    echo "=== all tests passed in card"
else
    echo "=== card: skipped, no libexanic source at $exanic_src (set QUVO_EXANIC_SRC)"
fi

echo "=== fuzz: configure"
cmake --preset fuzz
echo "=== fuzz: build"
cmake --build --preset fuzz
# Runs one fuzz target on a copy of its checked-in corpus (the fuzzer adds to
# the corpus it is given). Inputs that fail are kept in build/fuzz/artifacts
# and printed.
artifacts="$PWD/build/fuzz/artifacts"
rm -rf "$artifacts"
mkdir -p "$artifacts"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
run_fuzzer() {  # target corpus-name seconds [libFuzzer flags...]
    echo "=== fuzz: $1 for $3 s"
    rm -rf "$work/corpus"
    mkdir "$work/corpus"
    cp "fuzz/corpus/$2"/* "$work/corpus/"
    local status=0
    (cd "$work" &&
        UBSAN_OPTIONS=print_stacktrace=1 "$OLDPWD/build/fuzz/fuzz/$1" \
            -max_total_time="$3" -timeout=10 -print_final_stats=1 \
            -artifact_prefix="$artifacts/$1-" "${@:4}" corpus) || status=$?
    if [ "$status" -ne 0 ]; then
        for input in "$artifacts/$1-"*; do
            [ -e "$input" ] || continue
            echo "=== fuzz: failing input $input"
            od -An -tx1 -v "$input"
        done
        echo "=== fuzz: $1 failed (exit $status)"
        exit "$status"
    fi
    echo "=== fuzz: $1 found no failure in $3 s"
}

run_fuzzer parse_mirp_fuzz parse_mirp "${QUVO_FUZZ_SECONDS:-60}"
# The snapshot-reassembly targets keep one snapshot object across inputs, so
# a printed input that passes alone needs the inputs run before it.
run_fuzzer packet_handler_fuzz packet_handler "${QUVO_FUZZ_PACKET_SECONDS:-45}"
run_fuzzer packet_handler_checksum_fuzz packet_handler "${QUVO_FUZZ_PACKET_SECONDS:-45}"
run_fuzzer config_fuzz config "${QUVO_FUZZ_CONFIG_SECONDS:-30}"
# Every input runs the whole feed, which allocates and zeroes its 200 MiB
# decoded-record cache; the limit leaves room for that and a freed one.
run_fuzzer soft_card_session_fuzz soft_card_session "${QUVO_FUZZ_SESSION_SECONDS:-30}" -rss_limit_mb=2048
