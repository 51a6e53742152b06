#!/usr/bin/env bash
# A session (messages both ways, plain, encrypted, in fragments, resent; the
# link lost and back) captured at three points reads back whole in tshark and
# tovrin-pcap. TOVRIN_CAPTURE_SAVE=DIR keeps the captures (to refresh tests/captures/).
# shellcheck source=tests/e2e/lib.sh disable=SC2015 # "a && b || { fail; exit; }": any failure ends the test
. "$(dirname "$0")/lib.sh"
for tool in tcpdump tshark editcap; do
    command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed"; exit 77; }
done
LUA="$E2E_ROOT/tools/wireshark/tovrin.lua"
# tshark without this user's preferences or plugins.
mkdir -p "$WORK/home"
tshark_lua() { HOME="$WORK/home" WIRESHARK_CONFIG_DIR="$WORK/home" tshark -X "lua_script:$LUA" "$@" 2>/dev/null; }
# A dissector installed in Wireshark's plugin folders is loaded first and the
# source one steps aside: only an identical copy lets this test stand.
installed=$(HOME="$WORK/home" tshark -G plugins 2>/dev/null | awk -F'\t' '$1 == "tovrin.lua" {print $4}')
[ -n "$installed" ] && ! cmp -s "$installed" "$LUA" &&
    { echo "skipped: $installed differs from the source and would be tested instead"; exit 77; }

# tcpdump in a namespace, whole frames (-s); returns once it listens.
CAPS=() CAP_PIDS=()
capture_start() {  # capture_start NS NAME TCPDUMP-ARGS...
    local ns=$1 name=$2; shift 2
    ip netns exec "$ns" tcpdump -s 2048 -U --immediate-mode -n -w "$WORK/$name.pcap" "$@" 'udp port 6650' 2>"$WORK/$name.tcpdump" &
    CAP_PIDS+=($!) E2E_PIDS+=($!) CAPS+=("$name")
    wait_for "$WORK/$name.tcpdump" 'listening on'
}
# Every capture holds at least the datagrams drav-sim has sent and received.
all_captured() {
    local c; for c in "${CAPS[@]}"; do [ "$(tcpdump -r "$WORK/$c.pcap" -n 2>/dev/null | wc -l)" -ge "$(count_of "$SIM" '^ *[0-9.]+ [<>] ')" ] || return 1; done
}

KEY=000102030405060708090a0b0c0d0e0f
need_netns
capture_start "$TOVRIN_NS_AP" any -i any &&
    capture_start "$TOVRIN_NS_CTL" eth -i veth-ctl &&
    capture_start "$TOVRIN_NS_CTL" sll -i any -y LINUX_SLL || { fail "tcpdump starts"; e2e_done; exit 1; }
link_up --key "$KEY" || { fail "link comes up"; e2e_done; exit 1; }
SIM="$WORK/sim.out" LISTEN="$WORK/listen-101.out"

check_eq "uplink plain" "$(send 102 --from 105 --ack "hello controller")" delivered
sim_cmd send 200 101 hello ap
check "downlink plain" wait_for "$LISTEN" 'data=hello ap$'
for ((i = 0; i < 100; i++)); do printf 'line %03d of a long uplink message.\n' "$i"; done >"$WORK/long.txt"
check_eq "uplink in fragments" "$(send 102 --from 105 --ack "@$WORK/long.txt")" delivered
sim_cmd send 200 101 --size 2100
check "downlink in fragments" wait_for "$LISTEN" 'src=200 dst=101 len=2100'
ctl key "$KEY"
ctl encrypt 1
check_eq "uplink encrypted" "$(send 102 --from 105 --ack "secret uplink")" delivered
sim_cmd send --enc 201 101 secret downlink
check "downlink encrypted" wait_for "$LISTEN" 'data=secret downlink$'
# The controller ignores the first transmission: the AP sends it again.
sim_cmd ack off
send 102 --from 106 --ack "resent uplink" >"$WORK/resent.out" &
resent=$!
wait_for "$SIM" 'data="resent uplink"'
sim_cmd ack on
wait "$resent"
check_eq "uplink retransmitted and then acknowledged" "$(cat "$WORK/resent.out")" delivered
sim_cmd send --enc 202 101 "$(printf 'x%.0s' $(seq 1200))"
check "downlink encrypted in fragments" wait_for "$LISTEN" 'src=202 dst=101 len=1200'
# The controller falls silent, the link goes down, then returns.
ctl karate 107 1000
sim_cmd reg off && sim_cmd ka off
check "link goes down" wait_for "$LISTEN" '^STATUS DOWN'
sim_cmd reg on && sim_cmd ka on
check "link returns" wait_until 30 at_least "$LISTEN" '^STATUS UP' 2
check_eq "uplink after the return" "$(send 102 --from 105 --ack "after the return")" delivered
sim_cmd dravip 203.0.113.9
check "every datagram reached the three captures" wait_until 30 all_captured
for pid in "${CAP_PIDS[@]}"; do kill -INT "$pid"; wait "$pid"; done
editcap -F pcapng "$WORK/eth.pcap" "$WORK/eth.pcapng"
# How often drav-sim had the resent message: twice at least, more when the
# AP's timer fired again before the acknowledgement went out.
n=$(grep -oE 'MSG ap_trans=[0-9]+ .*data="resent uplink"' "$SIM" | grep -oE 'ap_trans=[0-9]+')
tx=$((1 + $(count_of "$SIM" "< .* $n data_len=[0-9]+ DATA repeat")))
check "the resent message came again" test "$tx" -ge 2

# tests/captures reads the committed captures in full; here both tools read this run's.
for cap in any.pcap eth.pcapng sll.pcap; do
    f="$WORK/$cap"
    check_eq "$cap: every datagram tovrin, no warning, no error" \
        "$(tshark_lua -r "$f" -2 -Y '!tovrin || _ws.expert.severity >= warning' | wc -l)" 0
    # Nine messages, one of them sent more than once: each transmission is shown whole.
    check_eq "$cap: every message reassembled" "$(tshark_lua -r "$f" -2 -Y 'tovrin.msg.type' | wc -l)" $((8 + tx))
    "$TOVRIN_PCAP_BIN" --key "$KEY" "$f" >"$WORK/$cap.txt"
    check "$cap: summary" has_line "$WORK/$cap.txt" "^# summary messages=9 up=5 down=4 plain=5 enc=4 md5_ok=4 md5_bad=0 unchecked=0 bad=0 retransmissions=$((tx - 1)) acks_missing=0 frags_lost=0 incomplete=0 .* malformed=0 "
done

if [ -n "${TOVRIN_CAPTURE_SAVE:-}" ]; then
    mkdir -p "$TOVRIN_CAPTURE_SAVE" && for c in any.pcap eth.pcapng sll.pcap; do cp "$WORK/$c" "$TOVRIN_CAPTURE_SAVE/session-$c"; done
fi
e2e_done
