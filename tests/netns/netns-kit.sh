# netns-kit.sh: a small lab of hosts for end-to-end runs of Kestrava over a
# real network, sourced by the scenario scripts in this folder.
#
# Every host is a network namespace "ksv-<name>" with loopback up and one
# veth leg, renamed eth0, on a bridge that lives in a namespace of its own
# ("ksv-sw"): nothing is added to the machine's own network namespace, and
# addresses (10.213.0.0/24) exist only inside the kit's namespaces. Each
# daemon gets a home directory of its own with every system path moved
# inside (pid file, lock directory, shutdown command recorder, a fake `wall`
# first in PATH) and is started in its host with `ip netns exec`.
#
# A scenario script does:
#   . "$(dirname "$0")/netns-kit.sh" "$BUILD_DIR"
#   kit_begin; kit_switch
#   kit_host ctl 10.213.0.1; ...
# Every process the kit starts is ended by pid in kit_down; every wait is
# bounded. A failed run keeps its homes and says where.

KIT_BUILD=${1:-}
[ -d "$KIT_BUILD" ] && KIT_BUILD=$(cd "$KIT_BUILD" && pwd)
KIT_SRC=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
KIT_PREFIX=ksv
KIT_ROOT=
KIT_PIDS=()        # processes started by the kit (simulators, daemons)
KIT_FAILED=0
KIT_SWITCH=${KIT_PREFIX}-sw
KIT_NEXT_PORT=0    # counter for the switch-side veth names

kit_log() { printf '[%s] %s\n' "$(date +%H:%M:%S)" "$*"; }

# A check that does not hold marks the run failed; the script goes on so
# that every finding of one run is reported.
kit_fail() { KIT_FAILED=1; printf 'FAIL: %s\n' "$*"; }
kit_check() { # kit_check "what" command...
    local what=$1; shift
    if "$@"; then kit_log "ok: $what"; else kit_fail "$what"; return 1; fi
}
# kit_must "what" command...: a check the rest of the scenario stands on;
# the run ends here when it does not hold.
kit_must() {
    kit_check "$@" || { KIT_FAILED=1; echo "stopping: the rest depends on it"; exit 1; }
}

kit_skip() { echo "SKIPPED: $*"; exit 77; }

# Exits 77 when this machine cannot run the lab (not root, no `ip`, no
# namespaces, veth or bridges) or the programs are not built.
kit_require() {
    [ "$(id -u)" = 0 ] || kit_skip "network namespaces need root"
    command -v ip >/dev/null 2>&1 || kit_skip "no ip command (iproute2)"
    command -v python3 >/dev/null 2>&1 || kit_skip "no python3 (used to talk to the simulator and forge datagrams)"
    [ -n "$KIT_BUILD" ] && [ -x "$KIT_BUILD/kestrava" ] && [ -x "$KIT_BUILD/kestrava-upssim" ] ||
        { echo "no kestrava / kestrava-upssim in build directory '$KIT_BUILD'"; exit 1; }
    local probe=${KIT_PREFIX}-probe$$
    ip netns add "$probe" 2>/dev/null || kit_skip "cannot make a network namespace"
    local ok=1
    ip -n "$probe" link add kbr type bridge 2>/dev/null || ok=0
    ip -n "$probe" link add kva type veth peer name kvb 2>/dev/null || ok=0
    ip netns del "$probe"
    [ $ok = 1 ] || kit_skip "no bridge or veth support in this kernel"
    KIT_ROOT=$(mktemp -d /tmp/kestrava-netns.XXXXXX)
}

# The start of every scenario: skip where the lab cannot run, sweep what an
# interrupted run left, and take everything down however the script ends.
kit_begin() {
    kit_require
    kit_sweep
    trap kit_down EXIT INT TERM
}

# Removes what an earlier, interrupted run of the kit left: its namespaces
# (ending the processes still inside them, by pid) and /etc/netns entries.
kit_sweep() {
    local ns pid
    for ns in $(ip netns list 2>/dev/null | awk '{print $1}' | grep "^${KIT_PREFIX}-"); do
        for pid in $(ip netns pids "$ns" 2>/dev/null); do kill -KILL "$pid" 2>/dev/null; done
        ip netns del "$ns" 2>/dev/null
    done
    rm -rf /etc/netns/${KIT_PREFIX}-* 2>/dev/null
    return 0
}

