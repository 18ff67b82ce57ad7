#!/usr/bin/env bash
# Checks what an operator gets from the build: `cmake --install` into a
# DESTDIR (layout, modes, a reinstall keeps the configuration), the Debian
# package made by cpack (control fields, conffiles, maintainer scripts, file
# modes, the same layout as the install), the installed systemd unit, the
# maintainer scripts' choices under a fake systemctl, and finally the
# installed daemon, started from the unpacked package as a controller on the
# simulated UPS, seen through the installed console.
# Usage: package-check.sh BUILD_DIR SOURCE_DIR. Exit 0 passed, 1 failed,
# 77 skipped (no cpack or dpkg on this machine).
# Nothing outside a temporary directory is touched: the pid file, the device
# lock, the shutdown command and `wall` are moved into it.
set -uo pipefail

build=$(cd "${1:?build directory}" && pwd)
src=$(cd "${2:?source directory}" && pwd)
for tool in cpack dpkg-deb dpkg; do
    command -v "$tool" >/dev/null 2>&1 || { echo "skipped: $tool is missing"; exit 77; }
done

work=$(mktemp -d /tmp/kestrava-package.XXXXXX)
sim_pid=""
daemon_pid=""
failures=0

fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
check() { # description, command...
    local what=$1
    shift
    "$@" || fail "$what"
}
# Waits up to $1 seconds for the command to succeed.
wait_for() {
    local limit=$1
    shift
    for _ in $(seq $((limit * 5))); do
        "$@" && return 0
        sleep 0.2
    done
    return 1
}
alive() { kill -0 "$1" 2>/dev/null; }
# Ends a process by pid: SIGTERM, then SIGKILL after $2 seconds.
end_pid() {
    [ -n "$1" ] || return 0
    kill -TERM "$1" 2>/dev/null
    wait_for "$2" eval "! alive $1" || kill -KILL "$1" 2>/dev/null
    wait "$1" 2>/dev/null
    return 0
}
cleanup() {
    end_pid "$daemon_pid" 15
    exec 3>&- 2>/dev/null
    end_pid "$sim_pid" 10
    if [ "$failures" -gt 0 ]; then
        echo "test files kept in $work" >&2
    else
        rm -rf "$work"
    fi
}
trap cleanup EXIT

mode_of() { stat -c '%a' "$1" 2>/dev/null; }
expect_mode() { # mode, path
    [ "$(mode_of "$2")" = "$1" ] || fail "$2: mode $(mode_of "$2"), expected $1"
}
conf() { sed -n "s/^$2=//p" "$1" | tail -n 1; }

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
arch=$(dpkg --print-architecture)

# Every file the package and the install put in place, relative to the root.
expected_files="lib/systemd/system/kestrava.service
opt/kestrava/Kestrava.ini
opt/kestrava/Membercnt.cfg
opt/kestrava/alert.rc
opt/kestrava/alert3so.rc
opt/kestrava/kestrava
usr/bin/kestrava-console
usr/bin/kestrava-upssim
usr/share/doc/kestrava/README.md
usr/share/kestrava/Kestrava-member.ini
usr/share/kestrava/Kestrava.ini
usr/share/kestrava/Membercnt.cfg"
# The layout without the man pages (installed by their own rules).
files_of() { (cd "$1" && find . -type f ! -path './usr/share/man/*' | sed 's|^\./||' | sort); }

echo "== cmake --install into a DESTDIR (at ${SECONDS}s)"
dest="$work/destdir"
DESTDIR="$dest" cmake --install "$build" --prefix /usr >"$work/install.log" 2>&1 || fail "cmake --install failed"
check "installed files differ from the expected layout" diff <(echo "$expected_files") <(files_of "$dest")
for entry in 755:opt/kestrava 755:opt/kestrava/kestrava 600:opt/kestrava/Kestrava.ini 644:opt/kestrava/Membercnt.cfg \
    644:opt/kestrava/alert.rc 644:opt/kestrava/alert3so.rc 755:usr/bin/kestrava-console 755:usr/bin/kestrava-upssim \
    644:lib/systemd/system/kestrava.service 644:usr/share/kestrava/Kestrava.ini; do
    expect_mode "${entry%%:*}" "$dest/${entry#*:}"
