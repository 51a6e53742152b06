# shellcheck shell=bash
# End-to-end harness: runs the real tovrin, drav-sim and tovrinctl, checks what
# they print, and removes every process, namespace and file of this run
# afterwards, also when a check fails or the test is interrupted.
# The binaries come from the environment: TOVRIN_BIN, TOVRINCTL_BIN, DRAVSIM_BIN.
set -u
E2E_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
. "$E2E_ROOT/scripts/netns.sh"

E2E_PASS=0 E2E_FAIL=0 E2E_NS=0 E2E_PIDS=() TOVRIN_WRAP=() TOVRIN_ARGS=()
WORK=$(mktemp -d /tmp/tovrin-e2e.XXXXXX)  # this run's own: nothing outside it is removed
export VK_IPC_ROOT="$WORK/ipc" VK_LOG_DIR="$WORK" VK_NODE_VAP_MAC=02:00:5e:10:00:01 VK_NODE_SERIAL=E2E-SERIAL
unset VK_LOG_LEVEL

stop_all() {
    local p; for p in "${E2E_PIDS[@]}"; do kill -TERM "$p" 2>/dev/null; done
    for p in "${E2E_PIDS[@]}"; do wait "$p" 2>/dev/null; done; E2E_PIDS=()
}
e2e_cleanup() {
    stop_all
    exec 7>&- 2>/dev/null
    [ "$E2E_NS" = 1 ] && tovrin_netns_down
    if [ "$E2E_FAIL" -gt 0 ] || [ -n "${E2E_KEEP:-}" ]; then echo "work files kept in $WORK"; else rm -rf "$WORK"; fi
}
trap e2e_cleanup EXIT
trap 'exit 130' INT TERM

pass() { E2E_PASS=$((E2E_PASS + 1)); echo "ok: $1"; }
fail() { E2E_FAIL=$((E2E_FAIL + 1)); echo "FAILED: $1"; }
check() { local what=$1; shift; if "$@"; then pass "$what"; else fail "$what"; fi; }  # check DESCRIPTION COMMAND...
check_eq() { if [ "$2" = "$3" ]; then pass "$1"; else fail "$1: got '$2', expected '$3'"; fi; }  # DESCRIPTION ACTUAL EXPECTED
# Runs COMMAND... until it succeeds; the deadline only bounds a hang, it times nothing.
wait_until() {  # wait_until SECONDS COMMAND...
    local end=$((SECONDS + $1)); shift
    until "$@"; do [ "$SECONDS" -lt "$end" ] || return 1; sleep 0.05; done
}
has_line() { grep -qE -- "$2" "$1" 2>/dev/null; }
count_of() { grep -cE -- "$2" "$1" 2>/dev/null || true; }
at_least() { [ "$(count_of "$1" "$2")" -ge "$3" ]; }  # at_least FILE RE N
wait_for() { wait_until "${3:-30}" has_line "$1" "$2"; }  # wait_for FILE RE [SECONDS]

# Ends every process, then fails the test on a sanitizer report in any output.
e2e_done() {
    stop_all
    local f
    for f in "$WORK"/*.out; do
        has_line "$f" 'ERROR: [A-Za-z]+Sanitizer|runtime error:' && fail "sanitizer report in ${f##*/}"
    done
    echo "$E2E_PASS passed, $E2E_FAIL failed"
    [ "$E2E_FAIL" -eq 0 ]
}

# Namespaces for tests that need the link; exit 77 (skipped) when they cannot be made.
need_netns() { [ "$E2E_NS" = 1 ] || tovrin_netns_up "e2e$$" || { echo "skipped: the link tests need network namespaces"; exit 77; }; E2E_NS=1; }
in_ap() { ip netns exec "$TOVRIN_NS_AP" "$@"; }
ctl() { "$TOVRINCTL_BIN" "$@"; }
send() { "$TOVRINCTL_BIN" --timeout 20000 send "$@"; }

# Starts the daemon in the AP namespace; waits for its endpoint.
start_daemon() {
    ip netns exec "$TOVRIN_NS_AP" "${TOVRIN_WRAP[@]}" "$TOVRIN_BIN" "${TOVRIN_ARGS[@]}" >"$WORK/tovrin.out" 2>&1 &
    TOVRIN_PID=$!
    E2E_PIDS+=($!)
    wait_until 30 test -S "$VK_IPC_ROOT/vk/ipc/tovrin" && return 0
    echo "the daemon did not open its endpoint"; cat "$WORK/tovrin.out"
    return 1
}

# Starts drav-sim in the controller namespace with ARGS; commands go to it with sim_cmd.
start_sim() {
    mkfifo "$WORK/sim.in"
    ip netns exec "$TOVRIN_NS_CTL" "$DRAVSIM_BIN" --bind "$TOVRIN_CTL_IP" "$@" <"$WORK/sim.in" >"$WORK/sim.out" 2>&1 &
    E2E_PIDS+=($!)
    exec 7>"$WORK/sim.in"  # held open so the simulator never sees the end of its input
    wait_for "$WORK/sim.out" '# listening'
}
# Gives drav-sim a command and returns once drav-sim has carried it out (it
# prints a line for each), so nothing the test does next can overtake it.
sim_cmd() {
    local want from
    case $1 in
    ack | ka | reg) want="# $1 $2\$" ;;
    dravip) want="DRAVIP addr=$2\$" ;;
    send) [[ "$*" =~ ^send( --enc| --count [0-9]+)*\ ([0-9]+)\ ([0-9]+) ]] &&
        want="\\* QUEUE ctlr_trans=[0-9]+ .* src=${BASH_REMATCH[2]} dst=${BASH_REMATCH[3]} " ;;
    *) echo "sim_cmd: no confirmation known for '$1'"; return 1 ;;
    esac
    from=$(($(wc -l <"$WORK/sim.out") + 1))
    echo "$*" >&7
    wait_until 30 sim_said "$from" "$want" || { fail "drav-sim carries out '$*'"; return 1; }
}
sim_said() { tail -n "+$1" "$WORK/sim.out" | grep -qE -- "$2"; }

# Starts `tovrinctl listen ID` writing to $WORK/listen-ID.out, its pid in LISTEN_PID.
start_listen() {
    # In the AP namespace, whose socket queue length its socket takes; started
    # directly, not through a shell function, so $! is tovrinctl itself.
    ip netns exec "$TOVRIN_NS_AP" "$TOVRINCTL_BIN" listen "$1" >"$WORK/listen-$1.out" 2>&1 &
    LISTEN_PID=$!
    E2E_PIDS+=($!)
    # The endpoint's path, read from the tree's one table.
    wait_until 30 test -S "$VK_IPC_ROOT$(grep -o "{$1, \"[^\"]*\"}" "$E2E_ROOT/relay/endpoint_table.h" | cut -d'"' -f2)"
}

# Brings the link up: simulator (with ARGS), daemon, a listener on 101, the controller address.
link_up() {
    need_netns
    start_sim "$@" || return 1
    start_daemon || return 1
    start_listen 101 || return 1
    ctl controller "$TOVRIN_CTL_IP" || return 1
    wait_for "$WORK/listen-101.out" "^STATUS UP controller $TOVRIN_CTL_IP"
}
