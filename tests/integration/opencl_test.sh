#!/usr/bin/env bash
# OpenCL programs on PoCL through the ICD loader, each run as it is and once through the library's
# OpenCL front in recording mode (`kalvoren record`):
#  - clinfo: the same output and exit status both ways; its trace reads back whole, opens with the
#    platform description (record 6000) and holds every call.
#  - clpeak (when installed), a short run: the same exit status and report (timings aside); its
#    trace reads back whole. Both traces replay without a problem.
#  - cl_program (ours): vector addition, rectangles, fills, images with pitches, map/unmap, events;
#    it checks its own results, and writes every byte it gave to the device and got back into a
#    manifest; cl_trace_check finds each of them, byte for byte, in the trace. The trace is then
#    played on the same platform (`kalvoren replay`): every read brings back the recorded bytes.
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
"$kalvoren" replay "$work/clinfo.kalvoren" >"$work/clinfo.replay" 2>&1 ||
    fail "clinfo: its trace does not replay: $(tail -5 "$work/clinfo.replay")"

# clpeak's kernel-latency test: its timings differ from run to run, the shape of its report does not.
if command -v clpeak >/dev/null; then
    shape() { sed 's/[0-9][0-9.]*/N/g' "$1"; }
    clpeak --kernel-latency >"$work/clpeak.plain" 2>&1
    plain=$?
    "$kalvoren" record --no-info -o "$work/clpeak.kalvoren" -- clpeak --kernel-latency >"$work/clpeak.traced" 2>/dev/null
    traced=$?
    [ "$plain" = "$traced" ] || fail "clpeak: exit status $traced traced, $plain without the library"
    diff <(shape "$work/clpeak.plain") <(shape "$work/clpeak.traced") >/dev/null ||
        fail "clpeak reported something else when traced: $(cat "$work/clpeak.traced")"
    "$kalvoren" info "$work/clpeak.kalvoren" 2>&1 | grep -q '^Problems: *none' ||
        fail "clpeak: the trace does not read back whole"
    "$kalvoren" replay "$work/clpeak.kalvoren" >"$work/clpeak.replay" 2>&1 ||
        fail "clpeak: its trace does not replay: $(tail -5 "$work/clpeak.replay")"
    echo "clpeak: exit $traced both ways, the same report, replayed"
fi

if [ -n "$program" ]; then
    run_both cl_program "$work/program.kalvoren" "$program" "$work/manifest.bin"
    "$checker" "$work/program.kalvoren" "$work/manifest.bin" || fail "cl_program: bytes missing from the trace"
    # The dump names OpenCL enumerants by their types.
    grep -q 'clGetPlatformInfo(.*param_name=CL_PLATFORM_NAME, .*<[0-9]* bytes' "$work/cl_program.dump" ||
        fail "cl_program: the dump does not name CL_PLATFORM_NAME"
    # Seven reads: blocking, completed through an event, a rectangle, after a mapping, of a buffer
    # on host memory, and on a device with images: an image, what a kernel sampled from it.
    # An OpenCL trace needs no EGL driver to replay: the one named here does not exist.
    "$kalvoren" replay --egl "$work/none/libEGL.so.1" "$work/program.kalvoren" >"$work/replay.out" 2>&1 ||
        fail "cl_program: the replay failed:"
    grep -q '^[57] OpenCL reads brought back the recorded bytes' "$work/replay.out" ||
        fail "cl_program: the replay's reads differ from the recorded ones: $(cat "$work/replay.out")"
    echo "cl_program replayed: $(grep 'OpenCL reads' "$work/replay.out")"
    # The context's properties are named in the dump.
    grep -q 'clCreateContext(properties=0x[0-9a-f]* \[CL_CONTEXT_PLATFORM=0x[0-9a-f]*, 0\]' "$work/cl_program.dump" ||
        fail "cl_program: the dump does not name the context's properties: $(grep -m1 clCreateContext "$work/cl_program.dump")"

    # A native kernel is recorded with its arguments; the player says it cannot run it.
    "$kalvoren" record --no-info -o "$work/native.kalvoren" -- "$program" "$work/native.bin" native \
        >"$work/native.out" 2>&1 || fail "cl_program native: $(tail -3 "$work/native.out")"
    if "$kalvoren" dump "$work/native.kalvoren" 2>&1 | grep -q 'clEnqueueNativeKernel(.*args=0x[0-9a-f]* <16 bytes'; then
        "$kalvoren" replay "$work/native.kalvoren" >"$work/native.replay" 2>&1 &&
            fail "cl_program native: the replay did not report the native kernel"
        grep -q 'clEnqueueNativeKernel): a native kernel runs a function of the recorded program and cannot be replayed' \
            "$work/native.replay" || fail "cl_program native: no clear message: $(cat "$work/native.replay")"
        echo "cl_program native: recorded, reported unreplayable"
    elif "$kalvoren" dump "$work/native.kalvoren" 2>&1 | grep -q clEnqueueNativeKernel; then
        fail "cl_program native: the record lacks its arguments: $("$kalvoren" dump "$work/native.kalvoren" | grep clEnqueueNativeKernel)"
    fi
fi

[ "$failures" = 0 ] || { echo "$failures failure(s)"; exit 1; }
echo "PASS"