# The switch: a namespace holding only the bridge.
kit_switch() {
    ip netns add "$KIT_SWITCH" || return 1
    ip -n "$KIT_SWITCH" link set lo up
    ip -n "$KIT_SWITCH" link add br0 type bridge
    ip -n "$KIT_SWITCH" link set br0 up
}

# kit_host NAME ADDR [ADDR...]: a host on the switch with these addresses
# (the first is its main one) and a hosts file holding KIT_HOSTS (set before
# calling; lines "address name"), a resolver with no reachable name server.
kit_host() {
    local name=$1; shift
    local ns=${KIT_PREFIX}-$name port=p$((KIT_NEXT_PORT++))
    ip netns add "$ns" || return 1
    ip -n "$ns" link set lo up
    ip -n "$ns" link add eth0 type veth peer name "$port" netns "$KIT_SWITCH"
    local a
    for a in "$@"; do ip -n "$ns" addr add "$a/24" dev eth0; done
    ip -n "$ns" link set eth0 up
    ip -n "$KIT_SWITCH" link set "$port" master br0 up
    kit_host_files "$name"
}

# /etc/netns/<ns>/hosts and resolv.conf, seen by programs started with
# `ip netns exec`: names resolve from KIT_HOSTS only; the name server is the
# host's own loopback, where nothing listens, so unknown names fail at once.
kit_host_files() {
    local dir=/etc/netns/${KIT_PREFIX}-$1
    mkdir -p "$dir"
    printf '127.0.0.1 localhost\n%s\n' "${KIT_HOSTS:-}" >"$dir/hosts"
    printf 'nameserver 127.0.0.1\noptions timeout:1 attempts:1\n' >"$dir/resolv.conf"
}

# kit_in HOST command...: runs a command inside a host.
kit_in() { local h=$1; shift; ip netns exec "${KIT_PREFIX}-$h" "$@"; }

# kit_set FILE KEY VALUE: sets KEY in a key=value file (added when absent).
kit_set() {
    local file=$1 key=$2 value=$3
    if grep -q "^$key=" "$file"; then
        KEY=$key VALUE=$value awk 'index($0, ENVIRON["KEY"] "=") == 1 {print ENVIRON["KEY"] "=" ENVIRON["VALUE"]; next} {print}' \
            "$file" >"$file.new" && mv "$file.new" "$file"
    else
        printf '%s=%s\n' "$key" "$value" >>"$file"
    fi
}

# kit_home LABEL ROLE-SAMPLE: a daemon home under the run's root with the
# shipped sample configuration, messages, recorders and the daemon link.
# Prints nothing; the home is $KIT_ROOT/LABEL/.
kit_home() {
    local h=$KIT_ROOT/$1
    mkdir -p "$h/lock" "$h/bin" "$h/log"
    cp "$KIT_SRC/packaging/$2" "$h/Kestrava.ini"
    cp "$KIT_SRC/packaging/alert.rc" "$h/alert.rc"
    printf '#!/bin/sh\ndate +%%s.%%N >> %s/shutdown-runs\n' "$h" >"$h/shutdown.sh"
    printf '#!/bin/sh\necho "$*" >> %s/wall.txt\nexit 0\n' "$h" >"$h/bin/wall"
    chmod 755 "$h/shutdown.sh" "$h/bin/wall"
    ln -sf "$KIT_BUILD/kestrava" "$h/kestrava"
    kit_set "$h/Kestrava.ini" Path "$h"
    kit_set "$h/Kestrava.ini" DumpLogRate 0
}

# kit_daemon LABEL HOST: starts the daemon of home LABEL in HOST and waits
# (20 s at most) for its pid file.
kit_daemon() {
    local h=$KIT_ROOT/$1 pid=
    rm -f "$h/Kestrava.pid"
    timeout 20 ip netns exec "${KIT_PREFIX}-$2" env -i PATH="$h/bin:/usr/sbin:/usr/bin:/sbin:/bin" \
        HOME="$h" KESTRAVA_PID_FILE="$h/Kestrava.pid" KESTRAVA_LOCK_DIR="$h/lock" \
        KESTRAVA_SHUTDOWN_CMD="$h/shutdown.sh" "$h/kestrava" </dev/null >>"$h/stdout.txt" 2>&1
    kit_wait 20 test -s "$h/Kestrava.pid" && pid=$(cat "$h/Kestrava.pid")
    if [ -z "$pid" ] || ! kill -0 "$pid" 2>/dev/null; then
        kit_fail "daemon $1 did not start in $2"; return 1
    fi
    echo "$pid" >"$h/daemon.pid"
    KIT_PIDS+=("$pid")
    kit_log "daemon $1 runs in $2 as pid $pid"
}

