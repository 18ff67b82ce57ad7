#!/usr/bin/env bash
# A member fed by two UPS (two controllers, two simulators) follows both.
# Its host goes down only when the second controller reports a power
# failure too, with the second slot's own timing; Controller.inf lists
# both slots and the shutdown log gets one line.
# Then the controllers leave the member's Membercnt.cfg one by one: at its
# next start the member tells each to forget it (messages 129 and 130).
# Controller.log says "Delete Controller" and "Uninstall Success"; a
# controller that is silent gives "Uninstall Failure" once the exchange has
# given up.
# Usage: two-controllers.sh BUILD_DIR
. "$(dirname "$0")/netns-kit.sh" "$1"
kit_begin

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
    WinkTime1 1 ShutdownTime1 1 AppTermTimeOut1 2 ShutdownDelay1 300 AppTermCommand1 "date +slot1-%s >> $runs" \
    WinkTime2 10 ShutdownTime2 1 AppTermTimeOut2 7 ShutdownDelay2 280 AppTermCommand2 "date +slot2-%s >> $runs"
kit_daemon m1 m1

for c in 1 2; do
    kit_must "member is Active at controller $c" kit_wait 120 kit_ctrl_status "ctl$c" 10.213.0.11 Active
    kit_check "Controller.inf shows slot $c Active" kit_wait 30 kit_inf_slot m1 "$c" Active
done
inf=$KIT_ROOT/m1/CONTROLLER/Controller.inf
kit_check "Controller.inf names both controllers" \
    kit_has "$inf" "  No.1 10.213.0.1" && kit_has "$inf" "  No.2 10.213.0.2"

# The first UPS fails: its slot counts down, but the second still feeds.
kit_check "alarm 59 on controller 1" kit_sim ctl1 "alarm set 59"
kit_check "slot 1 counts down" kit_wait 60 kit_event_has m1 "will shut down in"
# Past the end of slot 1's countdown and termination time.
sleep 75
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
kit_sim ctl1 "alarm clear 59"
kit_sim ctl2 "alarm clear 59"

clog=$KIT_ROOT/m1/CONTROLLER/Controller.log
cfg=$KIT_ROOT/m1/Membercnt.cfg
# Controller 2 leaves the list; it answers.
kit_stop m1
kit_set "$cfg" IPAddress2 ""
kit_daemon m1 m1
kit_check "Controller.log: Delete Controller (10.213.0.2)" kit_wait 30 kit_has "$clog" "Delete Controller (10.213.0.2)"
kit_check "Controller.log: Uninstall Success (10.213.0.2)" kit_wait 30 kit_has "$clog" "Uninstall Success (10.213.0.2)"
kit_check "controller 2 forgot the member" kit_wait 30 eval '! grep -qF 10.213.0.11 "$KIT_ROOT/ctl2/MembInfo.dat"'
kit_check "controller 1 is still followed" kit_wait 120 kit_inf_slot m1 1 Active

# Controller 1 is silent when it leaves the list: four passes of 129, then failure.
kit_stop ctl1
kit_stop m1
kit_set "$cfg" IPAddress1 ""
kit_daemon m1 m1
kit_check "Controller.log: Delete Controller (10.213.0.1)" kit_wait 30 kit_has "$clog" "Delete Controller (10.213.0.1)"
kit_check "Controller.log: Uninstall Failure (10.213.0.1)" kit_wait 40 kit_has "$clog" "Uninstall Failure (10.213.0.1)"
kit_check "the member runs with no controller" kill -0 "$(cat "$KIT_ROOT/m1/daemon.pid")"
cat "$clog"
kit_result
