#!/usr/bin/env bash
# OpenGL ES 1.1 programs through the front libraries on Mesa:
#
# es1    es1_program: the same pixels and answers traced and untraced, a trace with no problems that
#        holds every byte of every client array the draws read, and that replays to the frames the
#        program drew
# oes    framebuffer objects, a buffer written through glMapBufferOES, a point size array and a
#        multi-draw: the same pixels traced and untraced, a trace with no problems that holds what
#        each mapping held and every array byte the draws read, and that replays to the frames the
#        program drew
# mixed  an ES1 context and an ES2 context drawing at the same time on two threads: both recorded,
#        both replayed to the frames they drew
# late   the ES1 programs (this one, alone and mixed, and es1_program) recorded from a later frame:
#        the trace starts with the snapshot of what they made and set before, and replays to the
#        frames they drew
#
#   es1_oes_test.sh BUILD_DIR PROGRAM ES1_PROGRAM [es1|oes|mixed|late]...     (default: all)
set -u
build=$(cd "${1:?usage: es1_oes_test.sh BUILD_DIR PROGRAM [PART]...}" && pwd)
program=${2:?usage: es1_oes_test.sh BUILD_DIR PROGRAM ES1_PROGRAM [PART]...}
es1_program=${3:?usage: es1_oes_test.sh BUILD_DIR PROGRAM ES1_PROGRAM [PART]...}
shift 3
parts=("$@")
[ ${#parts[@]} -eq 0 ] && parts=(es1 oes mixed late)
kalvoren=$build/bin/kalvoren
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL $*"; failures=$((failures + 1)); }
pass() { echo "ok   $*"; }
export EGL_PLATFORM=surfaceless
frames=3

# traced NAME JSON_SETTINGS -- [PROGRAM] ARGS...: runs the program (by default the OES one) traced
# into $work/NAME.kalvoren.
traced() {
    local name=$1 extra=${2:-, \"EndFrame\": 100} run=$program
    shift 3
    [ -x "${1:-}" ] && { run=$1; shift; }
    cat >"$work/$name.json" <<JSON
{ "*": { "Tracing": { "OutputFilename": "$work/$name.kalvoren", "SaveFrameBuffer": true $extra } } }
JSON
    (cd "$work" && KALVOREN_CONFIG=$work/$name.json \
        LD_LIBRARY_PATH=$build/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} timeout 120 "$run" "$@" >"$name.out" 2>"$name.err")
}

# checked NAME FRAMES [MORE]: the trace reads back with no problems and replays to FRAMES identical
# frames (with MORE, up to MORE further ones, all identical).
checked() {
    local name=$1 want=$2 more=${3:-0}
    "$kalvoren" info "$work/$name.kalvoren" >"$work/$name.info" 2>&1
    grep -q '^Problems: *none' "$work/$name.info" && pass "$name: trace reads back with no problems" ||
        { fail "$name: trace problems"; grep -A5 Problems "$work/$name.info"; }
    "$kalvoren" replay "$work/$name.kalvoren" >"$work/$name.replay" 2>&1
    local replayed=$? identical
    identical=$(grep -c ': identical$' "$work/$name.replay")
    if [ "$more" -gt 0 ] && [ "$identical" -gt "$want" ] && [ "$identical" -le $((want + more)) ] &&
        ! grep -q ': differs' "$work/$name.replay"; then
        want=$identical
    fi
    [ $replayed -eq 0 ] && [ "$identical" = "$want" ] &&
        pass "$name: replayed, $want frames identical to the frames the program drew" ||
        { fail "$name: replay exit $replayed, $identical of $want frames identical"; tail -5 "$work/$name.replay"; }
}

for part in "${parts[@]}"; do
    case $part in
    es1)
        # es1_program alone: every client array byte of its draws from client memory (A and B) in
        # the trace, none for the draw from buffers (C).
        (cd "$work" && "$es1_program" $frames plain1.rgba expected1.bin >plain1.out 2>&1)
        plain=$?
        traced es1 "" -- "$es1_program" $frames "$work/es1.rgba"
        status=$?
        [ $plain -eq 0 ] && [ $status -eq 0 ] && pass "es1: exit status 0 both ways" ||
            { fail "es1: exit status plain $plain, traced $status"; cat "$work/es1.err"; }
        cmp -s "$work/plain1.rgba" "$work/es1.rgba" && pass "es1: pixels identical traced and untraced" ||
            fail "es1: pixels differ traced and untraced"
        # The program's view: the same strings (the renderer with the recorder's version) and errors.
        sed 's/ + Kalvoren v[^ ]* ([^)]*)//' "$work/es1.out" | cmp -s - "$work/plain1.out" &&
            grep -q '+ Kalvoren v' "$work/es1.out" && pass "es1: same strings and errors; version appended to GL_RENDERER" ||
            { fail "es1: the program saw something else traced"; diff "$work/plain1.out" "$work/es1.out"; }
        grep -q 'OpenGL ES 2 state' "$work/es1.err" && fail "es1: ES1 calls reached the ES2 state"
        "$kalvoren" dump --json --function glDrawArrays,glDrawElements "$work/es1.kalvoren" >"$work/draws.json"
        python3 - "$work/draws.json" "$work/es1.kalvoren" "$work/expected1.bin" <<'PY' &&
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
            pass "es1: every client array byte of every draw is in the trace" || fail "es1: client arrays"
        checked es1 $frames
        ;;
    oes)
        (cd "$work" && "$program" oes $frames plain.rgba expected.bin >plain.out 2>&1)
        plain=$?
        traced oes "" -- oes $frames "$work/oes.rgba"
        status=$?
        [ $plain -eq 0 ] && [ $status -eq 0 ] && pass "oes: exit status 0 both ways" ||
            { fail "oes: exit status plain $plain, traced $status"; cat "$work/oes.err"; }
        cmp -s "$work/plain.rgba" "$work/oes.rgba" && pass "oes: pixels identical traced and untraced" ||
            fail "oes: pixels differ traced and untraced"
        grep -q 'Unable to record\|state (we may crash)' "$work/oes.err" &&
            { fail "oes: calls went unrecorded or without state"; grep 'Unable\|crash' "$work/oes.err" | head -5; }
        cmp -s "$work/plain.out" "$work/oes.out" && grep -q '^errors 0x500 0x0$' "$work/oes.out" &&
            pass "oes: the program saw the driver's error once, traced as untraced" ||
            fail "oes: the program saw other errors traced"
        "$kalvoren" dump --json --blocks --function glUnmapBufferOES,glMultiDrawArraysEXT,glBindFramebufferOES,glMultiDrawElementsEXT,glHint \
            "$work/oes.kalvoren" >"$work/oes.dump"
        python3 - "$work/oes.dump" "$work/expected.bin" $frames <<'PY' &&
