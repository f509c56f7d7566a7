#!/usr/bin/env bash
# An OpenGL ES 1.1 program through the front libraries on Mesa: the same pixels and answers traced
# and untraced, a trace that reads back with no problems and holds every byte of every client array
# the draws read, and that replays to the frames the program drew (saved in the trace).
#
#   es1_test.sh BUILD_DIR ES1_PROGRAM
set -u
build=$(cd "${1:?usage: es1_test.sh BUILD_DIR ES1_PROGRAM}" && pwd)
program=${2:?usage: es1_test.sh BUILD_DIR ES1_PROGRAM}
kalvoren=$build/bin/kalvoren
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL $*"; failures=$((failures + 1)); }
pass() { echo "ok   $*"; }
export EGL_PLATFORM=surfaceless

(cd "$work" && "$program" 3 plain.rgba expected.bin >plain.out 2>&1)
plain=$?
cat >"$work/config.json" <<JSON
{ "*": { "Tracing": { "OutputFilename": "$work/es1.kalvoren", "SaveFrameBuffer": true, "EndFrame": 100 } } }
JSON
(cd "$work" && KALVOREN_CONFIG=$work/config.json LD_LIBRARY_PATH=$build/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} \
    "$program" 3 traced.rgba >traced.out 2>"$work/traced.err")
traced=$?

[ $plain -eq 0 ] && [ $traced -eq 0 ] && pass "exit status 0 both ways" ||
    fail "exit status: plain $plain, traced $traced"
cmp -s "$work/plain.rgba" "$work/traced.rgba" && pass "pixels identical traced and untraced" ||
    fail "pixels differ traced and untraced"
# The program's view: the same strings (the renderer with the recorder's version) and errors.
sed 's/ + Kalvoren v[^ ]* ([^)]*)//' "$work/traced.out" | cmp -s - "$work/plain.out" &&
    grep -q '+ Kalvoren v' "$work/traced.out" && pass "same strings and errors; version appended to GL_RENDERER" ||
    { fail "the program saw something else traced"; diff "$work/plain.out" "$work/traced.out"; }
grep -q 'OpenGL ES 2 state' "$work/traced.err" && fail "ES1 calls reached the ES2 state"

"$kalvoren" info "$work/es1.kalvoren" >"$work/info.txt" 2>&1
grep -q '^Problems: *none' "$work/info.txt" && pass "trace reads back with no problems" ||
    { fail "trace problems"; grep -A5 Problems "$work/info.txt"; }

# Every client array byte: the blocks of draws A and B against what the program passed.
"$kalvoren" dump --json --function glDrawArrays,glDrawElements "$work/es1.kalvoren" >"$work/draws.json"
python3 - "$work/draws.json" "$work/es1.kalvoren" "$work/expected.bin" <<'PY' && pass "every client array byte of every draw is in the trace" || fail "client arrays"
import json, sys
draws = [json.loads(l) for l in open(sys.argv[1])]
trace = open(sys.argv[2], "rb").read()
expected = open(sys.argv[3], "rb").read()
sizes = {0: 72, 1: 72, 2: 96, 8: 48, 9: 24}
offsets, at = {}, 0
for key in (0, 1, 2, 8, 9):
    offsets[key] = expected[at:at + sizes[key]]
    at += sizes[key]
checked = 0
for d in draws:
    parts = d["args"]["arrays"]["parts"]
    blocks = {b["part"]: b for b in d["blocks"]}
    attribs = {p["index"]: (i, p) for i, p in enumerate(parts) if p["kind"] == "attrib"}
    indices = [p for p in parts if p["kind"] == "indices"]
    if indices and indices[0].get("count", 0) > 0:
        b = blocks[0]
        got = trace[b["offset"]:b["offset"] + b["size"]]
        assert got == bytes([5, 0, 3, 1]), ("indices", got)
    if not attribs:
        assert indices and indices[0].get("count", 0) == 0, "a buffer draw recorded arrays"
        continue
    assert sorted(attribs) == [0, 1, 2, 8, 9], sorted(attribs)
    for key, (i, p) in attribs.items():
        b = blocks[i]
        got = trace[b["offset"]:b["offset"] + b["size"]]
        assert not b["compressed"] and got == offsets[key], (d["index"], key, len(got))
        checked += 1
assert checked == 30, checked  # 5 arrays, 2 draws, 3 frames
PY

"$kalvoren" replay "$work/es1.kalvoren" >"$work/replay.txt" 2>&1
replayed=$?
identical=$(grep -c ': identical$' "$work/replay.txt")
[ $replayed -eq 0 ] && [ "$identical" = 3 ] && pass "replayed: 3 frames identical to the frames the program drew" ||
    { fail "replay: exit $replayed, $identical of 3 frames identical"; tail -5 "$work/replay.txt"; }

[ $failures -eq 0 ] || exit 1
