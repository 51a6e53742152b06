#!/usr/bin/env bash
# The OpenWrt files without OpenWrt: shellcheck on every script, then the init
# script, the start helper and the rpcd plugin run with procd, UCI, logger and
# tovrinctl stubbed, checking exactly what they would run for a configuration;
# then the helper and the plugin with the real daemon and tovrinctl when
# TOVRIN_BIN and TOVRINCTL_BIN name them.
set -u
here=$(cd "$(dirname "$0")" && pwd)
files=$here/files
T=$(mktemp -d /tmp/tovrin-openwrt.XXXXXX)
trap 'rm -rf "$T"' EXIT
fails=0
pass() { echo "ok: $1"; }
fail() { echo "FAILED: $1"; fails=$((fails + 1)); }
expect() {  # expect DESCRIPTION ACTUAL EXPECTED
    if [ "$2" = "$3" ]; then pass "$1"; else fail "$1"; diff <(echo "$3") <(echo "$2") | sed 's/^/    /'; fi
}

if command -v shellcheck >/dev/null; then
    if out=$(shellcheck "$files/tovrin.init" "$files/tovrin.run" "$files/tovrin.rpcd" "$0" 2>&1); then
        pass "shellcheck"
    else
        fail "shellcheck"; echo "$out"
    fi
else
    fail "shellcheck is not installed"
fi
if command -v jq >/dev/null; then
    if jq -e '.tovrin.read.ubus.tovrin == ["status","stats"]' "$files/tovrin.acl.json" >/dev/null; then
        pass "rpcd ACL grants status and stats"
    else
        fail "rpcd ACL"
    fi
fi

# UCI: the configuration is lines "option=value" in $T/uci (section main).
# Stubs for the commands the scripts call: each logs its arguments to $T/log.
mkdir -p "$T/bin"
cat >"$T/bin/uci" <<'STUB'
#!/bin/sh
[ "$1" = -q ] && shift
[ "$1" = get ] || exit 1
opt=${2#tovrin.main.}
v=$(sed -n "s/^$opt=//p" "$STUB_DIR/uci")
[ -n "$v" ] && echo "$v"
STUB
cat >"$T/bin/tovrinctl" <<'STUB'
#!/bin/sh
echo "tovrinctl $*" >>"$STUB_DIR/log"
if [ "$*" = "--timeout 500 status" ]; then
    # Fails the first $STATUS_FAILS times, as while the daemon starts.
    n=$(cat "$STUB_DIR/status-calls" 2>/dev/null || echo 0)
    echo $((n + 1)) >"$STUB_DIR/status-calls"
    [ "$n" -ge "${STATUS_FAILS:-0}" ] || exit 1
    echo "controller 0.0.0.0 link DOWN"
fi
case $1 in
status | stats)
    [ -n "${CTL_FAIL:-}" ] && { echo "$CTL_FAIL" >&2; exit 1; }
    echo "{\"$1\":true}" ;;
esac
exit 0
STUB
cat >"$T/bin/tovrin" <<'STUB'
#!/bin/sh
echo "exec tovrin $*" >>"$STUB_DIR/log"
STUB
# shellcheck disable=SC2016  # expanded by the stub, not here
printf '#!/bin/sh\necho "logger $*" >>"$STUB_DIR/log"\n' >"$T/bin/logger"
printf '#!/bin/sh\n' >"$T/bin/sleep"
chmod +x "$T"/bin/*
export STUB_DIR=$T

# The init script: sourced as rc.common does, with procd's and UCI's functions stubbed.
run_init() {  # run_init CONFIG-LINES...
    printf '%s\n' "$@" >"$T/uci"
    # shellcheck disable=SC2317  # the stubs are called by the sourced script
    (
        config_load() { echo "config_load $1"; }
        config_get() {
            local v
            v=$(sed -n "s/^$3=//p" "$T/uci")
            [ -n "$v" ] || v=${4:-}
            eval "$1=\$v"
        }
        procd_open_instance() { echo "procd_open_instance"; }
        procd_set_param() { echo "procd_set_param $*"; }
        procd_close_instance() { echo "procd_close_instance"; }
        procd_add_reload_trigger() { echo "procd_add_reload_trigger $*"; }
        # shellcheck source=/dev/null
        . "$files/tovrin.init"
        echo "START=$START STOP=$STOP USE_PROCD=$USE_PROCD"
        start_service
        service_triggers
    )
}
common_head='START=60 STOP=10 USE_PROCD=1
config_load tovrin
procd_open_instance
procd_set_param command /usr/libexec/tovrin-run'
common_tail='procd_set_param file /etc/config/tovrin
procd_set_param stdout 1
procd_set_param stderr 1
procd_close_instance
procd_add_reload_trigger tovrin'
expect "init, empty configuration: level 3, respawn 3600 5 5" "$(run_init)" "$common_head
procd_set_param env VK_LOG_LEVEL=3
procd_set_param respawn 3600 5 5
$common_tail"
expect "init, level 1 and interface eth0" "$(run_init log_level=1 iface=eth0 controller=192.0.2.10)" "$common_head
procd_set_param env VK_LOG_LEVEL=1 VK_NODE_VAP_IFACE=eth0
procd_set_param respawn 3600 5 5
$common_tail"
expect "init, respawn settings from the environment" \
    "$(respawn_threshold=60 respawn_timeout=2 respawn_retry=0 run_init log_level=4)" "$common_head
procd_set_param env VK_LOG_LEVEL=4
procd_set_param respawn 60 2 0
$common_tail"

# The start helper: what it hands to the daemon, in order, and that it becomes the daemon.
run_helper() {  # run_helper STATUS_FAILS CONFIG-LINES...; prints the log once it is complete
    local fails=$1 i prev=
    shift
    printf '%s\n' "$@" >"$T/uci"
    rm -f "$T/log" "$T/status-calls"
    PATH="$T/bin:$PATH" STATUS_FAILS=$fails sh "$files/tovrin.run"
    # The hand-over runs detached: wait until its log stops changing.
    for ((i = 0; i < 100; i++)); do
        sleep 0.1
        cur=$(cat "$T/log" 2>/dev/null)
        [ -n "$cur" ] && [ "$cur" = "$prev" ] && break
        prev=$cur
    done
    sort -s -k1,1 <<<"$cur" | grep -v '^exec' ; grep '^exec' <<<"$cur"
}
expect "helper, no link settings: the daemon only" "$(run_helper 0 log_level=3)" "exec tovrin "
expect "helper, controller only" "$(run_helper 0 controller=192.0.2.10)" "tovrinctl --timeout 500 status
tovrinctl controller 192.0.2.10
exec tovrin "
expect "helper, key, encryption and controller, in that order, after the daemon answers" \
    "$(run_helper 2 controller=192.0.2.10 key=2b7e151628aed2a6abf7158809cf4f3c encrypt=1)" \
    "tovrinctl --timeout 500 status
tovrinctl --timeout 500 status
tovrinctl --timeout 500 status
tovrinctl key 2b7e151628aed2a6abf7158809cf4f3c
tovrinctl encrypt 1
tovrinctl controller 192.0.2.10
exec tovrin "
expect "helper, encryption off" "$(run_helper 0 encrypt=off)" "tovrinctl --timeout 500 status
tovrinctl encrypt 0
exec tovrin "
expect "helper, an encryption state that is no boolean is refused" "$(run_helper 0 encrypt=maybe)" \
    "logger -t tovrin encrypt 'maybe' is not a boolean: left as it is
tovrinctl --timeout 500 status
exec tovrin "
expect "helper, a daemon that never answers gets nothing after 20 tries" \
    "$(run_helper 99 controller=192.0.2.10 key=00 | sort | uniq -c | sed 's/^ *//')" \
    "1 exec tovrin 
