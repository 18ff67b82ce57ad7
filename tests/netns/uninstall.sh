#!/usr/bin/env bash
# A controller taken out of the member's Membercnt.cfg is told to forget
# the member at its next start (messages 129 and 130): Controller.log says
# "Delete Controller" and "Uninstall Success". A controller that is silent
# then gives "Uninstall Failure" once the exchange has given up.
# Usage: uninstall.sh BUILD_DIR
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
kit_follow m1 m1 10.213.0.11 10.213.0.1 cfg:IPAddress2 10.213.0.2 cfg:Port2 9861 CtrlIPAddress2 10.213.0.2
kit_daemon m1 m1
for c in 1 2; do
    kit_check "member is Active at controller $c" kit_wait 120 kit_ctrl_status "ctl$c" 10.213.0.11 Active
done

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
