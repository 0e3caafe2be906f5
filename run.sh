#!/usr/bin/env bash
# Starts the appliance on a simulated board: installs what is missing, builds,
# creates a default board of four disks of mixed sizes if none exists, and
# runs esa, starting it again whenever the board restarts it.
#
#   ESA_BOARD   board directory (default ./esa-board)
#   ESA_PORTAL  iSCSI listen address (default 127.0.0.1:3260)
#   any arguments are passed to esa (for example -c to clear the disks)
set -euo pipefail
cd "$(dirname "$0")"
ROOT=$(pwd)

scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DESA_TESTS=ON >/dev/null
ninja -C build esa esa-console esa-board

export ESA_BOARD=${ESA_BOARD:-$ROOT/esa-board}
export ESA_PORTAL=${ESA_PORTAL:-127.0.0.1:3260}
if [ ! -f "$ESA_BOARD/board.json" ]; then
  build/bin/esa-board create "$ESA_BOARD"
fi

cat <<EOT

ESA starting on board $ESA_BOARD
  LUNs:     iSCSI target iqn.2026-11.local.esa:array at $ESA_PORTAL, LUN 0 on a new pack
            e.g.  iscsi-ls -s iscsi://$ESA_PORTAL
                  qemu-io -c 'read -v 0 512' iscsi://$ESA_PORTAL/iqn.2026-11.local.esa:array/0
            more LUNs: build/bin/esa-console $ESA_BOARD createLun 64g
  Console:  $ROOT/build/bin/esa-console $ESA_BOARD help
            (or type commands here when this is a terminal)
  Logs:     $ESA_BOARD/diag.log (console), $ESA_BOARD/board.log (board calls)

EOT

trap 'exit 0' INT TERM
while true; do
  set +e
  build/bin/esa "$@"
  status=$?
  set -e
  if [ $status -eq 75 ]; then
    echo "run.sh: the board restarted the appliance (reason: $(cat "$ESA_BOARD/rebootreason" 2>/dev/null)); starting it again"
    set -- # a clear or reset asked for on the command line happens once
    continue
  fi
  exit $status
done
