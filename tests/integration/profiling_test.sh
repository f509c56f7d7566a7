#!/bin/bash
# Profiling mode end to end on Mesa: a real program runs with the library in profiling mode while
# `kalvoren perf` is attached. (1) The counters it shows add up, frame by frame, to what a trace of
# the same program says it called. (2) Each override, switched on by the configuration, changes the
# frame as it should, and switched off by `kalvoren perf --set` part-way through, gives back the
# application's own frame byte for byte.
#   profiling_test.sh PROGRAM BUILD_DIR
set -euo pipefail
program=$1
build=$(cd "$2" && pwd)
kalvoren=$build/bin/kalvoren
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
export EGL_PLATFORM=surfaceless
frames=8

"$program" --frames $frames --dump ref >/dev/null

# Runs the program profiled, with the given overrides in the configuration and perf arguments.
profiled() {
    local name=$1 overrides=$2
    shift 2
    mkdir -p "$name"
    printf '{"*": {"Profiling": {"Enabled": true, %s"Overrides": {%s}}}}\n' "${profiling_keys:-}" "$overrides" \
        >"$name/kalvorenconfig.json"
    (cd "$name" && "$kalvoren" perf --wait 30 --csv counters.csv "$@" >perf.out 2>perf.err) &
    local perf=$!
    sleep 0.2
    (cd "$name" && LD_LIBRARY_PATH=$build/lib "$program" --frames $frames --sleep 40 --dump frame ${program_args:-} \
        >app.out 2>app.err)
    wait $perf
}

# (1) Counters against the trace of a separate run.
"$kalvoren" record -o trace.kalvoren -- "$program" --frames $frames >/dev/null 2>&1
"$kalvoren" info --top 0 trace.kalvoren >info.txt
profiling_keys='"FunctionTimelineLevel": 2, ' profiled counting "" --timeline timeline.json
python3 - info.txt counting/counters.csv $frames <<'PY'
import csv, re, sys
calls = {}
for line in open(sys.argv[1]):
    m = re.match(r'\s+(\d+)\s+(\S+)$', line)
    if m: calls[m.group(2)] = int(m.group(1))
rows = list(csv.DictReader(open(sys.argv[2])))
frames = int(sys.argv[3])
assert len(rows) == frames + 1, f"{len(rows)} rows for {frames} frames and the end"
total = {k: sum(int(r[k]) for r in rows) for k in rows[0] if k != 'frame'}
c = lambda n: calls.get(n, 0)
expect = {
    "Non-indexed draw calls": c("glDrawArrays"),
    "Indexed draw calls": c("glDrawElements"),
    "Triangle no. (list)": 2 * c("glDrawArrays"),
    "Total triangle no.": 2 * c("glDrawArrays"),
    "Uniform uploads": c("glUniform1f") + c("glUniform2f") + c("glUniform4f"),
    "Program links": c("glLinkProgram"),
    "Texture uploads": c("glTexImage2D"),
    "Texture uploads (bytes)": 16 * 16 * 4 * c("glTexImage2D"),
    "Buffer object uploads (bytes)": 256 * c("glBufferData"),
    "Viewport calls": c("glViewport"),
    "Frame buffer accesses": (1 + 64 * 64 * 4) * c("glReadPixels"),
    "Framebuffer access (bytes)": 0,
    "Context binds": c("eglMakeCurrent"),
}
expect_compiles = c("glCompileShader")
bad = [f"{k}: perf {total[k]}, trace {v}" for k, v in expect.items() if total[k] != v]
if total["Vertex shader compiles"] + total["Fragment shader compiles"] != expect_compiles: bad.append("compiles")
# Every frame after the first draws the same: five draws, ten triangles.
for r in rows[1:frames]:
    if int(r["Non-indexed draw calls"]) != 5 or int(r["Triangle no. (list)"]) != 10: bad.append(f"frame {r['frame']}")
if bad: sys.exit("counters differ from the trace: " + "; ".join(bad))
print(f"counters match the trace over {frames} frames ({total['Total API calls']} calls counted)")
PY
# The function timeline of that run (level 2: frame ends and the calls that hand the driver work):
# one span per such call, each ending after it began, on a named thread.
python3 - counting/timeline.json info.txt <<'PY'
import json, re, sys
events = json.load(open(sys.argv[1]))["traceEvents"]
calls = {}
for line in open(sys.argv[2]):
    m = re.match(r'\s+(\d+)\s+(\S+)$', line)
    if m: calls[m.group(2)] = int(m.group(1))
spans, open_span = {}, None
for e in events:
    if e["ph"] == "B":
        assert open_span is None, "a span began inside another"
        open_span = e
    elif e["ph"] == "E":
        assert open_span is not None and e["ts"] >= open_span["ts"] and e["tid"] == open_span["tid"], e
        name = open_span["name"].split(",")[0]
        assert re.match(r"\w+, Display \d+, Context \d+$", open_span["name"]), open_span["name"]
        spans[name] = spans.get(name, 0) + 1
        open_span = None
threads = [e for e in events if e["ph"] == "M" and e["args"]["name"].startswith("Thread ")]
want = {n: calls.get(n, 0) for n in ["glDrawArrays", "eglSwapBuffers", "glReadPixels", "glBufferData",
                                     "glTexImage2D", "glCompileShader", "glLinkProgram"]}
got = {n: spans.get(n, 0) for n in want}
if got != want or "glUniform4f" in spans or not threads:
    sys.exit(f"timeline spans {got}, calls {want}, threads {len(threads)}, all {sorted(spans)}")
print(f"timeline: {sum(spans.values())} spans on {len(threads)} thread(s)")
PY

