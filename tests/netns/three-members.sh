#!/usr/bin/env bash
# One controller on a simulated UPS and three members on hosts of their own.
# All three register. A utility failure (alarm 59) cleared while every
# member counts down cancels everywhere: no command runs, the event logs say
# power came back. The next failure runs each member's own timing (members
# keep their own timing: AcceptControllerTiming=0): wink, one countdown
# minute, its application-termination command, then its shutdown command,
# staggered by their different wink and termination times.
# Before that, members trust only the controller they follow: power reports
# saying the utility is lost, forged from another host (under its own name,
# under the controller's name, or addressed by identity), change nothing;
# and the controller's termination command is not stored by members that
# set AcceptControllerCommand=0.
# Usage: three-members.sh BUILD_DIR
. "$(dirname "$0")/netns-kit.sh" "$1"
kit_begin

kit_switch
kit_host c1 10.213.0.1
for i in 1 2 3; do kit_host "m$i" "10.213.0.1$i"; done
kit_host fg 10.213.0.66
kit_controller ctl c1 10.213.0.1 AppTermCommand1 "date >> $KIT_ROOT/ctl/app-runs" || exit 1

winks=(0 5 15 25)
appterm=(0 2 5 8)
for i in 1 2 3; do
    kit_follow "m$i" "m$i" "10.213.0.1$i" 10.213.0.1 AcceptControllerTiming 0 AcceptControllerCommand 0 \
        WinkTime1 "${winks[i]}" ShutdownTime1 1 AppTermTimeOut1 "${appterm[i]}" ShutdownDelay1 300 \
        AppTermCommand1 "$(kit_app_recorder "m$i")"
    kit_daemon "m$i" "m$i"
done

for i in 1 2 3; do
    kit_must "member $i is Active at the controller" kit_wait 120 kit_ctrl_status ctl "10.213.0.1$i" Active
    kit_check "member $i shows its controller Active" kit_wait 30 kit_inf_slot "m$i" 1 Active
done

# Forged power reports (message 141, utility lost, alarm 59 active) from
# 10.213.0.66 to the member port: forge SOURCE-NAME DESTINATION-NAME TARGET.
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
    s.sendto(head + body, (sys.argv[3], 9862))
    time.sleep(0.2)
PY
}
for round in 1 2 3; do
    for i in 1 2 3; do
        forge 10.213.0.66 "10.213.0.1$i" "10.213.0.1$i"
        forge 10.213.0.1 "10.213.0.1$i" "10.213.0.1$i"
        forge 10.213.0.1 " KSVctl" "10.213.0.1$i"
    done
    sleep 10
done
sleep 15
for i in 1 2 3; do
    h=$KIT_ROOT/m$i
    kit_check "member $i: no wink or countdown on forged reports" eval '! kit_event_has m$i "Utility power not present"'
    kit_check "member $i: the controller's command is not stored" \
        grep -qxF "AppTermCommand1=$(kit_app_recorder "m$i")" "$h/Kestrava.ini"
    kit_check "member $i: the controller stays Active" kit_inf_slot "m$i" 1 Active
done

# Cancel: clear the failure once the last member counts down. Its countdown
# starts 20 s after the first one's, so the first still has half a minute.
kit_check "alarm 59 raised" kit_sim ctl "alarm set 59"
kit_check "member 3 counts down" kit_wait 90 kit_event_has m3 "will shut down in"
kit_check "alarm 59 cleared" kit_sim ctl "alarm clear 59"
for i in 1 2 3; do
    kit_check "member $i logs power back" kit_wait 40 kit_event_has "m$i" "Power has been restored."
done
# Past the end the last countdown would have had.
sleep 45
for i in 1 2 3; do
    kit_check "member $i ran nothing after the cancel" \
        test ! -e "$KIT_ROOT/m$i/app-runs" -a ! -e "$KIT_ROOT/m$i/shutdown-runs"
done

# The failure that is not cancelled.
raised=$(date +%s)
kit_check "alarm 59 raised again" kit_sim ctl "alarm set 59"
for i in 1 2 3; do
    kit_check "member $i ran its shutdown command" kit_wait 150 test -s "$KIT_ROOT/m$i/shutdown-runs"
done
sleep 3
prev=0
for i in 1 2 3; do
    h=$KIT_ROOT/m$i
    app=$(kit_first_time "$h/app-runs")
    down=$(kit_first_time "$h/shutdown-runs")
    kit_check "member $i ran each command once" test "$(wc -l <"$h/app-runs")" = 1 -a "$(wc -l <"$h/shutdown-runs")" = 1
    # Report delay (one poll, up to 15 s) + wink + one minute, generously.
    since=$((app - raised))
    kit_check "member $i: termination command $since s after the failure (wink ${winks[i]} s)" \
        test $since -ge $((winks[i] + 55)) -a $since -le $((winks[i] + 60 + 30))
    kit_check "member $i: shutdown $((down - app)) s after the termination command (${appterm[i]} s)" \
        test $((down - app)) -ge $((appterm[i] - 1)) -a $((down - app)) -le $((appterm[i] + 8))
    kit_check "member $i ends after member $((i - 1))" test "$app" -ge "$prev"
    prev=$app
done
kit_result
