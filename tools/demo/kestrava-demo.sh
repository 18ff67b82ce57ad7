#!/usr/bin/env bash
# Kestrava demonstration: builds the daemon and the UPS simulator, then runs a
# controller against the simulated UPS through a power failure, in a
# temporary home directory that is removed at the end. Nothing outside it is
# touched: the pid file and device lock are redirected, the host shutdown
# command is a harmless script and `wall` prints to this terminal.
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
build=${KESTRAVA_BUILD_DIR:-$root/build}

case "${1:-}" in
-h | --help)
    cat <<USAGE
Usage: tools/demo/kestrava-demo.sh

Builds build/kestrava and build/kestrava-upssim (set KESTRAVA_BUILD_DIR to use
another build tree) and runs the power-failure story, about two minutes:
the UPS is found, the mains fail, users are warned each minute, the UPS gets
its delayed power-off, the application command and the host shutdown run.
Finally the event log and meter log are shown. Exits 0 when the story
completed.
USAGE
    exit 0
    ;;
esac

say() { printf '\033[1m== %s\033[0m\n' "$*"; }
note() { printf '   %s\n' "$*"; }

say "Building"
cmake -S "$root" -B "$build" >/dev/null
cmake --build "$build" -j2 --target kestrava kestrava-upssim >/dev/null

work=$(mktemp -d /tmp/kestrava-demo.XXXXXX)
home="$work/home"
mkdir -p "$home" "$work/bin" "$work/lock"
sim_pid=""
tail_pid=""
tail2_pid=""
cleanup() {
    set +e
    if [ -f "$work/kestrava.pid" ]; then
        dpid=$(cat "$work/kestrava.pid")
        [ -n "$dpid" ] && kill -KILL "$dpid" 2>/dev/null
    fi
    [ -n "$tail_pid" ] && kill "$tail_pid" 2>/dev/null
    [ -n "$tail2_pid" ] && kill "$tail2_pid" 2>/dev/null
    [ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null && wait "$sim_pid" 2>/dev/null
    exec 3>&- 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

story="$work/story.txt"
: >"$story"

# `wall` and the host shutdown command tell the story instead of acting.
cat >"$work/bin/wall" <<WALL
#!/bin/sh
if [ -f "\$1" ]; then msg=\$(cat "\$1"); else msg="\$*"; fi
echo "[wall to all users] \$msg" >>"$story"
WALL
cat >"$work/bin/fake-shutdown" <<SHUT
#!/bin/sh
echo "[host shutdown] /sbin/shutdown -h now would run now (demonstration: nothing is shut down)" >>"$story"
touch "$work/shutdown-ran"
SHUT
cat >"$work/bin/close-apps" <<APPS
#!/bin/sh
echo "[application command] closing the applications (AppTermCommand1)" >>"$story"
APPS
chmod +x "$work/bin/wall" "$work/bin/fake-shutdown" "$work/bin/close-apps"

say "Starting the simulated UPS"
mkfifo "$work/sim.in"
"$build/kestrava-upssim" --quiet --log "$work/ups-frames.log" --model "Demo UPS 1500" \
    --serial DEMO0001 <"$work/sim.in" >"$work/sim.out" 2>&1 &
sim_pid=$!
exec 3>"$work/sim.in"
for _ in $(seq 50); do
    [ -s "$work/sim.out" ] && break
    sleep 0.1
done
device=$(head -n 1 "$work/sim.out")
[ -n "$device" ] || { echo "the UPS simulator did not start" >&2; exit 1; }
note "UPS on $device"

# The shipped configuration with short timings for the demonstration.
sed -e "s|^DeviceName=.*|DeviceName=$device|" \
    -e "s|^Path=.*|Path=$home|" \
    -e "s|^WinkTime1=.*|WinkTime1=5|" \
    -e "s|^ShutdownTime1=.*|ShutdownTime1=1|" \
    -e "s|^AppTermTimeOut1=.*|AppTermTimeOut1=10|" \
    -e "s|^ShutdownDelay1=.*|ShutdownDelay1=60|" \
    -e "s|^AppTermCommand1=.*|AppTermCommand1=$work/bin/close-apps|" \
    -e "s|^DumpLogRate=.*|DumpLogRate=1|" \
    -e "s|^CuiPort=.*|CuiPort=0|" \
    "$root/packaging/Kestrava.ini" >"$home/Kestrava.ini"
cp "$root/packaging/alert.rc" "$root/packaging/alert3so.rc" "$home/"
ln -s "$build/kestrava" "$home/kestrava"

tail -n +1 -F "$story" 2>/dev/null | sed -u 's/^/   /' &
tail_pid=$!
mkdir -p "$home/log"
eventlog="$home/log/$(date +%Y%m).log"
tail -n +1 -F "$eventlog" 2>/dev/null | sed -u 's/^/   [event log] /' &
tail2_pid=$!

say "Starting the Kestrava controller"
export KESTRAVA_PID_FILE="$work/kestrava.pid"
export KESTRAVA_LOCK_DIR="$work/lock"
export KESTRAVA_SHUTDOWN_CMD="$work/bin/fake-shutdown"
export PATH="$work/bin:$PATH"
"$home/kestrava"
note "daemon running as pid $(cat "$work/kestrava.pid")"

wait_for() { # seconds, description, test command...
    local limit=$1 what=$2
    shift 2
    for _ in $(seq $((limit * 5))); do
        if "$@"; then return 0; fi
        sleep 0.2
    done
    echo "demonstration failed: $what did not happen within $limit s" >&2
    return 1
}
established() { grep -q "Established" "$home/upsCommInfo.tmp" 2>/dev/null; }
power_off_sent() { grep -q "TX AB 09 .* 8A" "$work/ups-frames.log" 2>/dev/null || grep -q "RX AB 03 8A" "$work/ups-frames.log" 2>/dev/null; }
shutdown_ran() { [ -f "$work/shutdown-ran" ]; }

say "Waiting for the UPS to be found (baud-rate hunting, identification)"
wait_for 60 "UPS detection" established
note "UPS found: $(grep -E '^ModelName' "$home/Kestrava.ini" | head -n 1)"
sleep 2

say "The mains fail (the UPS reports alarm 59, utility not present)"
echo "alarm set 59" >&3
note "wink 5 s, then a 1-minute countdown with warnings to all users"

wait_for 150 "the UPS power-off command" power_off_sent
say "The UPS received its delayed power-off with restart:"
grep -E "RX AB 03 8A|8A" "$work/ups-frames.log" | grep RX | tail -n 1 | sed 's/^/   /'

wait_for 60 "the host shutdown" shutdown_ran
sleep 1
kill "$tail_pid" "$tail2_pid" 2>/dev/null || true
say "Event log ($eventlog)"
cat "$home"/log/*.log 2>/dev/null | sed 's/^/   /'
say "Meter log (time, epoch seconds, then the event or input V, output V, battery V, Hz, W, degrees C)"
cat "$home"/log/*.vlg 2>/dev/null | sed 's/^/   /'
say "Demonstration complete"
