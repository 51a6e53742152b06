#!/usr/bin/env bash
# The link with the real binaries: registration, keepalives, loss and return,
# as the controller and the local endpoints see them.
. "$(dirname "$0")/lib.sh"

SYSLOG=0
catch_syslog && SYSLOG=1
link_up || { fail "link comes up"; e2e_done; exit 1; }
pass "link comes up and endpoint 101 hears STATUS UP"
SIM="$WORK/sim.out"
LISTEN="$WORK/listen-101.out"

check_eq "status shows the controller UP" "$(ctl status)" "controller $TOVRIN_CTL_IP link UP"
check "registration request on the wire: 116 bytes with our identity" \
    grep -qE "< $TOVRIN_AP_IP:6650 flags=0xa0 frag=0 ctlr_trans=0 ap_trans=0 data_len=104 REG-REQ serial=E2E-SERIAL mac=02:00:5e:10:00:01 uptime=[0-9]+ name=Testserver ka_rate=5000" "$SIM"
check "keepalive request on the wire: 48 bytes" \
    wait_for "$SIM" "< $TOVRIN_AP_IP:6650 flags=0xa0 frag=0 ctlr_trans=0 ap_trans=0 data_len=36 KA-REQ serial=E2E-SERIAL mac=02:00:5e:10:00:01 uptime=[0-9]+ ka_rate=5000" 3

ctl karate 107 2000
check "a shorter rate reaches the controller at once" wait_for "$SIM" "KA-REQ .* ka_rate=2000" 3
ctl karate 107 0

# The controller goes silent: three keepalives unanswered take the link down.
sim_cmd "reg off"
sim_cmd "ka off"
check "link goes DOWN when keepalives stop" wait_for "$LISTEN" "^STATUS DOWN controller $TOVRIN_CTL_IP" 8
check_eq "status shows DOWN" "$(ctl status)" "controller $TOVRIN_CTL_IP link DOWN"
n=$(count_of "$SIM" "REG-REQ")
check "registration resumes after the loss" wait_for "$SIM" "REG-REQ" 1
sleep 2.5
check "registration requests keep coming" test "$(count_of "$SIM" "REG-REQ")" -gt "$n"

# The controller answers again: the link returns within the back-off.
sim_cmd "reg on"
sim_cmd "ka on"
check "link comes back UP by itself" bash -c "for i in \$(seq 200); do [ \$(grep -c '^STATUS UP' '$LISTEN') -ge 2 ] && exit 0; sleep 0.1; done; exit 1"
check_eq "status shows UP again" "$(ctl status)" "controller $TOVRIN_CTL_IP link UP"

if [ "$SYSLOG" = 1 ]; then
    check_eq "each change is one system-log line at LOG_INFO" \
        "$(grep -o '<14>.*AP-Ctrl Tunl Status [A-Z]* CtrlIP [0-9.]*' "$WORK/syslog.out" | sed 's/.*: AP/AP/' | tr '\n' ,)" \
        "AP-Ctrl Tunl Status UP CtrlIP $TOVRIN_CTL_IP,AP-Ctrl Tunl Status DOWN CtrlIP $TOVRIN_CTL_IP,AP-Ctrl Tunl Status UP CtrlIP $TOVRIN_CTL_IP,"
fi

# Every local endpoint is told; ids count the keepalives sent.
check "status reports carry the keepalive count as id" grep -qE "^STATUS UP controller $TOVRIN_CTL_IP id [1-9][0-9]*$" "$LISTEN"

# The controller's DRAV IP message is logged and changes nothing.
sim_cmd "dravip 203.0.113.9"
check "DRAV IP message logged" wait_for "$WORK/tovrin.log" "Recvd dravipmsg with 203.0.113.9 in mode 0" 3
check_eq "link still UP with its old controller" "$(ctl status)" "controller $TOVRIN_CTL_IP link UP"
e2e_done
