#include "entry/capture.h"

#include "entry/ext/ext_functions_autogen.h"
#include "entry/gles/hooks_state.h"

#include "host/hosts.h"
#include "state/client_arrays.h"
#include "state/egl_state.h"

#include <string>
#include <vector>

namespace kv::capture {

namespace {

// OpenGL ES 1 names (the library does not include the ES1 header).
constexpr GLenum kGlCurrentColor = 0x0B00, kGlCurrentNormal = 0x0B02, kGlCurrentTextureCoords = 0x0B03,
                 kGlSmoothPointSizeRange = 0x0B12, kGlSmoothLineWidthRange = 0x0B22,
                 kGlLightModelAmbient = 0x0B53, kGlFogColor = 0x0B66, kGlModelviewMatrix = 0x0BA6,
                 kGlProjectionMatrix = 0x0BA7, kGlTextureMatrix = 0x0BA8, kGlAmbient = 0x1200,
                 kGlDiffuse = 0x1201, kGlSpecular = 0x1202, kGlPosition = 0x1203, kGlSpotDirection = 0x1204,
                 kGlEmission = 0x1600, kGlAmbientAndDiffuse = 0x1602, kGlTextureEnvColor = 0x2201,
                 kGlPointDistanceAttenuation = 0x8129;

uint32_t formatComponents(GLenum format) {
    switch (format) {
    case GL_RED:
    case GL_RED_INTEGER:
    case GL_ALPHA:
    case GL_LUMINANCE:
    case GL_DEPTH_COMPONENT:
    case GL_STENCIL_INDEX:
        return 1;
    case GL_RG:
    case GL_RG_INTEGER:
    case GL_LUMINANCE_ALPHA:
    case GL_DEPTH_STENCIL:
        return 2;
    case GL_RGB:
    case GL_RGB_INTEGER:
        return 3;
    case GL_RGBA:
    case GL_RGBA_INTEGER:
    case GL_BGRA_EXT:
        return 4;
    default:
        return 0;
    }
}

// The buffer bound to a target in the current context's shadow state.
GLuint boundBuffer(GLenum target) {
    CEs2ContextState *state = egl::currentEs2StateQuiet();
    if (!state) return 0; // OpenGL ES 1 has no pixel buffers
    StateReadGuard guard;
    return state->bufferBinding(target);
}

PixelStore pixelStore(bool pack) {
    PixelStore store;
    CEs2ContextState *state = egl::currentEs2StateQuiet();
    if (!state) {
        // OpenGL ES 1 knows the alignments only.
        if (CFFContextState *es1 = egl::currentEs1StateQuiet()) {
            StateReadGuard guard;
            store.alignment = es1->pixelStore(pack ? GL_PACK_ALIGNMENT : GL_UNPACK_ALIGNMENT);
        }
        return store;
    }
    StateReadGuard guard;
    if (pack) {
        store.alignment = state->pixelStore(GL_PACK_ALIGNMENT);
        store.rowLength = state->pixelStore(GL_PACK_ROW_LENGTH);
        store.skipPixels = state->pixelStore(GL_PACK_SKIP_PIXELS);
        store.skipRows = state->pixelStore(GL_PACK_SKIP_ROWS);
    } else {
        store.alignment = state->pixelStore(GL_UNPACK_ALIGNMENT);
        store.rowLength = state->pixelStore(GL_UNPACK_ROW_LENGTH);
        store.imageHeight = state->pixelStore(GL_UNPACK_IMAGE_HEIGHT);
        store.skipPixels = state->pixelStore(GL_UNPACK_SKIP_PIXELS);
        store.skipRows = state->pixelStore(GL_UNPACK_SKIP_ROWS);
        store.skipImages = state->pixelStore(GL_UNPACK_SKIP_IMAGES);
    }
    return store;
}

GLint hostInteger(GLenum pname) {
    GLint value = 0;
    GLESPPHost::get().fn.glGetIntegerv(pname, &value);
    return value;
}

uint32_t uniformComponents(GLenum type) {
    switch (type) {
    case GL_FLOAT_VEC2:
    case GL_INT_VEC2:
    case GL_UNSIGNED_INT_VEC2:
    case GL_BOOL_VEC2:
        return 2;
    case GL_FLOAT_VEC3:
    case GL_INT_VEC3:
    case GL_UNSIGNED_INT_VEC3:
    case GL_BOOL_VEC3:
        return 3;
    case GL_FLOAT_VEC4:
    case GL_INT_VEC4:
    case GL_UNSIGNED_INT_VEC4:
    case GL_BOOL_VEC4:
    case GL_FLOAT_MAT2:
        return 4;
    case GL_FLOAT_MAT2x3:
    case GL_FLOAT_MAT3x2:
        return 6;
    case GL_FLOAT_MAT2x4:
    case GL_FLOAT_MAT4x2:
        return 8;
    case GL_FLOAT_MAT3:
        return 9;
    case GL_FLOAT_MAT3x4:
    case GL_FLOAT_MAT4x3:
        return 12;
    case GL_FLOAT_MAT4:
        return 16;
    default:
        return 1;
    }
}

} // namespace

uint32_t pixelBytes(GLenum format, GLenum type) {
    switch (type) {
    case GL_UNSIGNED_SHORT_5_6_5:
    case GL_UNSIGNED_SHORT_4_4_4_4:
    case GL_UNSIGNED_SHORT_5_5_5_1:
        return 2;
    case GL_UNSIGNED_INT_2_10_10_10_REV:
    case GL_UNSIGNED_INT_24_8:
    case GL_UNSIGNED_INT_10F_11F_11F_REV:
    case GL_UNSIGNED_INT_5_9_9_9_REV:
        return 4;
    case GL_FLOAT_32_UNSIGNED_INT_24_8_REV:
        return 8;
    default:
        return formatComponents(format) * componentTypeSize(type);
    }
}

uint64_t imageSize(const PixelStore &store, GLsizei width, GLsizei height, GLsizei depth, GLenum format,
                   GLenum type) {
    if (width <= 0 || height <= 0 || depth <= 0) return 0;
    uint64_t bpp = pixelBytes(format, type);
    if (bpp == 0) return 0;
    uint64_t alignment = store.alignment > 0 ? static_cast<uint64_t>(store.alignment) : 1;
    uint64_t rowPixels =
        store.rowLength > 0 ? static_cast<uint64_t>(store.rowLength) : static_cast<uint64_t>(width);
    uint64_t rowStride = (rowPixels * bpp + alignment - 1) / alignment * alignment;
    uint64_t imageRows =
        store.imageHeight > 0 ? static_cast<uint64_t>(store.imageHeight) : static_cast<uint64_t>(height);
    uint64_t skipImages = store.skipImages > 0 ? static_cast<uint64_t>(store.skipImages) : 0;
    uint64_t skipRows = store.skipRows > 0 ? static_cast<uint64_t>(store.skipRows) : 0;
    uint64_t skipPixels = store.skipPixels > 0 ? static_cast<uint64_t>(store.skipPixels) : 0;
    uint64_t rowsBefore = imageRows * (static_cast<uint64_t>(depth) - 1 + skipImages) +
                          (static_cast<uint64_t>(height) - 1 + skipRows);
    return rowStride * rowsBefore + (skipPixels + static_cast<uint64_t>(width)) * bpp;
}

uint64_t imageBytes(CallCtx &, GLsizei width, GLsizei height, GLsizei depth, GLenum format, GLenum type) {
    if (boundBuffer(GL_PIXEL_UNPACK_BUFFER) != 0) return rec::kBufferOffset;
    return imageSize(pixelStore(false), width, height, depth, format, type);
}

uint64_t unpackedBytes(CallCtx &, GLsizei size) {
    if (boundBuffer(GL_PIXEL_UNPACK_BUFFER) != 0) return rec::kBufferOffset;
    return size > 0 ? static_cast<uint64_t>(size) : 0;
}

uint64_t packedBytes(CallCtx &, GLsizei width, GLsizei height, GLenum format, GLenum type) {
    if (boundBuffer(GL_PIXEL_PACK_BUFFER) != 0) return rec::kBufferOffset;
    return imageSize(pixelStore(true), width, height, 1, format, type);
}

uint64_t packedBytesBounded(CallCtx &c, GLsizei width, GLsizei height, GLenum format, GLenum type,
                            GLsizei bufSize) {
    uint64_t bytes = packedBytes(c, width, height, format, type);
    if (bytes == rec::kBufferOffset) return bytes;
    uint64_t limit = bufSize > 0 ? static_cast<uint64_t>(bufSize) : 0;
    return bytes < limit ? bytes : limit;
}

uint64_t stateValues(CallCtx &, GLenum pname) {
    switch (pname) {
    case GL_ALIASED_LINE_WIDTH_RANGE:
    case GL_ALIASED_POINT_SIZE_RANGE:
    case GL_DEPTH_RANGE:
    case GL_MAX_VIEWPORT_DIMS:
        return 2;
    case GL_BLEND_COLOR:
    case GL_COLOR_CLEAR_VALUE:
    case GL_COLOR_WRITEMASK:
    case GL_SCISSOR_BOX:
    case GL_VIEWPORT:
        return 4;
    case GL_PRIMITIVE_BOUNDING_BOX:
        return 8;
    // OpenGL ES 1 state (glGetFixedvOES).
    case kGlModelviewMatrix:
    case kGlProjectionMatrix:
    case kGlTextureMatrix:
        return 16;
    case kGlCurrentColor:
    case kGlCurrentTextureCoords:
    case kGlFogColor:
    case kGlLightModelAmbient:
        return 4;
    case kGlCurrentNormal:
    case kGlPointDistanceAttenuation:
        return 3;
    case kGlSmoothPointSizeRange:
    case kGlSmoothLineWidthRange:
        return 2;
    case GL_COMPRESSED_TEXTURE_FORMATS:
        return static_cast<uint64_t>(std::max(0, hostInteger(GL_NUM_COMPRESSED_TEXTURE_FORMATS)));
    case GL_SHADER_BINARY_FORMATS:
        return static_cast<uint64_t>(std::max(0, hostInteger(GL_NUM_SHADER_BINARY_FORMATS)));
    case GL_PROGRAM_BINARY_FORMATS:
        return static_cast<uint64_t>(std::max(0, hostInteger(GL_NUM_PROGRAM_BINARY_FORMATS)));
    default:
        return 1;
    }
}

uint64_t indexedStateValues(CallCtx &, GLenum target) {
    switch (target) {
    case GL_COLOR_WRITEMASK:
    case GL_VIEWPORT:
    case GL_SCISSOR_BOX:
        return 4;
    case GL_DEPTH_RANGE:
        return 2;
    default:
        return 1;
    }
}

uint64_t fixedFunctionValues(CallCtx &, GLenum pname) {
    switch (pname) {
    case kGlAmbient:
    case kGlDiffuse:
    case kGlSpecular:
    case kGlPosition:
    case kGlEmission:
    case kGlAmbientAndDiffuse:
    case kGlLightModelAmbient:
    case kGlFogColor:
    case kGlTextureEnvColor:
        return 4;
    case kGlSpotDirection:
    case kGlPointDistanceAttenuation:
        return 3;
    default:
        return 1;
    }
}

uint64_t pixelBytesOf(CallCtx &, GLenum format, GLenum type) {
    return pixelBytes(format, type);
}

uint64_t parameterValues(CallCtx &, GLenum pname) {
    return pname == GL_TEXTURE_BORDER_COLOR ? 4 : 1;
}

uint64_t programValues(CallCtx &, GLenum pname) {
    return pname == GL_COMPUTE_WORK_GROUP_SIZE ? 3 : 1;
}

uint64_t uniformBlockValues(CallCtx &c, GLuint program, GLuint index, GLenum pname) {
    if (pname != GL_UNIFORM_BLOCK_ACTIVE_UNIFORM_INDICES || c.failed) return 1;
    GLint count = 0;
    gles::OwnGlCalls own;
    const auto &fn = GLESPPHost::get().fn;
    if (fn.glGetActiveUniformBlockiv)
        fn.glGetActiveUniformBlockiv(program, index, GL_UNIFORM_BLOCK_ACTIVE_UNIFORMS, &count);
    return count > 0 ? static_cast<uint64_t>(count) : 0;
}

uint64_t uniformValues(CallCtx &c, GLuint program, GLint location) {
    // The driver wrote nothing for a call it rejected: no need to ask.
    if (c.failed) return 0;
    // The uniform's type decides how many values the driver writes: find the active uniform that
    // owns the location.
    gles::OwnGlCalls own;
    const auto &fn = GLESPPHost::get().fn;
    GLint active = 0, maxLength = 0;
    fn.glGetProgramiv(program, GL_ACTIVE_UNIFORMS, &active);
    fn.glGetProgramiv(program, GL_ACTIVE_UNIFORM_MAX_LENGTH, &maxLength);
    std::string name(static_cast<size_t>(std::max(maxLength, 1)) + 1, '\0');
    for (GLint i = 0; i < active; ++i) {
        GLsizei length = 0;
        GLint size = 0;
        GLenum type = 0;
        fn.glGetActiveUniform(program, static_cast<GLuint>(i), static_cast<GLsizei>(name.size()), &length,
                              &size, &type, &name[0]);
        std::string base(name.c_str(), static_cast<size_t>(std::max(length, 0)));
        if (base.size() > 3 && base.compare(base.size() - 3, 3, "[0]") == 0) base.resize(base.size() - 3);
        GLint first = fn.glGetUniformLocation(program, base.c_str());
        if (first >= 0 && location >= first && location < first + std::max(size, 1))
            return uniformComponents(type);
    }
    return 16;
}

uint64_t clearBufferValues(CallCtx &, GLenum buffer) {
    return buffer == GL_COLOR ? 4 : 1;
}

uint64_t uniformElements(CallCtx &, GLint location, GLsizei count, uint32_t perElement) {
    if (location < 0 || count <= 0) return 0;
    return static_cast<uint64_t>(count) * perElement;
}

using arrays::captureArrays;
using arrays::captureElements;

// Multi-draws: the per-draw arrays are read from the application first.
void glMultiDrawArraysEXT_tail(RecordHandle &h, CallCtx &c, GLenum, const GLint *first, const GLsizei *count,
                               GLsizei primcount) {
    if (!c.d.recordData || primcount <= 0) return;
    std::vector<GLint> firsts(static_cast<size_t>(primcount));
    std::vector<GLsizei> counts(static_cast<size_t>(primcount));
    const size_t bytes = firsts.size() * sizeof(GLint);
    if (!first || !count || platform::guardedCopy(firsts.data(), first, bytes) != bytes ||
        platform::guardedCopy(counts.data(), count, bytes) != bytes)
        return;
    captureArrays(h, c, firsts.data(), counts.data(), static_cast<uint32_t>(primcount), 0);
}

void glMultiDrawElementsEXT_tail(RecordHandle &h, CallCtx &c, GLenum, const GLsizei *count, GLenum type,
                                 const void *const *indices, GLsizei primcount) {
    if (!c.d.recordData || primcount <= 0) return;
    std::vector<GLsizei> counts(static_cast<size_t>(primcount));
    std::vector<const void *> pointers(static_cast<size_t>(primcount));
    if (!count || !indices ||
        platform::guardedCopy(counts.data(), count, counts.size() * sizeof(GLsizei)) !=
            counts.size() * sizeof(GLsizei) ||
        platform::guardedCopy(pointers.data(), indices, pointers.size() * sizeof(void *)) !=
            pointers.size() * sizeof(void *))
        return;
    captureElements(h, c, counts.data(), type, pointers.data(), static_cast<uint32_t>(primcount), 0, 0,
                    nullptr);
}

} // namespace kv::capture
