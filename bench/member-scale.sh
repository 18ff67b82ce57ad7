#!/usr/bin/env bash
# How long one controller takes to register many shutdown members from a
# cold start, and to get one power report to all of them: the scale run of
# tests/netns (real daemons in network namespaces of their own) for each
# member count given. Needs root (namespaces); prints one line per figure.
# Usage: bench/member-scale.sh BUILD_DIR [COUNT...]   (default counts: 16 32 63)
set -u
build=${1:?usage: member-scale.sh BUILD_DIR [COUNT...]}
shift
counts=("$@")
[ ${#counts[@]} -gt 0 ] || counts=(16 32 63)
here=$(cd "$(dirname "$0")" && pwd)
for n in "${counts[@]}"; do
    out=$(bash "$here/../tests/netns/scale.sh" "$build" "$n" 2>&1)
    rc=$?
    [ $rc = 77 ] && { echo "$out" | grep SKIPPED; exit 77; }
    echo "$out" | grep -E '^(registered|report):'
    [ $rc = 0 ] || { echo "scale run with $n members failed:"; echo "$out" | tail -20; exit 1; }
done
