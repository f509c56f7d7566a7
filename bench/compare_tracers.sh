#!/usr/bin/env bash
# Kalvoren against another tracer, side by side in one run, on real programs (Mesa's llvmpipe):
#   call_heavy (bench/call_heavy.c: cheap calls, only the call loop timed)
#   glmark2-es2 ideas and build:use-vbo=false (under Xvfb, a small window)
#   glmark2-es2 texture and clear at 320x240: scenes that draw little per frame, where what each
#   frame costs (swap, frame-end bookkeeping) shows
# each run plainly, through Kalvoren (recording every frame, without and with UseCompression) and under apitrace
# (`apitrace trace --api egl`). Every configuration runs RUNS times (default 3), interleaved, and
# the median is reported: the overhead per call in ns, the time added per frame in microseconds
# and the slowdown as a ratio.
#
# BASELINE_BUILD names another build directory (an earlier version of the library) to run in the
# same rounds; its slowdowns are then printed beside this build's.
#
#   bench/compare_tracers.sh [BUILD_DIR] [RUNS]
set -u
build=$(cd "${1:-build}" && pwd)
runs=${2:-3}
lib=$build/lib
kalvoren=$build/bin/kalvoren
heavy=$build/bin/call_heavy
[ -x "$heavy" ] || { echo "no $heavy: configure with -DKV_BENCH=ON and build call_heavy" >&2; exit 1; }
have_apitrace=1
command -v apitrace >/dev/null || { have_apitrace=0; echo "note: apitrace is not installed (package apitrace); its column stays empty"; }
have_glmark=1
{ command -v glmark2-es2 >/dev/null && command -v xvfb-run >/dev/null; } || { have_glmark=0; echo "note: glmark2-es2 or xvfb-run missing; glmark2 rows skipped"; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
config=$work/config.json
cat >"$config" <<JSON
{ "*": { "Tracing": { "OutputFilename": "$work/trace.kalvoren", "StartFrame": 0, "EndFrame": 4294967295 } } }
JSON
# The same with the data blocks compressed (the kalvoren-z column).
configz=$work/config-z.json
cat >"$configz" <<JSON
{ "*": { "Tracing": { "OutputFilename": "$work/trace-z.kalvoren", "UseCompression": true, "StartFrame": 0, "EndFrame": 4294967295 } } }
JSON

median() { sort -g | awk '{v[NR] = $1} END {print (NR ? v[int((NR + 1) / 2)] : "")}'; }

# run TOOL [xvfb] COMMAND...: prints the program's output. With `xvfb` the program runs under
# xvfb-run, outside the tracer (which must see the program, not the X server).
run() {
    local tool=$1
    shift
    local x=()
    if [ "$1" = xvfb ]; then
        x=(xvfb-run -a)
        shift
    fi
    case $tool in
    plain) "${x[@]}" "$@" 2>/dev/null ;;
    kalvoren) KALVOREN_CONFIG=$config LD_LIBRARY_PATH=$lib "${x[@]}" "$@" 2>/dev/null ;;
    kalvoren-z) KALVOREN_CONFIG=$configz LD_LIBRARY_PATH=$lib "${x[@]}" "$@" 2>/dev/null ;;
    baseline) KALVOREN_CONFIG=$config LD_LIBRARY_PATH=$BASELINE_BUILD/lib "${x[@]}" "$@" 2>/dev/null ;;
    apitrace) "${x[@]}" apitrace trace --api egl -o "$work/trace.trace" "$@" 2>/dev/null ;;
    esac
}

tools=(plain kalvoren kalvoren-z)
[ $have_apitrace = 1 ] && tools+=(apitrace)
if [ -n "${BASELINE_BUILD:-}" ]; then
    BASELINE_BUILD=$(cd "$BASELINE_BUILD" && pwd)
    tools+=(baseline)
fi

# ---- call_heavy: ns per call from the program itself.
declare -A heavy_ns
for ((i = 0; i < runs; i++)); do
    for tool in "${tools[@]}"; do
        ns=$(run $tool "$heavy" --frames 300 | sed -nE 's/.*ns_per_call=([0-9.]+).*/\1/p')
        echo "$ns" >>"$work/heavy.$tool"
    done
done
for tool in "${tools[@]}"; do heavy_ns[$tool]=$(median <"$work/heavy.$tool"); done

# ---- glmark2: frames per second; calls per frame from Kalvoren's own trace.
declare -A fps
scenes=()
if [ $have_glmark = 1 ]; then
    scenes=(ideas build:use-vbo=false texture clear)
    for scene in "${scenes[@]}"; do
        for ((i = 0; i < runs; i++)); do
            for tool in "${tools[@]}"; do
                f=$(run $tool xvfb glmark2-es2 --size 320x240 -b "$scene:duration=3" |
                    sed -nE 's/.*FPS: ([0-9]+).*/\1/p' | head -n1)
                echo "${f:-0}" >>"$work/fps.$scene.$tool"
                if [ $tool = kalvoren ] && [ $i = 0 ]; then
                    "$kalvoren" info "$work/trace.kalvoren" >"$work/info.$scene" 2>&1
                fi
            done
        done
        for tool in "${tools[@]}"; do fps[$scene.$tool]=$(median <"$work/fps.$scene.$tool"); done
    done
fi

