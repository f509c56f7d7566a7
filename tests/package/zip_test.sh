#!/usr/bin/env bash
# The Windows zip as a user gets it, on a real Windows driver: the zip made by CPack from this
# build is unpacked into a fresh folder; Mesa's Windows build (scripts/mesa-windows) is installed
# in the system32 of a Wine prefix of this test's own; a window-surface ES2 program runs there
# untraced, then with the zip's kalvoren.dll and fronts copied next to it as README.txt says,
# recorded by the zip's kalvoren.exe. Its frames must equal the untraced ones byte for byte, the
# zip's kalvoren.exe must read the trace back with no problems, and replay it to the same frames.
# Nothing comes from the build tree but the zip and the program.
#
#   zip_test.sh BUILD_DIR PROGRAM_EXE     (PROGRAM_EXE: tests/windows/win_gles_program's binary)
#
# Runs under an X display (xvfb-run): Mesa's Windows driver draws only to window surfaces here.
# Exit status 77 (skipped) without the driver (KV_MESA_WINDOWS_DIR, which scripts/test sets after
# building or finding it), without a display, or without cpack.
set -u
usage="usage: zip_test.sh BUILD_DIR PROGRAM_EXE"
build=$(cd "${1:?$usage}" && pwd)
program=${2:?$usage}
mesa=${KV_MESA_WINDOWS_DIR:-}
skip() {
    echo "skipped: $*"
    exit 77
}
[ -n "$mesa" ] && [ -f "$mesa/libEGL.dll" ] ||
    skip "no Mesa Windows driver: KV_MESA_WINDOWS_DIR is unset or holds no libEGL.dll (scripts/test windows builds the driver with scripts/mesa-windows and sets it)"
[ -n "${DISPLAY:-}" ] || skip "no X display for the program's window (run under xvfb-run)"
command -v cpack >/dev/null || skip "cpack is not installed"

work=$(mktemp -d)
export WINEPREFIX=$work/prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" KALVOREN_NO_MESSAGE_BOX=1
wine=/usr/lib/wine/wine64
cleanup() {
    /usr/lib/wine/wineserver -k >/dev/null 2>&1
    [ -n "${KV_KEEP_WORK:-}" ] || rm -rf "$work"
}
trap cleanup EXIT
fail() {
    echo "FAIL: $*"
    for f in "$work"/*.txt "$work"/run-*/*.txt; do [ -f "$f" ] && { echo "---- $f"; tail -n 15 "$f"; }; done
    exit 1
}
winpath() { printf 'Z:%s' "${1//\//\\}"; }

# The zip, unpacked into a folder of its own.
(cd "$build" && cpack -G ZIP -B "$work/dist") >"$work/cpack.txt" 2>&1 || fail "cpack could not make the zip"
zip=$(ls "$work"/dist/kalvoren-*-windows-x64.zip 2>/dev/null) || fail "no kalvoren-*-windows-x64.zip"
python3 -m zipfile -e "$zip" "$work/unpacked" || fail "the zip does not unpack"
kalvoren_exe=$(ls "$work"/unpacked/*/kalvoren.exe 2>/dev/null | head -n 1)
[ -n "$kalvoren_exe" ] || fail "no folder with kalvoren.exe in the zip"
dir=$(dirname "$kalvoren_exe")
for f in kalvoren.dll libEGL.dll libGLESv2.dll libGLES_CM.dll libGLESv1_CM.dll OpenCL.dll README.txt; do
    [ -f "$dir/$f" ] || fail "the zip has no $f next to kalvoren.exe"
done
[ -z "$(find "$work/unpacked" -name '*.a')" ] || fail "the zip holds import libraries"

# The driver as its installer would put it: in system32 of a fresh prefix (the first wine64 call
# creates it; one wineserver serves the whole test). Mesa's opengl32.dll stays out: in system32
# it would take the place of Wine's own.
/usr/lib/wine/wineserver -p </dev/null >/dev/null 2>&1
"$wine" cmd /c exit </dev/null >/dev/null 2>&1
system32=$WINEPREFIX/drive_c/windows/system32
[ -d "$system32" ] || fail "Wine did not create $system32"
for dll in "$mesa"/*.dll; do
    [ "$(basename "$dll")" = opengl32.dll ] || cp "$dll" "$system32/"
done

# The program alone in its folder: the pixels it draws straight on the driver.
mkdir -p "$work/app" "$work/run-plain" "$work/run-traced"
cp "$program" "$work/app/"
app=$(winpath "$work/app/$(basename "$program")")
(cd "$work/run-plain" && timeout 300 "$wine" "$app" es2 . </dev/null >out.txt 2>err.txt) ||
    fail "the program alone on the driver exited $?"
frames=$(ls "$work"/run-plain/es2-frame-*.rgba 2>/dev/null | wc -l)
[ "$frames" -gt 0 ] || fail "the program alone wrote no frames"
grep -q softpipe "$work/run-plain/err.txt" || fail "the program did not run on Mesa's softpipe"

# Recorded as README.txt tells: the library and the fronts the program uses next to its .exe,
# the program run through the zip's kalvoren.exe, which then shows the trace's summary (`kalvoren
# info`, read back from the file).
cp "$dir/kalvoren.dll" "$dir/libEGL.dll" "$dir/libGLESv2.dll" "$work/app/"
# The Windows build ends its lines with CR LF.
(cd "$work/run-traced" && timeout 300 "$wine" "$kalvoren_exe" record --save-frames -o app.kalvoren -- "$app" es2 . \
    </dev/null 2>&1 | tr -d '\r' >record.txt
exit "${PIPESTATUS[0]}") || fail "kalvoren.exe record exited $?"
for f in "$work"/run-plain/es2-frame-*.rgba; do
    cmp -s "$f" "$work/run-traced/$(basename "$f")" || fail "traced, $(basename "$f") differs from the untraced run"
done
[ -s "$work/run-traced/app.kalvoren" ] || fail "kalvoren.exe record wrote no trace"
summary=$work/run-traced/record.txt
grep -q '^Problems: *none' "$summary" || fail "kalvoren.exe finds problems in the trace"
grep -q '^Platform: .*Windows' "$summary" || fail "the trace has no Windows header"
grep -Eq "^Frames: *$frames( |$)" "$summary" || fail "the trace does not hold the program's $frames frames"
grep -Eq ' glVertexAttribPointer$' "$summary" || fail "the program's GLES calls are not in the trace"

# The same driver replays the trace to the frames saved in it, which equal the program's own.
(cd "$work/run-traced" && timeout 300 "$wine" "$kalvoren_exe" replay --window app.kalvoren </dev/null 2>&1 |
    tr -d '\r' >replay.txt
exit "${PIPESTATUS[0]}") || fail "kalvoren.exe replay exited $?"
grep -Eq "; $frames frames compared: $frames identical$" "$work/run-traced/replay.txt" ||
    fail "kalvoren.exe replay did not give the $frames recorded frames"

echo "ok: $(basename "$zip") ($(stat -c %s "$zip") bytes) unpacked; on Mesa's Windows driver in a fresh prefix,"
echo "    the program recorded by the zip's kalvoren.exe drew its $frames frames identical to the untraced run,"
echo "    its trace reads back with no problems and replays to the same $frames frames"
