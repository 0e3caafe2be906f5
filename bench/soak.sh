#!/bin/bash
# Benchmark group "soak": the rate of the power-cut soak (tests/soak), cuts
# per hour with the workloads in flight and every acknowledged write checked
# after each cut, beside the rate of bare restarts of esa on the same kind of
# board (start to console, kill -9) measured in the same run:
#   soak.cuts_per_hour   cuts/h   ref restarts_per_hour
# Prints one figure line and the soak's summary; never fails on a slow machine.
#   bench/soak.sh                  uses build/bin (the test tree), building esa_soak there if missing
#   ESA_BIN_DIR=DIR bench/soak.sh  uses the programs in DIR
#   ESA_BENCH_SECONDS=N            seconds of soak (default 180)
set -u
ROOT=$(cd "$(dirname "$0")/.." && pwd)
RUN_SECONDS=${ESA_BENCH_SECONDS:-180}
BIN=${ESA_BIN_DIR:-$ROOT/build/bin}
if [ ! -x "$BIN/esa_soak" ]; then
    [ -n "${ESA_BIN_DIR:-}" ] && { echo "soak: no esa_soak in $BIN"; exit 0; }
    cmake -S "$ROOT" -B "$ROOT/build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DESA_TESTS=ON > /dev/null &&
        ninja -C "$ROOT/build" -j2 esa_soak esa esa-board esa-console > /dev/null || { echo "soak: build failed"; exit 0; }
fi
ESA_SOAK_SECONDS=$RUN_SECONDS ESA_SOAK_FIGURE=1 "$BIN/esa_soak" 2>&1 | grep -E '^figure |^soak: [0-9]+ cuts|Failure|failure kept'
exit 0