echo
printf '%-26s %12s %12s %12s   %s\n' "program" "plain" "kalvoren" "apitrace" "kalvoren overhead / apitrace overhead"
p=${heavy_ns[plain]} k=${heavy_ns[kalvoren]} a=${heavy_ns[apitrace]:-}
ratio=$([ -n "$a" ] && awk -v p="$p" -v k="$k" -v a="$a" 'BEGIN { printf "%.2f", (k - p) / (a - p) }')
printf '%-26s %9s ns %9s ns %9s ns   %s\n' "call_heavy, per call" "$p" "$k" "${a:--}" "${ratio:--}"
printf '%-26s %12s %11sx %11sx\n' "  slowdown" "1.00x" "$(awk -v p="$p" -v k="$k" 'BEGIN{printf "%.2f", k/p}')" \
    "$([ -n "$a" ] && awk -v p="$p" -v a="$a" 'BEGIN{printf "%.2f", a/p}' || echo -)"
printf '%-26s %12s %9s ns   (UseCompression)\n' "  compressed, per call" "" "${heavy_ns[kalvoren-z]}"
for scene in "${scenes[@]}"; do
    p=${fps[$scene.plain]} k=${fps[$scene.kalvoren]} a=${fps[$scene.apitrace]:-}
    calls=$(sed -nE "s/^Records: *[0-9]+ \\(([0-9]+) calls.*/\\1/p" "$work/info.$scene" | head -n1)
    frames=$(sed -nE "s/^Frames: *([0-9]+).*/\\1/p" "$work/info.$scene" | head -n1)
    per_frame=$(awk -v c="${calls:-0}" -v f="${frames:-1}" 'BEGIN { printf "%.0f", f ? c / f : 0 }')
    # Overhead per call: the extra time per frame over the calls of a frame.
    ovh() { awk -v p="$p" -v t="$1" -v n="$per_frame" 'BEGIN { if (t > 0 && p > 0 && n > 0) printf "%.0f", (1e9 / t - 1e9 / p) / n; else printf "-" }'; }
    ko=$(ovh "$k")
    ao=$([ -n "$a" ] && ovh "$a" || echo -)
    ratio=$(awk -v k="$ko" -v a="$ao" 'BEGIN { if (a + 0 > 0) printf "%.2f", k / a; else printf "-" }')
    printf '%-26s %8s fps %8s fps %8s fps\n' "glmark2 $scene" "$p" "$k" "${a:--}"
    printf '%-26s %12s %9s ns %9s ns   %s   (%s calls per frame)\n' "  overhead per call" "" "$ko" "$ao" "$ratio" "$per_frame"
    # Time added per frame, whatever it is spent on.
    per() { awk -v p="$p" -v t="$1" 'BEGIN { if (t > 0 && p > 0) printf "%.1f", 1e6 / t - 1e6 / p; else printf "-" }'; }
    kf=$(per "$k")
    af=$([ -n "$a" ] && per "$a" || echo -)
    ratio=$(awk -v k="$kf" -v a="$af" 'BEGIN { if (a + 0 > 0) printf "%.2f", k / a; else printf "-" }')
    printf '%-26s %12s %9s us %9s us   %s\n' "  added per frame" "" "$kf" "$af" "$ratio"
    printf '%-26s %12s %11sx %11sx\n' "  slowdown" "1.00x" "$(awk -v p="$p" -v k="$k" 'BEGIN{printf "%.2f", k ? p/k : 0}')" \
        "$([ -n "$a" ] && awk -v p="$p" -v a="$a" 'BEGIN{printf "%.2f", a ? p/a : 0}' || echo -)"
    z=${fps[$scene.kalvoren-z]}
    printf '%-26s %12s %11sx   (%s fps, UseCompression)\n' "  slowdown, compressed" "" \
        "$(awk -v p="$p" -v z="$z" 'BEGIN{printf "%.2f", z ? p/z : 0}')" "$z"
done

if [ -n "${BASELINE_BUILD:-}" ]; then
    echo
    echo "this build against the baseline ($BASELINE_BUILD), same rounds:"
    printf '%-26s %12s %12s   %s\n' "program" "baseline" "this build" "this build / baseline (time)"
    p=${heavy_ns[plain]} k=${heavy_ns[kalvoren]} b=${heavy_ns[baseline]}
    printf '%-26s %9s ns %9s ns   %s\n' "call_heavy, added per call" "$(awk -v p="$p" -v b="$b" 'BEGIN{printf "%.1f", b-p}')" \
        "$(awk -v p="$p" -v k="$k" 'BEGIN{printf "%.1f", k-p}')" "$(awk -v p="$p" -v k="$k" -v b="$b" 'BEGIN{ if (b > p) printf "%.2f", (k-p)/(b-p); else printf "-" }')"
    for scene in "${scenes[@]}"; do
        p=${fps[$scene.plain]} k=${fps[$scene.kalvoren]} b=${fps[$scene.baseline]}
        printf '%-26s %11sx %11sx   %s\n' "glmark2 $scene slowdown" "$(awk -v p="$p" -v b="$b" 'BEGIN{printf "%.2f", b ? p/b : 0}')" \
            "$(awk -v p="$p" -v k="$k" 'BEGIN{printf "%.2f", k ? p/k : 0}')" "$(awk -v k="$k" -v b="$b" 'BEGIN{ if (k > 0) printf "%.2f", b/k; else printf "-" }')"
    done
fi
