#!/usr/bin/env bash
# A real program on Mesa driven over TCP by `kalvoren ctl`: it waits for the client before its first
# call, records from the frame after `start`, holds its frames while paused, hands over a trace
# byte-identical to the one on its disk that the player replays to the frames it saved, and runs on
# unrecorded when the client goes away while it records.
#   network_control.sh FRAMES_PROGRAM BUILD_DIR
set -u
program=$1
build=$2
kalvoren=$build/bin/kalvoren
work=$(mktemp -d)
app=""
trap '[ -n "$app" ] && kill "$app" 2>/dev/null; [ -n "${KV_KEEP_WORK:-}" ] || rm -rf "$work"' EXIT
fail() {
    echo "FAIL: $*"
    for f in "$work"/*.txt "$work"/*.err; do [ -f "$f" ] && { echo "---- $f"; tail -40 "$f"; }; done
    exit 1
}

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
cat >"$work/config.json" <<JSON
{ "*": { "Tracing": { "OutputFilename": "$work/app.kalvoren", "SaveFrameBuffer": true },
         "Network": { "Enabled": true, "Wait": true, "Port": $port, "Address": "127.0.0.1" } } }
JSON
KALVOREN_CONFIG=$work/config.json LD_LIBRARY_PATH=$build/lib "$program" --frames 500 --sleep 20 \
    >"$work/app.txt" 2>"$work/app.err" &
app=$!

# Wait on: the program holds its first call until a client comes.
for _ in $(seq 1 300); do
    grep -q "Waiting for Client..." "$work/app.err" 2>/dev/null && break
    sleep 0.2
done
sleep 1
kill -0 "$app" 2>/dev/null || fail "the program ended before a client came"
grep -q "Waiting for Client..." "$work/app.err" || fail "the program does not wait for the client"
grep -q "frames_program:" "$work/app.txt" && fail "the program ran without waiting"

"$kalvoren" ctl 127.0.0.1:$port start wait 2 pause wait 3 resume wait 1 fetch -o "$work/fetched.kalvoren" \
    >"$work/ctl.txt" 2>"$work/ctl.err" || fail "kalvoren ctl failed"
for line in "Connected to 127.0.0.1:$port" "Acknowledged: start" "Start Recording" "Saving Render State... Done" \
    "Status: paused, recording" "Acknowledged: resume" "Closing Trace - Footer" \
    "Starting to send trace file '$work/app.kalvoren', Size" "Transferring... " "Finished sending trace file." \
    "it reads back as a whole trace"; do
    grep -qF "$line" "$work/ctl.txt" || fail "no '$line' from kalvoren ctl"
done
cmp "$work/fetched.kalvoren" "$work/app.kalvoren" || fail "the fetched trace differs from the one on disk"

# Recording starts with a frame after the one that saw the start command (the frame that saw it
# may have sent no "Playing" line yet), at that frame's first call: the program's first call of
# frame F is glDisable, and its glScissor has x = F * 3 % 48.
started=$(awk '/^Playing... frame/ {n=$3} /^Acknowledged: start/ {print n; exit}' "$work/ctl.txt")
first=$(awk '/^Recording... frame/ {print $3; exit}' "$work/ctl.txt")
[ -n "$started" ] && [ -n "$first" ] && [ "$first" -gt "$started" ] && [ "$first" -le $((started + 2)) ] ||
    fail "start at frame $started, recording from frame $first"
"$kalvoren" dump "$work/fetched.kalvoren" >"$work/dump.txt" 2>&1 || fail "the fetched trace does not read back"
# The render-state snapshot comes first, between its two markers; the frame's own calls follow.
awk '/snapshot begins/ && !b {b=NR} /snapshot ends/ && !e {e=NR; next} e && /glDisable|glScissor/ && !x {x=$0} e && /glScissor/ {print x; print; exit} END {if (!(b && e > b)) exit 1}' \
    "$work/dump.txt" >"$work/first.txt" || fail "no render-state snapshot at the start of the trace"
grep -q "glDisable(cap=GL_SCISSOR_TEST)" <(head -1 "$work/first.txt") || fail "the trace does not start at a frame's first call"
grep -q "glScissor(x=$((first * 3 % 48))," "$work/first.txt" || fail "the trace does not start with frame $first"
# No frame passes while paused.
awk '/^Status: paused/ {p=1} /^Acknowledged: resume/ {p=0} p && /frame/ {bad=1} END {exit bad}' "$work/ctl.txt" ||
    fail "frames went on while paused"
recorded_frames=$("$kalvoren" info "$work/fetched.kalvoren" | awk '/^Frames:/ {print $2; exit}')
# A trace started mid-run replays from its snapshot alone, every saved frame identical.
"$kalvoren" replay "$work/fetched.kalvoren" >"$work/replay.txt" 2>&1 || fail "the fetched trace does not replay to its saved frames"
grep -Eq "; ([1-9][0-9]*) frames compared: \1 identical$" "$work/replay.txt" || fail "the player did not find every saved frame identical"

# The client goes away while the program records: it runs on, unrecorded, and ends normally; what
# was recorded is a whole trace.
"$kalvoren" ctl 127.0.0.1:$port start wait 2 >"$work/ctl2.txt" 2>&1 || fail "the second kalvoren ctl failed"
wait "$app"
status=$?
app=""
[ $status -eq 0 ] || fail "the program ended with status $status"
grep -q "frames_program: 500 frames" "$work/app.txt" || fail "the program did not draw all its frames"
"$kalvoren" info "$work/app.kalvoren" >"$work/info2.txt" 2>&1 || fail "the trace left by the lost client does not read back"
echo "ok: waited for the client, recorded from frame $first (${recorded_frames:-?} frames), paused, fetched $(stat -c %s "$work/fetched.kalvoren") identical bytes, survived the client's going"
