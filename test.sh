#!/usr/bin/env bash
# Builds and runs every test, unit and system, through ctest: once in the
# normal build and once with AddressSanitizer and UndefinedBehaviorSanitizer.
#   ESA_SKIP_SANITIZE=1  skips the sanitizer pass (quicker local runs)
set -euo pipefail
cd "$(dirname "$0")"

scripts/setup.sh
JOBS=${JOBS:-$(nproc)}

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DESA_TESTS=ON >/dev/null
ninja -C build -j "$JOBS"
ctest --test-dir build -j "$JOBS" --output-on-failure --timeout 600

if [ "${ESA_SKIP_SANITIZE:-0}" != "1" ]; then
  cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DESA_TESTS=ON -DESA_SANITIZE=ON >/dev/null
  ninja -C build-asan -j "$JOBS"
  ASAN_OPTIONS=detect_leaks=0:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-asan -j "$JOBS" --output-on-failure --timeout 900
fi
