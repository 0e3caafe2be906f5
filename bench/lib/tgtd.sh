# Sourced by the benchmark scripts: the reference target, the Linux SCSI
# target daemon tgtd serving one file as LUN 1.
#   start_tgtd FILE WORKDIR   sets TGT_URL (empty when tgtd is missing or
#                             could not be set up), TGT_PID and CTL_PORT
#   stop_tgtd                 ends it
TGT_URL= TGT_PID= CTL_PORT=

start_tgtd() {
    local file=$1 work=$2 port
    if ! command -v tgtd > /dev/null || ! command -v tgtadm > /dev/null; then
        echo "tgtd is not installed (Debian package tgt), figures have no reference"
        return 0
    fi
    port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
    CTL_PORT=$(( (port % 20000) + 1000 ))
    tgtd -f -C "$CTL_PORT" --iscsi portal=127.0.0.1:"$port" > "$work/tgtd.log" 2>&1 &
    TGT_PID=$!
    disown "$TGT_PID"  # it is ended with SIGKILL; no job report for that
    for _ in $(seq 1 200); do
        tgtadm -C "$CTL_PORT" --lld iscsi --op new --mode target --tid 1 -T iqn.2026-11.local.bench:tgtd 2> /dev/null && break
        sleep 0.05
    done
    if tgtadm -C "$CTL_PORT" --lld iscsi --op new --mode logicalunit --tid 1 --lun 1 -b "$file" &&
        tgtadm -C "$CTL_PORT" --lld iscsi --op bind --mode target --tid 1 -I ALL; then
        TGT_URL=iscsi://127.0.0.1:$port/iqn.2026-11.local.bench:tgtd/1
    else
        echo "tgtd could not be set up, figures have no reference"
    fi
}

stop_tgtd() {
    [ -n "$TGT_PID" ] || return 0
    # tgtd leaves on its own system delete; SIGTERM alone does not end it.
    tgtadm -C "$CTL_PORT" --mode system --op delete --force > /dev/null 2>&1
    sleep 0.2
    kill -9 "$TGT_PID" 2>/dev/null
}
