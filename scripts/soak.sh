#!/usr/bin/env bash
# Usage: scripts/soak.sh [MINUTES]   (default 60)
#
# Runs the release quvo-md on the built-in simulator with every fault at once
# for MINUTES, then fails unless
#   - the feed stopped by itself, in time, with status 0;
#   - its decode cache never overflowed (that drops records);
#   - its books equal the simulator's expected state (quvo-dump --check);
#   - every gap the simulator made led to exactly one restart: the gaps equal
#     the "discontinuous changeNo" lines, the restarts in the log and the
#     snapshots after the first;
#   - the median resident size in the second half of the run, counted from
#     the first snapshot, is within 1% of the median in the first half. The
#     size swings by up to 3% as restarts free and remake the books' memory,
#     so a half's largest sample says more about when a swing fell than about
#     a leak; a leak moves the median.
# QUVO_SOAK_BUILD names the build directory of quvo-md and quvo-dump (default:
# the release preset's, built here); QUVO_SOAK_SEED the simulator's seed
# (default: from the clock); QUVO_SOAK_RATE its records a second (default
# 500000; 0 is as fast as the feed reads). Shared memory is keyed in a
# temporary directory that is removed, with the feed's segments, however the run
# ends.
set -euo pipefail
cd "$(dirname "$0")/.."

minutes=${1:-60}
if ! [[ $minutes =~ ^[1-9][0-9]{0,4}$ ]]; then
    echo "usage: $0 [MINUTES]  (a whole number of minutes from 1, default 60)" >&2
    exit 2
fi
if [ -n "${QUVO_SOAK_BUILD:-}" ]; then
    build=$(realpath "$QUVO_SOAK_BUILD")
else
    [ -f build/release/CMakeCache.txt ] || cmake --preset release
    cmake --build --preset release --target quvo-md quvo-dump
    build=$PWD/build/release
fi
for program in quvo-md quvo-dump; do
    if [ ! -x "$build/$program" ]; then
        echo "soak: no $build/$program" >&2
        exit 2
    fi
done

seconds=$((minutes * 60))
quiet=2         # exit=: the feed is stopped once nothing moved for this long
sample_every=2  # seconds between resident-size samples
# Past this the feed is stopped: the records end at $seconds, and the last
# restart and the quiet period take seconds more.
bound=$((seconds + 60 + seconds / 20))
seed=${QUVO_SOAK_SEED:-$(date +%s)}
# Not rate=0: there every read finds a record, so the feed's replay after a
# snapshot (one frame cached for each one applied) never drains, and the cache
# overflows within seconds. A third of what the feed takes at full speed
# leaves it room to catch up after each restart and stay live.
rate=${QUVO_SOAK_RATE:-500000}
if ! [[ $rate =~ ^[0-9]+$ ]]; then
    echo "soak: QUVO_SOAK_RATE must be a whole number of records a second" >&2
    exit 2
fi

# About one gap every five seconds at the default rate; each restart loads a
# snapshot of 2400 instruments in a few milliseconds, so the feed is live
# nearly all the time. unknown_field is logged as an error, so it is kept to
# about one a second.
faults="tcp_reorder=0.02,tcp_duplicate=0.02,tcp_loss=0.02,tcp_bad_checksum=0.02,tcp_padding=0.05"
faults+=",tcp_other=0.02,tcp_reset=0.2,gap=0.0000004,stale=0.001,crossed=0.001,unknown_field=0.000002"
faults+=",short_record=0.001,bad_length=0.001"

