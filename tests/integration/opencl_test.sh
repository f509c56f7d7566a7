#!/usr/bin/env bash
# OpenCL programs on PoCL through the ICD loader, each run as it is and once through the library's
# OpenCL front in recording mode (`kalvoren record`):
#  - clinfo: the same output and exit status both ways; its trace reads back whole, opens with the
#    platform description (record 6000) and holds every call.
#  - cl_program (ours): vector addition, rectangles, fills, images with pitches, map/unmap, events;
#    it checks its own results, and writes every byte it gave to the device and got back into a
#    manifest; cl_trace_check finds each of them, byte for byte, in the trace.
#
#   opencl_test.sh BUILD_DIR CL_PROGRAM CL_TRACE_CHECK
#
# Exits 77 (skipped) when clinfo or an OpenCL platform is missing.
set -u
build=$(cd "${1:?usage: opencl_test.sh BUILD_DIR CL_PROGRAM CL_TRACE_CHECK}" && pwd)
program=${2:-}
checker=${3:-}
kalvoren=$build/bin/kalvoren

skip() { echo "SKIPPED: $*"; exit 77; }
command -v clinfo >/dev/null || skip "clinfo is not installed"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# PoCL keeps compiled kernels in a cache: a private one, so that runs do not share state.
export POCL_CACHE_DIR=$work/pocl-cache
clinfo -l >/dev/null 2>&1 || skip "no OpenCL platform (package pocl-opencl-icd)"
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# run NAME TRACE COMMAND...: plain, then traced; compares exit status and standard output.
run_both() {
    local name=$1 trace=$2
    shift 2
    "$@" >"$work/$name.plain" 2>"$work/$name.plain.err"
    local plain=$?
    "$kalvoren" record --no-info --compress -o "$trace" -- "$@" >"$work/$name.traced" 2>"$work/$name.traced.err"
    local traced=$?
    [ "$plain" = "$traced" ] || fail "$name: exit status $traced traced, $plain without the library"
    if ! diff "$work/$name.plain" "$work/$name.traced" >"$work/$name.diff"; then
        fail "$name printed something else when traced:"
        head -20 "$work/$name.diff"
    fi
    if ! "$kalvoren" info "$trace" >"$work/$name.info" 2>&1 || ! grep -q '^Problems: *none' "$work/$name.info"; then
        fail "$name: the trace does not read back whole:"
        head -40 "$work/$name.info"
    fi
    "$kalvoren" dump "$trace" >"$work/$name.dump" 2>&1 || fail "$name: kalvoren dump failed"
    local platforms
    platforms=$(grep -c '(OpenCL platform)(' "$work/$name.dump")
    [ "$platforms" = "$(clinfo -l | grep -c '^Platform')" ] ||
        fail "$name: $platforms platform records for $(clinfo -l | grep -c '^Platform') platforms"
    # The platform description comes first, before any call.
    sed -n '2p' "$work/$name.dump" | grep -q '(OpenCL platform)(' ||
        fail "$name: the first record is not the platform description: $(sed -n '2p' "$work/$name.dump")"
    grep -q 'Calling\|ERROR' "$work/$name.traced.err" && fail "$name: the library reported an error:" &&
        cat "$work/$name.traced.err"
    echo "$name: exit $traced both ways, $(grep -c '^[0-9]' "$work/$name.dump") records"
}

run_both clinfo "$work/clinfo.kalvoren" clinfo
grep -q 'clGetDeviceInfo' "$work/clinfo.dump" || fail "clinfo: no clGetDeviceInfo in the trace"

if [ -n "$program" ]; then
    run_both cl_program "$work/program.kalvoren" "$program" "$work/manifest.bin"
    "$checker" "$work/program.kalvoren" "$work/manifest.bin" || fail "cl_program: bytes missing from the trace"
fi

[ "$failures" = 0 ] || { echo "$failures failure(s)"; exit 1; }
echo "PASS"
