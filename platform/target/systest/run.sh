#!/bin/bash
# System tests of the iSCSI target: start esa-ramtarget on a free port and
# drive it with standard initiators (libiscsi's tools and conformance suite,
# qemu-img and qemu-io), with esa-load, and with the byte-level protocol
# tests of esa_target_tests aimed at the outside process.
#   run.sh conformance|tools|qemu|load_verify|faults BIN_DIR
set -u
CHECK=$1
BIN=$2
TARGET=iqn.2026-11.local.esa:array
WORK=$(mktemp -d /tmp/esa-target-XXXXXX)
RT_PID=

cleanup() {
    if [ -n "$RT_PID" ]; then kill "$RT_PID" 2>/dev/null; wait "$RT_PID" 2>/dev/null; fi
    rm -rf "$WORK"
}
trap cleanup EXIT

fail() {
    echo "FAIL: $*"
    exit 1
}

# start_target SIZE [LUNS]: starts esa-ramtarget on a port the kernel picks; sets PORT and URL.
start_target() {
    "$BIN/esa-ramtarget" --portal 127.0.0.1:0 --size "$1" --luns "${2:-1}" > "$WORK/target.log" 2>&1 &
    RT_PID=$!
    for _ in $(seq 1 500); do
        PORT=$(sed -n 's/.*listening on port \([0-9]*\).*/\1/p' "$WORK/target.log" 2>/dev/null)
        [ -n "$PORT" ] && break
        kill -0 "$RT_PID" 2>/dev/null || fail "esa-ramtarget did not start: $(cat "$WORK/target.log")"
        sleep 0.01
    done
    [ -n "$PORT" ] || fail "esa-ramtarget did not report its port"
    URL="iscsi://127.0.0.1:$PORT/$TARGET"
}

# The target must still be running (no crash) at the end of every check.
target_alive() {
    kill -0 "$RT_PID" 2>/dev/null || fail "esa-ramtarget died: $(tail -5 "$WORK/target.log")"
}

case "$CHECK" in
conformance)
    start_target 64m
    cd "$WORK" || exit 1
    # On a heavily loaded machine the suite has been seen to stall once in a
    # while (not reproduced on a quiet one): a stall is reported and the suite
    # run once more on a fresh target; a second stall fails the check.
    timeout 150 iscsi-test-cu -d -x -s "$URL/0" -t ALL > "$WORK/cu.log" 2>&1
    if [ $? -eq 124 ]; then
        echo "WARNING: iscsi-test-cu stalled; last lines:"; tail -5 "$WORK/cu.log"
        kill "$RT_PID" 2>/dev/null; wait "$RT_PID" 2>/dev/null
        start_target 64m
        timeout 150 iscsi-test-cu -d -x -s "$URL/0" -t ALL > "$WORK/cu.log" 2>&1
        [ $? -eq 124 ] && fail "iscsi-test-cu stalled twice"
    fi
    target_alive
    # Every suite must pass (tests of what the target does not support pass
    # on its refusal). ExtendedCopy's setup writes 2048 blocks in one WRITE(16),
    # more than one request of the system: the target runs it in pieces.
    python3 - "$WORK/CUnitAutomated-Results.xml" <<'PY' || exit 1
import re, sys
expected = set()
x = open(sys.argv[1]).read()
failed, unexpected = {}, []
for part in re.split(r"<SUITE_NAME>", x)[1:]:
    suite = part.split("</SUITE_NAME>")[0].strip()
    tests = sorted(set(re.findall(r"<CUNIT_RUN_TEST_FAILURE>.*?<TEST_NAME>\s*(.*?)\s*</TEST_NAME>", part, re.S)))
    if tests:
        failed[suite] = tests
        if suite not in expected:
            unexpected.append(suite)
m = re.search(r"Test Cases </TYPE>\s*<TOTAL>\s*(\d+).*?<SUCCEEDED>\s*(\d+)\s*</SUCCEEDED>\s*<FAILED>\s*(\d+)", x, re.S)
if not m or int(m.group(1)) < 200:
    print("FAIL: the conformance suite did not run (%s)" % (m.groups() if m else "no summary"))
    sys.exit(1)
print("iscsi-test-cu ALL: %s test cases, %s passed, %s failed" % m.groups())
for s, t in failed.items():
    print("  %s %s: %s" % ("expected" if s in expected else "UNEXPECTED", s, ", ".join(t)))
sys.exit(1 if unexpected else 0)
PY
    ;;
