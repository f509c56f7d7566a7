#!/usr/bin/env bash
# What compressing the trace costs a program that moves much client data per frame: glmark2-es2
# build:use-vbo=false (its model comes from client memory at every draw) run plainly, recorded, and
# recorded with UseCompression, interleaved RUNS times (default 3) under one Xvfb; the median
# frames per second, the slowdown against the plain run and the trace's size per frame.
# LIB_DIRS (several front-library directories, colon-separated) compares builds side by side.
#
#   bench/compression.sh [BUILD_DIR] [RUNS]
set -u
build=$(cd "${1:-build}" && pwd)
runs=${2:-3}
for tool in glmark2-es2 xvfb-run; do
    command -v $tool >/dev/null || { echo "$tool is missing (packages glmark2-es2-x11, xvfb)" >&2; exit 1; }
done
IFS=: read -r -a libs <<<"${LIB_DIRS:-$build/lib}"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
scene=build:use-vbo=false:duration=3
median() { sort -g | awk '{v[NR] = $1} END {print (NR ? v[int((NR + 1) / 2)] : "")}'; }

configs=(plain)
for ((l = 0; l < ${#libs[@]}; l++)); do configs+=("raw.$l" "deflate.$l"); done
for ((i = 0; i < runs; i++)); do
    for c in "${configs[@]}"; do
        env=()
        if [ "$c" != plain ]; then
            compress=false
            [ "${c%%.*}" = deflate ] && compress=true
            printf '{ "*": { "Tracing": { "OutputFilename": "%s", "UseCompression": %s, "EndFrame": 4294967295 } } }\n' \
                "$work/$c.kalvoren" "$compress" >"$work/$c.json"
            env=(KALVOREN_CONFIG=$work/$c.json LD_LIBRARY_PATH=${libs[${c#*.}]})
        fi
        rm -f "$work/$c.kalvoren"
        f=$(env "${env[@]}" xvfb-run -a glmark2-es2 --size 320x240 -b "$scene" 2>/dev/null |
            sed -nE 's/.*FPS: ([0-9]+).*/\1/p' | head -n1)
        echo "${f:-0}" >>"$work/fps.$c"
        [ -f "$work/$c.kalvoren" ] && stat -c %s "$work/$c.kalvoren" >"$work/size.$c"
    done
done
plain=$(median <"$work/fps.plain")
printf '%-48s %8s %10s %14s\n' "glmark2 build:use-vbo=false" "fps" "slowdown" "trace / frame"
printf '%-48s %8s %9sx\n' "plain" "$plain" "1.00"
for c in "${configs[@]:1}"; do
    f=$(median <"$work/fps.$c")
    size=$(cat "$work/size.$c" 2>/dev/null || echo 0)
    frames=$(awk -v f="$f" 'BEGIN { printf "%d", f * 3 }')
    label="recorded$([ "${c%%.*}" = deflate ] && echo ", UseCompression")"
    [ ${#libs[@]} -gt 1 ] && label="$label [${libs[${c#*.}]}]"
    printf '%-48s %8s %9sx %11s KB\n' "$label" "$f" "$(awk -v p="$plain" -v f="$f" 'BEGIN { printf "%.2f", f ? p / f : 0 }')" \
        "$(awk -v s="$size" -v n="$frames" 'BEGIN { printf "%.0f", n ? s / n / 1024 : 0 }')"
done
