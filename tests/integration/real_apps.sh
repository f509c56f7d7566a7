#!/usr/bin/env bash
# Real OpenGL ES programs from Debian, run under Xvfb on Mesa's llvmpipe, each once as it is and once
# through the library in recording mode. A program passes when, traced, it exits as it did without
# the library, prints the same lines (numbers aside: frame rates differ from run to run), its trace
# reads back whole with no unknown or malformed record, and the trace holds one swap record per
# frame the program drew.
#
#   real_apps.sh BUILD_DIR [SCENE ...]
#
# Exits 77 (skipped) when Xvfb or the programs are missing.
set -u
build=$(cd "${1:?usage: real_apps.sh BUILD_DIR [SCENE ...]}" && pwd)
shift
kalvoren=$build/bin/kalvoren
lib=$build/lib

skip() { echo "SKIPPED: $*"; exit 77; }
command -v xvfb-run >/dev/null || skip "xvfb-run is not installed (package xvfb)"
glmark=$(command -v glmark2-es2 || true)
[ -n "$glmark" ] || skip "glmark2-es2 is not installed (package glmark2-es2-x11)"
gears=$(command -v es2gears_x11 || ls /usr/bin/es2gears_x11.* 2>/dev/null | head -n1 || true)
[ -x "$kalvoren" ] || { echo "FAIL: $kalvoren is missing"; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

scenes=("$@")
if [ ${#scenes[@]} -eq 0 ]; then
    scenes=(build:use-vbo=true build:use-vbo=false texture shading bump effect2d pulsar jellyfish ideas terrain refract
        buffer:update-method=map)
fi

# Lines without their numbers: what a program prints apart from its timings. The renderer and EGL
# version strings carry the recorder's version when traced (deliberately); that is taken out too.
shape() { sed -E -e 's/ \+ Kalvoren v[0-9.]+ \([^)]*\)//' -e 's/[0-9]+(\.[0-9]+)?/N/g' "$1"; }

write_config() {
    cat >"$work/config.json" <<EOF
{ "*": { "Tracing": { "OutputFilename": "$1", "StartFrame": 0, "EndFrame": 4294967295 } } }
EOF
}

swaps_in() { "$kalvoren" dump --function eglSwapBuffers "$1" 2>/dev/null | grep -c eglSwapBuffers; }

# check NAME PLAIN_STATUS TRACED_STATUS TRACE PLAIN_OUT TRACED_OUT
check_common() {
    local name=$1 plain=$2 traced=$3 trace=$4
    local ok=1
    if [ "$plain" != "$traced" ]; then
        echo "FAIL $name: exit status $traced traced, $plain without the library"
        ok=0
    fi
    if ! diff <(shape "$5") <(shape "$6") >"$work/diff.txt"; then
        echo "FAIL $name: the program printed something else when traced:"
        head -20 "$work/diff.txt"
        ok=0
    fi
    if ! "$kalvoren" info "$trace" >"$work/info.txt" 2>&1; then
        echo "FAIL $name: the trace does not read back whole:"
        tail -20 "$work/info.txt"
        ok=0
    fi
    [ $ok = 1 ]
}

for scene in "${scenes[@]}"; do
    name="glmark2-es2 $scene"
    args=(--size 160x120 -b "$scene:duration=0.5")
    timeout 300 xvfb-run -a "$glmark" "${args[@]}" >"$work/plain.txt" 2>/dev/null
    plain=$?
    trace=$work/scene.kalvoren
    write_config "$trace"
    KALVOREN_CONFIG=$work/config.json LD_LIBRARY_PATH=$lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} \
        timeout 300 xvfb-run -a "$glmark" "${args[@]}" >"$work/traced.txt" 2>"$work/traced.err"
    traced=$?
    if check_common "$name" $plain $traced "$trace" "$work/plain.txt" "$work/traced.txt"; then
        # glmark2 reports its frame rate over the scene's duration; the swaps must agree with it.
        fps=$(sed -nE 's/.*FPS: ([0-9]+).*/\1/p' "$work/traced.txt" | head -n1)
        swaps=$(swaps_in "$trace")
        expected=$((fps / 2))
        if [ -z "$fps" ] || [ "$swaps" -lt $((expected * 8 / 10)) ] || [ "$swaps" -gt $((expected * 12 / 10 + 5)) ]; then
            echo "FAIL $name: $swaps swap records, but the program drew about $expected frames (FPS $fps over 0.5 s)"
            failures=$((failures + 1))
        elif grep -E '^(Not recorded|By name only):' "$work/info.txt"; then
            # Every function glmark2 asks eglGetProcAddress for has a recording wrapper.
            echo "FAIL $name: calls that were not recorded with their data"
            failures=$((failures + 1))
        elif [ "$scene" = buffer:update-method=map ] &&
            ! "$kalvoren" dump --function glUnmapBufferOES "$trace" 2>/dev/null | grep -q 'bytes: '; then
            # The vertices written through glMapBufferOES reach the trace at the unmap.
            echo "FAIL $name: no glUnmapBufferOES record carries the bytes written through the mapping"
            failures=$((failures + 1))
        elif [ "$scene" = build:use-vbo=false ] &&
            ! "$kalvoren" dump --function glDrawArrays,glDrawElements "$trace" 2>/dev/null | grep -q 'attrib [0-9]'; then
            # Without buffer objects the model comes from client memory: the draws must carry it.
            echo "FAIL $name: no draw carries client vertex data"
            failures=$((failures + 1))
        else
            echo "ok   $name: exit $traced, $swaps swap records (about $expected frames drawn)"
        fi
    else
        failures=$((failures + 1))
    fi
done

if [ -n "$gears" ]; then
    # es2gears draws until it is stopped and reports the frames it drew every five seconds. It is
    # stopped once it has made its first report, however long the start took on a busy machine
    # (`timeout` hands the interrupt on to it).
    gears_until_report() {  # gears_until_report OUT ERR: runs es2gears, prints its exit status
        timeout -s INT 120 xvfb-run -a stdbuf -oL "$gears" >"$1" 2>"$2" &
        local pid=$!
        for _ in $(seq 1 600); do
            grep -q "frames in" "$1" 2>/dev/null && break
            sleep 0.2
        done
        kill -INT $pid 2>/dev/null
        wait $pid
        echo $?
    }
    name="es2gears_x11"
    plain=$(gears_until_report "$work/plain.txt" /dev/null)
    trace=$work/gears.kalvoren
    write_config "$trace"
    traced=$(KALVOREN_CONFIG=$work/config.json LD_LIBRARY_PATH=$lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} \
        gears_until_report "$work/traced.txt" "$work/traced.err")
    if check_common "$name" $plain $traced "$trace" "$work/plain.txt" "$work/traced.txt"; then
        reported=$(sed -nE 's/^([0-9]+) frames in.*/\1/p' "$work/traced.txt" | awk '{s += $1} END {print s + 0}')
        swaps=$(swaps_in "$trace")
        if [ "$reported" -eq 0 ] || [ "$swaps" -lt "$reported" ]; then
            echo "FAIL $name: $swaps swap records, but the program reported $reported frames"
            failures=$((failures + 1))
        else
            echo "ok   $name: $swaps swap records, $reported frames reported before it was stopped"
        fi
    else
        failures=$((failures + 1))
    fi
else
    echo "note: es2gears_x11 is not installed (package mesa-utils-bin); not run"
fi

if [ $failures -ne 0 ]; then
    echo "$failures program(s) failed"
    exit 1
fi
echo "all programs ran traced as they run without the library"
