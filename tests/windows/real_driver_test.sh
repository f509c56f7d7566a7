#!/usr/bin/env bash
# The Windows build on a real Windows driver: Mesa's own Windows EGL/GLES build (softpipe, built
# by scripts/mesa-windows) under Wine, in a Wine prefix of this test's own, on the X display the
# test runs under (xvfb-run).
#
# For each mode of win_gles_program (es2, es3, threads) and win_es1_program (es1, linked against
# libGLESv1_CM.dll, Mesa's name for its ES1 driver), run as a user would:
#   plain     the driver in C:\windows\system32, the program alone in its folder
#   default   the same, with the front DLLs and kalvoren.dll copied next to the program and no
#             Host paths: the library must find the driver in system32 by itself
#   vendor    the driver only in a vendor folder (C:\vendor\mesa), named by Host paths
# and check: exit status 0 all three ways, every frame's pixels identical to the plain run, a trace
# that reads back with no problems and a Windows header, and every saved frame buffer equal to the
# pixels the program read back itself. Then each trace replays with kalvoren.exe on the driver it
# was recorded on to exactly the frames the program drew, and, with a Linux build, across systems
# (see "Replays" below).
#
# Then the es2 program runs with the library's tools attached over Windows' own channels (see
# "Profiling and network control" below): `kalvoren.exe perf` over named mappings, and `kalvoren
# ctl` over Winsock.
#
#   real_driver_test.sh SOURCE_DIR BUILD_DIR GLES_PROGRAM ES1_PROGRAM [MODE...]
#
# MODE is es2, es3, threads, es1, perf or network; all of them when none is given.
#
# Exit status 77 (skipped) when Mesa's Windows driver has not been built on this machine.
set -u
usage="usage: real_driver_test.sh SOURCE_DIR BUILD_DIR GLES_PROGRAM ES1_PROGRAM [MODE...]"
source_dir=$(cd "${1:?$usage}" && pwd)
build=$(cd "${2:?$usage}" && pwd)
gles_program=${3:?$usage}
es1_program=${4:?$usage}
shift 4
[ $# -eq 0 ] && set -- es2 es3 threads es1 perf network
modes=() tools=()
for m in "$@"; do
    case $m in
    perf | network) tools+=("$m") ;;
    *) modes+=("$m") ;;
    esac
done

mesa=${KV_MESA_WINDOWS_DIR:-}
if [ -z "$mesa" ]; then
    echo "skipped: no KV_MESA_WINDOWS_DIR (scripts/test windows builds the driver and sets it)"
    exit 77
fi
if [ -z "${DISPLAY:-}" ]; then
    echo "skipped: no X display for Wine's windows (run under xvfb-run)"
    exit 77
fi

work=$(mktemp -d)
export WINEPREFIX=$work/prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" KALVOREN_NO_MESSAGE_BOX=1
wine=/usr/lib/wine/wine64
cleanup() {
    /usr/lib/wine/wineserver -k >/dev/null 2>&1
    rm -rf "$work"
}
trap cleanup EXIT
failures=0
fail() { echo "FAIL $*"; failures=$((failures + 1)); }
pass() { echo "ok   $*"; }