done
# A reinstall keeps the operator's configuration and puts the new sample beside it.
echo "DeviceName=/dev/ttyUSB7" >>"$dest/opt/kestrava/Kestrava.ini"
DESTDIR="$dest" cmake --install "$build" --prefix /usr >"$work/reinstall.log" 2>&1 || fail "second cmake --install failed"
check "a reinstall overwrote the edited Kestrava.ini" grep -q "^DeviceName=/dev/ttyUSB7" "$dest/opt/kestrava/Kestrava.ini"
check "no Kestrava.ini.dist beside the edited file" cmp -s "$dest/opt/kestrava/Kestrava.ini.dist" "$src/packaging/Kestrava.ini"
expect_mode 600 "$dest/opt/kestrava/Kestrava.ini.dist"
check "an unchanged alert.rc got a .dist copy" test ! -e "$dest/opt/kestrava/alert.rc.dist"
# Another prefix moves the tools, not the daemon's home or the unit.
DESTDIR="$work/prefixed" cmake --install "$build" --prefix /usr/local >/dev/null 2>&1 || fail "install with --prefix /usr/local failed"
for f in usr/local/bin/kestrava-console opt/kestrava/kestrava lib/systemd/system/kestrava.service; do
    check "--prefix /usr/local: $f missing" test -f "$work/prefixed/$f"
done

echo "== cpack -G DEB (at ${SECONDS}s)"
cpack -G DEB -B "$work/pkg" --config "$build/CPackConfig.cmake" >"$work/cpack.log" 2>&1 || {
    cat "$work/cpack.log" >&2
    fail "cpack failed"
    exit 1
}
deb="$work/pkg/kestrava_${version}_${arch}.deb"
[ -f "$deb" ] || { fail "no package $deb"; ls "$work/pkg" >&2; exit 1; }
field() { dpkg-deb -f "$deb" "$1"; }
check "Package field" test "$(field Package)" = kestrava
check "Version field is not the project's $version" test "$(field Version)" = "$version"
check "Architecture field is not $arch" test "$(field Architecture)" = "$arch"
depends=$(field Depends)
check "Depends lacks libc6: $depends" grep -q "libc6" <<<"$depends"
# The daemon needs the C and C++ libraries only.
others=$(tr ',' '\n' <<<"$depends" | sed 's/(.*//; s/ //g' | grep -v -x -e libc6 -e libstdc++6 -e libgcc-s1)
check "Depends names more than the C and C++ libraries: $others" test -z "$others"
check "Recommends lacks bsdutils (wall)" grep -q bsdutils <<<"$(field Recommends)"

dpkg-deb -c "$deb" >"$work/contents" || fail "dpkg-deb -c failed"
check "Kestrava.ini is not -rw------- root/root in the package" \
    grep -q '^-rw------- root/root .* \./opt/kestrava/Kestrava.ini$' "$work/contents"
check "the daemon is not -rwxr-xr-x root/root in the package" \
    grep -q '^-rwxr-xr-x root/root .* \./opt/kestrava/kestrava$' "$work/contents"
check "a directory in the package is not 0755" test -z "$(grep '^d' "$work/contents" | grep -v '^drwxr-xr-x root/root')"

dpkg-deb -e "$deb" "$work/control" || fail "dpkg-deb -e failed"
check "conffiles are not the home directory's configuration" diff <(sort "$work/control/conffiles") \
    <(printf '%s\n' /opt/kestrava/Kestrava.ini /opt/kestrava/Membercnt.cfg /opt/kestrava/alert.rc /opt/kestrava/alert3so.rc)
