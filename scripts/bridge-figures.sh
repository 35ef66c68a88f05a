#!/usr/bin/env bash
# The bridge's figures on one host, over a NATS server on a loopback port:
#   scripts/bridge-figures.sh latency RATE SECONDS   feed at RATE records/s, bridge, mirror;
#                                                    latency from the feed's ring to the mirror's
#   scripts/bridge-figures.sh throughput MODE        the feed at full speed for 5 s of records:
#                                                    MODE alone, follow (a bridge with no NATS
#                                                    to reach) or bridge (bridge, NATS and mirror)
# Needs the release build (BUILD, default build/release) and nats-server. Each run's files are
# left in a directory under /tmp, named on the last line; the segments are removed.
set -euo pipefail

BUILD=$(realpath "${BUILD:-$(dirname "$0")/../build/release}")
NATS_SERVER=$(command -v nats-server || echo /usr/sbin/nats-server)
mode=${1:?latency or throughput}
dir=$(mktemp -d /tmp/quvo-bridge-figures.XXXX)
mkdir -p "$dir/feed-keys" "$dir/mirror-keys"
touch "$dir/feed-keys/key_f" "$dir/feed-keys/key_e" "$dir/mirror-keys/key_f" "$dir/mirror-keys/key_e"
pids=()

cleanup() {
    for pid in "${pids[@]}"; do
        kill -INT "$pid" 2>/dev/null || true
    done
    wait 2>/dev/null || true
    # The segments keyed by the run's key files: ring and area ('R'), health ('H').
    python3 - "$dir" <<'PY'
import ctypes, os, sys
libc = ctypes.CDLL(None, use_errno=True)
for sub in ("feed-keys", "mirror-keys"):
    for name, proj in (("key_f", 0x52), ("key_e", 0x52), ("key_e", 0x48)):
        key = libc.ftok(os.path.join(sys.argv[1], sub, name).encode(), proj)
        segment = libc.shmget(key, 0, 0) if key != -1 else -1
        if segment >= 0:
            libc.shmctl(segment, 0, None)  # IPC_RMID
PY
    echo "files in $dir"
}
trap cleanup EXIT

free_port() {
    python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

start_nats() {
    port=$(free_port)
    "$NATS_SERVER" --addr 127.0.0.1 --port "$port" --jetstream --store_dir "$dir/store" >"$dir/nats.out" 2>&1 &
    pids+=($!)
    for _ in $(seq 100); do
        grep -q "Server is ready" "$dir/nats.out" && return 0
        sleep 0.1
    done
    echo "nats-server did not start" >&2
    exit 1
}

feed_config() {  # rate seconds
    printf '[config]\ndevice = sim:shfe=300,ine=60,rate=%s,seconds=%s,exit=1\ncpucore = -1\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\n' \
        "$1" "$2" >"$dir/feed.ini"
}

case "$mode" in
latency)
    rate=${2:-20000}
    seconds=${3:-10}
    start_nats
    feed_config "$rate" "$seconds"
    (cd "$dir" && QUVO_KEY_DIR=$dir/feed-keys exec "$BUILD/quvo-md" "$dir/feed.ini" >"$dir/feed.out" 2>&1) &
    feed=$!
    QUVO_KEY_DIR=$dir/feed-keys "$BUILD/quvo-bridge" --server "nats://127.0.0.1:$port" --stats >"$dir/bridge.out" 2>&1 &
    pids+=($!)
    QUVO_KEY_DIR=$dir/mirror-keys "$BUILD/quvo-bridge" --mirror --server "nats://127.0.0.1:$port" --stats \
        >"$dir/mirror.out" 2>&1 &
    pids+=($!)
    sleep 2.5  # the snapshot
    "$BUILD/quvo-bridge-latency" --feed "$dir/feed-keys" --mirror "$dir/mirror-keys" \
        --seconds $((seconds - 3)) --out "$dir/latency.txt"
    wait "$feed"
    sleep 1
    tail -n 1 "$dir/bridge.out"
    ;;
throughput)
    what=${2:?alone, follow or bridge}
    feed_config 0 5
    if [ "$what" = bridge ]; then
        start_nats
        QUVO_KEY_DIR=$dir/mirror-keys "$BUILD/quvo-bridge" --mirror --server "nats://127.0.0.1:$port" \
            >"$dir/mirror.out" 2>&1 &
        pids+=($!)
    fi
    if [ "$what" != alone ]; then
        # "follow": a port nothing listens on, so the bridge only follows the ring.
        QUVO_KEY_DIR=$dir/feed-keys "$BUILD/quvo-bridge" --server "nats://127.0.0.1:${port:-$(free_port)}" \
            --stats >"$dir/bridge.out" 2>&1 &
        pids+=($!)
    fi
    (cd "$dir" && QUVO_KEY_DIR=$dir/feed-keys "$BUILD/quvo-md" "$dir/feed.ini" >"$dir/feed.out" 2>&1)
    QUVO_KEY_DIR=$dir/feed-keys "$BUILD/quvo-dump" --health --json |
        python3 -c 'import json, sys; h = json.load(sys.stdin); print("applied in 5 s:", h["records"]["applied"])'
    ;;
*)
    echo "usage: $0 latency [RATE [SECONDS]] | throughput alone|follow|bridge" >&2
    exit 2
    ;;
esac
