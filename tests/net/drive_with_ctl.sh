#!/usr/bin/env bash
# Drives net_server_program with `kalvoren ctl` over loopback: it waits for the client, records
# after `start`, and the fetched trace is byte-identical to the one on its disk. In the Windows
# build the program runs under Wine and the client is the Linux build's `kalvoren`.
#   drive_with_ctl.sh KALVOREN PROGRAM [EMULATOR...]   (exit 77: no Linux kalvoren to drive it)
set -u
kalvoren=$(realpath -m "$1")
program=$(realpath -m "$2")
shift 2
[ -x "$kalvoren" ] || { echo "skipped: no Linux kalvoren at $kalvoren (build the Linux tree first)"; exit 77; }
work=$(mktemp -d)
app=""
trap '[ -n "$app" ] && kill "$app" 2>/dev/null; rm -rf "$work"' EXIT
fail() {
    echo "FAIL: $*"
    for f in "$work"/*.txt; do [ -f "$f" ] && { echo "---- $f"; tail -30 "$f"; }; done
    exit 1
}
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
cd "$work"
"$@" "$program" "$port" trace.kalvoren 300 >"$work/app.txt" 2>&1 &
app=$!
"$kalvoren" ctl --timeout 60 127.0.0.1:$port start wait 2 fetch -o "$work/fetched.kalvoren" >"$work/ctl.txt" 2>&1 ||
    fail "kalvoren ctl failed"
grep -q "Start Recording" "$work/ctl.txt" || fail "no 'Start Recording'"
grep -q "Finished sending trace file" "$work/ctl.txt" || fail "the trace was not sent"
cmp "$work/fetched.kalvoren" "$work/trace.kalvoren" || fail "the fetched trace differs from the one on disk"
wait "$app"
status=$?
app=""
[ $status -eq 0 ] || fail "the program ended with status $status"
grep -q "net_server_program: 300 frames" "$work/app.txt" || fail "the program did not run its frames"
echo "ok: $(grep -o '[0-9]* recorded' "$work/app.txt") of 300 frames, $(stat -c %s "$work/fetched.kalvoren") bytes fetched identical"
