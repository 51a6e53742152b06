#!/usr/bin/env bash
# A live session captured with tcpdump reads back whole: every datagram
# dissects as tovrin in tshark without error, and tovrin-pcap --key prints the
# plaintext of every encrypted message. TOVRIN_CAPTURE_SAVE=DIR keeps the
# captures there (how tests/captures/ is refreshed).
export E2E_WIRE_CHECK=0  # this test records and checks its own captures
. "$(dirname "$0")/lib.sh"
. "$(dirname "$0")/capture_session.sh"
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
if [ -n "$installed" ] && ! cmp -s "$installed" "$LUA"; then
    echo "skipped: $installed differs from the source and would be tested instead"
    exit 77
fi

capture_session || { e2e_done; exit 1; }
editcap -F pcapng "$WORK/eth.pcap" "$WORK/eth.pcapng"

for cap in any.pcap eth.pcapng sll.pcap; do
    f="$WORK/$cap"
    frames=$(tshark_lua -r "$f" | wc -l)
    check "$cap: the session was captured" test "$frames" -gt 30
    check_eq "$cap: every datagram dissects as tovrin" "$(tshark_lua -r "$f" -2 -Y tovrin | wc -l)" "$frames"
    tshark_lua -r "$f" -2 -V >"$WORK/$cap.tshark"
    check_eq "$cap: no Lua error, nothing malformed" "$(grep -ciE 'lua error|malformed' "$WORK/$cap.tshark")" 0
    check_eq "$cap: no warning, no error" "$(tshark_lua -r "$f" -2 -Y '_ws.expert.severity >= warning' | wc -l)" 0
    # Nine messages, one of them sent twice: each transmission is shown whole.
    check_eq "$cap: every message reassembled" \
        "$(tshark_lua -r "$f" -2 -Y 'tovrin.msg.type' | wc -l)" 10

    "$TOVRIN_PCAP_BIN" --key "$CAPTURE_KEY" "$f" >"$WORK/$cap.txt"
    while read -r text; do
        check "$cap: tovrin-pcap --key prints \"$text\" with its digest checked" \
            grep -qE " enc .* md5=ok .*data=\"$text\"\$" "$WORK/$cap.txt"
    done <"$WORK/sent.txt"
    check_eq "$cap: every encrypted message decrypted" \
        "$(grep -c ' enc ' "$WORK/$cap.txt") $(grep -c ' md5=ok ' "$WORK/$cap.txt")" "4 4"
    check "$cap: summary" grep -qE '^# summary messages=9 up=5 down=4 plain=5 enc=4 md5_ok=4 md5_bad=0 unchecked=0 bad=0 retransmissions=1 acks_missing=0 frags_lost=0 incomplete=0 .* malformed=0 ' "$WORK/$cap.txt"
    check_eq "$cap: without the key the digests stay unchecked" \
        "$("$TOVRIN_PCAP_BIN" "$f" | grep -c ' md5=unchecked acked$')" 4
done

if [ -n "${TOVRIN_CAPTURE_SAVE:-}" ]; then
    mkdir -p "$TOVRIN_CAPTURE_SAVE"
    cp "$WORK/any.pcap" "$TOVRIN_CAPTURE_SAVE/session-any.pcap"
    cp "$WORK/eth.pcapng" "$TOVRIN_CAPTURE_SAVE/session-eth.pcapng"
    cp "$WORK/sll.pcap" "$TOVRIN_CAPTURE_SAVE/session-sll.pcap"
fi
e2e_done
