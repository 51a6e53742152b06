#!/usr/bin/env bash
# A local endpoint that stops reading, with a long queue, holds up no other:
# the real daemon, drav-sim and tovrinctl, the stuck endpoint a stopped listener.
# shellcheck source=tests/e2e/lib.sh
. "$(dirname "$0")/lib.sh"

# shellcheck disable=SC2119 # drav-sim needs no arguments here
link_up || { fail "link comes up"; e2e_done; exit 1; }
SIM="$WORK/sim.out"
LOG="$WORK/tovrin.log"
# The queue length is per network namespace and taken when a socket is made:
# endpoint 109 is made in the access point's namespace after raising it.
in_ap sysctl -qw net.unix.max_dgram_qlen=512
start_listen 109 || fail "listener on 109"
STUCK=$LISTEN_PID
start_listen 102 || fail "listener on 102"
kill -STOP "$STUCK"

sim_cmd send --count 40 200 109 --size 16000
check "the controller's 40 messages for the stuck endpoint are all acknowledged" \
    wait_for "$SIM" '\* ACKED ctlr_trans=40 '
sim_cmd send 200 102 for-hostun
check "a message for a reading endpoint arrives" \
    wait_for "$WORK/listen-102.out" '^MSG id=100040 src=200 dst=102 len=10 data=for-hostun$'
# It went past the stuck endpoint's queue, not after it was given up.
check "it did not wait for the stuck endpoint" bash -c "! grep -q 'for /vk/ipc/tumbel dropped' '$LOG'"
ctl --timeout 10000 send 300 --from 106 --ack "answer me" >"$WORK/answer.out"
check_eq "the reading endpoint's sender still gets its answer" "$(cat "$WORK/answer.out")" delivered
check_eq "nothing for the reading endpoint was dropped" "$(count_of "$LOG" 'dropped.*hostun')" 0

# Past two seconds the stuck endpoint loses what waited for it, each with a note.
check "the stuck endpoint is given up after 2 s" \
    wait_for "$LOG" 'IPC msg type 123 of [0-9]+ bytes for /vk/ipc/tumbel dropped, endpoint busy for 2 s'
kill -CONT "$STUCK"
sim_cmd send 200 109 back-again
check "once it reads again, new messages reach it" \
    wait_for "$WORK/listen-109.out" 'dst=109 len=10 data=back-again$'
e2e_done