# kit_stop LABEL: ends the daemon of home LABEL (SIGTERM, SIGKILL after 15 s).
kit_stop() {
    local h=$KIT_ROOT/$1 pid
    pid=$(cat "$h/daemon.pid" 2>/dev/null) || return 0
    kit_end_pid "$pid"
    rm -f "$h/daemon.pid"
}

# kit_kill LABEL: kills the daemon of LABEL at once (SIGKILL), as a crash
# or a power cut would end it.
kit_kill() {
    local h=$KIT_ROOT/$1 pid
    pid=$(cat "$h/daemon.pid" 2>/dev/null) || return 0
    kill -KILL "$pid" 2>/dev/null
    kit_wait 5 kit_gone "$pid"
    rm -f "$h/daemon.pid"
}

# kit_stop_clean LABEL: true when the daemon of LABEL ends on SIGTERM
# within 15 s (it is killed otherwise).
kit_stop_clean() {
    local h=$KIT_ROOT/$1 pid
    pid=$(cat "$h/daemon.pid" 2>/dev/null) || return 1
    kill -TERM "$pid" 2>/dev/null
    local ok=0
    kit_wait 15 kit_gone "$pid" || ok=1
    kit_end_pid "$pid"
    rm -f "$h/daemon.pid"
    return $ok
}

kit_end_pid() {
    local pid=$1
    kill -TERM "$pid" 2>/dev/null || return 0
    kit_wait 15 kit_gone "$pid" || kill -KILL "$pid" 2>/dev/null
    kit_wait 5 kit_gone "$pid"
}
kit_gone() { ! kill -0 "$1" 2>/dev/null || grep -q '^State:.*Z' "/proc/$1/status" 2>/dev/null; }

# kit_wait SECONDS command...: true once the command succeeds, false when
# it has not within SECONDS (tried every half second).
kit_wait() {
    local end=$((SECONDS + $1)); shift
    while :; do
        "$@" && return 0
        [ $SECONDS -ge $end ] && return 1
        sleep 0.5
    done
}

# kit_has FILE TEXT: FILE contains TEXT (a fixed string).
kit_has() { grep -qF -- "$2" "$1" 2>/dev/null; }
# kit_wait_file FILE TEXT SECONDS
kit_wait_file() { kit_wait "$3" kit_has "$1" "$2"; }
# kit_count FILE TEXT: number of lines of FILE that contain TEXT.
kit_count() { grep -cF -- "$2" "$1" 2>/dev/null || true; }

# The event log of a home (every monthly file).
kit_events() { cat "$KIT_ROOT/$1"/log/[0-9]*.log 2>/dev/null; }
kit_event_has() { kit_events "$1" | grep -qF -- "$2"; }

# ---- a controller with its simulated UPS ----

# kit_controller LABEL HOST ADDR [KEY VALUE]...: a controller home whose
# UPS is a simulator, started in HOST and bound to ADDR; waits until it
# polls its UPS (90 s at most).
kit_controller() {
    local label=$1 host=$2 addr=$3; shift 3
    local h=$KIT_ROOT/$label
    kit_home "$label" Kestrava.ini
    local f=$h/Kestrava.ini
    kit_set "$f" DeviceName "$h/ups"
    kit_set "$f" IPAddress "$addr"
    kit_set "$f" CuiPort 9860
    kit_set "$f" GroupName "grp-$label"
    kit_set "$f" SetUpID "*KSV$label"
    # A long wink: the controller's own host never shuts down in a test
    # unless the scenario asks for it.
    kit_set "$f" WinkTime1 3600
    while [ $# -ge 2 ]; do kit_set "$f" "$1" "$2"; shift 2; done
    "$KIT_BUILD/kestrava-upssim" --log "$h/frames.log" --quiet --link "$h/ups" \
        --control "$h/sim.sock" </dev/null >"$h/sim.out" 2>&1 &
    local sim=$!
    echo "$sim" >"$h/sim.pid"
    KIT_PIDS+=("$sim")
    kit_wait 10 test -S "$h/sim.sock" || { kit_fail "simulator of $label did not start"; return 1; }
    kit_daemon "$label" "$host" || return 1
    kit_wait 90 kit_has "$h/frames.log" " RX AB 01 35" || { kit_fail "controller $label never polled"; return 1; }
    # The network side opens once the UPS state is known: give it a moment.
    kit_wait 30 kit_listens "$host" 9861
}
kit_listens() { kit_in "$1" ss -Hlun 2>/dev/null | grep -q ":$2 "; }

# kit_sim LABEL "alarm set 59": a runtime command to a controller's
# simulator; true when it answered "ok".
kit_sim() {
    python3 - "$KIT_ROOT/$1/sim.sock" "$2" <<'EOF'
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM); s.settimeout(10)
s.connect(sys.argv[1]); s.sendall((sys.argv[2] + "\n").encode())
answer = s.makefile().readline()
sys.exit(0 if answer.startswith("ok") else 1)
EOF
}

