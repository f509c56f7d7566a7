"""The player's part of the generator: for every function that a host table resolves and whose
record layout is known, the decoding of its record into C arguments, the call into the local
driver, and the remapping of the names and handles the driver chose (replay/calls_autogen.*).

What a parameter names comes from gl.xml's `class` attribute (buffer, texture, program...), from
the handle types of EGL, and from the `class` lines of records.txt for what gl.xml does not mark
(uniform locations, uniform block indices). What is truly special per function is a hand-written
Hooks<fn::X> specialisation in replay/hooks.h that the generated code calls.
"""

import fnmatch
import re
import xml.etree.ElementTree as ET

# Host tables the player calls through, the accessor of each on the call, and the namespace of the
# tags its functions' hooks are named by (ES1 repeats many ES2 names).
PLAYED_TABLES = {
    "SEglHost": ("egl", "fn"),
    "GLESPPHost": ("gles", "fn"),
    "SEs1Host": ("es1", "es1"),
    "SGlesExtHost": ("glext", "ext"),
    "SClHost": ("cl", "cl"),
}

# gl.xml classes -> the player's object kinds. Shaders and programs share one name space.
OBJECT_KINDS = {
    "buffer": "Buffer", "texture": "Texture", "renderbuffer": "Renderbuffer", "sampler": "Sampler",
    "program": "Program", "shader": "Program", "sync": "Sync", "framebuffer": "Framebuffer",
    "vertex array": "VertexArray", "transform feedback": "TransformFeedback", "query": "Query",
    "program pipeline": "ProgramPipeline",
}
# Classes that records.txt adds: values that belong to a program.
PROGRAM_CLASSES = {"uniform location": "Location", "uniform block": "Block"}

# Handle types that the driver chooses, by the map they are kept in; the other handle types
# (native windows, client buffers, labels) are passed as recorded.
HANDLE_KINDS = {
    "EGLDisplay": "Display", "EGLConfig": "Config", "EGLContext": "Context", "EGLSurface": "Surface",
    "EGLImage": "Image", "EGLImageKHR": "Image", "GLeglImageOES": "Image", "EGLSync": "EglSync",
    "EGLSyncKHR": "EglSync", "EGLSyncNV": "EglSync", "EGLStreamKHR": "Stream", "EGLDeviceEXT": "Device",
    "EGLOutputLayerEXT": "OutputLayer", "EGLOutputPortEXT": "OutputPort",
    "cl_platform_id": "ClPlatform", "cl_device_id": "ClDevice", "cl_context": "ClContext",
    "cl_command_queue": "ClQueue", "cl_mem": "ClMem", "cl_program": "ClProgram", "cl_kernel": "ClKernel",
    "cl_event": "ClEvent", "cl_sampler": "ClSampler",
}


def read_line(rec, line, where, fail):
    """`class FUNC.PARAM CLASS` (FUNC may hold * and ?; PARAM may be `result`)."""
    m = re.match(r"class\s+([\w*?\[\]]+)\.(\w+)\s+(.+)$", line)
    if not m or m.group(3).strip() not in PROGRAM_CLASSES:
        fail(f"{where}: cannot read '{line}'")
    if not hasattr(rec, "classes"):
        rec.classes = []
    rec.classes.append((m.group(1), m.group(2), m.group(3).strip(), where))


def read_gl_classes(gl_xml):
    """{(function, parameter or 'result'): class} from gl.xml."""
    classes = {}
    root = ET.parse(gl_xml).getroot()
    for c in root.find("commands"):
        proto = c.find("proto")
        name = proto.find("name").text
        if proto.get("class"):
            classes[(name, "result")] = proto.get("class")
        for p in c.findall("param"):
            if p.get("class"):
                classes[(name, p.find("name").text)] = p.get("class")
    return classes


def played(funcs, host_table_of, tables):
    return [f for f in funcs if f.params is not None and f.name and host_table_of(f, tables) in PLAYED_TABLES]


def class_of(f, pname, gl_classes, rec):
    for pattern, param, cls, _ in getattr(rec, "classes", []):
        if param == pname and fnmatch.fnmatchcase(f.name, pattern):
            return cls
    return gl_classes.get((f.name, pname))


def check_classes(funcs, rec, fail):
    names = {f.name for f in funcs if f.params is not None}
    for pattern, _, _, where in getattr(rec, "classes", []):
        if not any(fnmatch.fnmatchcase(n, pattern) for n in names):
            fail(f"{where}: no function matches {pattern}")


def handle_kind(ctype):
    base = " ".join(ctype.replace("const", " ").split())
    return HANDLE_KINDS.get(base)


def element_kind(ctype):
    """The handle kind of the elements of an array parameter (`const cl_event *`)."""
    return handle_kind(ctype.replace("*", ""))


def program_expr(f):
    return "p_program" if any(p.name == "program" for p in f.params) else "c.currentProgram()"


