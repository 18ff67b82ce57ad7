#!/usr/bin/env bash
# One controller and many members (63 by default; all on one host with an
# address each): every member registers from a cold start, and one power
# report reaches all of them. Prints the two times measured:
#   "registered: N members in S s" and "report: N members in S s".
# Usage: scale.sh BUILD_DIR [MEMBERS]
. "$(dirname "$0")/netns-kit.sh" "$1"
n=${2:-63}
[ "$n" -ge 1 ] && [ "$n" -le 120 ] || { echo "MEMBERS must be 1..120"; exit 2; }
kit_begin

addrs=()
for ((i = 1; i <= n; i++)); do addrs+=("10.213.0.$((100 + i))"); done
kit_switch
kit_host c1 10.213.0.1
kit_host many "${addrs[@]}"
kit_controller ctl c1 10.213.0.1 || exit 1

# Members wait an hour before acting on a power failure: nothing shuts down.
for ((i = 1; i <= n; i++)); do
    kit_follow "m$i" many "${addrs[i-1]}" 10.213.0.1 CuiPort $((9900 + i)) \
        AcceptControllerTiming 0 WinkTime1 3600 ShutdownTime1 5
done
start=$(date +%s.%N)
for ((i = 1; i <= n; i++)); do kit_daemon "m$i" many >/dev/null; done

active() { [ "$(grep -c "Status = Active" "$KIT_ROOT/ctl/membCommInfo.tmp" 2>/dev/null)" = "$n" ]; }
kit_must "all $n members are Active at the controller" kit_wait 300 active
registered=$(date +%s.%N)

# One report: the utility-failure alarm, seen in every member's event log.
lost="Utility power not present"
reached() {
    local i
    for ((i = 1; i <= n; i++)); do kit_event_has "m$i" "$lost" || return 1; done
}
kit_check "alarm 59 raised" kit_sim ctl "alarm set 59"
sent=$(date +%s.%N)
kit_check "the report reached all $n members" kit_wait 120 reached
reachedAt=$(date +%s.%N)
printf 'registered: %d members in %.1f s\n' "$n" "$(python3 -c "print($registered - $start)")"
printf 'report: %d members in %.1f s (includes the wait for the next UPS poll, up to 15 s)\n' "$n" \
    "$(python3 -c "print($reachedAt - $sent)")"
kit_check "alarm 59 cleared" kit_sim ctl "alarm clear 59"
kit_result