# A prefix of our own with one wineserver for the whole test; the first wine64 call creates it.
/usr/lib/wine/wineserver -p </dev/null >/dev/null 2>&1
"$wine" cmd /c exit </dev/null >/dev/null 2>&1
system32=$WINEPREFIX/drive_c/windows/system32
vendor=$WINEPREFIX/drive_c/vendor/mesa
[ -d "$system32" ] || { fail "Wine did not create $system32"; exit 1; }
mkdir -p "$vendor"
# The driver's DLLs; Mesa's opengl32.dll stays out of system32, where it would take the place of
# Wine's own.
driver_dlls=()
for dll in "$mesa"/*.dll; do
    [ "$(basename "$dll")" = opengl32.dll ] || driver_dlls+=("$dll")
done
install_driver() { cp "${driver_dlls[@]}" "$system32/"; }
remove_driver() { for dll in "${driver_dlls[@]}"; do rm -f "$system32/$(basename "$dll")"; done; }
cp "${driver_dlls[@]}" "$vendor/"

fronts=(kalvoren.dll libEGL.dll libGLESv2.dll libGLES_CM.dll libGLESv1_CM.dll OpenCL.dll)
kalvoren_exe=$build/bin/kalvoren.exe

# run_program MODE HOW: runs the program in $work/MODE-HOW with its frames written there.
run_program() {
    local mode=$1 how=$2 dir=$work/$1-$2 program=$gles_program
    [ "$mode" = es1 ] && program=$es1_program
    mkdir -p "$dir/app"
    cp "$program" "$dir/app/"
    if [ "$how" != plain ]; then
        for f in "${fronts[@]}"; do cp "$build/bin/$f" "$dir/app/"; done
        local host=""
        if [ "$how" = vendor ]; then
            host='"Host": { "EglLibraryPath": "C:\\vendor\\mesa\\libEGL.dll",
                            "Es1LibraryPath": "C:\\vendor\\mesa\\libGLESv1_CM.dll",
                            "Es2LibraryPath": "C:\\vendor\\mesa\\libGLESv2.dll" },'
        fi
        # Every frame is recorded: by default only frame 0 is (EndFrame 0), which would leave one
        # saved frame buffer for the four the program reads back.
        cat >"$dir/kalvorenconfig.json" <<EOF
{ "*": { $host "Tracing": { "OutputFilename": "$mode.kalvoren", "SaveFrameBuffer": true,
                            "EndFrame": 4294967295 } } }
EOF
    fi
    (cd "$dir" && timeout 300 "$wine" "app/$(basename "$program")" "$mode" . </dev/null >out.txt 2>err.txt)
}

# saved_frames_match TRACE DIR: every frame buffer saved in TRACE equals one the program read back
# (DIR/*-frame-N.rgba, bottom row first), and there are as many as the program drew.
saved_frames_match() {
    local trace=$1 dir=$2
    rm -rf "$dir/saved"
    "$wine" "$kalvoren_exe" frames "$trace" -o saved </dev/null >"$dir/frames.txt" 2>&1 || return 1
    python3 - "$dir" <<'PY'
import glob, os, struct, sys, zlib
def decode(path):
    data = open(path, "rb").read()
    assert data[:8] == b"\x89PNG\r\n\x1a\n"
    at, idat = 8, b""
    while at < len(data):
        length, kind = struct.unpack(">I4s", data[at:at + 8])
        body = data[at + 8:at + 8 + length]
        if kind == b"IHDR":
            width, height, depth, color = struct.unpack(">IIBB", body[:10])
            assert depth == 8 and color == 6, (depth, color)
        elif kind == b"IDAT":
            idat += body
        at += 12 + length
    raw, stride, rows, prior = zlib.decompress(idat), width * 4, [], bytearray(width * 4)
    for y in range(height):
        line = raw[y * (stride + 1):(y + 1) * (stride + 1)]
        kind, row = line[0], bytearray(line[1:])
        for x in range(stride):
            a = row[x - 4] if x >= 4 else 0
            b = prior[x]
            c = prior[x - 4] if x >= 4 else 0
            if kind == 1: row[x] = (row[x] + a) & 255
            elif kind == 2: row[x] = (row[x] + b) & 255
            elif kind == 3: row[x] = (row[x] + (a + b) // 2) & 255
            elif kind == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                row[x] = (row[x] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        rows.append(bytes(row))
        prior = row
    return b"".join(reversed(rows))  # bottom row first, as glReadPixels gives them
directory = sys.argv[1]
drawn = sorted(open(p, "rb").read() for p in glob.glob(os.path.join(directory, "*-frame-*.rgba")))
saved = sorted(decode(p) for p in glob.glob(os.path.join(directory, "saved", "frame-*.png")))
if saved != drawn:
    print(f"{len(saved)} saved frames, {len(drawn)} drawn; "
          f"{sum(1 for s in saved if s in drawn)} of the saved equal a drawn one")
    sys.exit(1)
PY
}

for mode in ${modes[@]+"${modes[@]}"}; do
    install_driver
    run_program "$mode" plain
    plain=$?
    frames=$(ls "$work/$mode-plain"/*-frame-*.rgba 2>/dev/null | wc -l)
    if [ $plain -ne 0 ] || [ "$frames" -eq 0 ]; then
        fail "$mode: the program alone on the driver: exit $plain, $frames frames"
        cat "$work/$mode-plain/err.txt"
        continue
    fi
    grep -q softpipe "$work/$mode-plain/err.txt" || [ "$mode" = threads ] ||
        fail "$mode: not on Mesa's softpipe: $(head -1 "$work/$mode-plain/err.txt")"
    for how in default vendor; do
        [ "$how" = vendor ] && remove_driver
        run_program "$mode" "$how"
        status=$?
        dir=$work/$mode-$how
        same=1
        for f in "$work/$mode-plain"/*-frame-*.rgba; do
            cmp -s "$f" "$dir/$(basename "$f")" || same=0
        done
        if [ $status -eq 0 ] && [ $same -eq 1 ]; then
            pass "$mode, $how: $frames frames, pixels identical traced and untraced"
        else
            fail "$mode, $how: exit $status, pixels $([ $same -eq 1 ] && echo identical || echo differ)"
            tail -n 5 "$dir/err.txt" "$dir/out.txt"
            continue
        fi
        trace=$dir/$mode.kalvoren
        if [ ! -s "$trace" ]; then
            fail "$mode, $how: no trace"
            continue
        fi
        # Every function, not the most frequent few; the Windows build ends its lines with CR LF.
        (cd "$dir" && "$wine" "$kalvoren_exe" info --top 0 "$mode.kalvoren" </dev/null 2>&1 | tr -d '\r' >info.txt)
        # What only this mode's calls put into the trace: proof that its API went through the fronts.
        case $mode in
        es1) marker=' glTexCoordPointer$' ;;
        es2) marker=' glVertexAttribPointer$' ;;
        es3) marker=' glDrawArraysInstanced$' ;;
        threads) marker='^Threads: *[3-9] ' ;;
        esac
        if grep -q '^Problems: *none' "$dir/info.txt" && grep -q '^Platform: .*Windows' "$dir/info.txt" &&
            grep -Eq "$marker" "$dir/info.txt"; then
            pass "$mode, $how: the trace reads back with no problems and a Windows header"
        else
            fail "$mode, $how: the trace"
            grep -E '^(Platform|Problems|Threads)' -A3 "$dir/info.txt"
            grep -Eq "$marker" "$dir/info.txt" || echo "no '$marker' in the trace's summary"
        fi
        if (cd "$dir" && saved_frames_match "$mode.kalvoren" "$dir"); then
            pass "$mode, $how: every saved frame buffer equals the pixels the program read back"
        else
            fail "$mode, $how: saved frame buffers"
            cat "$dir/frames.txt"
        fi
    done
done

# ---- Replays ------------------------------------------------------------------------------------
# matching FILE: how many frames a replay's report counts as equal to the saved ones.
matching() { grep -cE ': identical$|\(within the tolerance\)$' "$1"; }

# replayed WHAT FRAMES REPORT STATUS: passes or fails one replay by its report.
replayed() {
    local what=$1 frames=$2 report=$3 status=$4 equal
    equal=$(matching "$report")
    if [ "$status" -eq 0 ] && [ "$equal" = "$frames" ]; then
        pass "$what: $frames frames $(grep -q 'within the tolerance' "$report" && echo 'equal within the tolerance' || echo identical)"
    else
        fail "$what: exit $status, $equal of $frames frames equal"
        grep -v 'ost library' "$report" | tail -n 5
    fi
}

# On the driver it was recorded on, a trace replays to exactly the frames the program drew.
install_driver
for mode in ${modes[@]+"${modes[@]}"}; do
    trace=$mode-default/$mode.kalvoren
    [ -s "$work/$trace" ] || continue
    frames=$(ls "$work/$mode-plain"/*-frame-*.rgba | wc -l)
    (cd "$work" && timeout 300 "$wine" "$kalvoren_exe" replay --window "$trace" </dev/null 2>&1 |
        tr -d '\r' >"$mode-windows-replay.txt"; exit "${PIPESTATUS[0]}")
    replayed "$mode: the trace replayed with kalvoren.exe on the same driver" "$frames" \
        "$work/$mode-windows-replay.txt" $?
done

# With a Linux build (KV_LINUX_KALVOREN names its kalvoren): traces cross between the systems.
# Mesa has softpipe on Linux too (GALLIUM_DRIVER=softpipe), so on the same driver a trace recorded
# on one system replays exactly on the other. On Linux's default llvmpipe the Windows traces replay
# within a stated channel difference:
#   cross_tolerance  llvmpipe and softpipe round a few colour interpolations of these programs to
#                    neighbouring levels (at most 1 here). Other scenes differ more: glmark2's
#                    texture scene by up to 29 in 450 of 6144 pixels of its first frame, and
#                    exactly so both with kalvoren on Linux's softpipe and with kalvoren.exe here:
#                    the drivers differ, not the players. So the Linux trace is recorded on softpipe.
#                    The ES1 program's second frame has one pixel that differs by 218 (covered by
#                    one driver and not the other), so ES1 traces are compared on softpipe only.
cross_tolerance=1
linux_kalvoren=${KV_LINUX_KALVOREN:-}
if [ -z "$linux_kalvoren" ] || [ ! -x "$linux_kalvoren" ]; then
    echo "note: no Linux build (KV_LINUX_KALVOREN): traces not replayed across systems"
else
    for mode in ${modes[@]+"${modes[@]}"}; do
        trace=$work/$mode-default/$mode.kalvoren
        [ -s "$trace" ] || continue
        frames=$(ls "$work/$mode-plain"/*-frame-*.rgba | wc -l)
        GALLIUM_DRIVER=softpipe timeout 300 "$linux_kalvoren" replay "$trace" \
            >"$work/$mode-linux-softpipe.txt" 2>&1
        replayed "$mode: the Windows trace replayed on Linux's softpipe" "$frames" \
            "$work/$mode-linux-softpipe.txt" $?
        [ "$mode" = es1 ] && continue
        timeout 300 "$linux_kalvoren" replay --tolerance $cross_tolerance "$trace" \
            >"$work/$mode-linux-replay.txt" 2>&1
        replayed "$mode: the Windows trace replayed on Linux's default driver (tolerance $cross_tolerance)" \
            "$frames" "$work/$mode-linux-replay.txt" $?
    done
    linux_lib=$(cd "$(dirname "$linux_kalvoren")/../lib" && pwd)
    if command -v glmark2-es2 >/dev/null; then
        cat >"$work/linux.json" <<EOF
{ "*": { "Tracing": { "OutputFilename": "$work/linux.kalvoren", "SaveFrameBuffer": true,
  "EndFrame": 3, "ExitOnLastFrame": true } } }
EOF
        GALLIUM_DRIVER=softpipe KALVOREN_CONFIG=$work/linux.json \
            LD_LIBRARY_PATH=$linux_lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} \
            timeout 300 glmark2-es2 --size 96x64 -b texture >"$work/linux-record.txt" 2>&1
        (cd "$work" && timeout 300 "$wine" "$kalvoren_exe" replay --window linux.kalvoren </dev/null 2>&1 |
            tr -d '\r' >linux-on-windows.txt; exit "${PIPESTATUS[0]}")
        replayed "a Linux trace (glmark2-es2 texture, softpipe) replayed with kalvoren.exe" 4 \
            "$work/linux-on-windows.txt" $?
    else
        echo "note: glmark2-es2 missing (package glmark2-es2-x11): no Linux trace replayed on Windows"
    fi
fi

# ---- Profiling and network control ----------------------------------------------------------------
# The es2 program as a user installs it (driver in system32, fronts next to it, no Host paths), run
# for many frames with a pause after each so that the tool attached to it sees frames come.
install_driver
program_name=$(basename "$gles_program")
# tool_app DIR CONFIG: the program and the fronts in DIR/app, CONFIG as DIR's kalvorenconfig.json.
tool_app() {
    mkdir -p "$1/app"
    cp "$gles_program" "$1/app/"
    for f in "${fronts[@]}"; do cp "$build/bin/$f" "$1/app/"; done
    printf '%s\n' "$2" >"$1/kalvorenconfig.json"
}
# wait_for TEXT FILE...: until one of the FILEs holds TEXT (at most a minute).
wait_for() {
    local text=$1
    shift
    for _ in $(seq 1 300); do
        grep -qs "$text" "$@" && return 0
        sleep 0.2
    done
    return 1
}
# The Linux build's tools when there is one (the way a user on Linux drives a Windows
# program), else the Windows build's own under Wine.
if [ -n "$linux_kalvoren" ] && [ -x "$linux_kalvoren" ]; then
    host_kalvoren=("$linux_kalvoren")
else
    host_kalvoren=("$wine" "$kalvoren_exe")
fi

for tool in ${tools[@]+"${tools[@]}"}; do
    dir=$work/$tool
    case $tool in
    perf)
        # The library and `kalvoren.exe perf` meet in named mappings. Per frame the program draws
        # one glDrawArrays and two glDrawElements; the CSV has one row per frame and one for the
        # calls after the last swap.
        frames=10
        tool_app "$dir" '{ "*": { "Profiling": { "Enabled": true } } }'
        (cd "$dir" && timeout 300 "$wine" "$kalvoren_exe" perf --wait 120 --csv counters.csv \
            </dev/null >perf.out 2>perf.err) &
        perf=$!
        wait_for "waiting for a profiled program" "$dir/perf.err" ||
            fail "perf: kalvoren.exe perf did not start: $(head -3 "$dir/perf.err")"
        (cd "$dir" && timeout 300 "$wine" "app/$program_name" es2 . $frames 20 </dev/null >out.txt 2>err.txt)
        status=$?
        wait $perf
        perf_status=$?
        if [ $status -ne 0 ] || [ $perf_status -ne 0 ]; then
            fail "perf: the program exited $status, kalvoren.exe perf $perf_status"
            tail -n 5 "$dir/err.txt" "$dir/perf.err"
        elif python3 - "$dir/counters.csv" $frames <<'PY'; then
import csv, sys
rows = list(csv.DictReader(open(sys.argv[1])))
frames = int(sys.argv[2])
bad = []
if len(rows) != frames + 1:
    bad.append(f"{len(rows)} rows for {frames} frames and the end")
if [int(r["frame"]) for r in rows] != list(range(len(rows))):
    bad.append("the frames do not advance one by one")
for r in rows[:frames]:
    draws = (int(r["Non-indexed draw calls"]), int(r["Indexed draw calls"]))
    if draws != (1, 2):
        bad.append(f"frame {r['frame']}: {draws[0]} non-indexed and {draws[1]} indexed draw calls")
if bad:
    sys.exit("perf: " + "; ".join(bad))
PY
            pass "perf: kalvoren.exe perf counted 1 + 2 draw calls in each of $frames frames"
        else
            fail "perf: the counters"
            head -n 4 "$dir/counters.csv"
        fi
        ;;
    network)
        # The program waits for a client before its first call; `kalvoren ctl` connects over TCP
        # (Winsock on the program's side), records two seconds and fetches the trace, which must
        # read back with no problems and replay to the frames saved in it.
        port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
        tool_app "$dir" "{ \"*\": { \"Tracing\": { \"OutputFilename\": \"network.kalvoren\", \"SaveFrameBuffer\": true },
         \"Network\": { \"Enabled\": true, \"Wait\": true, \"Port\": $port, \"Address\": \"127.0.0.1\" } } }"
        (cd "$dir" && timeout 300 "$wine" "app/$program_name" es2 . 300 20 </dev/null >out.txt 2>err.txt) &
        app=$!
        # The Windows build writes the library's progress to the console's standard output.
        if ! wait_for "Waiting for Client" "$dir/out.txt" "$dir/err.txt"; then
            fail "network: the program does not wait for a client"
            kill $app 2>/dev/null
            wait $app
            tail -n 5 "$dir/out.txt" "$dir/err.txt"
            continue
        fi
        (cd "$dir" && timeout 300 "${host_kalvoren[@]}" ctl 127.0.0.1:$port start wait 2 stop fetch -o fetched.kalvoren \
            </dev/null >ctl.txt 2>&1)
        ctl_status=$?
        wait $app
        status=$?
        if [ $status -ne 0 ] || [ $ctl_status -ne 0 ]; then
            fail "network: the program exited $status, kalvoren ctl $ctl_status"
            tail -n 8 "$dir/ctl.txt" "$dir/err.txt"
            continue
        fi
        (cd "$dir" && "${host_kalvoren[@]}" info --top 0 fetched.kalvoren </dev/null 2>&1 | tr -d '\r' >info.txt)
        recorded=$(awk '/^Frames:/ {print $2; exit}' "$dir/info.txt")
        if grep -q '^Problems: *none' "$dir/info.txt" && grep -q '^Platform: .*Windows' "$dir/info.txt" &&
            [ "${recorded:-0}" -gt 0 ]; then
            pass "network: kalvoren ctl recorded $recorded frames and fetched a trace with no problems"
        else
            fail "network: the fetched trace"
            grep -E '^(Platform|Problems|Frames)' -A3 "$dir/info.txt"
            continue
        fi
        if [ "${host_kalvoren[0]}" = "$linux_kalvoren" ]; then
            (cd "$dir" && GALLIUM_DRIVER=softpipe timeout 300 "$linux_kalvoren" replay fetched.kalvoren >replay.txt 2>&1)
        else
            (cd "$dir" && timeout 300 "$wine" "$kalvoren_exe" replay --window fetched.kalvoren </dev/null 2>&1 |
                tr -d '\r' >replay.txt; exit "${PIPESTATUS[0]}")
        fi
        replay_status=$?
        if [ $replay_status -eq 0 ] && grep -Eq "; ([1-9][0-9]*) frames compared: \1 identical$" "$dir/replay.txt"; then
            pass "network: the fetched trace replayed ($(grep -Eo '[0-9]+ frames compared: [0-9]+ identical' "$dir/replay.txt"))"
        else
            fail "network: the fetched trace's replay: exit $replay_status"
            grep -v 'ost library' "$dir/replay.txt" | tail -n 5
        fi
        ;;
    *) fail "unknown mode '$tool'" ;;
    esac
done

[ $failures -eq 0 ] && echo "all passed" || echo "$failures failed"
[ $failures -eq 0 ]
