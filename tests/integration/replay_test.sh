#!/usr/bin/env bash
# The player's acceptance: real programs recorded with their frame buffers saved, replayed headless
# on Mesa, every frame identical to the one the program drew; and traces that are broken or foreign
# replayed without a crash, with messages that name the record.
#
#   replay_test.sh BUILD_DIR [headless|late|apps|bad]...     (default: all four)
#
# headless  the bundled demo, the ES 3.1 program, two contexts on two threads
# late      the same programs recorded from a later frame: the trace starts with the snapshot of
#           what they made before, and replays to the frames they drew
# apps      glmark2-es2 scenes and es2gears under Xvfb (skipped when they are not installed)
# bad       truncated, foreign and corrupted traces, a driver that lacks functions
set -u
build=$(cd "${1:?usage: replay_test.sh BUILD_DIR [headless|apps|bad]...}" && pwd)
shift
parts=("$@")
[ ${#parts[@]} -eq 0 ] && parts=(headless late apps bad)
kalvoren=$build/bin/kalvoren
lib=$build/lib
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
passed=0

fail() { echo "FAIL $*"; failures=$((failures + 1)); }
pass() { echo "ok   $*"; passed=$((passed + 1)); }

# record NAME FRAMES [START] -- COMMAND...: traces COMMAND with its frame buffers saved (frames
# START (default 0) to START+FRAMES-1; the program is ended after the last one).
record() {
    local name=$1 frames=$2 start=0
    [ "$3" != -- ] && { start=$3; shift; }
    shift 3
    cat >"$work/$name.json" <<EOF
{ "*": { "Tracing": { "OutputFilename": "$work/$name.kalvoren", "SaveFrameBuffer": true,
  "UseCompression": true, "StartFrame": $start, "EndFrame": $((start + frames - 1)), "ExitOnLastFrame": true } } }
EOF
    KALVOREN_CONFIG=$work/$name.json LD_LIBRARY_PATH=$lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} \
        timeout 120 "$@" >"$work/$name.out" 2>&1
}

# same_frames FULL LATE A-B: the replays of a trace recorded from frame 0 and of one that started
# late give the same PNG files for frames A to B.
same_frames() {
    local full=$1 late=$2 range=$3 f differ=0
    rm -rf "$work/$full-frames" "$work/$late-frames"
    mkdir -p "$work/$full-frames" "$work/$late-frames"
    "$kalvoren" replay --quiet --frames "$range" --dump-frames "$work/$full-frames" "$work/$full.kalvoren" >/dev/null 2>&1
    "$kalvoren" replay --quiet --frames "$range" --dump-frames "$work/$late-frames" "$work/$late.kalvoren" >/dev/null 2>&1
    local wanted=$((${range#*-} - ${range%-*} + 1))
    local files
    files=$(ls "$work/$late-frames" | tr '\n' ' ')
    [ "$(ls "$work/$full-frames" | tr '\n' ' ')" = "$files" ] || differ=1
    [ "$(ls "$work/$late-frames" | wc -l)" = "$wanted" ] || differ=1
    for f in "$work/$late-frames"/*; do
        cmp -s "$f" "$work/$full-frames/$(basename "$f")" || differ=1
    done
    if [ $differ -eq 0 ]; then
        pass "$late: frames $range replay to the same pixels as in the trace recorded from frame 0"
    else
        fail "$late: frames $range differ from the trace recorded from frame 0 (late: $files)"
    fi
}

# replayed NAME FRAMES: the trace replays with FRAMES frames compared, all identical.
replayed() {
    local name=$1 frames=$2
    if [ ! -s "$work/$name.kalvoren" ]; then
        fail "$name: no trace was recorded"
        tail -5 "$work/$name.out"
        return
    fi
    timeout 120 "$kalvoren" replay --quiet "$work/$name.kalvoren" >"$work/$name.replay" 2>&1
    local status=$?
    "$kalvoren" replay "$work/$name.kalvoren" 2>/dev/null | grep -c ': identical$' >"$work/$name.count"
    local identical
    identical=$(cat "$work/$name.count")
    if [ $status -ne 0 ] || [ "$identical" != "$frames" ]; then
        fail "$name: replay exit $status, $identical of $frames frames identical"
        grep -v 'ost library' "$work/$name.replay" | head -10
    else
        pass "$name: $frames frames replayed, each identical to the frame the program drew"
    fi
}

headless() {
    record demo 8 -- "$build/bin/kalvoren_demo"
    replayed demo 8
    record es3 4 -- "$build/bin/es3_program" --frames 4
    replayed es3 4
    record threads 3 -- "$build/bin/threads_program" --frames 3
    replayed threads 3

    # The frames as PNG files: the saved ones and the replayed ones are the same files.
    mkdir -p "$work/saved" "$work/replayed"
    "$kalvoren" frames "$work/demo.kalvoren" -o "$work/saved" --frames 2-3 >/dev/null &&
        "$kalvoren" replay --quiet --frames 2-3 --dump-frames "$work/replayed" "$work/demo.kalvoren" >/dev/null 2>&1
    if [ "$(ls "$work/saved" | tr '\n' ' ')" = "frame-000002.png frame-000003.png " ]; then
        if cmp -s "$work/saved/frame-000003.png" "$work/replayed/frame-000003.png" &&
            [ "$(head -c 8 "$work/saved/frame-000002.png" | od -An -tx1 | tr -d ' \n')" = 89504e470d0a1a0a ]; then
            pass "frames and --dump-frames: frames 2-3 written as the same PNG files"
        else
            fail "frames and --dump-frames: the PNG files differ or are not PNG"
        fi
    else
        fail "frames: wrote $(ls "$work/saved" | tr '\n' ' ')"
    fi

    # --loop plays the range again; --benchmark prints frames per second.
    local line
    line=$("$kalvoren" replay --benchmark --frames 3-5 --loop 2 "$work/demo.kalvoren" 2>/dev/null | grep 'frames per second')
    case "$line" in
    "9 frames in "*) pass "benchmark with --loop 2 over frames 3-5: $line" ;;
    *) fail "benchmark with --loop: '$line'" ;;
    esac
}

late() {
    record demo-late 3 5 -- "$build/bin/kalvoren_demo"
    replayed demo-late 3
    [ -s "$work/demo.kalvoren" ] || record demo 8 -- "$build/bin/kalvoren_demo"
    same_frames demo demo-late 5-7
    record es3-late 3 2 -- "$build/bin/es3_program" --frames 6
    replayed es3-late 3
    record threads-late 2 1 -- "$build/bin/threads_program" --frames 4
    replayed threads-late 2
    # Objects made in the first frame only: textures a framebuffer cannot read, renderbuffer
    # contents, a program pipeline, a transform feedback object, an EGL image and sync.
    record snapshot-full 6 -- "$build/bin/snapshot_program" --frames 6
    replayed snapshot-full 6
    record snapshot-late 3 3 -- "$build/bin/snapshot_program" --frames 6
    replayed snapshot-late 3
    same_frames snapshot-full snapshot-late 3-5
    local dump
    dump=$("$kalvoren" dump "$work/snapshot-late.kalvoren" 2>/dev/null | grep -F '[snapshot]')
    if echo "$dump" | grep -q '] eglCreateImage(' && echo "$dump" | grep -q '] eglCreateSync(' &&
        echo "$dump" | grep -q '] glGenProgramPipelines(' && echo "$dump" | grep -q '] glGenTransformFeedbacks(' &&
        ! "$kalvoren" dump "$work/snapshot-full.kalvoren" 2>/dev/null | grep -qF '[snapshot]'; then
        pass "snapshot-late: EGL image and sync, pipeline and transform feedback made again; none in a trace from frame 0"
    else
        fail "snapshot-late: an EGL image, sync, pipeline or transform feedback object is missing from the snapshot"
    fi
    # The snapshot's read-backs give their helper objects back: the names the program makes after
    # a late start are the ones it gets untraced.
    "$build/bin/snapshot_program" --frames 4 >"$work/names-plain.out" 2>&1
    printf '{ "*": { "Tracing": { "OutputFilename": "%s", "StartFrame": 2 } } }\n' "$work/names.kalvoren" \
        >"$work/names.json"
    KALVOREN_CONFIG=$work/names.json LD_LIBRARY_PATH=$lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} \
        timeout 120 "$build/bin/snapshot_program" --frames 4 >"$work/names-traced.out" 2>/dev/null
    local plainNames tracedNames
    plainNames=$(grep '^names made last:' "$work/names-plain.out")
    tracedNames=$(grep '^names made last:' "$work/names-traced.out")
    if [ -n "$plainNames" ] && [ "$plainNames" = "$tracedNames" ]; then
        pass "snapshot-late: objects made after the start get their untraced names (${plainNames#*: })"
    else
        fail "snapshot-late: names after the start: untraced '${plainNames#*: }', traced '${tracedNames#*: }'"
    fi
    # The two contexts share one group: its program, buffer and texture are made once; each
    # thread gets its own current context back.
    local made
    made=$("$kalvoren" dump "$work/threads-late.kalvoren" 2>/dev/null | grep -F '[snapshot]' |
        grep -cE '\] (glCreateProgram|glGenBuffers|glGenTextures)\(')
    if [ "$made" = 3 ] && [ "$("$kalvoren" dump "$work/threads-late.kalvoren" | grep -F '[snapshot]' |
        grep -F '] eglMakeCurrent(' | grep -vc 'draw=0x0')" = 2 ]; then
        pass "threads-late: the share group's objects made once, both threads made current"
    else
        fail "threads-late: $made shared objects made (3 expected), or a thread was not made current"
    fi
}

apps() {
    if ! command -v xvfb-run >/dev/null || ! command -v glmark2-es2 >/dev/null; then
        echo "note: xvfb-run or glmark2-es2 missing (packages xvfb, glmark2-es2-x11): programs not run"
        return
    fi
    local scene name
    # Each scene drawn at a small size for four frames.
    for scene in build:use-vbo=true build:use-vbo=false texture shading bump effect2d pulsar jellyfish ideas \
        terrain refract buffer:update-method=subdata buffer:update-method=map; do
        name=glmark2-$(echo "$scene" | tr ':=' '--')
        record "$name" 4 -- xvfb-run -a glmark2-es2 --size 96x64 -b "$scene"
        replayed "$name" 4
    done
    # Started late, at frames 30 to 60: the scene's objects come from the snapshot. (glmark2
    # animates by the clock, so two runs draw different frames: each late trace is held to its
    # own saved frames; the comparison with a trace from frame 0 is made on our own programs.)
    local late start
    for late in build:30 texture:30 shading:45 bump:30 effect2d:45 pulsar:30 jellyfish:45 ideas:30 terrain:45 \
        refract:30 texture:60 terrain:60; do
        scene=${late%:*}
        start=${late#*:}
        # A long duration: a slow scene on a loaded machine still reaches the frame (the
        # recording ends the program at its last frame).
        record "glmark2-$scene-from$start" 3 "$start" -- xvfb-run -a glmark2-es2 --size 96x64 -b "$scene:duration=120"
        replayed "glmark2-$scene-from$start" 3
    done
    # The same with a real window (X11) in place of the pbuffer.
    if timeout 120 xvfb-run -a "$kalvoren" replay --window "$work/glmark2-texture.kalvoren" >"$work/window.txt" 2>&1 &&
        [ "$(grep -c ': identical$' "$work/window.txt")" = 4 ]; then
        pass "glmark2-texture in a window: 4 frames identical"
    else
        fail "glmark2-texture in a window"
        tail -5 "$work/window.txt"
    fi
    local gears
    gears=$(command -v es2gears_x11 || ls /usr/bin/es2gears_x11.* 2>/dev/null | head -n1)
    if [ -n "$gears" ]; then
        record es2gears 4 -- xvfb-run -a "$gears"
        replayed es2gears 4
    fi
}

# no_crash NAME STATUS: the player ended by itself (no signal, no timeout).
no_crash() {
    if [ "$2" -ge 124 ]; then
        fail "$1: the player ended with status $2"
        return 1
    fi
    return 0
}

bad() {
    [ -s "$work/demo.kalvoren" ] || record demo 8 -- "$build/bin/kalvoren_demo"
    local size status
    size=$(stat -c %s "$work/demo.kalvoren")

    # Cut in the middle: the frames before the cut replay, the cut is named.
    head -c $((size / 2)) "$work/demo.kalvoren" >"$work/cut.kalvoren"
    timeout 60 "$kalvoren" replay "$work/cut.kalvoren" >"$work/cut.txt" 2>&1
    status=$?
    if no_crash "truncated trace" $status; then
        if [ $status -eq 1 ] && grep -q 'record [0-9]*.*truncated\|truncated after record' "$work/cut.txt" &&
            grep -q ': identical$' "$work/cut.txt"; then
            pass "truncated trace: the frames before the cut replay, then: $(grep -m1 truncated "$work/cut.txt")"
        else
            fail "truncated trace: status $status"
            tail -5 "$work/cut.txt"
        fi
    fi

    # A record of a function nobody knows: skipped with its index named, the rest replays.
    python3 - "$work/demo.kalvoren" "$work/unknown.kalvoren" <<'EOF'
import struct, sys
data = bytearray(open(sys.argv[1], 'rb').read())
# The header's end: three texts after the flags at offset 16.
at = 18
for _ in range(3):
    n = data[at]; at += 1 + max(n, 1)
at += 1 + 4 + 4 + 4
at += 1 + data[at]
at += 1 + 32 + 8
# Renumber the 20th call record to id 9999.
calls = 0
while at + 6 <= len(data):
    length, ident = struct.unpack_from('<IH', data, at)
    if ident > 2:
        calls += 1
        if calls == 20:
            struct.pack_into('<H', data, at + 4, 9999)
            break
    at += 6 + length
open(sys.argv[2], 'wb').write(data)
EOF
    timeout 60 "$kalvoren" replay "$work/unknown.kalvoren" >"$work/unknown.txt" 2>&1
    status=$?
    if no_crash "unknown record" $status; then
        if [ $status -eq 1 ] && grep -q 'record [0-9]* (unknown function): unknown function id 9999' "$work/unknown.txt" &&
            grep -q 'replayed 8 frames' "$work/unknown.txt"; then
            pass "unknown record: $(grep -m1 9999 "$work/unknown.txt")"
        else
            fail "unknown record: status $status"
            tail -5 "$work/unknown.txt"
        fi
    fi

    # Not a trace at all.
    timeout 60 "$kalvoren" replay "$here/replay_test.sh" >"$work/foreign.txt" 2>&1
    status=$?
    if [ $status -eq 2 ] && grep -q 'not a Kalvoren trace' "$work/foreign.txt"; then
        pass "foreign file: $(head -1 "$work/foreign.txt")"
    else
        fail "foreign file: status $status"
    fi

    # The reader's fuzz corpus: odd but well-framed traces, none may bring the player down.
    local f crashed=0
    for f in "$here"/../fuzz/corpus/*; do
        timeout 60 "$kalvoren" replay --quiet "$f" >/dev/null 2>&1
        status=$?
        no_crash "fuzz corpus $(basename "$f")" $status || crashed=1
    done
    [ $crashed -eq 0 ] && pass "fuzz corpus: $(ls "$here"/../fuzz/corpus | wc -l) traces replayed without a crash"

    # A driver that lacks functions (the test host without EGL 1.2): each missing function is
    # named with its record, and the replay goes on.
    local host=$lib/libkvtesthost_egl11.so
    if [ -e "$host" ]; then
        timeout 60 "$kalvoren" replay --egl "$host" --gles "$host" "$work/demo.kalvoren" >"$work/host.txt" 2>&1
        status=$?
        if no_crash "driver lacking functions" $status; then
            if grep -q 'record [0-9]* (eglBindAPI): the local driver has no eglBindAPI; the call was skipped' \
                "$work/host.txt"; then
                pass "driver lacking functions: $(grep -m1 'has no' "$work/host.txt")"
            else
                fail "driver lacking functions: status $status"
                tail -5 "$work/host.txt"
            fi
        fi
    fi
}

for part in "${parts[@]}"; do
    "$part"
done
echo "$passed passed, $failures failed"
[ $failures -eq 0 ]
