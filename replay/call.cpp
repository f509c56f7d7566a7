#include "replay/call.h"

#include "replay/session.h"

#include <algorithm>
#include <cstdio>

namespace kv::replay {

namespace {

// What a scratch output holds at least: every query answer fits, and so does a small read-back.
constexpr size_t kMinimumOutput = 64 * 1024;

uint32_t componentSize(GLenum type) {
    switch (type) {
    case GL_BYTE:
    case GL_UNSIGNED_BYTE:
        return 1;
    case GL_SHORT:
    case GL_UNSIGNED_SHORT:
    case GL_HALF_FLOAT:
    case GL_HALF_FLOAT_OES:
        return 2;
    default:
        return 4;
    }
}

} // namespace

const SEglHostFns &Call::egl() const {
    return *player.egl;
}
const GLESPPHostFns &Call::gles() const {
    return *player.gles;
}
const SEs1HostFns &Call::es1() const {
    return player.es1();
}
const SGlesExtHostFns &Call::glext() const {
    return SGlesExtHost::get().fn;
}

const SClHostFns &Call::cl() const {
    return SClHost::get().fn;
}

ContextState &Call::context() const {
    return thread.context ? *thread.context : player.noContext;
}

void Call::fail(const char *why) {
    ok_ = false;
    player.problem(e, why);
}

void Call::missing() {
    ok_ = false;
    player.problem(e, std::string("the local driver has no ") + e.name() + "; the call was skipped");
}

void Call::localStatus(int32_t status) {
    if (status == 0) return;
    player.problem(e, "the local driver gave status " + std::to_string(status) +
                          " where the recording succeeded");
}

const uint8_t *Call::block(int i, uint32_t *bytes) const {
    const reader::Arg &a = e.args[static_cast<size_t>(i)];
    if (a.block < 0) {
        if (bytes) *bytes = 0;
        return nullptr;
    }
    const reader::Block &b = e.blocks[static_cast<size_t>(a.block)];
    if (bytes) *bytes = b.size;
    return e.bytes(b);
}

int Call::field(const char *name) const {
    if (!e.desc) return -1;
    for (size_t i = 0; i < e.args.size(); ++i)
        if (std::strcmp(e.args[i].field->name, name) == 0) return static_cast<int>(i);
    return -1;
}

bool Call::bufferBound(GLenum binding) const {
    // Only OpenGL ES 3 has pixel buffers; asking an ES 2 context would raise an error.
    if (context().apiVersion < 3) return false;
    GLint bound = 0;
    gles().glGetIntegerv(binding, &bound);
    return bound != 0;
}

const void *Call::in(int i) {
    const uint8_t *bytes = block(i);
    if (bytes) return bytes;
    const reader::Arg &a = e.args[static_cast<size_t>(i)];
    if (a.value == 0) return nullptr;
    // No bytes for a pointer: an offset into a bound pixel unpack buffer, or data of no size.
    if (a.field->kind == api::Field::Blob && a.field->type == api::Type::U8 &&
        bufferBound(GL_PIXEL_UNPACK_BUFFER_BINDING))
        return reinterpret_cast<const void *>(static_cast<uintptr_t>(a.value));
    if (a.hasCount && a.count > 0) {
        fail("the record lacks the data the call reads");
        return nullptr;
    }
    return nullptr;
}

void *Call::out(int i, uint64_t hint) {
    const reader::Arg &a = e.args[static_cast<size_t>(i)];
    if (a.value == 0) return nullptr; // the application asked for nothing here
    if (a.field->kind == api::Field::Blob && a.field->type == api::Type::U8 && !(a.hasCount && a.count > 0) &&
        bufferBound(GL_PIXEL_PACK_BUFFER_BINDING))
        return reinterpret_cast<void *>(static_cast<uintptr_t>(a.value));
    uint64_t bytes = a.hasCount ? a.count * uint64_t(api::typeWidth(a.field->type)) : 0;
    bytes = std::max<uint64_t>(bytes, std::min<uint64_t>(hint, 1u << 26) * 8);
    return thread.slabs.get(outputs_++, static_cast<size_t>(std::max<uint64_t>(bytes, kMinimumOutput)));
}

const char *Call::string(int i) {
    const reader::Arg &a = e.args[static_cast<size_t>(i)];
    if (a.value == 0) return nullptr;
    uint32_t n = 0;
    const uint8_t *bytes = block(i, &n);
    thread.strings.emplace_back(
        reinterpret_cast<const char *>(bytes ? bytes : reinterpret_cast<const uint8_t *>("")), n);
    return thread.strings.back().c_str();
}

const char *const *Call::strings(int i) {
    const reader::Arg &a = e.args[static_cast<size_t>(i)];
    thread.stringPointers.clear();
    thread.stringLengths.clear();
    if (a.value == 0) return nullptr;
    for (uint32_t k = 0; k < a.partCount; ++k) {
        const reader::Part &p = e.parts[a.firstPart + k];
        if (p.block >= 0) {
            // Copied with a terminator: not every function takes the lengths.
            const reader::Block &b = e.blocks[static_cast<size_t>(p.block)];
            thread.strings.emplace_back(reinterpret_cast<const char *>(e.bytes(b)), b.size);
            thread.stringPointers.push_back(thread.strings.back().c_str());
            thread.stringLengths.push_back(static_cast<GLint>(b.size));
        } else {
            thread.stringPointers.push_back("");
            thread.stringLengths.push_back(0);
        }
    }
    if (thread.stringPointers.size() < a.count) fail("the record lacks some of the strings");
    return thread.stringPointers.data();
}

const GLint *Call::stringLengths(int) {
    return thread.stringLengths.data();
}

const size_t *Call::sizeLengths(int i) {
    // Taken from the record itself: a function may list the lengths before the strings.
    const reader::Arg &a = e.args[static_cast<size_t>(i)];
    thread.sizeLengths.clear();
    for (uint32_t k = 0; k < a.partCount; ++k) {
        const reader::Part &p = e.parts[a.firstPart + k];
        thread.sizeLengths.push_back(p.block >= 0 ? e.blocks[static_cast<size_t>(p.block)].size : 0);
    }
    return thread.sizeLengths.empty() ? nullptr : thread.sizeLengths.data();
}

// ---- Names ------------------------------------------------------------------------------------

NameMap &Call::map(Obj kind) const {
    ContextState &ctx = context();
    int k = static_cast<int>(kind);
    return k < kSharedKinds ? ctx.shared->names[k] : ctx.own[k - kSharedKinds];
}

uint32_t Call::mapName(Obj kind, uint32_t recorded) {
    if (recorded == 0) return 0;
    uint64_t local;
    NameMap &m = map(kind);
    if (m.find(recorded, local)) return static_cast<uint32_t>(local);
    // A name the trace never saw created: OpenGL ES 2 creates objects that are bound by a name the
    // application made up. The local driver makes one of its own for it, so that its own names
    // never collide with it.
    GLuint made = 0;
    const GLESPPHostFns &gl = gles();
    switch (kind) {
    case Obj::Buffer:
        gl.glGenBuffers(1, &made);
        break;
    case Obj::Texture:
        gl.glGenTextures(1, &made);
        break;
    case Obj::Renderbuffer:
        gl.glGenRenderbuffers(1, &made);
        break;
    case Obj::Framebuffer:
        gl.glGenFramebuffers(1, &made);
        break;
    default:
        made = recorded;
        break;
    }
    if (made == 0) made = recorded;
    m.set(recorded, made);
    return made;
}

const uint32_t *Call::names(Obj kind, int i) {
    uint32_t bytes = 0;
    const uint8_t *recorded = block(i, &bytes);
    if (!recorded) return reinterpret_cast<const uint32_t *>(in(i));
    thread.names.resize(bytes / 4);
    for (size_t k = 0; k < thread.names.size(); ++k) {
        uint32_t r;
        std::memcpy(&r, recorded + 4 * k, 4);
        thread.names[k] = mapName(kind, r);
    }
    return thread.names.data();
}

void Call::createdNames(Obj kind, int i, const GLuint *made) {
    uint32_t bytes = 0;
    const uint8_t *recorded = block(i, &bytes);
    if (!recorded || !made) return;
    NameMap &m = map(kind);
    for (uint32_t k = 0; k + 4 <= bytes; k += 4) {
        uint32_t r;
        std::memcpy(&r, recorded + k, 4);
        if (r) m.set(r, made[k / 4]);
    }
}

void Call::createdName(Obj kind, uint32_t made) {
    uint32_t recorded = static_cast<uint32_t>(e.result);
    if (recorded && made) map(kind).set(recorded, made);
}

uint64_t Call::mapSync(uint64_t recorded) {
    if (recorded == 0) return 0;
    uint64_t local;
    if (map(Obj::Sync).find(recorded, local)) return local;
    fail("the sync object was not created in the trace");
    return 0;
}

void Call::createdSync(GLsync made) {
    if (e.result && made) map(Obj::Sync).set(e.result, reinterpret_cast<uintptr_t>(made));
}

uint64_t Call::mapHandle(Handle kind, uint64_t recorded) {
    if (recorded == 0) return 0;
    uint64_t local;
    if (player.handles[static_cast<int>(kind)].find(recorded, local)) return local;
    if (kind == Handle::Config) return reinterpret_cast<uintptr_t>(player.configFor(recorded));
    if (kind == Handle::Display) return reinterpret_cast<uintptr_t>(player.localDisplay());
    if (player.failedHandles.count(recorded)) {
        // Made by a call that failed when recorded, and not made here: the call is skipped quietly.
        if (ok_) ++player.onFailedHandles;
        ok_ = false;
        return 0;
    }
    char text[96];
    std::snprintf(text, sizeof(text), "it names a handle the trace never created (0x%llx)",
                  static_cast<unsigned long long>(recorded));
    fail(text);
    return 0;
}

bool Call::knownHandle(Handle kind, uint64_t recorded, uint64_t &local) const {
    return recorded && player.handles[static_cast<int>(kind)].find(recorded, local);
}

void *const *Call::handles(Handle kind, int i) {
    uint32_t bytes = 0;
    const uint8_t *recorded = block(i, &bytes);
    if (!recorded) return reinterpret_cast<void *const *>(in(i));
    thread.handleLists.emplace_back(bytes / 8);
    std::vector<void *> &list = thread.handleLists.back();
    for (size_t k = 0; k < list.size(); ++k) {
        uint64_t r;
        std::memcpy(&r, recorded + 8 * k, 8);
        list[k] = reinterpret_cast<void *>(static_cast<uintptr_t>(mapHandle(kind, r)));
    }
    return list.data();
}

void Call::noteHandle(Handle kind, uint64_t recorded, uint64_t local) {
    if (recorded && local) player.handles[static_cast<int>(kind)].set(recorded, local);
}

uint32_t Call::currentProgram() const {
    return context().currentProgram;
}

int64_t Call::programValue(ProgramValue kind, uint32_t program, int i) {
    int64_t recorded = static_cast<int32_t>(value(i));
    if (recorded < 0) return recorded;
    auto &programs = context().shared->programValues[static_cast<int>(kind)];
    auto p = programs.find(program);
    if (p == programs.end() || p->second.empty()) return recorded;
    // Elements of a uniform array follow their first element: a location the trace never asked
    // for is placed after the nearest one it did.
    auto it = p->second.upper_bound(recorded);
    if (it == p->second.begin()) return recorded;
    --it;
    return it->second + (recorded - it->first);
}

void Call::createdProgramValue(ProgramValue kind, uint32_t program, int64_t made) {
    int64_t recorded = static_cast<int32_t>(e.result);
    if (recorded < 0 || made < 0) return;
    context().shared->programValues[static_cast<int>(kind)][program][recorded] = made;
}

// ---- Draws ------------------------------------------------------------------------------------

namespace {

// OpenGL ES 1 names (the player does not include the ES1 header).
constexpr GLenum kVertexArraySize = 0x807A, kVertexArrayType = 0x807B, kNormalArrayType = 0x807E,
                 kColorArraySize = 0x8081, kColorArrayType = 0x8082, kTexCoordArraySize = 0x8088,
                 kTexCoordArrayType = 0x8089, kClientActiveTexture = 0x84E1, kPointSizeArrayType = 0x898A,
                 kMatrixIndexArraySize = 0x8846, kMatrixIndexArrayType = 0x8847, kWeightArrayType = 0x86A9,
                 kWeightArraySize = 0x86AB;

// Points a fixed-function client array (keyed as the recorder keys them: 0 vertex, 1 normal,
// 2 colour, 3 point size, 4 matrix index, 5 weight, 8 + u texture coordinates of unit u) at the
// recorded data, tightly packed, in the format the application set, which the driver still holds.
bool pointFixedArray(const SEs1HostFns &gl, const SGlesExtHostFns &ext, uint32_t key, const void *data) {
    GLint size = 4, type = GL_FLOAT;
    auto packed = [&](GLint components) {
        return static_cast<GLsizei>(static_cast<uint32_t>(std::max(components, 0)) *
                                    componentSize(static_cast<GLenum>(type)));
    };
    switch (key) {
    case 0:
        gl.glGetIntegerv(kVertexArraySize, &size);
        gl.glGetIntegerv(kVertexArrayType, &type);
        gl.glVertexPointer(size, static_cast<GLenum>(type), packed(size), data);
        return true;
    case 1:
        gl.glGetIntegerv(kNormalArrayType, &type);
        gl.glNormalPointer(static_cast<GLenum>(type), packed(3), data);
        return true;
    case 2:
        gl.glGetIntegerv(kColorArraySize, &size);
        gl.glGetIntegerv(kColorArrayType, &type);
        gl.glColorPointer(size, static_cast<GLenum>(type), packed(size), data);
        return true;
    case 3:
        if (!gl.glPointSizePointerOES) return false;
        gl.glGetIntegerv(kPointSizeArrayType, &type);
        gl.glPointSizePointerOES(static_cast<GLenum>(type), packed(1), data);
        return true;
    case 4:
        if (!ext.glMatrixIndexPointerOES) return false;
        gl.glGetIntegerv(kMatrixIndexArraySize, &size);
        gl.glGetIntegerv(kMatrixIndexArrayType, &type);
        ext.glMatrixIndexPointerOES(size, static_cast<GLenum>(type), packed(size), data);
        return true;
    case 5:
        if (!ext.glWeightPointerOES) return false;
        gl.glGetIntegerv(kWeightArraySize, &size);
        gl.glGetIntegerv(kWeightArrayType, &type);
        ext.glWeightPointerOES(size, static_cast<GLenum>(type), packed(size), data);
        return true;
    default: {
        if (key < 8 || key >= 16) return false;
        GLint active = GL_TEXTURE0;
        gl.glGetIntegerv(kClientActiveTexture, &active);
        gl.glClientActiveTexture(GL_TEXTURE0 + (key - 8));
        gl.glGetIntegerv(kTexCoordArraySize, &size);
        gl.glGetIntegerv(kTexCoordArrayType, &type);
        gl.glTexCoordPointer(size, static_cast<GLenum>(type), packed(size), data);
        gl.glClientActiveTexture(static_cast<GLenum>(active));
        return true;
    }
    }
}

} // namespace

bool Call::clientArrays(int tail) {
    const reader::Arg &a = e.args[static_cast<size_t>(tail)];
    if (a.partial) {
        fail("the client arrays of the draw were not recorded whole; the draw was skipped");
        return false;
    }
    if (context().apiVersion == 1) {
        const SEs1HostFns &gl = es1();
        // A client pointer is taken relative to the buffer bound to GL_ARRAY_BUFFER: none while
        // the recorded data is pointed at.
        GLint arrayBuffer = 0;
        gl.glGetIntegerv(GL_ARRAY_BUFFER_BINDING, &arrayBuffer);
        if (arrayBuffer) gl.glBindBuffer(GL_ARRAY_BUFFER, 0);
        bool ok = true;
        for (uint32_t k = 0; k < a.partCount && ok; ++k) {
            const reader::Part &p = e.parts[a.firstPart + k];
            if (p.kind != reader::Part::Kind::Attribute) continue;
            if (p.count == 0 || p.block < 0) {
                fail("a client array of the draw was not recorded; the draw was skipped");
                ok = false;
            } else if (!pointFixedArray(gl, glext(), p.index,
                                        e.bytes(e.blocks[static_cast<size_t>(p.block)]))) {
                fail("the driver lacks the function of a client array of the draw; the draw was skipped");
                ok = false;
            }
        }
        if (arrayBuffer) gl.glBindBuffer(GL_ARRAY_BUFFER, static_cast<GLuint>(arrayBuffer));
        return ok;
    }
    const GLESPPHostFns &gl = gles();
    for (uint32_t k = 0; k < a.partCount; ++k) {
        const reader::Part &p = e.parts[a.firstPart + k];
        if (p.kind != reader::Part::Kind::Attribute) continue;
        if (p.count == 0 || p.block < 0) {
            fail("a client array of the draw was not recorded; the draw was skipped");
            return false;
        }
        const uint8_t *data = e.bytes(e.blocks[static_cast<size_t>(p.block)]);
        // The record holds the attribute tightly packed; its format is the one the application
        // set, which the driver still holds.
        GLint size = 4, type = GL_FLOAT, normalized = 0, integer = 0;
        gl.glGetVertexAttribiv(p.index, GL_VERTEX_ATTRIB_ARRAY_SIZE, &size);
        gl.glGetVertexAttribiv(p.index, GL_VERTEX_ATTRIB_ARRAY_TYPE, &type);
        gl.glGetVertexAttribiv(p.index, GL_VERTEX_ATTRIB_ARRAY_NORMALIZED, &normalized);
        if (context().apiVersion >= 3)
            gl.glGetVertexAttribiv(p.index, GL_VERTEX_ATTRIB_ARRAY_INTEGER, &integer);
        GLsizei stride = static_cast<GLsizei>(static_cast<uint32_t>(std::max(size, 0)) *
                                              componentSize(static_cast<GLenum>(type)));
        if (integer && gl.glVertexAttribIPointer)
            gl.glVertexAttribIPointer(p.index, size, static_cast<GLenum>(type), stride, data);
        else
            gl.glVertexAttribPointer(p.index, size, static_cast<GLenum>(type),
                                     static_cast<GLboolean>(normalized), stride, data);
    }
    return true;
}

const void *Call::indices(int tail, int param) {
    const reader::Arg &a = e.args[static_cast<size_t>(tail)];
    uint64_t pointer = value(param);
    for (uint32_t k = 0; k < a.partCount; ++k) {
        const reader::Part &p = e.parts[a.firstPart + k];
        if (p.kind != reader::Part::Kind::Indices || p.index != 0) continue;
        if (p.count == 0) break; // indices in an element buffer: the pointer is an offset
        if (p.missing || p.block < 0) {
            fail("the indices of the draw were not recorded; the draw was skipped");
            return nullptr;
        }
        return e.bytes(e.blocks[static_cast<size_t>(p.block)]);
    }
    return reinterpret_cast<const void *>(static_cast<uintptr_t>(pointer));
}

} // namespace kv::replay
