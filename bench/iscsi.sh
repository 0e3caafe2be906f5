#!/bin/bash
# Benchmark group "iscsi": the appliance's iSCSI target (esa-ramtarget,
# memory-backed LUN) against the Linux SCSI target daemon tgtd serving a file
# on tmpfs, both measured with esa-load in the same run:
#   iscsi.seq_read_128k, iscsi.seq_write_128k   MB/s, queue depth 32
#   iscsi.rand_read_4k,  iscsi.rand_write_4k    IOPS, queue depth 32
# esa-ramtarget serves through the rings of the host data path, as the system
# will; the same figures with the prefix "direct_" are esa-ramtarget --direct
# (the protocol layer straight on memory), against the same tgtd measurement.
# Prints one figure line each and never fails on a slow machine.
#   bench/iscsi.sh            uses build-bench (what bench/run.sh builds), building
#                             the two programs there first if they are missing
#   ESA_BIN_DIR=DIR bench/iscsi.sh   uses the programs in DIR
#   ESA_BENCH_SECONDS=N       seconds per measurement (default 5)
set -u
ROOT=$(cd "$(dirname "$0")/.." && pwd)
SECONDS_EACH=${ESA_BENCH_SECONDS:-5}
LUN_BYTES=$((1 << 30))
BIN=${ESA_BIN_DIR:-$ROOT/build-bench/bin}
if [ ! -x "$BIN/esa-ramtarget" ] || [ ! -x "$BIN/esa-load" ]; then
    [ -n "${ESA_BIN_DIR:-}" ] && { echo "iscsi: no esa-ramtarget/esa-load in $BIN"; exit 0; }
    cmake -S "$ROOT" -B "$ROOT/build-bench" -G Ninja -DCMAKE_BUILD_TYPE=Release -DESA_TESTS=OFF > /dev/null &&
        ninja -C "$ROOT/build-bench" -j2 esa-ramtarget esa-load > /dev/null || { echo "iscsi: build failed"; exit 0; }
fi
WORK=$(mktemp -d /tmp/esa-bench-iscsi-XXXXXX)
SHM=$(mktemp -d /dev/shm/esa-bench-iscsi-XXXXXX)
RT_PID= RTD_PID=
. "$ROOT/bench/lib/tgtd.sh"
cleanup() {
    [ -n "$RT_PID" ] && kill "$RT_PID" 2>/dev/null
    [ -n "$RTD_PID" ] && kill "$RTD_PID" 2>/dev/null
    stop_tgtd
    wait 2>/dev/null
    rm -rf "$WORK" "$SHM"
}
trap cleanup EXIT

# The appliance's target.
"$BIN/esa-ramtarget" --portal 127.0.0.1:0 --size $LUN_BYTES > "$WORK/rt.log" 2>&1 &
RT_PID=$!
for _ in $(seq 1 500); do
    RT_PORT=$(sed -n 's/.*listening on port \([0-9]*\).*/\1/p' "$WORK/rt.log" 2>/dev/null)
    [ -n "$RT_PORT" ] && break
    sleep 0.01
done
[ -n "${RT_PORT:-}" ] || { echo "iscsi: esa-ramtarget did not start"; exit 0; }
ESA_URL=iscsi://127.0.0.1:$RT_PORT/iqn.2026-11.local.esa:array/0
"$BIN/esa-ramtarget" --portal 127.0.0.1:0 --size $LUN_BYTES --direct > "$WORK/rtd.log" 2>&1 &
RTD_PID=$!
for _ in $(seq 1 500); do
    RTD_PORT=$(sed -n 's/.*listening on port \([0-9]*\).*/\1/p' "$WORK/rtd.log" 2>/dev/null)
    [ -n "$RTD_PORT" ] && break
    sleep 0.01
done
DIRECT_URL=iscsi://127.0.0.1:${RTD_PORT:-1}/iqn.2026-11.local.esa:array/0

# The reference: tgtd with a file on tmpfs as its LUN 1.
truncate -s $LUN_BYTES "$SHM/lun.img"
start_tgtd "$SHM/lun.img" "$WORK"

# measure URL PATTERN RW BS FIELD: one esa-load run, prints the field of its result line.
measure() {
    "$BIN/esa-load" "$1" --pattern "$2" --rw "$3" --bs "$4" --qd 32 --seconds "$SECONDS_EACH" 2> "$WORK/err.log" |
        sed -n "s/^result .*$5=\([0-9.]*\).*/\1/p"
}

# Both LUNs are written once end to end first, so that no figure pays for
# the first touch of memory.
for url in "$ESA_URL" "$DIRECT_URL" $TGT_URL; do
    "$BIN/esa-load" "$url" --pattern seq --rw write --bs 512k --qd 16 --bytes $LUN_BYTES > /dev/null 2>&1
done

line() {  # NAME VALUE REF UNIT
    local ratio
    ratio=$(python3 -c "print('%.2f' % ($2 / $3 if $3 > 0 else 0))")
    echo "figure iscsi.$1 $2 $4 ref tgtd $3 $4 ratio $ratio"
}
figure() {  # NAME PATTERN RW BS FIELD UNIT
    local esa direct ref=0
    esa=$(measure "$ESA_URL" "$2" "$3" "$4" "$5")
    [ -n "$TGT_URL" ] && ref=$(measure "$TGT_URL" "$2" "$3" "$4" "$5")
    direct=$(measure "$DIRECT_URL" "$2" "$3" "$4" "$5")
    line "$1" "${esa:-0}" "${ref:-0}" "$6"
    DIRECT_LINES="$DIRECT_LINES$(line "direct_$1" "${direct:-0}" "${ref:-0}" "$6")
"
}
DIRECT_LINES=""

figure seq_read_128k seq read 128k mbps MB/s
figure seq_write_128k seq write 128k mbps MB/s
figure rand_read_4k rand read 4k iops IOPS
figure rand_write_4k rand write 4k iops IOPS
printf "%s" "$DIRECT_LINES"
exit 0