import json, sys
records = [json.loads(l) for l in open(sys.argv[1])]
expected = open(sys.argv[2], "rb").read()
frames = int(sys.argv[3])
unmaps = [r for r in records if r["function"] == "glUnmapBufferOES"]
assert len(unmaps) == frames, len(unmaps)
for f, r in enumerate(unmaps):
    assert r["error"] in (0, "GL_NO_ERROR"), r["error"]
    data = bytes.fromhex(r["blocks"][0]["data"])
    assert data == expected[f * 96:(f + 1) * 96], ("mapping", f)
sizes = expected[frames * 96:frames * 96 + 24]
triangles = expected[frames * 96 + 24:frames * 96 + 72]
colours = expected[frames * 96 + 72:]
points = [r for r in records if r["function"] == "glMultiDrawArraysEXT"]
assert len(points) == frames, len(points)
for r in points:
    parts = r["args"]["arrays"]["parts"]
    keyed = {p["index"]: i for i, p in enumerate(parts) if p["kind"] == "attrib"}
    assert sorted(keyed) == [0, 3], sorted(keyed)  # vertices and point sizes
    block = {b["part"]: b for b in r["blocks"] if "part" in b}[keyed[3]]
    assert bytes.fromhex(block["data"]) == sizes, "point sizes"
