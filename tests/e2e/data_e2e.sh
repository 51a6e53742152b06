#!/usr/bin/env bash
# Application messages both ways with the real binaries, plain and encrypted.
. "$(dirname "$0")/lib.sh"

KEY=000102030405060708090a0b0c0d0e0f
E2E_WIRE_KEY=$KEY  # the session capture is read back with it
link_up --key "$KEY" || { fail "link comes up"; e2e_done; exit 1; }
SIM="$WORK/sim.out"
LISTEN="$WORK/listen-101.out"

out=$(ctl --timeout 5000 send 102 --from 105 --ack "hello controller")
check_eq "uplink plain: the sender hears delivered" "$out" "delivered"
check "uplink plain: the controller got it" \
    wait_for "$SIM" '\* MSG ap_trans=1 type=plain src=105 dst=102 len=16 data="hello controller"' 3

out=$(ctl --timeout 5000 send 102 --from 106 --sync "sync one")
check_eq "uplink with a synchronous answer" "$out" "delivered"

sim_cmd "send 200 101 hello ap"
check "downlink plain: endpoint 101 gets it with the first id" \
    wait_for "$LISTEN" '^MSG id=100000 src=200 dst=101 len=8 data=hello ap$' 5
check "downlink acknowledged" wait_for "$SIM" '\* ACKED ctlr_trans=1' 3

head -c 3000 /dev/urandom | od -An -tx1 | tr -d ' \n' | head -c 3000 >"$WORK/big.txt"
out=$(ctl --timeout 5000 send 102 --from 105 --ack "@$WORK/big.txt")
check_eq "uplink of 3000 bytes in fragments" "$out" "delivered"
check "controller reassembled 3000 bytes" wait_for "$SIM" '\* MSG ap_trans=3 type=plain src=105 dst=102 len=3000' 3

ctl key "$KEY"
ctl encrypt 1
out=$(ctl --timeout 5000 send 102 --from 105 --ack "secret uplink")
check_eq "uplink encrypted: delivered" "$out" "delivered"
check "uplink encrypted: the controller decrypts it and the digest holds" \
    wait_for "$SIM" '\* MSG ap_trans=4 type=enc src=105 dst=102 len=13 md5=ok data="secret uplink"' 3

sim_cmd "send --enc 201 101 secret downlink"
check "downlink encrypted: endpoint 101 gets the plaintext" \
    wait_for "$LISTEN" '^MSG id=100001 src=201 dst=101 len=15 data=secret downlink$' 5

# A message to an endpoint nobody serves is dropped; the next one still arrives.
sim_cmd "send 200 103 nobody"
sim_cmd "send 200 101 after"
check "unknown endpoint dropped, ids go on" wait_for "$LISTEN" '^MSG id=100003 src=200 dst=101 len=5 data=after$' 5

# Queued messages fail towards their senders when the link goes down.
sim_cmd "ack off"
sleep 0.2
ctl --timeout 10000 send 102 --from 107 --ack "first" >"$WORK/q1" &
q1=$!
ctl --timeout 10000 send 102 --from 108 --ack "second" >"$WORK/q2" &
q2=$!
sleep 0.5
ctl controller "$TOVRIN_CTL_IP"
wait $q1; r1=$?
wait $q2; r2=$?
check_eq "first queued sender told failed" "$(cat "$WORK/q1") $r1" "failed 1"
check_eq "second queued sender told failed" "$(cat "$WORK/q2") $r2" "failed 1"
check "link reported DOWN then UP again" wait_for "$LISTEN" '^STATUS DOWN' 3
check_eq "encryption state cleared by the link loss" \
    "$(grep -c 'INFO: >>tovrin_ap_msg_failed' "$WORK/tovrin.log")" 2

# While the link is down a message is refused at once.
sim_cmd "reg off"
sim_cmd "ka off"
wait_for "$LISTEN" '^STATUS DOWN' 8
sleep 5
if [ "$(ctl status)" = "controller $TOVRIN_CTL_IP link DOWN" ]; then
    out=$(ctl --timeout 3000 send 102 --from 109 --ack "too late")
    check_eq "refused while down" "$out" "failed"
else
    fail "link should be down"
fi
e2e_done