def buffer_hint(f):
    """A parameter that bounds what the driver writes into an output buffer, in bytes."""
    for p in f.params:
        if p.name in ("bufSize", "bufsize", "buf_size", "config_size", "param_value_size") and p.depth == 0:
            return p
    return None


def arg_expr(f, i, p, fd, cls, lengths_of):
    ct = p.ctype
    if p.name in lengths_of:  # the lengths of a string array: those of the recorded strings
        if "size_t" in ct:
            return f"reinterpret_cast<{ct}>(c.sizeLengths({lengths_of[p.name]}))"
        return f"reinterpret_cast<{ct}>(c.stringLengths({lengths_of[p.name]}))"
    if fd.kind == "Value":
        if p.decl or (fd.type == "Ptr" and "*" not in ct):
            return "nullptr"  # a callback of the recorded process cannot be called
        if fd.type == "Ptr" and p.name in ("pfn_notify", "user_data", "user_func"):
            # OpenCL callbacks (and what they are given) belong to the recorded process; without a
            # callback the driver reports through the status instead.
            return "nullptr"
        if cls in OBJECT_KINDS and "*" not in ct:
            if fd.type == "Handle":
                return f"c.sync<{ct}>({i})"
            return f"static_cast<{ct}>(c.name(Obj::{OBJECT_KINDS[cls]}, {i}))"
        if cls in PROGRAM_CLASSES:
            return f"static_cast<{ct}>(c.programValue(ProgramValue::{PROGRAM_CLASSES[cls]}, {program_expr(f)}, {i}))"
        if fd.type == "Handle":
            kind = handle_kind(p.ctype)
            if kind:
                return f"c.handle<{ct}>(Handle::{kind}, {i})"
            return f"c.raw<{ct}>({i})"
        if fd.type == "Ptr":
            return f"c.raw<{ct}>({i})"
        if fd.type == "F32":
            return f"c.f32({i})"
        return f"static_cast<{ct}>(c.value({i}))"
    if fd.kind in ("Blob", "Attribs", "Attribs64"):
        if "kOutput" in fd.flags:
            hint = buffer_hint(f)
            hint_arg = f", c.value({f.params.index(hint)})" if hint else ""
            return f"reinterpret_cast<{ct}>(c.out({i}{hint_arg}))"
        if cls in OBJECT_KINDS and fd.type == "U32":
            return f"reinterpret_cast<{ct}>(c.names(Obj::{OBJECT_KINDS[cls]}, {i}))"
        if fd.type == "Handle" and element_kind(ct):
            return f"reinterpret_cast<{ct}>(c.handles(Handle::{element_kind(ct)}, {i}))"
        return f"reinterpret_cast<{ct}>(const_cast<void *>(c.in({i})))"
    if fd.kind == "String":
        return f"reinterpret_cast<{ct}>(c.string({i}))"
    if fd.kind == "StringArray":
        return f"reinterpret_cast<{ct}>(const_cast<const char **>(c.strings({i})))"
    raise ValueError(f"{f.name}.{p.name}: no argument for field kind {fd.kind}")


def after_lines(f, i, p, fd, cls):
    """What the call's outputs tell the player: names and handles the driver chose."""
    if fd.kind != "Blob" or "kOutput" not in fd.flags:
        return []
    if cls in OBJECT_KINDS and fd.type == "U32":
        return [f"    c.createdNames(Obj::{OBJECT_KINDS[cls]}, {i}, p_{p.name});"]
    if fd.type == "Handle":
        elem = p.ctype.replace("*", "").replace("const", "").strip()
        kind = handle_kind(elem)
        if kind:
            return [f"    c.createdHandles(Handle::{kind}, {i}, p_{p.name});"]
    return []


def result_lines(f, cls):
    if f.result == "None":
        return []
    if cls in OBJECT_KINDS:
        if f.result == "Handle":
            return ["    c.createdSync(r);"]
        return [f"    c.createdName(Obj::{OBJECT_KINDS[cls]}, static_cast<uint32_t>(r));"]
    if cls in PROGRAM_CLASSES:
        return [f"    c.createdProgramValue(ProgramValue::{PROGRAM_CLASSES[cls]}, {program_expr(f)}, "
                "static_cast<int64_t>(r));"]
    if f.result == "Handle":
        kind = handle_kind(f.ret)
        if kind:
            return [f"    c.createdHandle(Handle::{kind}, r);"]
    return []


def status_lines(f):
    """An OpenCL call that succeeded when recorded (the others are not made) and fails here is said."""
    if f.result == "ClStatus":
        return ["    c.localStatus(r);"]
    if any(p.name == "errcode_ret" for p in f.params):
        return ["    if (p_errcode_ret) c.localStatus(*p_errcode_ret);"]
    return []


def hook_tag(f, host_table_of, tables):
    """The tag whose hooks a function runs: an extension function that behaves like a core one
    runs that one's (its mappings, its locations), as it does in the recorder."""
    target = f.like if f.like and host_table_of(f.like, tables) in PLAYED_TABLES else f
    return f"{PLAYED_TABLES[host_table_of(target, tables)][1]}::{target.name}"


