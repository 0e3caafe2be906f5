#!/usr/bin/env bash
# bench/run.sh [GROUP...]: builds Release and runs the benchmarks, all groups
# or the named ones. A group is a program build-bench/bin/bench_GROUP, the
# programs build-bench/bin/bench_GROUP_* (a group whose figures come from
# several files), or a script bench/GROUP.sh. Every figure is one line:
#   figure <group>.<name> <value> <unit> ref <reference-name> <value> <unit> ratio <value/reference>
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DESA_BENCH=ON -DESA_TESTS=OFF >/dev/null
ninja -C build-bench >/dev/null

groups=("$@")
if [ ${#groups[@]} -eq 0 ]; then
  for f in build-bench/bin/bench_*; do
    [ -x "$f" ] || continue
    g="${f##*/bench_}"
    g="${g%%_*}"
    [[ " ${groups[*]-} " == *" $g "* ]] || groups+=("$g")
  done
  for f in bench/*.sh; do
    g=$(basename "$f" .sh)
    [ "$g" = run ] && continue
    groups+=("$g")
  done
fi

status=0
for g in "${groups[@]}"; do
  echo "== $g"
  ran=0
  for f in "build-bench/bin/bench_$g" build-bench/bin/bench_"$g"_*; do
    [ -x "$f" ] || continue
    "$f" || status=1
    ran=1
  done
  if [ $ran -eq 1 ]; then
    :
  elif [ -f "bench/$g.sh" ]; then
    bash "bench/$g.sh" || status=1
  else
    echo "bench/run.sh: no benchmark group '$g'" >&2
    status=1
  fi
done
exit $status
