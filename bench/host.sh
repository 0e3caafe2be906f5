#!/bin/bash
# Benchmark group "host": the appliance end to end (esa on a temporary
# default board, its own iSCSI target, host path, LUN map, Zones and
# simulated disks) against the Linux SCSI target daemon tgtd serving a file
# on the same file system as the board's disk images, both measured with
# esa-load in the same run:
#   host.seq_read_128k, host.seq_write_128k   MB/s, queue depth 32
#   host.rand_read_4k,  host.rand_write_4k    IOPS, queue depth 32
# Each is measured on a LUN of 1 GiB written once end to end first. Prints
# one figure line each and never fails on a slow machine.
#   bench/host.sh                 uses build-bench (what bench/run.sh builds)
#   ESA_BIN_DIR=DIR bench/host.sh uses the programs in DIR
#   ESA_BENCH_SECONDS=N           seconds per measurement (default 5)
set -u
ROOT=$(cd "$(dirname "$0")/.." && pwd)
SECONDS_EACH=${ESA_BENCH_SECONDS:-5}
LUN_BYTES=$((1 << 30))
BIN=${ESA_BIN_DIR:-$ROOT/build-bench/bin}
if [ ! -x "$BIN/esa" ] || [ ! -x "$BIN/esa-load" ] || [ ! -x "$BIN/esa-board" ]; then
    [ -n "${ESA_BIN_DIR:-}" ] && { echo "host: no esa/esa-load/esa-board in $BIN"; exit 0; }
    cmake -S "$ROOT" -B "$ROOT/build-bench" -G Ninja -DCMAKE_BUILD_TYPE=Release -DESA_TESTS=OFF > /dev/null &&
        ninja -C "$ROOT/build-bench" -j2 esa esa-board esa-console esa-load > /dev/null || { echo "host: build failed"; exit 0; }
fi
WORK=$(mktemp -d /tmp/esa-bench-host-XXXXXX)
ESA_PID=
. "$ROOT/bench/lib/tgtd.sh"
cleanup() {
    [ -n "$ESA_PID" ] && kill -9 "$ESA_PID" 2>/dev/null
    stop_tgtd
    wait 2>/dev/null
    rm -rf "$WORK"
}
trap cleanup EXIT

# The appliance, on a default board in WORK, its target on a free port.
"$BIN/esa-board" create "$WORK/board" > /dev/null || { echo "host: esa-board create failed"; exit 0; }
(cd "$WORK" && ESA_BOARD="$WORK/board" ESA_PORTAL=127.0.0.1:0 exec "$BIN/esa" -r > "$WORK/esa.log" 2>&1) &
ESA_PID=$!
for _ in $(seq 1 3000); do
    ESA_PORT=$(sed -n 's/^ESA: iSCSI target .* (port \([0-9]*\))$/\1/p' "$WORK/esa.log" 2>/dev/null)
    [ -n "$ESA_PORT" ] && break
    sleep 0.02
done
[ -n "${ESA_PORT:-}" ] || { echo "host: esa did not start"; exit 0; }
for _ in $(seq 1 300); do
    "$BIN/esa-console" "$WORK/board" createLun 1g > /dev/null 2>&1 && break
    sleep 0.1
done
ESA_URL=iscsi://127.0.0.1:$ESA_PORT/iqn.2026-11.local.esa:array/1

# The reference: tgtd with a file beside the board's disk images.
truncate -s $LUN_BYTES "$WORK/lun.img"
start_tgtd "$WORK/lun.img" "$WORK"

measure() {  # URL PATTERN RW BS FIELD
    "$BIN/esa-load" "$1" --pattern "$2" --rw "$3" --bs "$4" --qd 32 --seconds "$SECONDS_EACH" 2> "$WORK/err.log" |
        sed -n "s/^result .*$5=\([0-9.]*\).*/\1/p"
}

for url in "$ESA_URL" $TGT_URL; do
    "$BIN/esa-load" "$url" --pattern seq --rw write --bs 512k --qd 16 --bytes $LUN_BYTES > /dev/null 2>&1
done

figure() {  # NAME PATTERN RW BS FIELD UNIT
    local esa ref=0 ratio
    esa=$(measure "$ESA_URL" "$2" "$3" "$4" "$5")
    [ -n "$TGT_URL" ] && ref=$(measure "$TGT_URL" "$2" "$3" "$4" "$5")
    ratio=$(python3 -c "print('%.2f' % (${esa:-0} / ${ref:-0} if ${ref:-0} > 0 else 0))")
    echo "figure host.$1 ${esa:-0} $6 ref tgtd ${ref:-0} $6 ratio $ratio"
}

figure seq_read_128k seq read 128k mbps MB/s
figure seq_write_128k seq write 128k mbps MB/s
figure rand_read_4k rand read 4k iops IOPS
figure rand_write_4k rand write 4k iops IOPS
kill -0 "$ESA_PID" 2>/dev/null || echo "host: esa ended during the run: $(tail -3 "$WORK/esa.log")"
exit 0