def emit_function(f, table, gl_classes, rec, hook):
    accessor, ns = PLAYED_TABLES[table]
    out = [f"// {f.id} {f.name}"]
    out.append(f"void play_{f.id}(Call &c) {{")
    out.append(f"    using H = Hooks<{hook}>;")
    out.append(f"    auto host = c.{accessor}().{f.name};")
    out.append("    if (!H::kReplacesCall && !host) return c.missing();")
    lengths_of = {}
    tail = None
    for i, fd in enumerate(f.fields):
        if fd.kind == "StringArray" and fd.expr and len(fd.expr[1]) > 1:
            lengths_of[fd.expr[1][1]] = i
        if fd.kind in ("ArraysTail", "ElementsTail"):
            tail = (i, fd.kind)
    locals_ = []
    for i, p in enumerate(f.params):
        fd = f.fields[i]
        cls = class_of(f, p.name, gl_classes, rec)
        expr = arg_expr(f, i, p, fd, cls, lengths_of)
        if tail and tail[1] == "ElementsTail" and p.name == "indices":
            expr = f"reinterpret_cast<{p.ctype}>(c.indices({tail[0]}, {i}))"
        decl = f"std::nullptr_t p_{p.name}" if p.decl else f"{p.ctype} p_{p.name}"
        out.append(f"    {decl} = {expr};")
        locals_.append(f"p_{p.name}")
    args = ", ".join(locals_)
    hook_args = ", ".join(["c"] + locals_)
    out.append("    if (!c.ok()) return;")
    if tail:
        out.append(f"    if (!c.clientArrays({tail[0]})) return;")
    out.append(f"    if (!H::before({hook_args})) return;")
    call = f"H::call({hook_args})"
    if f.result == "None":
        out.append(f"    if constexpr (H::kReplacesCall) {call}; else host({args});")
    else:
        out.append(f"    {f.ret} r;")
        out.append(f"    if constexpr (H::kReplacesCall) r = {call}; else r = host({args});")
    for i, p in enumerate(f.params):
        out += after_lines(f, i, p, f.fields[i], class_of(f, p.name, gl_classes, rec))
    out += result_lines(f, class_of(f, "result", gl_classes, rec))
    out += status_lines(f)
    after_args = ", ".join(["c"] + (["r"] if f.result != "None" else []) + locals_)
    out.append(f"    H::after({after_args});")
    out.append("}\n")
    return "\n".join(out)


def emit_header(members, host_table_of, tables, banner):
    out = [banner, "// Tags of the functions the player calls, named as the hooks name them (replay/hooks.h).\n",
           "#pragma once\n", "#include <cstdint>\n"]
    by_ns = {}
    for f in members:
        by_ns.setdefault(PLAYED_TABLES[host_table_of(f, tables)][1], []).append(f)
    for ns, group in by_ns.items():
        out.append(f"namespace kv::replay::{ns} {{\n")
        for f in group:
            out.append(f"struct {f.name} {{ static constexpr uint16_t id = {f.id}; }};")
        out.append(f"\n}} // namespace kv::replay::{ns}\n")
    kinds = sorted(set(HANDLE_KINDS.values()))
    out.append("namespace kv::replay {\n")
    out.append("// The maps of driver-chosen handles, one per handle type.")
    out.append("enum class Handle : uint8_t { " + ", ".join(kinds) + ", Count };\n")
    out.append(f"// The functions the player can call: {len(members)}.")
    out.append("extern const uint32_t kPlayedCount;\n")
    out.append("} // namespace kv::replay")
    return "\n".join(out) + "\n"


def emit_source(members, host_table_of, tables, gl_classes, rec, banner):
    out = [banner, "// Every function the player calls: its record decoded into C arguments, the call through the",
           "// host table, and the names and handles it created entered in the player's maps.\n",
           '#include "replay/hooks.h"\n', "namespace kv::replay {\n", "namespace {\n"]
    for f in members:
        out.append(emit_function(f, host_table_of(f, tables), gl_classes, rec, hook_tag(f, host_table_of, tables)))
    out.append("} // namespace\n")
    out.append("const PlayEntry kPlayed[] = {")
    for f in members:
        out.append(f"    {{{f.id}, &play_{f.id}}},")
    out.append("};")
    out.append(f"const uint32_t kPlayedCount = {len(members)};\n")
    out.append("} // namespace kv::replay")
    return "\n".join(out) + "\n"


def emit(funcs, host_table_of, tables, rec, gl_xml, banner, fail):
    check_classes(funcs, rec, fail)
    gl_classes = read_gl_classes(gl_xml)
    members = played(funcs, host_table_of, tables)
    return {
        "replay/calls_autogen.h": emit_header(members, host_table_of, tables, banner),
        "replay/calls_autogen.cpp": emit_source(members, host_table_of, tables, gl_classes, rec, banner),
    }
