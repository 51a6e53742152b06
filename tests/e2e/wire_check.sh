# shellcheck shell=bash
# Every end-to-end session on the link is captured in the AP's namespace and
# read back when the test ends: each datagram dissects as tovrin in tshark
# without a Lua error or dissector exception, and tovrin-pcap (with the key the
# test sets in E2E_WIRE_KEY) opens every encrypted message with its digest
# intact. Sourced by lib.sh; E2E_WIRE_CHECK=0 turns it off, and what is not
# installed (tcpdump, tshark) or not given (TOVRIN_PCAP_BIN) is left out.
E2E_WIRE_PID=

# Starts the capture; called once the namespaces are up.
wire_capture_start() {
    [ "${E2E_WIRE_CHECK:-1}" = 0 ] && return 0
    command -v tcpdump >/dev/null || return 0
    ip netns exec "$TOVRIN_NS_AP" tcpdump -U --immediate-mode -n -i any -w "$WORK/wire.pcap" \
        'udp port 6650' 2>"$WORK/wire.tcpdump" &
    E2E_WIRE_PID=$!
    E2E_PIDS+=($!)
    wait_for "$WORK/wire.tcpdump" 'listening on' 10 || echo "note: the session capture did not start"
}

# Stops the capture and checks it; called by e2e_done.
wire_capture_check() {
    [ -n "$E2E_WIRE_PID" ] || return 0
    sleep 0.3  # the last datagrams reach the capture
    kill -INT "$E2E_WIRE_PID" 2>/dev/null
    wait "$E2E_WIRE_PID" 2>/dev/null
    E2E_WIRE_PID=
    [ -s "$WORK/wire.pcap" ] || return 0
    local lua="$E2E_ROOT/tools/wireshark/tovrin.lua" frames out
    if command -v tshark >/dev/null; then
        mkdir -p "$WORK/tshark-home"
        out=$(HOME="$WORK/tshark-home" tshark -r "$WORK/wire.pcap" -2 -V -X "lua_script:$lua" 2>&1)
        frames=$(grep -c '^Frame [0-9]*:' <<<"$out")
        check_eq "session capture: every datagram dissects as tovrin" \
            "$(grep -c '^tovrin AP-controller link' <<<"$out")" "$frames"
        check_eq "session capture: no Lua error, no dissector exception" \
            "$(grep -ciE 'lua error|malformed packet' <<<"$out")" 0
    fi
    if [ -n "${TOVRIN_PCAP_BIN:-}" ]; then
        local args=()
        [ -n "${E2E_WIRE_KEY:-}" ] && args=(--key "$E2E_WIRE_KEY")
        out=$("$TOVRIN_PCAP_BIN" "${args[@]}" "$WORK/wire.pcap")
        check "session capture: tovrin-pcap reads it" test $? -eq 0
        check_eq "session capture: no encrypted message with a bad digest" "$(grep -c ' md5=bad' <<<"$out")" 0
        if [ -n "${E2E_WIRE_KEY:-}" ]; then
            check_eq "session capture: tovrin-pcap --key opens every encrypted message" \
                "$(grep -c ' md5=unchecked' <<<"$out")" 0
        fi
    fi
}
