#!/bin/sh
# Builds one fuzz target with clang, libFuzzer and the address and
# undefined-behaviour sanitizers, and runs it on its corpus.
#
#   tests/fuzz/run-fuzz.sh TARGET [SECONDS] [libFuzzer options...]
#
# TARGET: XcpReplyFuzz, XcpIdentifyFuzz, ConfigFileFuzz, ConsoleRecordFuzz or
# DG2ReceiveFuzz.
# SECONDS: how long to fuzz (default 600). The build goes to build-fuzz/
# (or $KESTRAVA_FUZZ_BUILD); new inputs go to <build>/corpus/TARGET, the
# seed corpus tests/fuzz/corpus/TARGET is only read, and a finding is saved
# as <build>/findings/TARGET/crash-* (add it to the seed corpus once fixed).
set -eu
if [ $# -lt 1 ]; then
    sed -n '2,13s/^# \{0,1\}//p' "$0" >&2
    exit 2
fi
target=$1
shift
seconds=600
case ${1:-} in
    ''|*[!0-9]*) ;;
    *) seconds=$1; shift ;;
esac
src=$(cd "$(dirname "$0")/../.." && pwd)
build=${KESTRAVA_FUZZ_BUILD:-$src/build-fuzz}
launcher=
command -v ccache >/dev/null 2>&1 && launcher=-DCMAKE_CXX_COMPILER_LAUNCHER=ccache
cmake -S "$src" -B "$build" -DKESTRAVA_FUZZ=ON -DCMAKE_CXX_COMPILER=clang++ -DBUILD_TESTING=OFF $launcher >/dev/null
cmake --build "$build" -j2 --target "$target"
mkdir -p "$build/corpus/$target" "$build/findings/$target"
exec "$build/$target" -max_total_time="$seconds" -artifact_prefix="$build/findings/$target/" "$@" \
    "$build/corpus/$target" "$src/tests/fuzz/corpus/$target"
