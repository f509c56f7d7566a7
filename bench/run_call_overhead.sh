#!/bin/sh
# The cost of one call through the library: runs bench/call_overhead_bench.cpp once per mode (the
# library reads its settings once per process) and prints a table of processor nanoseconds per
# call and the ratio to a direct call into the test host.
#
# Usage: bench/run_call_overhead.sh [build directory] [benchmark options...]
# The build directory (default: build) is configured with -DKV_BENCH=ON.
set -eu

build=${1:-build}
[ $# -gt 0 ] && shift
program=$build/bin/kv_call_overhead_bench
if [ ! -x "$program" ]; then
    echo "no $program: configure with -DKV_BENCH=ON and build kv_call_overhead_bench" >&2
    exit 1
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/kalvoren-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT INT TERM

for mode in direct passthrough recorded profiled uncounted timeline; do
    mkdir "$work/$mode"
    if ! KV_BENCH_MODE=$mode KV_BENCH_DIR=$work/$mode "$program" \
        --benchmark_min_time=0.2 --benchmark_repetitions=5 "$@" \
        >"$work/$mode/out" 2>"$work/$mode/err"; then
        echo "the $mode run failed:" >&2
        cat "$work/$mode/err" >&2
        exit 1
    fi
    grep '^RESULT' "$work/$mode/out" >>"$work/results"
done

awk '
    BEGIN { printf "%-12s %-20s %10s %10s\n", "mode", "function", "ns/call", "ratio" }
    { printf "%-12s %-20s %10.1f %10.2f\n", $2, $3, $4, $5 }
' "$work/results"
echo "ratio: to the direct call into the test host; for the draws, to the same draw from a buffer object;"
echo "for capture-*, the column ns/call holds MB/s of 4096-vertex client-array draws and the ratio is that rate"
echo "as a share of a plain memcpy of the same bytes (capture-memcpy) in the same process; capture-fwrite"
echo "writes the same bytes to a file of their own (fresh file pages, as a trace's); capture-memcpy-fresh copies"
echo "them into memory not touched before (what first stores to fresh pages cost on this machine)"
