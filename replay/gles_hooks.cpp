// OpenGL ES: the program in use (uniform locations belong to it), attribute locations, and the
// writes an application made through buffer mappings.
#include "replay/hooks.h"
#include "replay/session.h"

namespace kv::replay {

void Hooks<fn::glUseProgram>::after(Call &c, GLuint program) {
    c.context().currentProgram = program;
}

void Hooks<fn::glGetAttribLocation>::after(Call &c, GLint &result, GLuint program, const GLchar *name) {
    GLint recorded = static_cast<GLint>(static_cast<int32_t>(c.e.result));
    if (recorded < 0 || result == recorded || !name) return;
    // The application sets up its vertex arrays with the recorded location: the attribute is bound
    // there and the program linked again.
    c.gles().glBindAttribLocation(program, static_cast<GLuint>(recorded), name);
    c.gles().glLinkProgram(program);
    result = recorded;
}

namespace {

// The local mapping the application's recorded writes are copied into at flush and unmap.
void rememberMapping(Call &c, void *result, GLenum target, GLintptr offset, GLsizeiptr length) {
    Mapping &m = c.context().mappings[target];
    m.pointer = static_cast<uint8_t *>(result);
    m.offset = offset;
    m.length = length;
    if (!result) c.fail("the local driver could not map the buffer");
}

} // namespace

void Hooks<fn::glMapBufferRange>::after(Call &c, void *&result, GLenum target, GLintptr offset,
                                        GLsizeiptr length, GLbitfield) {
    rememberMapping(c, result, target, offset, length);
}

void Hooks<ext::glMapBufferOES>::after(Call &c, void *&result, GLenum target, GLenum) {
    // The whole buffer is mapped: its size is the local buffer's.
    GLint size = 0;
    c.gles().glGetBufferParameteriv(target, GL_BUFFER_SIZE, &size);
    rememberMapping(c, result, target, 0, size);
}

bool Hooks<ext::glMultiDrawElementsEXT>::before(Call &c, GLenum &, const GLsizei *&, GLenum &,
                                                const void *const *&indices, GLsizei &primcount) {
    const int tail = c.field("arrays");
    if (tail < 0 || primcount <= 0) return true;
    // Kept per thread until the next multi-draw: the driver reads them during the call.
    thread_local std::vector<const void *> pointers;
    pointers.assign(static_cast<size_t>(primcount), nullptr);
    const reader::Arg &a = c.e.args[static_cast<size_t>(tail)];
    for (uint32_t k = 0; k < a.partCount; ++k) {
        const reader::Part &p = c.e.parts[a.firstPart + k];
        if (p.kind != reader::Part::Kind::Indices || p.index >= pointers.size()) continue;
        if (p.count == 0) {
            pointers[p.index] = reinterpret_cast<const void *>(static_cast<uintptr_t>(p.pointer));
        } else if (p.missing || p.block < 0) {
            c.fail("the indices of the draw were not recorded; the draw was skipped");
            return false;
        } else {
            pointers[p.index] = c.e.bytes(c.e.blocks[static_cast<size_t>(p.block)]);
        }
    }
    indices = pointers.data();
    return true;
}

bool Hooks<fn::glFlushMappedBufferRange>::before(Call &c, GLenum &target, GLintptr &offset,
                                                 GLsizeiptr &length) {
    auto it = c.context().mappings.find(target);
    int data = c.field("data");
    uint32_t bytes = 0;
    const uint8_t *written = data >= 0 ? c.block(data, &bytes) : nullptr;
    if (it == c.context().mappings.end() || !it->second.pointer || !written) return true;
    if (offset < 0 || length < 0 || offset + length > it->second.length) return true;
    std::memcpy(it->second.pointer + offset, written,
                std::min<uint64_t>(bytes, static_cast<uint64_t>(length)));
    return true;
}

bool Hooks<fn::glUnmapBuffer>::before(Call &c, GLenum &target) {
    auto it = c.context().mappings.find(target);
    if (it == c.context().mappings.end()) return true;
    int data = c.field("data");
    uint32_t bytes = 0;
    const uint8_t *written = data >= 0 ? c.block(data, &bytes) : nullptr;
    if (it->second.pointer && written)
        std::memcpy(it->second.pointer, written,
                    std::min<uint64_t>(bytes, static_cast<uint64_t>(it->second.length)));
    c.context().mappings.erase(it);
    return true;
}

} // namespace kv::replay
