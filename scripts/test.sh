#!/usr/bin/env bash
# Sets up a fresh machine, then builds and runs every test in the release and
# asan (AddressSanitizer + UndefinedBehaviorSanitizer) presets. Fails if any
# step fails.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh

for preset in release asan; do
    echo "=== $preset: configure"
    cmake --preset "$preset"
    echo "=== $preset: build"
    cmake --build --preset "$preset"
    echo "=== $preset: test"
    ctest --preset "$preset"
done
echo "=== all tests passed in release and asan"
