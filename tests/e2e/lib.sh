# End-to-end harness: runs the real tovrin, drav-sim and tovrinctl, checks what
# they print, and removes every process, namespace and file afterwards, also
# when a check fails or the test is interrupted.
# The binaries come from the environment: TOVRIN_BIN, TOVRINCTL_BIN, DRAVSIM_BIN.
set -u
E2E_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
. "$E2E_ROOT/scripts/netns.sh"
. "$E2E_ROOT/tests/e2e/wire_check.sh"

E2E_PASS=0
E2E_FAIL=0
E2E_PIDS=()
E2E_NS=0
WORK=$(mktemp -d /tmp/tovrin-e2e.XXXXXX)
export VK_IPC_ROOT="$WORK/ipc" VK_LOG_DIR="$WORK" VK_NODE_VAP_MAC=02:00:5e:10:00:01 VK_NODE_SERIAL=E2E-SERIAL
unset VK_LOG_LEVEL

e2e_cleanup() {
    local pid
    for pid in "${E2E_PIDS[@]}"; do kill -TERM "$pid" 2>/dev/null; done
    for pid in "${E2E_PIDS[@]}"; do wait "$pid" 2>/dev/null; done
    exec 7>&- 2>/dev/null
    [ "$E2E_NS" = 1 ] && tovrin_netns_down
    if [ "$E2E_FAIL" -gt 0 ] || [ -n "${E2E_KEEP:-}" ]; then
        echo "work files kept in $WORK"
    else
        rm -rf "$WORK"
    fi
}
trap e2e_cleanup EXIT
trap 'exit 130' INT TERM

pass() { E2E_PASS=$((E2E_PASS + 1)); echo "ok: $1"; }
fail() { E2E_FAIL=$((E2E_FAIL + 1)); echo "FAILED: $1"; }
check() {  # check DESCRIPTION COMMAND...
    local what=$1; shift
    if "$@"; then pass "$what"; else fail "$what"; fi
}
check_eq() {  # check_eq DESCRIPTION ACTUAL EXPECTED
    if [ "$2" = "$3" ]; then pass "$1"; else fail "$1: got '$2', expected '$3'"; fi
}
# Waits until FILE has a line matching the extended regex, up to SECONDS.
wait_for() {
    local file=$1 re=$2 secs=${3:-10} i
    for ((i = 0; i < secs * 20; i++)); do
        grep -qE -- "$re" "$file" 2>/dev/null && return 0
        sleep 0.05
    done
    return 1
}
count_of() { grep -cE -- "$2" "$1" 2>/dev/null || true; }
e2e_done() {
    wire_capture_check
    echo "$E2E_PASS passed, $E2E_FAIL failed"
    [ "$E2E_FAIL" -eq 0 ]
}

# Namespaces for tests that need the link; exit 77 (skipped) when they cannot be made.
need_netns() {
    if ! tovrin_netns_up "e2e$$"; then
        echo "skipped: the link tests need network namespaces"
        exit 77
    fi
    E2E_NS=1
    wire_capture_start
}
in_ap() { ip netns exec "$TOVRIN_NS_AP" "$@"; }
in_ctl() { ip netns exec "$TOVRIN_NS_CTL" "$@"; }

ctl() { "$TOVRINCTL_BIN" "$@"; }

# Starts the daemon (in the AP namespace when one is up); waits for its endpoint.
start_daemon() {
    local run=()
    [ "$E2E_NS" = 1 ] && run=(ip netns exec "$TOVRIN_NS_AP")
    "${run[@]}" "${TOVRIN_WRAP[@]}" "$TOVRIN_BIN" >"$WORK/tovrin.out" 2>&1 &
    E2E_PIDS+=($!)
    TOVRIN_PID=$!
    local i
    for ((i = 0; i < 200; i++)); do
        [ -S "$VK_IPC_ROOT/vk/ipc/tovrin" ] && return 0
        sleep 0.05
    done
    echo "the daemon did not open its endpoint"; cat "$WORK/tovrin.out"
    return 1
}
TOVRIN_WRAP=()

# Starts drav-sim in the controller namespace with ARGS; commands go to it with sim_cmd.
start_sim() {
    mkfifo "$WORK/sim.in"
    ip netns exec "$TOVRIN_NS_CTL" "$DRAVSIM_BIN" --bind "$TOVRIN_CTL_IP" "$@" <"$WORK/sim.in" >"$WORK/sim.out" 2>&1 &
    E2E_PIDS+=($!)
    SIM_PID=$!
    exec 7>"$WORK/sim.in"  # held open so the simulator never sees the end of its input
    wait_for "$WORK/sim.out" '# listening' 10
}
sim_cmd() { echo "$*" >&7; }

# Starts `tovrinctl listen ID` writing to $WORK/listen-ID.out.
start_listen() {
    # Started directly, not through a shell function, so $! is tovrinctl itself.
    "$TOVRINCTL_BIN" listen "$1" >"$WORK/listen-$1.out" 2>&1 &
    E2E_PIDS+=($!)
    local i
    for ((i = 0; i < 100; i++)); do
        [ -S "$VK_IPC_ROOT$(endpoint_path "$1")" ] && return 0
        sleep 0.05
    done
    return 1
}
# The ids and paths of relay/endpoint_table.h (tests/tools/endpoint_table_test.cpp checks).
endpoint_path() {
    case $1 in
    101) echo /vk/ipc/gelvar ;; 102) echo /vk/ipc/hostun ;; 105) echo /vk/ipc/prindal ;;
    106) echo /vk/ipc/quelon ;; 107) echo /vk/ipc/rastim ;; 108) echo /vk/ipc/sorvek ;;
    109) echo /vk/ipc/tumbel ;;
    esac
}

# Catches the daemon's system-log lines in $WORK/syslog.out when this machine
# runs no system logger; returns non-zero when one runs (nothing to catch then).
catch_syslog() {
    [ -e /dev/log ] && return 1
    "$E2E_ROOT/scripts/syslog-catch" /dev/log >"$WORK/syslog.out" 2>&1 &
    E2E_PIDS+=($!)
    wait_for "$WORK/syslog.out" '^# catching' 5
}

# Brings the link up: simulator, daemon, a listener on 101, the controller address.
link_up() {
    need_netns
    start_sim "$@" || return 1
    start_daemon || return 1
    start_listen 101 || return 1
    ctl controller "$TOVRIN_CTL_IP" || return 1
    wait_for "$WORK/listen-101.out" "^STATUS UP controller $TOVRIN_CTL_IP" 10
}