for script in postinst prerm postrm; do
    check "$script is not an executable script" test -x "$work/control/$script"
    check "$script has a syntax error" sh -n "$work/control/$script"
done

root="$work/root"
dpkg -x "$deb" "$root" || fail "dpkg -x failed"
check "the package's files differ from the installed layout" diff <(echo "$expected_files") <(files_of "$root")

echo "== the installed unit (at ${SECONDS}s)"
unit="$root/lib/systemd/system/kestrava.service"
pid_path=$(sed -n 's/.*"KESTRAVA_PID_FILE", "\([^"]*\)".*/\1/p' "$src/core/SystemPaths.cpp")
check "the daemon's pid path was not found in core/SystemPaths.cpp" test -n "$pid_path"
unit_pid=$(conf "$unit" PIDFile)
# /var/run is /run on every systemd host: the unit names the daemon's file.
check "PIDFile=$unit_pid is not the daemon's $pid_path" test "$unit_pid" = "${pid_path/#\/var\/run\//\/run/}"
check "ExecStart is not the installed daemon" test "$(conf "$unit" ExecStart)" = /opt/kestrava/kestrava
check "Type is not forking" test "$(conf "$unit" Type)" = forking
check "KillMode is not process" test "$(conf "$unit" KillMode)" = process
check "the unit's ExecStart is not executable in the package" test -x "$root$(conf "$unit" ExecStart)"
if command -v systemd-analyze >/dev/null 2>&1; then
    # The unit as installed, its command pointed at the unpacked daemon.
    mkdir -p "$work/verify"
    sed "s|^ExecStart=/|ExecStart=$root/|" "$unit" >"$work/verify/kestrava.service"
    timeout 60 systemd-analyze verify --man=no "$work/verify/kestrava.service" >"$work/verify.log" 2>&1 ||
        fail "systemd-analyze verify failed"
    check "systemd-analyze verify is not clean: $(cat "$work/verify.log")" test ! -s "$work/verify.log"
else
    echo "systemd-analyze missing: only the unit's fields are checked"
fi

echo "== maintainer scripts (fake systemctl, DPKG_ROOT) (at ${SECONDS}s)"
sroot="$work/sroot"
cp -a "$root" "$sroot"
mkdir -p "$work/fakebin" "$sroot/run/systemd/system"
cat >"$work/fakebin/systemctl" <<EOF
#!/bin/sh
echo "\$*" >>"$work/systemctl.log"
[ "\$1" = is-active ] && { [ -e "$work/active" ]; exit \$?; }
exit 0
EOF
chmod +x "$work/fakebin/systemctl"
# Runs a maintainer script; $work/systemctl.log and $work/script.out hold what it did.
run_script() {
    : >"$work/systemctl.log"
    DPKG_ROOT="$sroot" PATH="$work/fakebin:$PATH" sh "$work/control/$1" "${@:2}" >"$work/script.out" 2>&1 ||
        fail "$* exited non-zero"
}
called() { grep -q -x -e "$1" "$work/systemctl.log"; }
home="$sroot/opt/kestrava"

chmod 0644 "$home/Kestrava.ini"
run_script postinst configure
expect_mode 600 "$home/Kestrava.ini"
check "postinst did not enable the service" called "--root=$sroot enable kestrava.service"
check "a fresh install started the unconfigured service" eval '! called "start kestrava.service"'
check "a fresh install did not say what to edit" grep -q "DeviceName" "$work/script.out"
sed -i 's|^DeviceName=.*|DeviceName=/dev/ttyUSB7|' "$home/Kestrava.ini"
run_script postinst configure 0.8.0
check "a configured controller was not started on reinstall" called "start kestrava.service"
check "a configured controller still got the hint" test ! -s "$work/script.out"
cp "$sroot/usr/share/kestrava/Kestrava.ini" "$home/Kestrava.ini"
run_script postinst configure 0.8.0
check "an upgrade started a controller with the shipped Kestrava.ini" eval '! called "start kestrava.service"'
touch "$work/active"
run_script postinst configure 0.8.0
check "an upgrade did not restart the running service" called "restart kestrava.service"
rm "$work/active"
sed -i 's|^UPSController=.*|UPSController=2|' "$home/Kestrava.ini"
run_script postinst configure 0.8.0
check "a member with no controller was started" eval '! called "start kestrava.service"'
sed -i 's|^IPAddress1=.*|IPAddress1=127.0.0.1|' "$home/Membercnt.cfg"
run_script postinst configure 0.8.0
check "a member that names its controller was not started" called "start kestrava.service"
rm -r "$sroot/run/systemd"
run_script postinst configure 0.8.0
check "postinst asked a systemd that does not run: $(cat "$work/systemctl.log")" \
    eval '! grep -q -v -e "^--root=.* enable kestrava.service$" "$work/systemctl.log"'
