#!/usr/bin/env bash
# The daemon's IPC commands as an operator uses them, with the real binaries.
. "$(dirname "$0")/lib.sh"

start_daemon || exit 1
LOG="$WORK/tovrin.log"

check_eq "status before any controller" "$(ctl status)" "controller 0.0.0.0 link DOWN"

rm -f /tmp/tovrindumpfile
ctl dump
check "dump leaves /tmp/tovrindumpfile existing and empty" test -f /tmp/tovrindumpfile -a ! -s /tmp/tovrindumpfile

ctl log set level 0
ctl notify 124
check "notification 124 prints its line at level 0" \
    wait_for "$WORK/tovrin.out" "^\*{7}I am called don't know what to do :\) !{13}$" 5
ctl log set level 4

check_eq "unknown request answered empty" "$(ctl request 555)" "type=555 flags=0x00000004 len=0 payload="
check "unknown request logged" grep -q 'Not expecting message 555 type Request/Response' "$LOG"
check "every log line has the time prefix" \
    bash -c "! grep -vqE '^:[0-9]+:([0-9]|[1-9][0-9]|[1-9][0-9][0-9]): ' '$LOG'"

ctl log set level 3
ctl notify 16
ctl request 556
check "level 3 keeps notes and notable events" \
    bash -c "grep -q 'System Ready message received' '$LOG' && grep -q 'message 556' '$LOG'"
before=$(grep -c 'DBG:' "$LOG")
ctl encrypt 0
ctl log set level 1
ctl notify 16
check_eq "no debug line at level 3 or 1" "$(grep -c 'DBG:' "$LOG")" "$before"
check_eq "System Ready not logged at level 1" "$(grep -c 'System Ready' "$LOG")" 1
check_eq "log get shows the level set" "$(ctl log get)" "level 1 echo 0 max 1048576"

ctl log set level 4
ctl key 00112233445566778899aabbccddeeff
ctl request 557
check "the key's length is logged" grep -q 'keylen=16' "$LOG"
check "the key's bytes never reach the log" bash -c "! grep -qi '00112233' '$LOG'"

check_eq "endpoint file mode" "$(stat -c %a "$VK_IPC_ROOT/vk/ipc/tovrin")" 660

# A second daemon on the same endpoint ends at once; the first goes on.
mkdir -p "$WORK/second"
VK_LOG_DIR="$WORK/second" "$TOVRIN_BIN" >"$WORK/second.out" 2>&1
check_eq "second daemon exits with status 1" "$?" 1
check "second daemon logged IPC open failure" grep -q 'IPC open failure 98' "$WORK/second/tovrin.log"
check_eq "first daemon still answers" "$(ctl status)" "controller 0.0.0.0 link DOWN"
check "first daemon still running" kill -0 "$TOVRIN_PID"

kill -TERM "$TOVRIN_PID"
wait "$TOVRIN_PID"
check_eq "SIGTERM ends the daemon with status 1" "$?" 1
check "termination logged" grep -q '<<<main Terminated???' "$LOG"
check "tovrinctl names the endpoint it tried" \
    bash -c "'$TOVRINCTL_BIN' status 2>&1 | grep -q \"$VK_IPC_ROOT/vk/ipc/tovrin\""
e2e_done