# kit_ctrl_status LABEL ADDR STATE: the controller's "membCommInfo.tmp"
# shows the member at ADDR with "Status = STATE".
kit_ctrl_status() {
    awk -v a="$2 " -v s="Status = $3" 'prev ~ s && index($0, a) {found=1} {prev=$0} END {exit !found}' \
        "$KIT_ROOT/$1/membCommInfo.tmp" 2>/dev/null
}

# ---- a member ----

# kit_member LABEL HOST ADDR [KEY VALUE]...: a member home bound to ADDR.
# Keys named "cfg:KEY" go to its Membercnt.cfg, the others to Kestrava.ini.
# The daemon is not started (kit_daemon LABEL HOST does that).
kit_member() {
    local label=$1 host=$2 addr=$3; shift 3
    local h=$KIT_ROOT/$label
    kit_home "$label" Kestrava-member.ini
    cp "$KIT_SRC/packaging/Membercnt.cfg" "$h/Membercnt.cfg"
    kit_set "$h/Kestrava.ini" IPAddress "$addr"
    kit_set "$h/Kestrava.ini" CuiPort 9860
    while [ $# -ge 2 ]; do
        case $1 in
            cfg:*) kit_set "$h/Membercnt.cfg" "${1#cfg:}" "$2" ;;
            *) kit_set "$h/Kestrava.ini" "$1" "$2" ;;
        esac
        shift 2
    done
}

# kit_follow LABEL HOST ADDR CTRL [KEY VALUE]...: a member bound to ADDR
# that follows the controller at CTRL (address, host name or "*ID") in slot 1.
kit_follow() {
    local label=$1 host=$2 addr=$3 ctrl=$4; shift 4
    local ctrlAddr=$ctrl
    [[ $ctrl =~ ^[0-9.]+$ ]] || ctrlAddr=
    kit_member "$label" "$host" "$addr" cfg:IPAddress1 "$ctrl" cfg:Port1 9861 CtrlIPAddress1 "$ctrlAddr" "$@"
}

# kit_inf_slot LABEL N STATE: slot N of the member's Controller.inf shows STATE.
kit_inf_slot() {
    grep -qE "^ *$2 $3 " "$KIT_ROOT/$1/CONTROLLER/Controller.inf" 2>/dev/null
}

# Recorder of an application-termination command: appends a time stamp.
kit_app_recorder() { echo "date +%s.%N >> $KIT_ROOT/$1/app-runs"; }

# First time stamp recorded in a file (whole seconds), empty when none.
kit_first_time() { head -n1 "$1" 2>/dev/null | cut -d. -f1; }

# ---- the end ----

# Ends every process the kit started (by pid), removes the namespaces and
# hosts files; keeps the homes of a failed run and says where.
kit_down() {
    local rc=$?
    trap - EXIT INT TERM
    # All at once: a daemon takes 5 s to end in order.
    local pid
    for pid in "${KIT_PIDS[@]}"; do kill -TERM "$pid" 2>/dev/null; done
    kit_wait 15 kit_all_gone
    for pid in "${KIT_PIDS[@]}"; do kit_gone "$pid" || kill -KILL "$pid" 2>/dev/null; done
    kit_wait 5 kit_all_gone
    KIT_PIDS=()
    kit_sweep
    if [ -n "$KIT_ROOT" ]; then
        if [ "$rc" != 0 ] || [ "$KIT_FAILED" != 0 ]; then
            echo "test files kept in $KIT_ROOT"
        else
            rm -rf "$KIT_ROOT"
        fi
    fi
    [ "$KIT_FAILED" = 0 ] || exit 1
    exit "$rc"
}

kit_all_gone() {
    local pid
    for pid in "${KIT_PIDS[@]}"; do kit_gone "$pid" || return 1; done
}

# The closing line of a scenario.
kit_result() {
    if [ "$KIT_FAILED" = 0 ]; then echo "1 passed, 0 failed"; else echo "0 passed, 1 failed"; fi
}
