#!/usr/bin/env bash
# Replaying the same glmark2-es2 scene traced by Kalvoren and by apitrace, side by side in one run:
#   kalvoren replay --benchmark   (a pbuffer, and a window with --window)
#   eglretrace --benchmark        (apitrace's player; it draws into a window)
# Both traces are recorded here from the same scene and size; each replay runs RUNS times
# (default 3), interleaved, under the same Xvfb, and the median wall time of the whole replay
# (start-up included) is reported per frame and per call, with our time as a ratio of theirs.
#
#   bench/compare_replay.sh [BUILD_DIR] [RUNS] [SCENE] [SIZE]
set -u
build=$(cd "${1:-build}" && pwd)
runs=${2:-3}
scene=${3:-ideas:duration=2}
size=${4:-160x120}
kalvoren=$build/bin/kalvoren
for tool in glmark2-es2 xvfb-run apitrace eglretrace; do
    command -v $tool >/dev/null || { echo "$tool is missing (packages glmark2-es2-x11, xvfb, apitrace)" >&2; exit 1; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cat >"$work/config.json" <<JSON
{ "*": { "Tracing": { "OutputFilename": "$work/scene.kalvoren", "StartFrame": 0, "EndFrame": 4294967295 } } }
JSON
KALVOREN_CONFIG=$work/config.json LD_LIBRARY_PATH=$build/lib xvfb-run -a glmark2-es2 --size "$size" -b "$scene" \
    >/dev/null 2>&1
xvfb-run -a apitrace trace --api egl -o "$work/scene.trace" glmark2-es2 --size "$size" -b "$scene" >/dev/null 2>&1
[ -s "$work/scene.kalvoren" ] && [ -s "$work/scene.trace" ] || { echo "a trace is missing" >&2; exit 1; }

# Frames and calls of each trace.
k_frames=$("$kalvoren" info "$work/scene.kalvoren" | sed -nE 's/^Frames: +([0-9]+).*/\1/p')
k_calls=$("$kalvoren" info "$work/scene.kalvoren" | sed -nE 's/^Records: +[0-9]+ \(([0-9]+) calls.*/\1/p')
a_calls=$(apitrace dump "$work/scene.trace" 2>/dev/null | grep -cE '^[0-9]+ ')
a_frames=$(apitrace dump "$work/scene.trace" 2>/dev/null | grep -cE '^[0-9]+ eglSwapBuffers')

# seconds COMMAND...: wall time of a command under its own Xvfb, in seconds.
seconds() {
    local start end
    start=$(date +%s%N)
    xvfb-run -a "$@" >>"$work/log" 2>&1
    end=$(date +%s%N)
    awk -v a="$start" -v b="$end" 'BEGIN { printf "%.4f\n", (b - a) / 1e9 }'
}
median() { sort -g | awk '{v[NR] = $1} END {print (NR ? v[int((NR + 1) / 2)] : "")}'; }

for ((i = 0; i < runs; i++)); do
    seconds "$kalvoren" replay --benchmark "$work/scene.kalvoren" >>"$work/k.pbuffer"
    seconds "$kalvoren" replay --benchmark --window "$work/scene.kalvoren" >>"$work/k.window"
    seconds eglretrace --benchmark "$work/scene.trace" >>"$work/a.window"
done
kp=$(median <"$work/k.pbuffer")
kw=$(median <"$work/k.window")
aw=$(median <"$work/a.window")

per() { awk -v t="$1" -v n="$2" 'BEGIN { printf "%.2f", t * 1e6 / n }'; } # microseconds per unit
echo "glmark2-es2 --size $size -b $scene, median of $runs replays (wall time, start-up included)"
printf '%-34s %8s %8s %10s %12s %12s\n' "" frames calls seconds "us/frame" "us/call"
printf '%-34s %8s %8s %10s %12s %12s\n' "kalvoren replay (pbuffer)" "$k_frames" "$k_calls" "$kp" \
    "$(per "$kp" "$k_frames")" "$(per "$kp" "$k_calls")"
printf '%-34s %8s %8s %10s %12s %12s\n' "kalvoren replay --window" "$k_frames" "$k_calls" "$kw" \
    "$(per "$kw" "$k_frames")" "$(per "$kw" "$k_calls")"
printf '%-34s %8s %8s %10s %12s %12s\n' "apitrace (eglretrace, window)" "$a_frames" "$a_calls" "$aw" \
    "$(per "$aw" "$a_frames")" "$(per "$aw" "$a_calls")"
ratio() { awk -v a="$1" -v b="$2" -v c="$3" -v d="$4" 'BEGIN { printf "%.2f", (a / b) / (c / d) }'; }
echo "ratio kalvoren/apitrace, window against window: $(ratio "$kw" "$k_frames" "$aw" "$a_frames") per frame," \
    "$(ratio "$kw" "$k_calls" "$aw" "$a_calls") per call (below 1: kalvoren is faster)"
echo "ratio kalvoren (pbuffer)/apitrace:              $(ratio "$kp" "$k_frames" "$aw" "$a_frames") per frame," \
    "$(ratio "$kp" "$k_calls" "$aw" "$a_calls") per call"
