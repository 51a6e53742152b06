# shellcheck shell=bash
# A scripted session recorded with tcpdump: link up, plain and encrypted
# messages both ways (one in fragments each way), a retransmission, a loss of
# the link and its return. Sourced by capture_e2e.sh after lib.sh; leaves
#   $WORK/any.pcap   Linux cooked (SLL2), all interfaces of the AP namespace
#   $WORK/eth.pcap   Ethernet, the controller's end of the veth pair
#   $WORK/sll.pcap   Linux cooked (SLL), all interfaces of the controller namespace
# and in $WORK/sent.txt the texts of the encrypted messages.
CAPTURE_KEY=000102030405060708090a0b0c0d0e0f
CAPTURE_PIDS=()

# tcpdump in a namespace; returns once it listens.
capture_start() {  # capture_start NS NAME TCPDUMP-ARGS...
    local ns=$1 name=$2; shift 2
    ip netns exec "$ns" tcpdump -U --immediate-mode -n -w "$WORK/$name.pcap" "$@" 'udp port 6650' 2>"$WORK/$name.tcpdump" &
    CAPTURE_PIDS+=($!)
    E2E_PIDS+=($!)
    wait_for "$WORK/$name.tcpdump" 'listening on' 10
}

capture_stop() {
    local pid
    sleep 0.3  # the last datagrams reach the capture buffers
    for pid in "${CAPTURE_PIDS[@]}"; do kill -INT "$pid" 2>/dev/null; done
    for pid in "${CAPTURE_PIDS[@]}"; do wait "$pid" 2>/dev/null; done
    CAPTURE_PIDS=()
}

# Runs the session; returns non-zero (after a FAILED line) when a step fails.
capture_session() {
    need_netns
    start_sim --key "$CAPTURE_KEY" || { fail "controller simulator starts"; return 1; }
    capture_start "$TOVRIN_NS_AP" any -i any || { fail "tcpdump in the AP namespace"; return 1; }
    capture_start "$TOVRIN_NS_CTL" eth -i veth-ctl || { fail "tcpdump on veth-ctl"; return 1; }
    capture_start "$TOVRIN_NS_CTL" sll -i any -y LINUX_SLL || { fail "tcpdump SLL"; return 1; }
    start_daemon || { fail "daemon starts"; return 1; }
    start_listen 101 || { fail "listener on 101"; return 1; }
    local LISTEN="$WORK/listen-101.out" SIM="$WORK/sim.out"
    ctl controller "$TOVRIN_CTL_IP"
    wait_for "$LISTEN" "^STATUS UP" 10 || { fail "link comes up"; return 1; }

    check_eq "uplink plain" "$(ctl --timeout 5000 send 102 --from 105 --ack "hello controller")" delivered
    sim_cmd "send 200 101 hello ap"
    check "downlink plain" wait_for "$LISTEN" 'data=hello ap$' 5
    local i
    for ((i = 0; i < 100; i++)); do printf 'line %03d of a long uplink message.\n' "$i"; done >"$WORK/long.txt"
    check_eq "uplink in fragments" "$(ctl --timeout 5000 send 102 --from 105 --ack "@$WORK/long.txt")" delivered
    sim_cmd "send 200 101 --size 2100"
    check "downlink in fragments" wait_for "$LISTEN" 'src=200 dst=101 len=2100' 5

    ctl key "$CAPTURE_KEY"
    ctl encrypt 1
    check_eq "uplink encrypted" "$(ctl --timeout 5000 send 102 --from 105 --ack "secret uplink")" delivered
    sim_cmd "send --enc 201 101 secret downlink"
    check "downlink encrypted" wait_for "$LISTEN" 'data=secret downlink$' 5

    # The controller ignores the first transmission: the AP sends it again.
    sim_cmd "ack off"
    sleep 0.2
    ctl --timeout 8000 send 102 --from 106 --ack "resent uplink" >"$WORK/resent.out" &
    local resent=$!
    wait_for "$SIM" 'data="resent uplink"' 5
    sim_cmd "ack on"
    wait "$resent"
    check_eq "uplink retransmitted and then acknowledged" "$(cat "$WORK/resent.out")" delivered
    sim_cmd "send --enc 202 101 $(printf 'x%.0s' $(seq 1200))"
    check "downlink encrypted in fragments" wait_for "$LISTEN" 'src=202 dst=101 len=1200' 5

    # The controller falls silent, the link goes down, then returns.
    ctl karate 107 1000
    sim_cmd "reg off"
    sim_cmd "ka off"
    check "link goes down" wait_for "$LISTEN" '^STATUS DOWN' 8
    sim_cmd "reg on"
    sim_cmd "ka on"
    check "link returns" bash -c "for i in \$(seq 100); do [ \$(grep -c '^STATUS UP' '$LISTEN') -ge 2 ] && exit 0; sleep 0.1; done; exit 1"
    check_eq "uplink after the return" "$(ctl --timeout 5000 send 102 --from 105 --ack "after the return")" delivered
    sim_cmd "dravip 203.0.113.9"
    wait_for "$SIM" 'DRAVIP' 3
    capture_stop
    printf '%s\n' "secret uplink" "secret downlink" "resent uplink" >"$WORK/sent.txt"
}