# (2) Overrides in pixels: on from the configuration, off from frame 3 on.
profiled draws '"DisableDrawCalls": true' --set "Disable draw calls=0@3"
profiled viewport '"ForceViewport": true' --set "Force zero viewport=0@3"
profiled depth '"DisableDepthTest": true' --set "Disable depth test=0@3"
profiled blending '"DisableBlending": true' --set "Disable blending=0@3"
profiled front '"CullingMode": 3' --set "Culling mode=0@3"
profiled back '"CullingMode": 2'
profiled tiny '"Force2x2Textures": true' --set "Force 2x2 textures=0@3"
profiled reads '"DisableFBAccess": true' --set "Disable frame buffer accesses=0@3"
profiled flat '"ForceFlatColourFrag": true' --set "Force flat colour frag shader=0@3"
# The same with the programs linked in one context and drawn in a second one sharing them.
program_args=--shared profiled shared '"ForceFlatColourFrag": true' --set "Force flat colour frag shader=0@3"
profiled discard '"DisableAlphaTest": true' --set "Disable discard / alpha test=0@3"
# The configuration's "*" section sets a culling mode, the program's own an unknown one: the
# program's value is read as 0 (app defined), so nothing is culled.
mkdir -p sections
printf '{"*": {"Profiling": {"Enabled": true, "Overrides": {"CullingMode": 2}}}, "%s": {"Profiling": {"Enabled": true, "Overrides": {"CullingMode": 7}}}}\n' \
    "$(basename "$program")" >sections/kalvorenconfig.json
(cd sections && "$kalvoren" perf --wait 30 --csv counters.csv >perf.out 2>perf.err) &
perf=$!
sleep 0.2
(cd sections && LD_LIBRARY_PATH=$build/lib "$program" --frames $frames --dump frame >app.out 2>app.err)
wait $perf

# An OpenGL ES 3.1 program (transform feedback, uniform blocks, "#version 300 es" and "310 es"
# shaders, checking glGetError) runs to its end with both shader overrides on: the copies never
# put an error in its way.
es3=$(dirname "$program")/es3_program
if [[ -x $es3 ]]; then
    mkdir -p es3
    printf '{"*": {"Profiling": {"Enabled": true, "Overrides": {"ForceFlatColourFrag": true, "DisableAlphaTest": true}}}}\n' \
        >es3/kalvorenconfig.json
    (cd es3 && LD_LIBRARY_PATH=$build/lib "$es3" >app.out 2>app.err) || {
        tail -5 es3/app.err
        echo "es3_program failed with the shader overrides on"
        exit 1
    }
fi

python3 - $frames <<'PY'
import sys
frames = int(sys.argv[1])
S = 64
def load(path):
    return open(path, 'rb').read()
def px(d, x, y):
    i = (y * S + x) * 4
    return tuple(d[i:i + 4])
ref = load('ref.0.rgba')
clear = px(ref, 1, 1)
bad = []
def check(name, ok, what):
    if not ok: bad.append(f"{name}: {what}")
def first(name): return load(f'{name}/frame.0.rgba')
def last(name): return load(f'{name}/frame.{frames - 1}.rgba')
only_clear = lambda d: all(px(d, x, y) == clear for x in range(S) for y in range(S))
for name in ['draws', 'viewport', 'front']:
    check(name, only_clear(first(name)), "the first frame is not only the clear colour")
check('depth', px(first('depth'), 28, 28) == (0, 255, 0, 255), f"overlap is {px(first('depth'), 28, 28)}")
check('blending', px(first('blending'), 55, 55)[:3] == (0, 0, 255), f"blended pixel is {px(first('blending'), 55, 55)}")
check('tiny', px(first('tiny'), 55, 10) == (128, 128, 128, 255), f"textured pixel is {px(first('tiny'), 55, 10)}")
check('reads', first('reads') == bytes(S * S * 4), "glReadPixels was not skipped")
check('back', first('back') == ref, "back-face culling changed front faces")
check('sections', first('sections') == ref, "a CullingMode above 3 was not taken as 0")
# Flat colours: every pixel a program draws has that program's one colour, blended or not, its
# discards gone; the second program (top left, placed by a vertex-shader uniform) has another.
for name in ['flat', 'shared']:
    flat = first(name)
    one = {px(flat, x, y) for x, y in [(10, 10), (28, 28), (55, 55), (55, 10)]}
    two = {px(flat, x, y) for x, y in [(4, 52), (18, 52)]}
    check(name, len(one) == 1 and len(two) == 1 and one != two and clear not in one | two,
          f"first program {one}, second {two}")
    check(name, px(flat, 1, 52) == clear and px(flat, 24, 52) == clear, "the second program's quad moved")
# Discard-free: what the second program discarded is magenta, the rest of the frame its own.
nodiscard = first('discard')
check('discard', px(ref, 4, 52) == clear and px(nodiscard, 4, 52) == (255, 0, 255, 255),
      f"discarded pixel is {px(nodiscard, 4, 52)}")
check('discard', all(px(nodiscard, x, y) == px(ref, x, y) for x in range(S) for y in range(S)
                     if not (x < 12 and 40 <= y <= 62)), "pixels outside the discarded part changed")
for name in ['draws', 'viewport', 'depth', 'blending', 'front', 'tiny', 'reads', 'flat', 'shared', 'discard']:
    check(name, first(name) != ref, "the override changed nothing")
    check(name, last(name) == load(f'ref.{frames - 1}.rgba'), "switched off, the frame is not the application's own")
if bad: sys.exit("overrides: " + "; ".join(bad))
print("overrides change exactly what they should and switching them off restores the frame")
PY
