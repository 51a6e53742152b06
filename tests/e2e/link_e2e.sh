#!/usr/bin/env bash
# The programs' command lines, then the link with the real binaries:
# registration, keepalives, loss and return as the controller, the local
# endpoints and the system log see them, and the signals an operator sends.
# scripts/package-test runs it against the installed programs too.
# shellcheck source=tests/e2e/lib.sh
. "$(dirname "$0")/lib.sh"

# --version and --help print and exit 0 at once; the daemon opens nothing for them.
want=${TOVRIN_PROJECT_VERSION:-[0-9]+.[0-9]+.[0-9]+}
progs=("tovrin $TOVRIN_BIN" "tovrinctl $TOVRINCTL_BIN" "drav-sim $DRAVSIM_BIN")
[ -n "${TOVRIN_PCAP_BIN:-}" ] && progs+=("tovrin-pcap $TOVRIN_PCAP_BIN")
for prog in "${progs[@]}"; do
    read -r name bin <<<"$prog"
    out=$(timeout 20 "$bin" --version)
    check "$name --version exits 0 saying '$name $want' first" \
        grep -qE "^0 $name ${want//./\\.}(\+git\.[0-9a-z.]+)?$" <<<"$? ${out%%$'\n'*}"
    out=$(timeout 20 "$bin" --help)
    check "$name --help exits 0 with its usage" grep -qi "^0 usage: $name" <<<"$? $out"
done
mkdir -p "$WORK/logs"
for args in "--version" "--bogus --help" "-h"; do
    read -ra argv <<<"$args"
    VK_LOG_DIR="$WORK/logs" timeout 20 "$TOVRIN_BIN" "${argv[@]}" >/dev/null
    check "tovrin $args exits 0 opening neither the IPC root nor a log" \
        test $? -eq 0 -a ! -e "$VK_IPC_ROOT" -a -z "$(ls -A "$WORK/logs")"
done

# No system logger here: catch the daemon's lines, picked out by its pid as
# every other process on the machine logs to the same socket.
SYSLOG=0
if [ ! -e /dev/log ]; then
    "$E2E_ROOT/scripts/syslog-catch" /dev/log >"$WORK/syslog.out" 2>&1 &
    E2E_PIDS+=($!)
    wait_for "$WORK/syslog.out" '^# catching' && SYSLOG=1
fi
TOVRIN_ARGS=(--bogus extra)  # other arguments are ignored
# shellcheck disable=SC2119 # drav-sim needs no arguments here
link_up || { fail "link comes up"; e2e_done; exit 1; }
pass "link comes up and endpoint 101 hears STATUS UP"
SIM="$WORK/sim.out" LISTEN="$WORK/listen-101.out" LOG="$WORK/tovrin.log"

check "registration request on the wire: 116 bytes with our identity" \
    has_line "$SIM" "< $TOVRIN_AP_IP:6650 flags=0xa0 frag=0 ctlr_trans=0 ap_trans=0 data_len=104 REG-REQ serial=E2E-SERIAL mac=02:00:5e:10:00:01 uptime=[0-9]+ name=Testserver ka_rate=5000"
check "keepalive request on the wire: 48 bytes" \
    wait_for "$SIM" "< $TOVRIN_AP_IP:6650 flags=0xa0 frag=0 ctlr_trans=0 ap_trans=0 data_len=36 KA-REQ serial=E2E-SERIAL mac=02:00:5e:10:00:01 uptime=[0-9]+ ka_rate=5000"

# The controller goes silent: unanswered keepalives take the link down.
sim_cmd reg off && sim_cmd ka off
check "link goes DOWN when keepalives stop" wait_for "$LISTEN" "^STATUS DOWN controller $TOVRIN_CTL_IP"
check_eq "status shows DOWN" "$(ctl status)" "controller $TOVRIN_CTL_IP link DOWN"

# The controller answers again: the link returns by itself.
sim_cmd reg on && sim_cmd ka on
check "link comes back UP by itself" wait_until 30 at_least "$LISTEN" '^STATUS UP' 2
if [ "$SYSLOG" = 1 ]; then
    st() { grep -o "^pid=$TOVRIN_PID <14>.*AP-Ctrl Tunl Status [A-Z]* CtrlIP [0-9.]*" "$WORK/syslog.out" | sed 's/.*: AP/AP/' | tr '\n' ,; }
    check_eq "each change is one system-log line at LOG_INFO" "$(st)" \
        "AP-Ctrl Tunl Status UP CtrlIP $TOVRIN_CTL_IP,AP-Ctrl Tunl Status DOWN CtrlIP $TOVRIN_CTL_IP,AP-Ctrl Tunl Status UP CtrlIP $TOVRIN_CTL_IP,"
fi

# A second daemon finds the endpoint taken and ends, leaving the first one's log alone.
sum=$(md5sum "$LOG")
mkdir -p "$WORK/second"
in_ap env VK_LOG_DIR="$WORK/second" timeout 20 "$TOVRIN_BIN" >"$WORK/second.out" 2>&1
check_eq "a second daemon exits with status 1" "$?" 1
check_eq "the first daemon's log is untouched" "$(md5sum "$LOG")" "$sum"

# Signals: only SIGTERM and SIGINT end the daemon; SIGUSR1 logs the counters,
# SIGHUP reopens the log (rotation).
for sig in USR2 PIPE USR1; do kill -s "$sig" "$TOVRIN_PID"; done
check "SIGUSR1 writes the counters as one INFO line" wait_for "$LOG" '^:[0-9]+:[0-9]+: INFO: counters link_up=1 '
mv "$LOG" "$WORK/rotated.log"
kill -HUP "$TOVRIN_PID"
check "after SIGHUP a new tovrin.log is written" wait_for "$LOG" 'log reopened on SIGHUP'
check_eq "SIGHUP, SIGUSR2, SIGPIPE and SIGUSR1 leave it running and answering" \
    "$(ctl status --json)" "{\"controller\":\"$TOVRIN_CTL_IP\",\"link_state\":\"up\"}"
kill -TERM "$TOVRIN_PID"
wait "$TOVRIN_PID"
check_eq "SIGTERM ends the daemon with status 1" "$?" 1
check "termination logged" has_line "$LOG" '<<<main Terminated'
e2e_done
