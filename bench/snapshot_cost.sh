#!/usr/bin/env bash
# The cost of the render-state snapshot against the size of the state it saves, side by side in
# one run: bench/snapshot_bench makes N RGBA and N luminance textures and N buffers (0.56 MiB per
# N at the default size) in its first frame and draws from them in every frame. For each N it
# runs untraced and traced from frame START (the snapshot is written at the start), and reports
#   - the snapshot's time, as the library measured it, and as a ratio of an untraced frame;
#   - the snapshot's trace bytes as a ratio of the state's bytes (uncompressed and compressed);
#   - the traced frame that carries the snapshot as a ratio of the other traced frames.
#
# Each figure is the median of RUNS runs (default 3; RUNS=5 bench/snapshot_cost.sh ...).
#
#   bench/snapshot_cost.sh [BUILD_DIR] [OBJECT COUNTS...]     (default counts: 2 8 32)
set -u
build=$(cd "${1:-build}" && pwd)
shift || true
counts=("$@")
[ ${#counts[@]} -eq 0 ] && counts=(2 8 32)
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
program=$build/bin/snapshot_bench
if [ ! -x "$program" ]; then
    # Built with -DKV_BENCH=ON; otherwise made here.
    program=$work/snapshot_bench
    cc -std=c99 -O2 -I"$here/.." "$here/snapshot_bench.c" -o "$program" -lEGL -lGLESv2 || exit 1
fi
start=6
frames=10
runs=${RUNS:-3}

median() { sort -n | awk '{a[NR]=$1} END {print (NR % 2) ? a[(NR+1)/2] : (a[NR/2] + a[NR/2+1]) / 2}'; }

# traced N COMPRESS: runs the program recorded from frame START; leaves out.txt, debug.txt, trace.
traced() {
    rm -f "$work/trace.kalvoren" "$work/debug.txt"
    cat >"$work/config.json" <<JSON
{ "*": { "Tracing": { "OutputFilename": "$work/trace.kalvoren", "UseCompression": $2,
  "StartFrame": $start, "EndFrame": $((frames - 1)) } } }
JSON
    KALVOREN_CONFIG=$work/config.json KALVOREN_DEBUG_LOG=$work/debug.txt \
        LD_LIBRARY_PATH=$build/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} \
        "$program" --objects "$1" --frames $frames >"$work/out.txt" 2>&1
}

printf '%8s %10s %12s %10s %14s %12s %12s %14s\n' objects "state MiB" "snapshot ms" "MiB/s" "x plain frame" \
    "bytes raw" "compressed" "x traced frame"
for n in "${counts[@]}"; do
    : >"$work/plain.all"
    : >"$work/ms.all"
    : >"$work/carrying.all"
    : >"$work/others.all"
    : >"$work/packed.all"
    for _ in $(seq "$runs"); do
        "$program" --objects "$n" --frames $frames >"$work/plain.txt" 2>&1
        state=$(sed -nE 's/^state bytes ([0-9]+)/\1/p' "$work/plain.txt")
        awk -v s=$start '$1 == "frame" && $2 > 0 && $2 != s - 1 {print $3}' "$work/plain.txt" >>"$work/plain.all"

        traced "$n" false
        line=$(grep -m1 'Render state saved in' "$work/debug.txt")
        echo "$line" | sed -nE 's/.* in ([0-9.]+) ms.*/\1/p' >>"$work/ms.all"
        raw=$(echo "$line" | sed -nE 's/.* ms, ([0-9]+) bytes.*/\1/p')
        # The snapshot runs in the swap that ends frame START-1.
        awk -v s=$start '$1 == "frame" && $2 == s - 1 {print $3}' "$work/out.txt" >>"$work/carrying.all"
        awk -v s=$start '$1 == "frame" && $2 >= s {print $3}' "$work/out.txt" >>"$work/others.all"

        traced "$n" true
        grep -m1 'Render state saved in' "$work/debug.txt" | sed -nE 's/.* ms, ([0-9]+) bytes.*/\1/p' >>"$work/packed.all"
    done
    plain=$(median <"$work/plain.all")
    ms=$(median <"$work/ms.all")
    carrying=$(median <"$work/carrying.all")
    others=$(median <"$work/others.all")
    packed=$(median <"$work/packed.all")

    awk -v n="$n" -v st="$state" -v ms="$ms" -v pl="$plain" -v raw="$raw" -v pk="$packed" -v c="$carrying" \
        -v o="$others" 'BEGIN {
        printf "%8d %10.2f %12.2f %10.1f %14.1f %12.3f %12.3f %14.1f\n", n, st / 1048576, ms,
            (st / 1048576) / (ms / 1000), ms / pl, raw / st, pk / st, c / o }'
done