mkdir -p "$sroot/run/systemd/system"
run_script prerm upgrade 0.9.1
check "prerm stopped the service for an upgrade" eval '! called "stop kestrava.service"'
run_script prerm remove
check "prerm remove did not stop the service" called "stop kestrava.service"
check "prerm remove did not disable the service" called "--root=$sroot disable kestrava.service"
mkdir -p "$home/log" "$home/CONTROLLER"
touch "$home/log/202611.log" "$home/MembInfo.dat" "$home/membCommInfo.tmp" "$home/Kestrava.ini.tmp.12.0"
run_script postrm remove
check "postrm remove deleted the logs" test -f "$home/log/202611.log"
run_script postrm purge
for gone in log CONTROLLER MembInfo.dat membCommInfo.tmp Kestrava.ini.tmp.12.0; do
    check "purge left $gone" test ! -e "$home/$gone"
done
check "purge removed the daemon (dpkg's own file)" test -f "$home/kestrava"

# The same scripts run by dpkg itself into an empty root: remove keeps the
# configuration and the logs, purge takes both.
droot="$work/droot"
mkdir -p "$droot/var/lib/dpkg/info" "$droot/var/lib/dpkg/updates"
touch "$droot/var/lib/dpkg/status"
dpkg_root() {
    PATH="$work/fakebin:$PATH" dpkg --root="$droot" --force-script-chrootless --force-depends --force-not-root \
        "$@" >"$work/dpkg.out" 2>&1 || fail "dpkg $*: $(cat "$work/dpkg.out")"
}
dpkg_root -i "$deb"
expect_mode 600 "$droot/opt/kestrava/Kestrava.ini"
mkdir -p "$droot/opt/kestrava/log"
touch "$droot/opt/kestrava/log/202611.log"
dpkg_root -r kestrava
check "dpkg -r removed the configuration or the logs" \
    test -f "$droot/opt/kestrava/Kestrava.ini" -a -f "$droot/opt/kestrava/log/202611.log" -a ! -e "$droot/opt/kestrava/kestrava"
dpkg_root -P kestrava
check "dpkg -P left the home directory: $(ls -A "$droot/opt/kestrava" 2>&1)" test ! -e "$droot/opt/kestrava"

echo "== the installed daemon against the simulated UPS (at ${SECONDS}s)"
x="$work/x"
dpkg -x "$deb" "$x" || fail "dpkg -x failed"
home="$x/opt/kestrava"
mkdir -p "$work/bin" "$work/lock"
printf '#!/bin/sh\necho "$*" >>"%s/wall.txt"\n' "$work" >"$work/bin/wall"
printf '#!/bin/sh\ndate >>"%s/shutdown-runs"\n' "$work" >"$work/bin/shutdown"
chmod +x "$work/bin/wall" "$work/bin/shutdown"
ports=$(python3 -c 'import socket
for kind in (socket.SOCK_STREAM, socket.SOCK_DGRAM, socket.SOCK_DGRAM):
    s = socket.socket(socket.AF_INET, kind); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])' 2>/dev/null |
    tr '\n' ' ')
