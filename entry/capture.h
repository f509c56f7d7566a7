// Hand-written size functions shared by many record layouts: how much client memory a call reads
// or writes, where the registry can only say "it depends". Each returns an element count for the
// pointer it sizes (bytes for void pointers); rec::kBufferOffset when the pointer is an offset into
// a buffer bound to the pixel pack or unpack target.
#pragma once

#include "core/call_types.h"

namespace kv::capture {

// Pixels an upload reads, from the unpack state of the current context.
uint64_t imageBytes(CallCtx &c, GLsizei width, GLsizei height, GLsizei depth, GLenum format, GLenum type);
// A compressed image of imageSize bytes.
uint64_t unpackedBytes(CallCtx &c, GLsizei imageSize);
// Pixels a read-back writes, from the pack state of the current context.
uint64_t packedBytes(CallCtx &c, GLsizei width, GLsizei height, GLenum format, GLenum type);
uint64_t packedBytesBounded(CallCtx &c, GLsizei width, GLsizei height, GLenum format, GLenum type,
                            GLsizei bufSize);

// Values a state query writes for a name.
uint64_t stateValues(CallCtx &c, GLenum pname);
uint64_t indexedStateValues(CallCtx &c, GLenum target);
uint64_t parameterValues(CallCtx &c, GLenum pname);
uint64_t programValues(CallCtx &c, GLenum pname);
uint64_t uniformBlockValues(CallCtx &c, GLuint program, GLuint uniformBlockIndex, GLenum pname);
uint64_t uniformValues(CallCtx &c, GLuint program, GLint location);
uint64_t clearBufferValues(CallCtx &c, GLenum buffer);
// Values of a fixed-function parameter (lights, materials, fog, texture environment, point
// parameters, texture coordinate generation) of OpenGL ES 1.
uint64_t fixedFunctionValues(CallCtx &c, GLenum pname);
// Bytes of one texel of a format and type (a clear colour).
uint64_t pixelBytesOf(CallCtx &c, GLenum format, GLenum type);
// Elements of a uniform array call: count x perElement, none for location -1 (the driver reads
// nothing then).
uint64_t uniformElements(CallCtx &c, GLint location, GLsizei count, uint32_t perElement);

// Bytes of one pixel of a format and type (0 when the pair is not a pixel format).
uint32_t pixelBytes(GLenum format, GLenum type);
// Bytes the driver reads for an image of the given size under a pixel store state.
struct PixelStore {
    GLint alignment = 4;
    GLint rowLength = 0;
    GLint imageHeight = 0;
    GLint skipPixels = 0;
    GLint skipRows = 0;
    GLint skipImages = 0;
};
uint64_t imageSize(const PixelStore &store, GLsizei width, GLsizei height, GLsizei depth, GLenum format,
                   GLenum type);

} // namespace kv::capture
