#!/usr/bin/env bash
# The daemon under valgrind: messages queued, the link lost, no block lost.
. "$(dirname "$0")/lib.sh"

if ! command -v valgrind >/dev/null; then
    echo "skipped: valgrind is not installed"
    exit 77
fi
TOVRIN_WRAP=(valgrind -q --leak-check=full --errors-for-leak-kinds=definite,indirect
    --error-exitcode=9 "--log-file=$WORK/valgrind.txt")
link_up || { fail "link comes up under valgrind"; e2e_done; exit 1; }
SIM="$WORK/sim.out"

sim_cmd "ack off"
for id in 105 106 107; do
    ctl --timeout 20000 send 102 --from $id --ack "queued by $id" >"$WORK/q$id" &
done
sleep 1.5
ctl controller "$TOVRIN_CTL_IP"   # closes the link: queued messages fail and are freed
wait_for "$WORK/q107" failed 10
sim_cmd "ack on"
wait_for "$WORK/listen-101.out" '^STATUS UP.*' 10
ctl --timeout 20000 send 102 --from 105 --ack "after" >/dev/null
kill -TERM "$TOVRIN_PID"
wait "$TOVRIN_PID"
rc=$?
check_eq "daemon ends with its own status 1, not valgrind's error status" "$rc" 1
check "valgrind reports no error and no lost block" bash -c "! grep -qE 'definitely lost|indirectly lost|Invalid|uninitialised' '$WORK/valgrind.txt'"
for id in 105 106 107; do check_eq "sender $id told" "$(cat "$WORK/q$id")" failed; done
e2e_done