work=$(mktemp -d "${TMPDIR:-/tmp}/quvo-soak.XXXXXX")
keys=()
feed_pid=
cleanup() {
    if [ -n "$feed_pid" ] && kill -0 "$feed_pid" 2>/dev/null; then
        kill -KILL "$feed_pid" 2>/dev/null || true
        wait "$feed_pid" 2>/dev/null || true
    fi
    for key in "${keys[@]}"; do
        ipcrm -M "$key" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# ftok(FILE, ID): the feed keys the ring and the area by ID 0x52 on key_f and
# key_e, and its health segment by 0x48 on key_e.
ftok() {
    local dev ino
    read -r dev ino < <(stat -L -c '%d %i' "$1")
    printf '0x%08x' $((($2 << 24) | ((dev & 0xff) << 16) | (ino & 0xffff)))
}
in_use() {
    ipcs -m | awk -v key="$1" '$1 == key { found = 1 } END { exit !found }'
}
# Fresh files can still share a key with another feed's (ftok keeps only the
# low 16 bits of the inode); new ones are made until no key is taken.
for attempt in 1 2 3 4 5 6 7 8; do
    export QUVO_KEY_DIR="$work/keys$attempt"
    mkdir "$QUVO_KEY_DIR"
    touch "$QUVO_KEY_DIR/key_f" "$QUVO_KEY_DIR/key_e"
    candidate=("$(ftok "$QUVO_KEY_DIR/key_f" 0x52)" "$(ftok "$QUVO_KEY_DIR/key_e" 0x52)"
               "$(ftok "$QUVO_KEY_DIR/key_e" 0x48)")
    if ! in_use "${candidate[0]}" && ! in_use "${candidate[1]}" && ! in_use "${candidate[2]}"; then
        keys=("${candidate[@]}")
        break
    fi
done
if [ ${#keys[@]} -eq 0 ]; then
    echo "soak: no free shared-memory keys for a fresh key directory" >&2
    exit 1
fi

cat >"$work/feed.ini" <<EOF
[config]
device = sim:shfe=2000,ine=400,seed=$seed,rate=$rate,seconds=$seconds,exit=$quiet,expect=$work/expect.json,$faults
insts = all
options = recv
shfe2ps = enabled
ine2ps = enabled
cpucore = -1
log_level = 7
EOF

log=$work/feed.out
memory=$work/memory.txt
: >"$log"
echo "=== soak: quvo-md for $minutes min, $rate records a second, every fault (seed $seed; work in $work)"
(cd "$work" && export QUVO_SOFT_CARD_STATS="$work/card.txt" && exec "$build/quvo-md" feed.ini >"$log" 2>"$work/feed.err") &
feed_pid=$!

# One line per sample: seconds since the start, VmRSS in kB, and 1 once the
# first snapshot was loaded.
started=$SECONDS
live=0
overran=0
next_progress=60
: >"$memory"
while kill -0 "$feed_pid" 2>/dev/null; do
    elapsed=$((SECONDS - started))
    if [ "$live" -eq 0 ] && grep -q -e "initialization completed" -e "process decode buffer" "$log"; then
        live=1
    fi
    rss=$(awk '$1 == "VmRSS:" { print $2 }' "/proc/$feed_pid/status" 2>/dev/null || true)
    if [ -n "$rss" ]; then
        echo "$elapsed $rss $live" >>"$memory"
    fi
    if [ "$minutes" -gt 1 ] && [ "$elapsed" -ge "$next_progress" ]; then
        echo "soak: minute $((elapsed / 60)) of $minutes: resident ${rss:-?} kB," \
            "$(grep -c "discontinuous changeNo" "$log" || true) gaps," \
            "$(($(grep -c "read configure file" "$log" || true) - 1)) restarts"
        next_progress=$((next_progress + 60))
    fi
    if [ "$elapsed" -gt "$bound" ]; then
        overran=1
        echo "soak: the feed is still running after $elapsed s (bound $bound s); stopping it" >&2
        kill -TERM "$feed_pid" 2>/dev/null || true
        for _ in $(seq 20); do
            kill -0 "$feed_pid" 2>/dev/null || break
            sleep 0.5
        done
        kill -KILL "$feed_pid" 2>/dev/null || true
        break
    fi
    sleep "$sample_every"
done
feed_status=0
wait "$feed_pid" || feed_status=$?
feed_pid=

failures=()
fail() {
    failures+=("$*")
}

[ "$overran" -eq 0 ] || fail "the feed overran its time bound of $bound s"
[ "$feed_status" -eq 0 ] || fail "the feed exited with status $feed_status"
if [ -s "$work/feed.err" ]; then
    echo "--- feed standard error:"
    tail -n 20 "$work/feed.err"
fi
if [ "$feed_status" -ne 0 ]; then
    echo "--- end of the feed's log:"
    tail -n 20 "$log"
fi

# The expected state's counts are on its first line.
count() {
    sed -n '1s/.*"'"$1"'": \([0-9]*\).*/\1/p' "$work/expect.json"
}
records="?" snapshots="?" sim_gaps="?"
books="no"
if [ -s "$work/expect.json" ]; then
    records=$(count records)
    snapshots=$(count snapshots)
    sim_gaps=$(count gaps)
    check_status=0
    "$build/quvo-dump" --check "$work/expect.json" >"$work/check.txt" 2>&1 || check_status=$?
    if [ "$check_status" -eq 0 ]; then
        books="yes"
    else
        fail "the books differ from the expected state (quvo-dump --check exit $check_status)"
        echo "--- quvo-dump --check:"
        head -n 25 "$work/check.txt"
    fi
else
    fail "the simulator wrote no expected state"
fi

overflows=$(grep -c "too many packet to cache" "$log" || true)
[ "$overflows" -eq 0 ] || fail "the decode cache overflowed $overflows times, dropping the records it held"
log_gaps=$(grep -c "discontinuous changeNo" "$log" || true)
restarts=$(($(grep -c "read configure file" "$log" || true) - 1))
if [[ $sim_gaps =~ ^[0-9]+$ && $snapshots =~ ^[0-9]+$ ]]; then
    if [ "$sim_gaps" -ne "$log_gaps" ] || [ "$sim_gaps" -ne "$restarts" ] || [ "$sim_gaps" -ne $((snapshots - 1)) ]; then
        fail "gaps and restarts disagree: the simulator made $sim_gaps gaps and $snapshots snapshots," \
            "the log has $log_gaps discontinuous changeNo lines and $restarts restarts"
    fi
    [ "$sim_gaps" -gt 0 ] || fail "no gap happened, so no restart was tried"
else
    fail "the expected state has no gap or snapshot count"
fi

# Resident size from the first snapshot on, split in two halves of time:
# each half's median, which the check compares, and its largest.
read -r first_median second_median first_max second_max first_n second_n < <(awk '
    function median(v, k,    i, j, x) {
        for (i = 1; i < k; i++) {
            x = v[i]
            for (j = i - 1; j >= 0 && v[j] > x; j--) v[j + 1] = v[j]
            v[j + 1] = x
        }
        return k % 2 ? v[(k - 1) / 2] : (v[k / 2 - 1] + v[k / 2]) / 2
    }
    BEGIN { n = 0 }
    $3 == 1 { t[n] = $1; r[n] = $2; n++ }
    END {
        if (n == 0) { print 0, 0, 0, 0, 0, 0; exit }
        mid = (t[0] + t[n - 1]) / 2
        a = 0; b = 0
        for (i = 0; i < n; i++) {
            if (t[i] <= mid) { fa[a++] = r[i]; if (r[i] > ma) ma = r[i] }
            else { sb[b++] = r[i]; if (r[i] > mb) mb = r[i] }
        }
        print (a ? median(fa, a) : 0), (b ? median(sb, b) : 0), ma + 0, mb + 0, a, b
    }' "$memory")
growth="?"
if [ "$first_n" -lt 2 ] || [ "$second_n" -lt 2 ]; then
    fail "too few resident-size samples after the first snapshot ($first_n and $second_n in the two halves)"
else
    growth=$(awk -v a="$first_median" -v b="$second_median" 'BEGIN { printf "%+.2f", (b - a) * 100 / a }')
    if awk -v g="$growth" 'BEGIN { exit !(g > 1 || g < -1) }'; then
        fail "the median resident size moved by $growth% from the first half to the second (limit 1%)"
    fi
fi

echo "=== soak summary"
echo "minutes:          $minutes ($rate records a second, seed $seed)"
echo "records:          $records made by the simulator"
# The software card writes its figures when the feed lets it go.
if [ -s "$work/card.txt" ]; then
    sed 's/^/card:             /' "$work/card.txt"
else
    echo "card:             no delivery figures: the feed did not let the software card go"
fi
echo "snapshots:        $snapshots"
echo "gaps:             $sim_gaps made by the simulator, $log_gaps discontinuous changeNo in the log"
echo "restarts:         $restarts (cache overflows: $overflows)"
echo "memory:           median $first_median kB in the first half, $second_median kB in the second," \
    "growth $growth% (largest $first_max and $second_max kB; $first_n and $second_n samples)"
echo "books equal:      $books"
if [ ${#failures[@]} -gt 0 ]; then
    for failure in "${failures[@]}"; do
        echo "FAILED: $failure"
    done
    exit 1
fi
echo "=== soak passed"
