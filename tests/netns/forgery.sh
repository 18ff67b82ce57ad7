#!/usr/bin/env bash
# A member trusts only the controllers it follows. Power reports saying the
# utility is lost, forged from a host that is not its controller (under
# that host's own name, under the controller's name, and addressed to the
# member by its address), change nothing: no wink, no countdown, no
# command. The real controller's application-termination command is not
# stored by a member that set AcceptControllerCommand=0.
# Usage: forgery.sh BUILD_DIR
. "$(dirname "$0")/netns-kit.sh" "$1"
kit_require
kit_sweep
trap kit_down EXIT INT TERM

kit_switch
kit_host c1 10.213.0.1
kit_host m1 10.213.0.11
kit_host fg 10.213.0.66
kit_controller ctl c1 10.213.0.1 AppTermCommand1 "date >> $KIT_ROOT/ctl/app-runs" || exit 1
kit_follow m1 m1 10.213.0.11 10.213.0.1 WinkTime1 1 ShutdownTime1 1 AppTermTimeOut1 1 \
    AcceptControllerTiming 0 AcceptControllerCommand 0 AppTermCommand1 "$(kit_app_recorder m1)"
kit_daemon m1 m1
kit_check "member is Active at the controller" kit_wait 120 kit_ctrl_status ctl 10.213.0.11 Active
kit_check "member shows its controller Active" kit_wait 30 kit_inf_slot m1 1 Active
kit_check "the controller's command is not stored" \
    grep -qxF "AppTermCommand1=$(kit_app_recorder m1)" "$KIT_ROOT/m1/Kestrava.ini"

# Forged power reports (message 141, utility lost, alarm 59 active) from
# 10.213.0.66 to the member's port, repeated for a minute.
forge() {
    kit_in fg python3 - "$@" <<'PY'
import socket, struct, sys, time
src, dst = sys.argv[1], sys.argv[2]
def text(t): return t.encode().ljust(32, b"\0")
def form(t): return 0xFF if not t else (1 if t[0] == " " else 0)
body = bytearray(1328)
body[0], body[1], body[2] = 8, 4, 3          # map length, battery ok, utility lost
body[4 + 59 // 8] |= 1 << (59 % 8)           # alarm 59 supported ...
body[36] = 1                                 # ... and active
body[1319] = 1                               # output on
now = int(time.time())
struct.pack_into("<ii", body, 1320, now - 120, now)
head = bytes([0xD2, 0xFF, 141, 1, form(src), form(dst)]) + text(src) + struct.pack("<H", 19) + \
       text(dst) + struct.pack("<H", 17) + bytes(8) + struct.pack("<H", len(body))
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("10.213.0.66", 9861))
for _ in range(3):
    s.sendto(head + body, ("10.213.0.11", 9862))
    time.sleep(0.2)
PY
}
for round in 1 2 3 4; do
    forge 10.213.0.66 10.213.0.11
    forge 10.213.0.1 10.213.0.11
    forge 10.213.0.1 ""
    sleep 15
done
sleep 30
kit_check "no wink or countdown on forged reports" eval '! kit_event_has m1 "Utility power not present"'
kit_check "no command ran" test ! -e "$KIT_ROOT/m1/app-runs" -a ! -e "$KIT_ROOT/m1/shutdown-runs"
kit_check "the controller stays Active" kit_inf_slot m1 1 Active
kit_check "the member runs" kill -0 "$(cat "$KIT_ROOT/m1/daemon.pid")"
kit_check "the command is still the member's own" \
    grep -qxF "AppTermCommand1=$(kit_app_recorder m1)" "$KIT_ROOT/m1/Kestrava.ini"
kit_result
