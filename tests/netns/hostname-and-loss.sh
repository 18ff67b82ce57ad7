#!/usr/bin/env bash
# Members that name their controller by host name: one resolves it (from
# its host's hosts file) and registers; one names a host nobody knows, says
# so once in its event log and keeps running. Then the controller's daemon
# stops in order (the member shows it "NotActive"), comes back ("Active"),
# and dies without a word: the member marks it "COMM Fail" once and shuts
# nothing down for silence alone; it comes back and is "Active" again.
# Usage: hostname-and-loss.sh BUILD_DIR
. "$(dirname "$0")/netns-kit.sh" "$1"
kit_begin

KIT_HOSTS="10.213.0.1 ups-room-a"
kit_switch
kit_host c1 10.213.0.1
kit_host m1 10.213.0.11
kit_host m2 10.213.0.12
kit_controller ctl c1 10.213.0.1 || exit 1

kit_follow m1 m1 10.213.0.11 ups-room-a WinkTime1 5 ShutdownTime1 1 AppTermTimeOut1 2 \
    AcceptControllerTiming 0 AppTermCommand1 "$(kit_app_recorder m1)"
kit_follow m2 m2 10.213.0.12 no-such-controller
kit_daemon m1 m1
kit_daemon m2 m2

kit_must "the member naming ups-room-a is Active at the controller" \
    kit_wait 120 kit_ctrl_status ctl 10.213.0.11 Active
kit_check "its Controller.inf shows slot 1 Active" kit_wait 30 kit_inf_slot m1 1 Active
kit_check "its Controller.inf has a name line for slot 1" \
    kit_has "$KIT_ROOT/m1/CONTROLLER/Controller.inf" "  No.1 "

unresolved="The controller's host name could not be resolved."
kit_check "the unknown host name is logged" kit_wait 90 kit_event_has m2 "$unresolved"
# Past a few more registration attempts.
sleep 30
kit_check "... once" test "$(kit_events m2 | grep -cF "$unresolved")" = 1
kit_check "the member with the unknown host runs" kill -0 "$(cat "$KIT_ROOT/m2/daemon.pid")"
kit_check "it ends on SIGTERM within 15 s" kit_stop_clean m2

# The controller's daemon ends in order: it tells its members.
kit_stop ctl
kit_check "an orderly stop shows the controller NotActive" kit_wait 30 kit_inf_slot m1 1 NotActive
kit_check "... and is logged as the end of its monitoring" \
    kit_event_has m1 "The controller ended its monitoring (application end received)."
kit_daemon ctl c1
kit_check "the restarted controller is Active" kit_wait 150 kit_inf_slot m1 1 Active

# The controller dies without a word (killed): only silence tells.
kit_kill ctl
kit_check "the silent controller shows COMM Fail" kit_wait 200 kit_inf_slot m1 1 "COMM Fail"
sleep 20
lost="Communication with the controller lost."
kit_check "the loss is logged once" test "$(kit_events m1 | grep -cF "$lost")" = 1
kit_check "the member still runs" kill -0 "$(cat "$KIT_ROOT/m1/daemon.pid")"
kit_check "silence ran no command" test ! -e "$KIT_ROOT/m1/app-runs" -a ! -e "$KIT_ROOT/m1/shutdown-runs"

# It comes back.
kit_daemon ctl c1
kit_check "the controller is Active again" kit_wait 150 kit_inf_slot m1 1 Active
kit_check "the member is Active at the controller again" kit_wait 60 kit_ctrl_status ctl 10.213.0.11 Active
kit_result
