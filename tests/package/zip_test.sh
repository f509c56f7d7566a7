#!/usr/bin/env bash
# The Windows zip as a user gets it: made by CPack from the Windows build, unpacked, an ordinary
# MinGW program placed next to the fronts and recorded by the zip's own kalvoren.exe under Wine, the
# trace then read by that kalvoren.exe. The driver is the test host DLL, named in a configuration
# file as README.txt tells users whose driver is not on the search path; nothing comes from the
# build tree but the program and that DLL.
#   zip_test.sh BUILD_DIR PROGRAM_EXE HOST_DLL WINE...   (WINE: the command line that runs a .exe)
set -u
build=$1
program=$2
host=$3
wine=("${@:4}")
work=$(mktemp -d)
trap '[ -n "${KV_KEEP_WORK:-}" ] || rm -rf "$work"' EXIT
fail() {
    echo "FAIL: $*"
    for f in "$work"/*.txt; do [ -f "$f" ] && { echo "---- $f"; tail -30 "$f"; }; done
    exit 1
}
command -v cpack >/dev/null || { echo "SKIPPED: cpack is not installed"; exit 77; }
winpath() { printf 'Z:%s' "${1//\//\\}"; }

(cd "$build" && cpack -G ZIP -B "$work/dist") >"$work/cpack.txt" 2>&1 || fail "cpack could not make the zip"
zip=$(ls "$work"/dist/kalvoren-*-windows-x64.zip 2>/dev/null) || fail "no kalvoren-*-windows-x64.zip"
python3 -m zipfile -e "$zip" "$work/unpacked" || fail "the zip does not unpack"
python3 -m zipfile -l "$zip" >"$work/listing.txt"
dir=$(dirname "$(ls "$work"/unpacked/*/kalvoren.exe 2>/dev/null | head -1)")
[ -f "$dir/kalvoren.exe" ] || fail "no folder with kalvoren.exe in the zip"
for f in kalvoren.dll libEGL.dll libGLESv2.dll libGLES_CM.dll OpenCL.dll README.txt; do
    [ -f "$dir/$f" ] || fail "the zip has no $f next to kalvoren.exe"
done
grep -q '\.a ' "$work/listing.txt" && fail "the zip holds import libraries"

cp "$program" "$dir/"
mkdir -p "$work/driver" "$work/run"
cp "$host" "$work/driver/"
hostdll=$(winpath "$work/driver/$(basename "$host")")
hostdll=${hostdll//\\/\\\\}
cat >"$work/run/config.json" <<JSON
{ "*": { "Host": { "EglLibraryPath": "$hostdll", "Es2LibraryPath": "$hostdll" } } }
JSON
(cd "$work/run" && "${wine[@]}" "$dir/kalvoren.exe" record --config config.json -o app.kalvoren --no-info \
    -- "$(winpath "$dir/$(basename "$program")")") >"$work/record.txt" 2>&1 ||
    fail "kalvoren.exe record failed"
grep -Eq "zip_program: EGL 1\.[0-9], 1 config, 3 frames" "$work/record.txt" || fail "the program did not run through the fronts"
(cd "$work/run" && "${wine[@]}" "$dir/kalvoren.exe" info app.kalvoren) >"$work/info.txt" 2>&1 ||
    fail "kalvoren.exe info cannot read the trace"
grep -q "^Frames: *3" "$work/info.txt" || fail "the trace does not hold the program's 3 frames"
for f in eglCreatePbufferSurface glClear glReadPixels eglSwapBuffers eglTerminate; do
    grep -q "$f" "$work/info.txt" || fail "the trace has no $f"
done
"${wine[@]}" "$dir/kalvoren.exe" --version >"$work/version.txt" 2>&1 || fail "kalvoren.exe --version failed"
echo "ok: $(basename "$zip") ($(stat -c %s "$zip") bytes) unpacked, recorded a MinGW program next to its fronts, read its trace"
