// Client array capture: the vertex data (and indices) a draw reads from the application's own
// memory, copied into the draw's record so that a player elsewhere can draw the same thing.
//
// Per captured attribute the record gets: attribute index (4), the application's pointer (8; 0 when
// its data is inaccessible), byte count (4) and the data block. An indexed draw first gets, per
// draw: the index pointer (8), the index byte count (4; 0 with an element array buffer bound), the
// index block and the index pointer once more (8); a multi-draw then gets its draw count (8).
#pragma once

#include "core/call_types.h"
#include "state/context_state.h"
#include "state/ff_state.h"

#include <cstddef>
#include <cstdint>

namespace kv::arrays {

// Largest index of `count` indices of a GL index type, reading through the guarded copy. Returns
// false when the indices could not be read.
bool maxIndex(GLenum type, const void *indices, uint32_t count, uint32_t *maximum);
// The same over memory known to be readable (the scan itself).
uint32_t maxIndexUnchecked(GLenum type, const void *indices, size_t count);
uint32_t maxIndexPlain(GLenum type, const void *indices, size_t count);
// The largest index other than `excluded` (the primitive-restart index).
uint32_t maxIndexBelow(GLenum type, const void *indices, size_t count, uint32_t excluded);
bool maxIndexBelowGuarded(GLenum type, const void *indices, uint32_t count, uint32_t excluded,
                          uint32_t *maximum);

// Array draws. `firsts` and `counts` hold one entry per draw.
bool captureArrays(RecordHandle &h, CallCtx &c, const GLint *firsts, const GLsizei *counts, uint32_t draws,
                   uint32_t instances);
// Indexed draws; `baseVertices` may be null; `knownMaximum` 0 when unknown.
bool captureElements(RecordHandle &h, CallCtx &c, const GLsizei *counts, GLenum type,
                     const void *const *indices, uint32_t draws, uint32_t instances, uint32_t knownMaximum,
                     const GLint *baseVertices);

// The attributes of a vertex array object for a vertex range (shared by both draw kinds); `state`
// is locked by the caller.
// Vertices below `neededFrom` are outside what the driver reads: memory there that cannot be read
// is recorded as zeros.
bool captureAttributes(RecordHandle &h, CEs2ContextState &state, uint32_t vertexRange, uint32_t instances,
                       uint32_t neededFrom);

// The fixed-function draws of OpenGL ES 1: the enabled client arrays of `state` (keys in
// state/ff_state.h) for a vertex range; `state` is locked by the caller.
bool captureFixedArrays(RecordHandle &h, CFFContextState &state, uint32_t vertexRange, uint32_t neededFrom);
// The array draws (`firsts`, `counts`) or indexed draws (`counts`, `type`, `indices`) of an OpenGL
// ES 1 context, one entry per draw: glDrawArrays, glDrawElements and the multi-draw extension.
bool captureFixedDraws(RecordHandle &h, CallCtx &c, const GLint *firsts, const GLsizei *counts,
                       uint32_t draws, GLenum type, const void *const *indices, bool indexed);

} // namespace kv::arrays