1 logger -t tovrin the daemon did not answer: link settings not handed to it
20 tovrinctl --timeout 500 status"

# The rpcd plugin.
rpcd() { PATH="$T/bin:$PATH" sh "$files/tovrin.rpcd" "$@" </dev/null; }
expect "rpcd list" "$(rpcd list | jq -c .)" '{"status":{},"stats":{}}'
rm -f "$T/log"
expect "rpcd call status is tovrinctl status --json" "$(rpcd call status)" '{"status":true}'
expect "rpcd call stats is tovrinctl stats --json" "$(rpcd call stats)" '{"stats":true}'
expect "rpcd ran exactly those" "$(cat "$T/log")" "tovrinctl status --json
tovrinctl stats --json"
expect "rpcd, daemon not answering: an error object, valid JSON" \
    "$(CTL_FAIL='tovrinctl: no answer from "/vk/ipc/tovrin"' rpcd call status | jq -c .)" \
    '{"error":"tovrinctl: no answer from /vk/ipc/tovrin"}'
expect "rpcd, unknown method" "$(rpcd call reboot | jq -c .)" '{"error":"unknown method"}'

# With the real programs (TOVRIN_BIN, TOVRINCTL_BIN from the build): the helper
# hands the settings to a real daemon, and the plugin answers with its JSON.
if [ -n "${TOVRIN_BIN:-}" ] && [ -n "${TOVRINCTL_BIN:-}" ] && command -v jq >/dev/null; then
    mkdir -p "$T/real"
    ln -s "$TOVRIN_BIN" "$T/real/tovrin"
    ln -s "$TOVRINCTL_BIN" "$T/real/tovrinctl"
    ln -s "$T/bin/uci" "$T/real/uci"
    printf '%s\n' controller=192.0.2.10 key=2b7e151628aed2a6abf7158809cf4f3c encrypt=1 >"$T/uci"
    export VK_IPC_ROOT=$T/ipc VK_LOG_DIR=$T VK_NODE_VAP_MAC=02:00:5e:10:00:09 VK_NODE_SERIAL=OPENWRT-TEST
    PATH="$T/real:$PATH" sh "$files/tovrin.run" >"$T/daemon.out" 2>&1 &
    daemon=$!
    for ((i = 0; i < 100; i++)); do
        "$TOVRINCTL_BIN" status 2>/dev/null | grep -q 192.0.2.10 && break
        sleep 0.1
    done
    expect "helper hands the controller to the real daemon" "$("$TOVRINCTL_BIN" status)" \
        "controller 192.0.2.10 link DOWN"
    expect "the helper became the daemon (same process)" \
        "$(tr '\0' ' ' </proc/$daemon/cmdline 2>/dev/null)" "tovrin "
    rpcd_real() { PATH="$T/real:$PATH" sh "$files/tovrin.rpcd" "$@" </dev/null; }
    expect "rpcd call status, real daemon" "$(rpcd_real call status | jq -c '[.controller, .link_state]')" \
        '["192.0.2.10","down"]'
    expect "rpcd call stats, real daemon" "$(rpcd_real call stats | jq -c '.datagrams_in | type')" '"number"'
    kill "$daemon"; wait "$daemon" 2>/dev/null
    expect "rpcd, daemon gone: an error object" "$(rpcd_real call status | jq -r 'has("error")')" true
fi

echo "$fails failed"
[ "$fails" -eq 0 ]
