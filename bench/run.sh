#!/usr/bin/env bash
# bench/run.sh [GROUP...]: builds Release and runs the benchmarks, all groups
# or the named ones. A group is a program build-bench/bin/bench_GROUP or a
# script bench/GROUP.sh. Every figure is one line:
#   figure <group>.<name> <value> <unit> ref <reference-name> <value> <unit> ratio <value/reference>
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DESA_BENCH=ON -DESA_TESTS=OFF >/dev/null
ninja -C build-bench >/dev/null

groups=("$@")
if [ ${#groups[@]} -eq 0 ]; then
  for f in build-bench/bin/bench_*; do [ -x "$f" ] && groups+=("${f##*/bench_}"); done
  for f in bench/*.sh; do
    g=$(basename "$f" .sh)
    [ "$g" = run ] && continue
    groups+=("$g")
  done
fi

status=0
for g in "${groups[@]}"; do
  echo "== $g"
  if [ -x "build-bench/bin/bench_$g" ]; then
    "build-bench/bin/bench_$g" || status=1
  elif [ -f "bench/$g.sh" ]; then
    bash "bench/$g.sh" || status=1
  else
    echo "bench/run.sh: no benchmark group '$g'" >&2
    status=1
  fi
done
exit $status
