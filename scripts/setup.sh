#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the benchmarks need,
# by name, only when they are missing.
set -euo pipefail

PACKAGES=(
  cmake ninja-build g++ pkg-config
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  nlohmann-json3-dev
  libiscsi-dev libiscsi-bin libisal-dev
  qemu-utils qemu-block-extra tgt
  e2fsprogs dosfstools python3
  chromium
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
