#!/usr/bin/env bash
# Runs the bad-input program without and with the library: it must print the same driver answers
# both times, survive, and leave a trace that reads back whole.
#   bad_input.sh PROGRAM BUILD_DIR
set -u
program=$1
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$program" >"$work/plain.txt" || { echo "FAIL: the program fails without the library"; exit 1; }
cat >"$work/config.json" <<JSON
{ "*": { "Tracing": { "OutputFilename": "$work/bad.kalvoren", "EndFrame": 4294967295 } } }
JSON
KALVOREN_CONFIG=$work/config.json LD_LIBRARY_PATH=$build/lib "$program" >"$work/traced.txt" 2>"$work/traced.err"
status=$?
if [ $status -ne 0 ]; then
    echo "FAIL: exit status $status through the library"
    tail -20 "$work/traced.err"
    exit 1
fi
if ! diff -u "$work/plain.txt" "$work/traced.txt"; then
    echo "FAIL: the driver's answers differ through the library"
    exit 1
fi
if ! "$build/bin/kalvoren" info "$work/bad.kalvoren" >"$work/info.txt" 2>&1; then
    echo "FAIL: the trace does not read back whole"
    cat "$work/info.txt"
    exit 1
fi
# An output that is not a file (a pipe here, /dev/null for a user) is left where it is.
mkfifo "$work/pipe"
"$build/bin/kalvoren" record -o "$work/pipe" -- true >/dev/null 2>"$work/pipe.txt"
[ -p "$work/pipe" ] || { echo "FAIL: kalvoren record removed the pipe named as its output"; exit 1; }
grep -q "which is not a file" "$work/pipe.txt" || { echo "FAIL: a pipe as the output was not said to be one"; cat "$work/pipe.txt"; exit 1; }
# A directory is refused before the program runs.
"$build/bin/kalvoren" record -o "$work" -- true >/dev/null 2>"$work/dir.txt" &&
    { echo "FAIL: kalvoren record took a directory as its output"; exit 1; }
grep -q "is a directory" "$work/dir.txt" || { echo "FAIL: a directory as the output was not said to be one"; cat "$work/dir.txt"; exit 1; }
echo "ok: $(grep -c . "$work/plain.txt") answers the same with and without the library"
