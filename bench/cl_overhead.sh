#!/bin/sh
# What recording adds to OpenCL calls on PoCL: bench/cl_bench.c run as it is and through the
# library's OpenCL front (`kalvoren record`), one after the other in one run, REPEAT times each.
# Prints ns per clSetKernelArg and per clEnqueueNDRangeKernel (no data; also held back by a user event,
# so that no kernel runs while they are timed) plain and recorded, and the
# clEnqueueWriteBuffer rate recorded as a share of a plain memcpy of the same bytes, and beside it
# the rate of the plain write followed by a file write of the same bytes: the least a recorder that
# keeps every byte in a file can take.
#
# Usage: bench/cl_overhead.sh [build directory] [REPEAT]
set -eu
build=${1:-build}
repeat=${2:-3}
program=$build/bin/cl_bench
[ -x "$program" ] || { echo "no $program: configure with -DKV_BENCH=ON and build cl_bench" >&2; exit 1; }
work=$(mktemp -d "${TMPDIR:-/tmp}/kalvoren-clbench.XXXXXX")
trap 'rm -rf "$work"' EXIT INT TERM
export POCL_CACHE_DIR=$work/pocl
i=0
while [ "$i" -lt "$repeat" ]; do
    "$program" | sed 's/^RESULT/plain/' >>"$work/results"
    "$build/bin/kalvoren" record --no-info -o "$work/trace.kalvoren" -- "$program" 2>/dev/null |
        sed 's/^RESULT/recorded/' >>"$work/results"
    i=$((i + 1))
done
awk '
    { v[$1 " " $2] = (v[$1 " " $2] == "" || ($2 ~ /mibs/ ? $3 > v[$1 " " $2] : $3 < v[$1 " " $2])) ? $3 : v[$1 " " $2] }
    END {
        printf "%-16s %10s %10s %10s\n", "call", "plain", "recorded", "added"
        printf "%-16s %8.1f ns %7.1f ns %7.1f ns\n", "clSetKernelArg", v["plain setarg_ns"], v["recorded setarg_ns"], v["recorded setarg_ns"] - v["plain setarg_ns"]
        printf "%-16s %8.1f ns %7.1f ns %7.1f ns\n", "NDRangeKernel", v["plain ndrange_ns"], v["recorded ndrange_ns"], v["recorded ndrange_ns"] - v["plain ndrange_ns"]
        printf "%-16s %8.1f ns %7.1f ns %7.1f ns   (held by a user event: no kernel runs meanwhile)\n", "NDRange, held", v["plain ndrange_gated_ns"], v["recorded ndrange_gated_ns"], v["recorded ndrange_gated_ns"] - v["plain ndrange_gated_ns"]
        printf "clEnqueueWriteBuffer 16 MiB: plain %.0f MiB/s, recorded %.0f MiB/s; memcpy %.0f MiB/s\n", v["plain write_mibs"], v["recorded write_mibs"], v["plain memcpy_mibs"]
        printf "recorded write / memcpy: %.2f   recorded write / plain write: %.2f\n", v["recorded write_mibs"] / v["plain memcpy_mibs"], v["recorded write_mibs"] / v["plain write_mibs"]
        printf "the same bytes written to a file of their own: %.0f MiB/s (%.2f of memcpy); recorded write / (plain write then file write): %.2f\n", v["plain file_mibs"], v["plain file_mibs"] / v["plain memcpy_mibs"], v["recorded write_mibs"] * (1 / v["plain write_mibs"] + 1 / v["plain file_mibs"])
    }
' "$work/results"
