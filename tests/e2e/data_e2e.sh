#!/usr/bin/env bash
# Application messages both ways with the real binaries, plain and encrypted,
# the counters they leave, and queued messages failed back when the link is
# lost. With E2E_VALGRIND=1 the daemon runs under valgrind: no block lost.
# shellcheck source=tests/e2e/lib.sh
. "$(dirname "$0")/lib.sh"

if [ "${E2E_VALGRIND:-0}" = 1 ] && command -v valgrind >/dev/null; then
    # shellcheck disable=SC2054 # the option takes a comma-separated list
    TOVRIN_WRAP=(valgrind -q --leak-check=full --errors-for-leak-kinds=definite,indirect
        --error-exitcode=9 "--log-file=$WORK/valgrind.txt")
fi
KEY=000102030405060708090a0b0c0d0e0f
link_up --key "$KEY" || { fail "link comes up"; e2e_done; exit 1; }
SIM="$WORK/sim.out" LISTEN="$WORK/listen-101.out"

check_eq "uplink plain: the sender hears delivered" "$(send 102 --from 105 --ack "hello controller")" delivered
check "uplink plain: the controller got it" \
    has_line "$SIM" '\* MSG ap_trans=1 type=plain src=105 dst=102 len=16 data="hello controller"'
check_eq "uplink with a synchronous answer" "$(send 102 --from 106 --sync "sync one")" delivered
sim_cmd send 200 101 hello ap
check "downlink plain: endpoint 101 gets it with the first id" \
    wait_for "$LISTEN" '^MSG id=100000 src=200 dst=101 len=8 data=hello ap$'
check "downlink acknowledged" wait_for "$SIM" '\* ACKED ctlr_trans=1'

head -c 1500 /dev/urandom | od -An -tx1 | tr -d ' \n' >"$WORK/big.txt"
check_eq "uplink of 3000 bytes in fragments" "$(send 102 --from 105 --ack "@$WORK/big.txt")" delivered
check "controller reassembled 3000 bytes" has_line "$SIM" '\* MSG ap_trans=3 type=plain src=105 dst=102 len=3000'

ctl key "$KEY"
ctl encrypt 1
check_eq "uplink encrypted: delivered" "$(send 102 --from 105 --ack "secret uplink")" delivered
check "uplink encrypted: the controller decrypts it and the digest holds" \
    has_line "$SIM" '\* MSG ap_trans=4 type=enc src=105 dst=102 len=13 md5=ok data="secret uplink"'
sim_cmd send --enc 201 101 secret downlink
check "downlink encrypted: endpoint 101 gets the plaintext" \
    wait_for "$LISTEN" '^MSG id=100001 src=201 dst=101 len=15 data=secret downlink$'

# A message to an endpoint nobody serves is dropped; the next one still arrives.
sim_cmd send 200 103 nobody
sim_cmd send 200 101 after
check "unknown endpoint dropped, ids go on" wait_for "$LISTEN" '^MSG id=100003 src=200 dst=101 len=5 data=after$'
# The daemon's own record as tovrinctl reads it; each reason is counted in tests/daemon.
check_eq "counters: link ups and downs, uplink accepted, acked, failed, downlink delivered, dropped, refused" \
    "$(ctl stats --json | jq -r '[.link_ups, .link_downs, .up_messages_accepted, .up_messages_acked,
        .up_messages_failed, .down_messages_delivered, .down_messages_dropped, .datagrams_refused] | join(" ")')" \
    "1 0 4 4 0 3 1 1"

# Queued messages fail towards their senders when the link is reset.
sim_cmd ack off
send 102 --from 107 --ack "first" >"$WORK/q1" &
q1=$!
send 102 --from 108 --ack "second" >"$WORK/q2" &
q2=$!
queued() { [ "$(ctl stats --json | jq .up_messages_accepted)" = 6 ]; }
check "both messages are taken in while unacknowledged" wait_until 30 queued
ctl controller "$TOVRIN_CTL_IP"
wait $q1; r1=$?
wait $q2; r2=$?
check_eq "both queued senders told failed" "$(cat "$WORK/q1") $r1 $(cat "$WORK/q2") $r2" "failed 1 failed 1"
check_eq "each failure logged" "$(count_of "$WORK/tovrin.log" 'INFO: >>tovrin_ap_msg_failed')" 2

kill -TERM "$TOVRIN_PID"
wait "$TOVRIN_PID"
check_eq "the daemon ends with its own status 1 (not valgrind's 9)" "$?" 1
if [ -e "$WORK/valgrind.txt" ]; then
    check "valgrind reports no error and no lost block" \
        bash -c "! grep -qE 'definitely lost|indirectly lost|Invalid|uninitialised' '$WORK/valgrind.txt'"
fi
e2e_done
