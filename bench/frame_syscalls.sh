#!/usr/bin/env bash
# System calls per frame of a windowed program, untraced and through Kalvoren, counted by strace:
# what each frame costs in round trips to the X server (poll/recvmsg) shows here without timing
# noise. glmark2-es2's texture scene at 320x240 under Xvfb; frames from glmark2's own FPS figure.
# How often the program polls its X connection varies a little from run to run: each figure is
# the median of RUNS runs (default 3), plain and traced interleaved.
#
#   bench/frame_syscalls.sh [BUILD_DIR] [SCENE] [RUNS]
set -u
build=$(cd "${1:-build}" && pwd)
scene=${2:-texture}
runs=${3:-3}
duration=3
for tool in strace glmark2-es2 xvfb-run; do
    command -v $tool >/dev/null || { echo "frame_syscalls: $tool is not installed" >&2; exit 1; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cat >"$work/config.json" <<JSON
{ "*": { "Tracing": { "OutputFilename": "$work/trace.kalvoren", "EndFrame": 4294967295 } } }
JSON

# count NAME ENV...: runs the scene under strace (the program only, not the X server) and prints
# "fps poll recvmsg".
count() {
    local name=$1
    shift
    xvfb-run -a env "$@" strace -f -c -o "$work/$name.strace" \
        glmark2-es2 --size 320x240 -b "$scene:duration=$duration" >"$work/$name.out" 2>/dev/null
    local fps calls
    fps=$(sed -nE 's/.*FPS: ([0-9]+).*/\1/p' "$work/$name.out" | head -n1)
    calls() { awk -v n="$1" '$NF == n { print $4 }' "$work/$name.strace"; }
    echo "${fps:-0} $(calls poll) $(calls recvmsg)"
}

median() { sort -g | awk '{v[NR] = $1} END {print (NR ? v[int((NR + 1) / 2)] : "")}'; }
per() { awk -v c="${1:-0}" -v f="$2" -v d="$duration" 'BEGIN { printf "%.2f", (f > 0 ? c / (f * d) : 0) }'; }
for ((i = 0; i < runs; i++)); do
    for tool in plain kalvoren; do
        if [ $tool = plain ]; then
            read -r f p r <<<"$(count plain)"
        else
            read -r f p r <<<"$(count kalvoren KALVOREN_CONFIG="$work/config.json" LD_LIBRARY_PATH="$build/lib")"
        fi
        echo "$f" >>"$work/fps.$tool"
        per "$p" "$f" >>"$work/poll.$tool" && echo >>"$work/poll.$tool"
        per "$r" "$f" >>"$work/recvmsg.$tool" && echo >>"$work/recvmsg.$tool"
    done
done
printf '%-10s %8s %14s %17s\n' "" "fps" "poll / frame" "recvmsg / frame"
for tool in plain kalvoren; do
    printf '%-10s %8s %14s %17s\n' "$tool" "$(median <"$work/fps.$tool")" "$(median <"$work/poll.$tool")" \
        "$(median <"$work/recvmsg.$tool")"
done
echo "(frames counted as fps x ${duration}s; strace slows both runs alike)"
