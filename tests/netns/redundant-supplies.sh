#!/usr/bin/env bash
# A member fed by two UPS (two controllers, two simulators) follows both.
# Its host goes down only when the second controller reports a power
# failure too, with the second slot's own timing; Controller.inf lists
# both slots and the shutdown log gets one line.
# Usage: redundant-supplies.sh BUILD_DIR
. "$(dirname "$0")/netns-kit.sh" "$1"
kit_require
kit_sweep
trap kit_down EXIT INT TERM

kit_switch
kit_host c1 10.213.0.1
kit_host c2 10.213.0.2
kit_host m1 10.213.0.11
kit_controller ctl1 c1 10.213.0.1 || exit 1
kit_controller ctl2 c2 10.213.0.2 || exit 1

# Slot 1: short wink, 2 s to terminate; slot 2: its own, longer times. Each
# termination command records its slot.
runs=$KIT_ROOT/m1/app-runs
kit_follow m1 m1 10.213.0.11 10.213.0.1 cfg:IPAddress2 10.213.0.2 cfg:Port2 9861 CtrlIPAddress2 10.213.0.2 \
    AcceptControllerTiming 0 AcceptControllerCommand 0 \
    WinkTime1 5 ShutdownTime1 1 AppTermTimeOut1 2 ShutdownDelay1 300 AppTermCommand1 "date +slot1-%s >> $runs" \
    WinkTime2 10 ShutdownTime2 1 AppTermTimeOut2 7 ShutdownDelay2 280 AppTermCommand2 "date +slot2-%s >> $runs"
kit_daemon m1 m1

for c in 1 2; do
    kit_check "member is Active at controller $c" kit_wait 120 kit_ctrl_status "ctl$c" 10.213.0.11 Active
    kit_check "Controller.inf shows slot $c Active" kit_wait 30 kit_inf_slot m1 "$c" Active
done
inf=$KIT_ROOT/m1/CONTROLLER/Controller.inf
kit_check "Controller.inf names both controllers" \
    kit_has "$inf" "  No.1 10.213.0.1" && kit_has "$inf" "  No.2 10.213.0.2"

# The first UPS fails: its slot counts down, but the second still feeds.
kit_check "alarm 59 on controller 1" kit_sim ctl1 "alarm set 59"
kit_check "slot 1 counts down" kit_wait 60 kit_event_has m1 "will shut down in"
# Past the end of slot 1's countdown and termination time.
sleep 100
kit_check "nothing ran while one supply was left" test ! -e "$runs" -a ! -e "$KIT_ROOT/m1/shutdown-runs"

# The second fails too: slot 2's timing ends it.
raised=$(date +%s)
kit_check "alarm 59 on controller 2" kit_sim ctl2 "alarm set 59"
kit_check "the host shutdown ran" kit_wait 150 test -s "$KIT_ROOT/m1/shutdown-runs"
sleep 3
kit_check "one termination command ran, the second slot's" test "$(cat "$runs" 2>/dev/null | cut -d- -f1)" = slot2
app=$(cut -d- -f2 "$runs" 2>/dev/null | head -n1)
down=$(kit_first_time "$KIT_ROOT/m1/shutdown-runs")
kit_check "termination $((app - raised)) s after the second failure (wink 10 s + 1 min)" \
    test $((app - raised)) -ge 65 -a $((app - raised)) -le 100
kit_check "shutdown $((down - app)) s after the termination command (slot 2: 7 s)" \
    test $((down - app)) -ge 6 -a $((down - app)) -le 15
kit_check "one host shutdown" test "$(wc -l <"$KIT_ROOT/m1/shutdown-runs")" = 1
log=$(ls "$KIT_ROOT"/m1/SHUTDOWN/*_sh.log 2>/dev/null | head -n1)
kit_check "one shutdown log line" test -n "$log" -a "$(wc -l <"${log:-/dev/null}")" = 1
kit_check "the line: shutdown on controller 2's power failure with slot 2's timing" \
    grep -qE " Shutdown 10\.213\.0\.2 Power Failure 10, 1, 7\*?, 280$" "${log:-/dev/null}"
[ -n "$log" ] && cat "$log"
kit_result
