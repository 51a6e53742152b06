#!/usr/bin/env bash
# What an operator sees: logs that survive a restart and a second daemon,
# signals that do not end the daemon, and the counters after real traffic.
. "$(dirname "$0")/lib.sh"

LOG="$WORK/tovrin.log"
start_daemon || exit 1
check_eq "without VK_LOG_LEVEL the level is 3" "$(ctl log get)" "level 3 echo 0 max 1048576"
ctl notify 16
check "an event is logged at level 3" wait_for "$LOG" 'System Ready message received' 3

# A second daemon finds the endpoint taken: it leaves the first one's log and its predecessor whole.
echo "an older run" >"$LOG.1"
sum_before=$(md5sum "$LOG" "$LOG.1")
"$TOVRIN_BIN" >"$WORK/second.out" 2>&1
check_eq "second daemon exits with status 1" "$?" 1
check_eq "the first daemon's log and its predecessor are untouched" "$(md5sum "$LOG" "$LOG.1")" "$sum_before"
ctl notify 16
check_eq "the first daemon still writes its log" "$(grep -c 'System Ready message received' "$LOG")" 2

# Signals an operator or a supervisor sends: only SIGTERM and SIGINT end it.
for sig in HUP USR2 PIPE USR1; do kill -s "$sig" "$TOVRIN_PID"; done
check "SIGUSR1 writes the counters as one INFO line" wait_for "$LOG" '^:[0-9]+:[0-9]+: INFO: counters link_up=0 ' 3
check "SIGHUP, SIGUSR2, SIGPIPE and SIGUSR1 leave it running" kill -0 "$TOVRIN_PID"
check_eq "and answering" "$(ctl status --json)" '{"controller":"0.0.0.0","link_state":"down"}'
mv "$LOG" "$WORK/rotated.log"
kill -HUP "$TOVRIN_PID"
check "after SIGHUP a new tovrin.log is written" wait_for "$LOG" 'log reopened on SIGHUP' 3
check "the moved log keeps its lines" grep -q 'INFO: counters' "$WORK/rotated.log"

# A restart keeps the run before as tovrin.log.1.
ctl notify 16
kill -TERM "$TOVRIN_PID"
wait "$TOVRIN_PID"
cp "$LOG" "$WORK/run1.log"
rm -f "$VK_IPC_ROOT/vk/ipc/tovrin"  # the dead daemon's socket file: wait for the new one's
start_daemon || exit 1
check_eq "the previous run's log is tovrin.log.1 after a restart" "$(md5sum <"$LOG.1")" "$(md5sum <"$WORK/run1.log")"
check "the new run's log starts afresh" bash -c "! grep -q 'System Ready' '$LOG'"
kill -TERM "$TOVRIN_PID"
wait "$TOVRIN_PID"
rm -f "$VK_IPC_ROOT/vk/ipc/tovrin"

# The counters after real traffic both ways.
link_up || { fail "link comes up"; e2e_done; exit 1; }
SIM="$WORK/sim.out"
LISTEN="$WORK/listen-101.out"
for i in 1 2 3; do
    check_eq "uplink $i delivered" "$(ctl --timeout 5000 send 102 --from 105 --ack "up $i")" "delivered"
done
sim_cmd "send 200 101 down one"
sim_cmd "send 200 103 nobody"
check "downlink delivered" wait_for "$LISTEN" '^MSG id=100000 src=200 dst=101 len=8 data=down one$' 5
check "the unknown endpoint's message acknowledged" wait_for "$SIM" '\* ACKED ctlr_trans=2' 3
ctl notify 555
JSON=$(ctl stats --json)
check "stats --json is one JSON object" bash -c "jq -e 'type == \"object\"' <<<'$JSON' >/dev/null"
j() { jq -r "$1" <<<"$JSON"; }
check_eq "link_state and controller" "$(j '.link_state + " " + .controller')" "up $TOVRIN_CTL_IP"
check_eq "link_ups, link_downs" "$(j '"\(.link_ups) \(.link_downs)"')" "1 0"
check_eq "uplink accepted, acked, failed" \
    "$(j '"\(.up_messages_accepted) \(.up_messages_acked) \(.up_messages_failed)"')" "3 3 0"
check_eq "downlink delivered, dropped" "$(j '"\(.down_messages_delivered) \(.down_messages_dropped)"')" "1 1"
check_eq "refusals by reason" \
    "$(j '.refused_by_reason | to_entries | map(select(.value > 0)) | map("\(.key)=\(.value)") | join(",")')" \
    "ipc_unknown_notification=1,app_unknown_endpoint=1"
check_eq "datagrams_refused is their sum" "$(j '.datagrams_refused')" 2
check "registrations, keepalives and datagrams counted" \
    test "$(j '[.registrations_sent, .keepalives_sent, .datagrams_in, .datagrams_out] | min')" -ge 1
check_eq "every documented key is there" \
    "$(j '[ "link_state", "controller", "seconds_in_state", "link_ups", "link_downs", "registrations_sent",
            "keepalives_sent", "keepalives_answered", "datagrams_in", "datagrams_out", "datagrams_refused",
            "refused_by_reason", "retransmissions", "up_messages_accepted", "up_messages_acked",
            "up_messages_failed", "down_messages_delivered", "down_messages_dropped", "send_queue_depth",
            "send_queue_high_water", "backlog_depth", "backlog_dropped" ] - keys | length')" 0
if command -v promtool >/dev/null; then
    check "stats --prometheus passes promtool check metrics" \
        bash -c "'$TOVRINCTL_BIN' stats --prometheus | promtool check metrics"
else
    fail "promtool is not installed (scripts/deps.sh installs prometheus)"
fi
check "stats --prometheus shows the refusal" \
    bash -c "'$TOVRINCTL_BIN' stats --prometheus | grep -qx 'tovrin_refused_total{reason=\"app_unknown_endpoint\"} 1'"
check "stats prints a table" bash -c "'$TOVRINCTL_BIN' stats | grep -qE '^  up_messages_acked +3$'"
e2e_done
