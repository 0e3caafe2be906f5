#!/bin/bash
# Benchmark group "j1": the replay of the host write journal.
#   j1.replay_full   microseconds to replay a journal with every replay tag
#                    live (4 KiB random writes until the first flush of the
#                    disks' caches, which comes when free tags run short; the
#                    power is cut there), against reading the same number of
#                    bytes straight from the disk images (O_DIRECT, 4 KiB
#                    random reads). The ratio is replay time / read time.
# Prints one figure line and never fails on a slow machine.
#   ESA_BIN_DIR=DIR bench/j1.sh   uses the programs in DIR (default build-bench/bin)
set -u
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BIN=${ESA_BIN_DIR:-$ROOT/build-bench/bin}
if [ ! -x "$BIN/esa" ] || [ ! -x "$BIN/esa-load" ] || [ ! -x "$BIN/esa-board" ]; then
    [ -n "${ESA_BIN_DIR:-}" ] && { echo "j1: no esa/esa-load/esa-board in $BIN"; exit 0; }
    cmake -S "$ROOT" -B "$ROOT/build-bench" -G Ninja -DCMAKE_BUILD_TYPE=Release -DESA_TESTS=OFF > /dev/null &&
        ninja -C "$ROOT/build-bench" -j2 esa esa-load esa-board > /dev/null || { echo "j1: build failed"; exit 0; }
fi
WORK=$(mktemp -d /tmp/esa-bench-j1-XXXXXX)
ESA_PID=
cleanup() {
    [ -n "$ESA_PID" ] && kill -9 "$ESA_PID" 2>/dev/null
    wait 2>/dev/null
    rm -rf "$WORK"
}
trap cleanup EXIT

BOARD=$WORK/board
"$BIN/esa-board" create "$BOARD" --disks 8G,8G,12G > /dev/null || { echo "j1: board not made"; exit 0; }

# Starts esa on the board; sets ESA_PID and PORT once the LUN answers.
start_esa() {
    : > "$WORK/esa.log"
    ESA_BOARD=$BOARD ESA_PORTAL=127.0.0.1:0 ESA_CLOCK=real "$@" "$BIN/esa" < /dev/null > "$WORK/esa.log" 2>&1 &
    ESA_PID=$!
    PORT=
    for _ in $(seq 1 3000); do
        PORT=$(sed -n 's/.*listening on .*(port \([0-9]*\)).*/\1/p' "$WORK/esa.log" 2>/dev/null | head -1)
        [ -n "$PORT" ] && grep -q "J1R::replay GOOD sig\|J1R:replay: known magic\|J1R:replay: bad magic" "$WORK/esa.log" && break
        kill -0 "$ESA_PID" 2>/dev/null || break
        sleep 0.02
    done
}

start_esa env ESA_CRASH_AT=j1r.flush.begin:1
[ -n "$PORT" ] || { echo "j1: esa did not start"; exit 0; }
URL="iscsi://127.0.0.1:$PORT/iqn.2026-11.local.esa:array/0"
# The load runs until the power goes (esa-load would try to reconnect: it
# is stopped once esa has ended).
"$BIN/esa-load" "$URL" --pattern rand --rw write --bs 4k --qd 32 --seconds 120 --range $((1 << 30)) \
    > "$WORK/load.log" 2>&1 &
LOAD_PID=$!
wait "$ESA_PID" 2>/dev/null
ESA_PID=
kill -9 "$LOAD_PID" 2>/dev/null
wait "$LOAD_PID" 2>/dev/null

start_esa
LINE=$(grep -o "J1R::replay GOOD sig.*" "$WORK/esa.log" | head -1)
US=$(echo "$LINE" | sed -n 's/.* in \([0-9]*\) us.*/\1/p')
BYTES=$(echo "$LINE" | sed -n 's/.*sectors (\([0-9]*\) bytes.*/\1/p')
TAGS=$(echo "$LINE" | sed -n 's/.*replayed \([0-9]*\) tags.*/\1/p')
if [ -z "$US" ] || [ -z "$BYTES" ]; then
    echo "j1: no replay measured (${LINE:-no replay line})"
    exit 0
fi
kill -9 "$ESA_PID" 2>/dev/null; wait "$ESA_PID" 2>/dev/null; ESA_PID=

# The reference: the same bytes read from the disk images, 4 KiB at random
# places where they hold data, bypassing the page cache.
REF_US=$(python3 - "$BOARD/slots" "$BYTES" <<'PY'
import mmap, os, random, sys, time
slots, total = sys.argv[1], int(sys.argv[2])
imgs = [os.path.join(slots, f) for f in sorted(os.listdir(slots)) if f.endswith(".img")]
# Only where the images hold data: a sparse hole reads without any I/O.
blocks = []
for k, p in enumerate(imgs):
    fd = os.open(p, os.O_RDONLY)
    size, pos = os.fstat(fd).st_size, 0
    while pos < size:
        try:
            start = os.lseek(fd, pos, os.SEEK_DATA)
        except OSError:
            break
        end = os.lseek(fd, start, os.SEEK_HOLE)
        blocks += [(k, b) for b in range(start // 4096, end // 4096)]
        pos = end
    os.close(fd)
fds = [os.open(p, os.O_RDONLY | os.O_DIRECT) for p in imgs]
buf = mmap.mmap(-1, 4096)
r = random.Random(1)
n = max(1, total // 4096)
picks = [blocks[r.randrange(len(blocks))] for _ in range(n)]
t = time.perf_counter()
for k, b in picks:
    os.preadv(fds[k], [buf], b * 4096)
print(int((time.perf_counter() - t) * 1e6))
PY
)
[ -n "$REF_US" ] && [ "$REF_US" -gt 0 ] || { echo "j1: no reference measured"; exit 0; }
RATIO=$(python3 -c "print(f'{$US / $REF_US:.3f}')")
echo "j1: replayed $TAGS tags, $BYTES bytes"
echo "figure j1.replay_full $US us ref disk_read_same_bytes $REF_US us ratio $RATIO"