[ -n "$ports" ] || ports="$((40000 + $$ % 8000 * 3)) $((40001 + $$ % 8000 * 3)) $((40002 + $$ % 8000 * 3))"
read -r cui_port ctrl_port member_port <<<"$ports"
sed -i -e "s|^DeviceName=.*|DeviceName=$work/ups|" -e "s|^Path=.*|Path=$home|" -e "s|^CuiPort=.*|CuiPort=$cui_port|" \
    -e "s|^IPAddress=.*|IPAddress=127.0.0.1|" -e "s|^CtrlPort1=.*|CtrlPort1=$ctrl_port|" \
    -e "s|^MemberPort=.*|MemberPort=$member_port|" "$home/Kestrava.ini"

mkfifo "$work/sim.in"
"$x/usr/bin/kestrava-upssim" --quiet --link "$work/ups" --log "$work/frames.log" <"$work/sim.in" >"$work/sim.out" 2>&1 &
sim_pid=$!
exec 3>"$work/sim.in"
wait_for 10 test -s "$work/sim.out" || fail "the simulator printed no device path"
sim() { # runtime command; true when answered "ok"
    local before
    before=$(wc -l <"$work/sim.out")
    echo "$1" >&3
    wait_for 10 eval '[ "$(wc -l <"$work/sim.out")" -gt "$before" ]' &&
        tail -n 1 "$work/sim.out" | grep -q '^ok'
}

KESTRAVA_PID_FILE="$work/Kestrava.pid" KESTRAVA_LOCK_DIR="$work/lock" KESTRAVA_SHUTDOWN_CMD="$work/bin/shutdown" \
    PATH="$work/bin:$PATH" timeout 20 "$home/kestrava" </dev/null >"$work/daemon.out" 2>&1 ||
    fail "the installed daemon did not start: $(cat "$work/daemon.out")"
wait_for 20 test -s "$work/Kestrava.pid" && daemon_pid=$(cat "$work/Kestrava.pid")
check "the installed daemon wrote no pid file" test -n "$daemon_pid"
if [ -n "$daemon_pid" ] && wait_for 90 grep -q Established "$home/upsCommInfo.tmp"; then
    echo "UPS found (at ${SECONDS}s)"
    console() { timeout 20 "$x/usr/bin/kestrava-console" --config "$home/Kestrava.ini" "$@"; }
    check "the installed console does not reach the daemon" console ping >/dev/null
    if grep -q 'unknown command "status"' <<<"$(console status 2>&1)"; then
        echo "skipped: the installed kestrava-console has no status command yet"
    else
        wait_for 20 eval 'console status >/dev/null 2>&1' # the first poll is in
        out=$(console status 2>&1)
        rc=$?
        check "status on utility exited $rc: $out" test "$rc" = 0
        check "status does not show the UPS on utility: $out" grep -qi utility <<<"$out"
        check "the simulator did not raise alarm 25" sim "alarm set 25"
        # The alarm reaches the daemon with its next poll.
        wait_for 20 eval '! console status >/dev/null 2>&1'
        out=$(console status 2>&1)
        rc=$?
        check "status with an alarm exited 0: $out" test "$rc" != 0
        check "status does not name the output overload alarm: $out" grep -qi -e overload -e "\b25\b" <<<"$out"
        console status --json >"$work/status.json" 2>"$work/status.err"
        if command -v python3 >/dev/null 2>&1; then
            check "status --json does not parse: $(cat "$work/status.json" "$work/status.err")" \
                python3 -m json.tool "$work/status.json" >/dev/null
        fi
    fi
else
    fail "the installed daemon never reached the simulated UPS"
fi
check "the daemon ran the shutdown command" test ! -e "$work/shutdown-runs"
echo "== done (at ${SECONDS}s)"

[ "$failures" -eq 0 ] && echo "package check passed" || echo "$failures checks failed" >&2
[ "$failures" -eq 0 ]
