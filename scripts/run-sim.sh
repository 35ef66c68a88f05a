#!/usr/bin/env bash
# Sets up a fresh machine, builds the release preset and runs the feed on the
# built-in exchange simulator (examples/sim.ini, or the configuration given).
# Shared memory is keyed in run/keys; watch the books from another terminal:
#   QUVO_KEY_DIR=$PWD/run/keys build/release/quvo-dump --watch cu2501
#   QUVO_KEY_DIR=$PWD/run/keys build/release/quvo-view
# Ctrl+C stops the feed.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
config=$(realpath "${1:-examples/sim.ini}")

scripts/setup.sh
cmake --preset release
cmake --build --preset release --target quvo-md quvo-dump quvo-sim quvo-view print_updates quvo-bridge

export QUVO_KEY_DIR="${QUVO_KEY_DIR:-$root/run/keys}"
mkdir -p "$QUVO_KEY_DIR" run/log
touch "$QUVO_KEY_DIR/key_f" "$QUVO_KEY_DIR/key_e"
echo "=== quvo-md on $config; keys in $QUVO_KEY_DIR; log files in run/log"
echo "=== watch: QUVO_KEY_DIR=$QUVO_KEY_DIR build/release/quvo-view  (or quvo-dump --watch cu2501)"
cd run/log
exec "$root/build/release/quvo-md" "$config"
