#!/bin/bash
# Benchmark group "relayout": the rebuild of a pack that lost a disk, on the
# real esa (real clock) with five simulated disks of 8 GiB and Regions of half
# the default size:
#   relayout.rebuild              Zone bytes made redundant again per second
#                                 with no host load, against the raw
#                                 sequential copy rate from one disk image to
#                                 another on the same file system (dd of 1 GiB
#                                 through the page cache, as the simulated
#                                 disks' images are; the source sparse, as most
#                                 of a pack's Zones are never written)
#   relayout.host_during_rebuild  esa-load MB/s (rand mix 64k, qd 16) while
#                                 a second pulled disk is being rebuilt,
#                                 against the same load with no rebuild just
#                                 before, on the same layouts (after the
#                                 rebuild the Zones have another type, and a
#                                 64k write may then fill whole stripe lines)
# Both references are measured in the same run. Prints one figure line each
# and never fails on a slow machine.
#   ESA_BIN_DIR=DIR bench/relayout.sh uses the programs in DIR
#   ESA_BENCH_SECONDS=N               seconds per host measurement (default 5)
set -u
ROOT=$(cd "$(dirname "$0")/.." && pwd)
SECONDS_EACH=${ESA_BENCH_SECONDS:-5}
BIN=${ESA_BIN_DIR:-$ROOT/build-bench/bin}
BIN=$(cd "$BIN" 2>/dev/null && pwd || echo "$BIN")
if [ ! -x "$BIN/esa" ] || [ ! -x "$BIN/esa-load" ] || [ ! -x "$BIN/esa-board" ]; then
    [ -n "${ESA_BIN_DIR:-}" ] && { echo "relayout: no esa/esa-load/esa-board in $BIN"; exit 0; }
    cmake -S "$ROOT" -B "$ROOT/build-bench" -G Ninja -DCMAKE_BUILD_TYPE=Release -DESA_TESTS=OFF > /dev/null &&
        ninja -C "$ROOT/build-bench" -j2 esa esa-board esa-console esa-load > /dev/null || { echo "relayout: build failed"; exit 0; }
fi
WORK=$(mktemp -d /tmp/esa-bench-relayout-XXXXXX)
ESA_PID=
cleanup() {
    [ -n "$ESA_PID" ] && kill -9 "$ESA_PID" 2>/dev/null
    wait 2>/dev/null
    rm -rf "$WORK"
}
trap cleanup EXIT
console() { "$BIN/esa-console" "$WORK/board" "$@" 2>/dev/null; }
now() { date +%s.%N; }
ratio() { python3 -c "print('%.2f' % ($1 / $2 if $2 > 0 else 0))"; }
# Waits for the n-th "LM: rebuild completed" line and an idle repair thread.
wait_rebuild() {
    for _ in $(seq 1 6000); do
        if [ "$(grep -c 'LM: rebuild completed in' "$WORK/esa.log")" -ge "$1" ] &&
            console lmStatus | grep -q "LM idle"; then return 0; fi
        sleep 0.1
    done
    return 1
}
bytes_moved() { console lmStatus | sed -n 's/.*bytes moved \([0-9]*\).*/\1/p'; }

"$BIN/esa-board" create "$WORK/board" --disks 8G,8G,8G,8G,8G > /dev/null || { echo "relayout: esa-board create failed"; exit 0; }
echo "regionscalefactor 2" > "$WORK/board/rfa/FlashConfigData"
(cd "$WORK" && ESA_BOARD="$WORK/board" ESA_PORTAL=127.0.0.1:0 exec "$BIN/esa" -r > "$WORK/esa.log" 2>&1) &
ESA_PID=$!
disown "$ESA_PID"
for _ in $(seq 1 3000); do
    ESA_PORT=$(sed -n 's/^ESA: iSCSI target .* (port \([0-9]*\))$/\1/p' "$WORK/esa.log" 2>/dev/null)
    [ -n "$ESA_PORT" ] && break
    sleep 0.02
done
[ -n "${ESA_PORT:-}" ] || { echo "relayout: esa did not start"; exit 0; }
for _ in $(seq 1 600); do console lmStatus | grep -q "LM idle" && break; sleep 0.1; done
URL=iscsi://127.0.0.1:$ESA_PORT/iqn.2026-11.local.esa:array/0
"$BIN/esa-load" "$URL" --pattern seq --rw write --bs 512k --qd 16 --bytes 256m > /dev/null 2>&1
host_load() {
    "$BIN/esa-load" "$URL" --pattern rand --rw mix --bs 64k --qd 16 --range 256m --seconds "$SECONDS_EACH" 2> /dev/null |
        sed -n 's/^result mbps=\([0-9.]*\).*/\1/p'
}

# The raw sequential copy rate between two disk images beside the board's.
truncate -s 1G "$WORK/raw-src.img"
start=$(now)
dd if="$WORK/raw-src.img" of="$WORK/raw-dst.img" bs=1M count=1024 2> /dev/null
raw=$(python3 -c "print('%.1f' % (1024 / ($(now) - $start)))")
rm -f "$WORK/raw-src.img" "$WORK/raw-dst.img"

# A rebuild with no host load.
before=$(bytes_moved)
start=$(now)
console removeDisk 4 > /dev/null
wait_rebuild 1 || { echo "relayout: the first rebuild did not end"; exit 0; }
rate=$(python3 -c "print('%.1f' % (($(bytes_moved) - ${before:-0}) / 1048576 / ($(now) - $start)))")
echo "figure relayout.rebuild $rate MB/s ref raw_disk_seq_copy $raw MB/s ratio $(ratio "$rate" "$raw")"

# The host with no rebuild, then during the rebuild of a second pulled disk.
host_load > /dev/null  # warm-up: the first random writes also fill the map's caches
quiet=$(host_load)
console removeDisk 3 > /dev/null
for _ in $(seq 1 600); do console lmStatus | grep -q "move active" && break; sleep 0.05; done
busy=$(host_load)
console lmStatus | grep -q "LM idle" && echo "relayout: the rebuild ended before the host measurement did (a lower bound)"
wait_rebuild 2 > /dev/null
echo "figure relayout.host_during_rebuild ${busy:-0} MB/s ref host_without_rebuild ${quiet:-0} MB/s ratio $(ratio "${busy:-0}" "${quiet:-0}")"
kill -0 "$ESA_PID" 2>/dev/null || echo "relayout: esa ended during the run: $(tail -3 "$WORK/esa.log")"
exit 0