tools)
    start_target 64m 2
    out=$(iscsi-inq "$URL/0") || fail "iscsi-inq failed"
    echo "$out" | grep -q "Peripheral Device Type:DIRECT_ACCESS" || fail "iscsi-inq: $out"
    echo "$out" | grep -q "Version Descriptor:04c0" || fail "iscsi-inq: no SBC-3 descriptor"
    out=$(iscsi-readcapacity16 "$URL/1") || fail "iscsi-readcapacity16 failed"
    echo "$out" | grep -q "RETURNED LOGICAL BLOCK ADDRESS:131071" || fail "iscsi-readcapacity16: $out"
    echo "$out" | grep -q "Total size:67108864" || fail "iscsi-readcapacity16: $out"
    out=$(iscsi-ls -s "iscsi://127.0.0.1:$PORT") || fail "iscsi-ls failed"
    echo "$out" | grep -q "Target:$TARGET Portal:127.0.0.1:$PORT,1" || fail "iscsi-ls: $out"
    echo "$out" | grep -q "Lun:1" || fail "iscsi-ls does not list LUN 1: $out"
    iscsi-inq "iscsi://127.0.0.1:$PORT/iqn.2026-11.local.esa:other/0" > /dev/null 2>&1 && fail "login to a wrong target name succeeded"
    target_alive
    # With CHAP configured, only the right user and secret get in.
    kill "$RT_PID"; wait "$RT_PID" 2>/dev/null
    "$BIN/esa-ramtarget" --portal 127.0.0.1:0 --size 16m --chap alice:s3cretpass1234 > "$WORK/target.log" 2>&1 &
    RT_PID=$!
    PORT=
    for _ in $(seq 1 500); do
        PORT=$(sed -n 's/.*listening on port \([0-9]*\).*/\1/p' "$WORK/target.log" 2>/dev/null)
        [ -n "$PORT" ] && break
        sleep 0.01
    done
    iscsi-inq "iscsi://alice%s3cretpass1234@127.0.0.1:$PORT/$TARGET/0" > /dev/null || fail "CHAP login with the right secret"
    iscsi-inq "iscsi://alice%wrongsecret12@127.0.0.1:$PORT/$TARGET/0" > /dev/null 2>&1 && fail "CHAP login with a wrong secret succeeded"
    iscsi-inq "iscsi://127.0.0.1:$PORT/$TARGET/0" > /dev/null 2>&1 && fail "login without CHAP succeeded"
    target_alive
    ;;
qemu)
    start_target 64m
    head -c $((64 << 20)) /dev/urandom > "$WORK/in.raw"
    qemu-img convert -n -f raw -O raw "$WORK/in.raw" "$URL/0" || fail "qemu-img convert onto the LUN"
    qemu-img convert -f raw -O raw "$URL/0" "$WORK/out.raw" || fail "qemu-img convert from the LUN"
    cmp "$WORK/in.raw" "$WORK/out.raw" || fail "the image read back differs"
    # Reads and writes at offsets and lengths that are not whole blocks.
    qemu-io -f raw -c "write -P 0xa5 1000 3000" -c "read -P 0xa5 1000 3000" -c "write -P 0x3c 4194303 1" \
        -c "read -P 0x3c 4194303 1" "$URL/0" > "$WORK/io.log" 2>&1 || fail "qemu-io: $(cat "$WORK/io.log")"
    grep -q "Pattern verification failed" "$WORK/io.log" && fail "qemu-io: $(cat "$WORK/io.log")"
    # Exactly the bytes written changed: the blocks around them kept the image.
    qemu-img convert -f raw -O raw "$URL/0" "$WORK/after.raw" || fail "qemu-img convert after qemu-io"
    python3 - "$WORK/in.raw" "$WORK/after.raw" <<'PY' || fail "qemu-io writes at odd offsets landed wrongly"
import sys
a = bytearray(open(sys.argv[1], "rb").read())
b = open(sys.argv[2], "rb").read()
a[1000:4000] = b"\xa5" * 3000
a[4194303] = 0x3c
sys.exit(0 if a == b else 1)
PY
    target_alive
    ;;
load_verify)
    start_target 256m
    "$BIN/esa-load" "$URL/0" --verify --pattern rand --rw mix --qd 32 --sessions 2 --bytes 64m --range 32m \
        > "$WORK/load.log" 2>&1 || fail "esa-load --verify: $(cat "$WORK/load.log")"
    grep -q "mismatches=0" "$WORK/load.log" || fail "$(cat "$WORK/load.log")"
    "$BIN/esa-load" "$URL/0" --verify --pattern seq --rw write --bs 128k --qd 32 --sessions 2 --bytes 64m \
        > "$WORK/load2.log" 2>&1 || fail "esa-load --verify sequential: $(cat "$WORK/load2.log")"
    cat "$WORK/load.log" "$WORK/load2.log"
    target_alive
    ;;
faults)
    start_target 16m 2
    # The outside target takes the place of the in-process one; one instance of
    # each parameterised test is enough.
    ESA_TEST_PORTAL="127.0.0.1:$PORT" "$BIN/esa_target_tests" \
        --gtest_filter='*IscsiTargetTest.Malformed*/Direct:*IscsiTargetTest.Oversized*/Direct:*IscsiTargetTest.Dropped*/Direct:*IscsiTargetTest.Login*/Direct:*IscsiTargetTest.Aborted*/Direct:*IscsiTargetTest.DataOutOfSequence*/Direct' \
        > "$WORK/faults.log" 2>&1 || fail "protocol fault tests against esa-ramtarget: $(cat "$WORK/faults.log")"
    grep -q "PASSED  \] 7 tests" "$WORK/faults.log" || fail "the fault tests did not all run: $(tail -5 "$WORK/faults.log")"
    cat "$WORK/faults.log" | grep -E "^\[ +(OK|FAILED) "
    target_alive
    ;;
*)
    fail "unknown check $CHECK"
    ;;
esac
echo "PASS: $CHECK"