multi = [r for r in records if r["function"] == "glMultiDrawElementsEXT"]
assert len(multi) == frames, len(multi)
for r in multi:
    parts = r["args"]["arrays"]["parts"]
    blocks = {b["part"]: b for b in r["blocks"] if "part" in b}
    indices = [bytes.fromhex(blocks[i]["data"]) for i, p in enumerate(parts) if p["kind"] == "indices"]
    assert indices == [bytes([0, 1, 2]), bytes([3, 4, 5])], indices
    keyed = {p["index"]: i for i, p in enumerate(parts) if p["kind"] == "attrib"}
    assert sorted(keyed) == [0, 2], sorted(keyed)  # vertices and colours
    assert bytes.fromhex(blocks[keyed[0]]["data"]) == triangles, "multi-draw vertices"
    assert bytes.fromhex(blocks[keyed[2]]["data"]) == colours, "multi-draw colours"
binds = [r for r in records if r["function"] == "glBindFramebufferOES"]
assert len(binds) == 3 + 2 * frames, len(binds)
bad = [r for r in binds if r["args"]["target"] not in ("GL_FRAMEBUFFER", "GL_FRAMEBUFFER_OES", 0x8D40)]
assert len(bad) == 1 and bad[0]["error"] in ("GL_INVALID_ENUM", 0x500), bad
hints = [r for r in records if r["function"] == "glHint"]
assert len(hints) == 1 and hints[0]["error"] in ("GL_NO_ERROR", 0), hints
PY
            pass "oes: every mapping's contents, every point size and multi-draw array byte in the trace" ||
            fail "oes: trace contents"
        checked oes $frames
        ;;
    mixed)
        (cd "$work" && "$program" mixed $frames plainmixed >plainmixed.out 2>&1)
        plain=$?
        traced mixed "" -- mixed $frames "$work/mixed"
        status=$?
        [ $plain -eq 0 ] && [ $status -eq 0 ] && pass "mixed: exit status 0 both ways" ||
            { fail "mixed: exit status plain $plain, traced $status"; cat "$work/mixed.err"; }
        cmp -s "$work/plainmixed.es1" "$work/mixed.es1" && cmp -s "$work/plainmixed.es2" "$work/mixed.es2" &&
            pass "mixed: pixels of both contexts identical traced and untraced" ||
            fail "mixed: pixels differ traced and untraced"
        grep -q 'state (we may crash)' "$work/mixed.err" &&
            { fail "mixed: a call reached the other family's state"; grep crash "$work/mixed.err" | head -5; }
        checked mixed $((2 * frames))
        ;;
    late)
        # Frames 2 to 4 of 5: everything made in frames 0 and 1 comes from the snapshot.
        late='"StartFrame": 2, "EndFrame": 4, "ExitOnLastFrame": true'
        traced lateoes ", $late" -- oes 6 "$work/lateoes.rgba"
        cat "$work/lateoes.out" "$work/lateoes.err" | grep -q 'Saving Render State... Done' || fail "lateoes: no render state saved"
        checked lateoes 3
        traced latees1 ", $late" -- "$es1_program" 6 "$work/latees1.rgba"
        checked latees1 3
        # Both contexts' state at once, written on whichever thread reaches the start first. Both
        # threads swap in each of the program's frames, so the frame after the last may have begun
        # on one thread while the other still records it: three or four frames.
        traced latemixed ", $late" -- mixed 6 "$work/latemixed"
        checked latemixed 3 1
        ;;
    *)
        fail "unknown part $part"
        ;;
    esac
done
[ $failures -eq 0 ] || exit 1
