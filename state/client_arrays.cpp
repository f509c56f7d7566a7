#include "state/client_arrays.h"

#include "core/functions_autogen.h"
#include "host/hosts.h"
#include "base/messages.h"
#include "base/zand_string.h"
#include "state/egl_state.h"

#include <algorithm>
#include <cstring>
#include <emmintrin.h>

namespace kv::arrays {

namespace {

constexpr uintptr_t kLowestClientAddress = 0x4000;

// The words of the messages: the ES2/3 draws speak of VertexAttribPointer, the fixed-function
// draws of gl*Pointer.
const char *pointerCall(bool fixed) {
    return fixed ? "gl*Pointer" : "VertexAttribPointer";
}

void reportCrash(bool fixed = false) {
    CZandString text = CZandString::format(
        "Failed to save all the %s data due to a crash while accessing the aforementioned data.",
        pointerCall(fixed));
    msg::emit(msg::kDebugger, "", text.c_str());
    msg::emit(msg::kErr, "ERROR: ", text.c_str());
}

void reportInaccessible(const void *pointer, bool fixed) {
    CZandString text = CZandString::format(
        "%s data is inaccessible at address 0x%x. Please check your %s and BindBuffer use.",
        pointerCall(fixed), static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer)), pointerCall(fixed));
    msg::emit(msg::kDebugger, "", text.c_str());
    msg::emit(msg::kErr, "ERROR: ", text.c_str());
}

// Whether every page of [p, p + n) can be read, so that a block read straight from the
// application later cannot fault.
bool readable(const void *p, uint64_t n) {
    return platform::guardedReadable(p, n);
}

// `data` is the library's own copy, or null when the block is read from `pointer` itself.
void handOver(RecordHandle &h, uint32_t index, const void *pointer, uint32_t bytes, const void *data,
              bool owned) {
    h.u32(index);
    h.ptr(pointer);
    h.u32(bytes);
    if (owned)
        h.addOwnBlock(bytes, data, true);
    else
        h.addBlock(bytes, data, true);
}

// Up to this size a client block is copied at once (one guarded read) rather than checked now and
// read again when the record is written.
constexpr uint64_t kCopiedBlock = 64 * 1024;

uint32_t indexSize(GLenum type) {
    switch (type) {
    case GL_UNSIGNED_BYTE:
        return 1;
    case GL_UNSIGNED_SHORT:
        return 2;
    case GL_UNSIGNED_INT:
        return 4;
    default:
        return 0;
    }
}

} // namespace

uint32_t maxIndexPlain(GLenum type, const void *indices, size_t count) {
    uint32_t m = 0;
    if (type == GL_UNSIGNED_BYTE) {
        const auto *p = static_cast<const uint8_t *>(indices);
        for (size_t i = 0; i < count; ++i)
            m = std::max<uint32_t>(m, p[i]);
    } else if (type == GL_UNSIGNED_SHORT) {
        const auto *p = static_cast<const uint16_t *>(indices);
        for (size_t i = 0; i < count; ++i)
            m = std::max<uint32_t>(m, p[i]);
    } else if (type == GL_UNSIGNED_INT) {
        const auto *p = static_cast<const uint32_t *>(indices);
        for (size_t i = 0; i < count; ++i)
            m = std::max<uint32_t>(m, p[i]);
    }
    return m;
}

uint32_t maxIndexUnchecked(GLenum type, const void *indices, size_t count) {
    // 16 bytes at a time with SSE2; unsigned 16-bit lanes are compared as signed after flipping
    // their top bit, unsigned 32-bit lanes likewise.
    const auto *bytes = static_cast<const uint8_t *>(indices);
    size_t width = indexSize(type);
    if (width == 0) return 0;
    size_t perVector = 16 / width;
    size_t vectors = count / perVector;
    uint32_t m = 0;
    if (vectors > 0) {
        if (type == GL_UNSIGNED_BYTE) {
            __m128i acc = _mm_setzero_si128();
            for (size_t v = 0; v < vectors; ++v)
                acc = _mm_max_epu8(acc, _mm_loadu_si128(reinterpret_cast<const __m128i *>(bytes + 16 * v)));
            alignas(16) uint8_t lanes[16];
            _mm_store_si128(reinterpret_cast<__m128i *>(lanes), acc);
            for (uint8_t l : lanes)
                m = std::max<uint32_t>(m, l);
        } else if (type == GL_UNSIGNED_SHORT) {
            const __m128i flip = _mm_set1_epi16(static_cast<short>(0x8000));
            __m128i acc = _mm_set1_epi16(static_cast<short>(0x8000));
            for (size_t v = 0; v < vectors; ++v) {
                __m128i x =
                    _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(bytes + 16 * v)), flip);
                acc = _mm_max_epi16(acc, x);
            }
            alignas(16) uint16_t lanes[8];
            _mm_store_si128(reinterpret_cast<__m128i *>(lanes), _mm_xor_si128(acc, flip));
            for (uint16_t l : lanes)
                m = std::max<uint32_t>(m, l);
        } else {
            const __m128i flip = _mm_set1_epi32(static_cast<int>(0x80000000u));
            __m128i acc = flip;
            for (size_t v = 0; v < vectors; ++v) {
                __m128i x =
                    _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(bytes + 16 * v)), flip);
                __m128i greater = _mm_cmpgt_epi32(x, acc);
                acc = _mm_or_si128(_mm_and_si128(greater, x), _mm_andnot_si128(greater, acc));
            }
            alignas(16) uint32_t lanes[4];
            _mm_store_si128(reinterpret_cast<__m128i *>(lanes), _mm_xor_si128(acc, flip));
            for (uint32_t l : lanes)
                m = std::max(m, l);
        }
    }
    size_t done = vectors * perVector;
    return std::max(m, maxIndexPlain(type, bytes + done * width, count - done));
}

uint32_t maxIndexBelow(GLenum type, const void *indices, size_t count, uint32_t excluded) {
    uint32_t m = 0;
    for (size_t i = 0; i < count; ++i) {
        uint32_t v = type == GL_UNSIGNED_BYTE    ? static_cast<const uint8_t *>(indices)[i]
                     : type == GL_UNSIGNED_SHORT ? static_cast<const uint16_t *>(indices)[i]
                                                 : static_cast<const uint32_t *>(indices)[i];
        if (v != excluded) m = std::max(m, v);
    }
    return m;
}

bool maxIndexBelowGuarded(GLenum type, const void *indices, uint32_t count, uint32_t excluded,
                          uint32_t *maximum) {
    uint32_t width = indexSize(type);
    *maximum = 0;
    if (width == 0 || count == 0) return true;
    alignas(16) uint8_t chunk[16384];
    const uint8_t *src = static_cast<const uint8_t *>(indices);
    uint64_t total = uint64_t(count) * width;
    for (uint64_t done = 0; done < total;) {
        size_t piece = static_cast<size_t>(std::min<uint64_t>(sizeof(chunk), total - done));
        if (platform::guardedCopy(chunk, src + done, piece) != piece) return false;
        *maximum = std::max(*maximum, maxIndexBelow(type, chunk, piece / width, excluded));
        done += piece;
    }
    return true;
}

bool maxIndex(GLenum type, const void *indices, uint32_t count, uint32_t *maximum) {
    uint32_t width = indexSize(type);
    *maximum = 0;
    if (width == 0 || count == 0) return true;
    alignas(16) uint8_t chunk[16384];
    const uint8_t *src = static_cast<const uint8_t *>(indices);
    uint64_t total = uint64_t(count) * width;
    for (uint64_t done = 0; done < total;) {
        size_t piece = static_cast<size_t>(std::min<uint64_t>(sizeof(chunk), total - done));
        if (platform::guardedCopy(chunk, src + done, piece) != piece) return false;
        *maximum = std::max(*maximum, maxIndexUnchecked(type, chunk, piece / width));
        done += piece;
    }
    return true;
}

namespace {

// One client array of a draw: `key` names it in the record, `element` is the bytes of one element,
// `elements` how many the draw can read. False when a fault ended the capture.
bool captureArray(RecordHandle &h, uint32_t key, const void *clientPointer, uint64_t element, uint32_t stride,
                  uint64_t elements, bool instanced, uint32_t neededFrom, bool fixed) {
    uint64_t bytes = element * elements;
    if (bytes > 0xFFFFFFF0ull - h.size()) bytes = 0;
    if (element == 0) bytes = 0;
    elements = element ? bytes / element : 0;
    // The driver reads from the first vertex drawn; what lies before it is recorded (a player
    // counts vertices from 0) but is not needed, so memory there that cannot be read is
    // recorded as zeros instead of ending the capture.
    const uint64_t needed = instanced ? 0 : std::min<uint64_t>(neededFrom, elements);
    const uint8_t *pointer = static_cast<const uint8_t *>(clientPointer);

    if (stride == element) {
        if (bytes <= kCopiedBlock) {
            auto *copy = static_cast<uint8_t *>(h.scratch(static_cast<size_t>(bytes)));
            if (platform::guardedCopy(copy, pointer, static_cast<size_t>(bytes)) == bytes) {
                handOver(h, key, pointer, static_cast<uint32_t>(bytes), copy, true);
                return true;
            }
        } else if (readable(pointer, bytes)) {
            handOver(h, key, pointer, static_cast<uint32_t>(bytes), pointer, false);
            return true;
        }
        const uint64_t skipped = needed * element;
        if (skipped == 0 || !readable(pointer + skipped, bytes - skipped)) {
            reportCrash(fixed);
            return false;
        }
        auto *copy = static_cast<uint8_t *>(h.scratch(static_cast<size_t>(bytes)));
        std::memset(copy, 0, static_cast<size_t>(skipped));
        if (platform::guardedCopy(copy + skipped, pointer + skipped, static_cast<size_t>(bytes - skipped)) !=
            bytes - skipped) {
            reportCrash(fixed);
            return false;
        }
        handOver(h, key, pointer, static_cast<uint32_t>(bytes), copy, true);
        return true;
    }
    if (!instanced && reinterpret_cast<uintptr_t>(pointer) < kLowestClientAddress) {
        reportInaccessible(pointer, fixed);
        handOver(h, key, nullptr, 0, nullptr, false);
        return true;
    }
    auto *gathered = static_cast<uint8_t *>(h.scratch(static_cast<size_t>(bytes)));
    uint64_t copied =
        platform::guardedGather(gathered, pointer, elements, static_cast<size_t>(element), stride);
    if (copied < elements && copied < needed) {
        std::memset(gathered, 0, static_cast<size_t>(needed * element));
        copied = needed + platform::guardedGather(gathered + needed * element, pointer + needed * stride,
                                                  elements - needed, static_cast<size_t>(element), stride);
    }
    if (copied < elements) {
        reportCrash(fixed);
        return false;
    }
    handOver(h, key, pointer, static_cast<uint32_t>(bytes), gathered, true);
    return true;
}

} // namespace

bool captureAttributes(RecordHandle &h, CEs2ContextState &state, uint32_t range, uint32_t instances,
                       uint32_t neededFrom) {
    VaoRecord &vao = state.currentVao();
    for (auto &entry : vao.attributes) {
        const AttributeRecord &attribute = entry.second;
        if (!attribute.enabled) continue;
        auto bindingIndex = vao.attributeBinding.find(entry.first);
        uint32_t b = bindingIndex == vao.attributeBinding.end() ? entry.first : bindingIndex->second;
        auto found = vao.bindings.find(b);
        if (found == vao.bindings.end()) continue;
        const BindingRecord &binding = found->second;
        if (binding.buffer != 0 || !binding.clientPointer || binding.stride == 0) continue;

        uint64_t element =
            static_cast<uint64_t>(std::max(attribute.size, 0)) * componentTypeSize(attribute.type);
        uint64_t elements = range;
        // Instancing is decided per attribute: only one with a divisor advances per instance.
        bool instanced = instances != 0 && binding.divisor != 0;
        if (instanced) elements = (uint64_t(instances) + binding.divisor - 1) / binding.divisor;
        if (!captureArray(h, entry.first, binding.clientPointer, element, binding.stride, elements, instanced,
                          neededFrom, false))
            return false;
    }
    return true;
}

bool captureFixedArrays(RecordHandle &h, CFFContextState &state, uint32_t range, uint32_t neededFrom) {
    for (uint32_t key = kFFVertexArray; key < kFFTexCoordArray + CFFContextState::kTextureUnits; ++key) {
        const CFFContextState::ClientArray *array = state.array(key);
        if (!array || !array->enabled || array->buffer != 0 || !array->pointer) continue;
        if (!captureArray(h, key, array->pointer, array->elementBytes(), array->step(), range, false,
                          neededFrom, true))
            return false;
    }
    return true;
}

namespace {

// The indices of an indexed draw, per draw (see client_arrays.h), and, when `scan` is set, the
// largest index they name into `maximum`. False when the capture ended at indices that cannot be
// read. `contents`: the recorder's copy of the bound element array buffer, or null for none.
bool writeIndices(RecordHandle &h, const GLsizei *counts, GLenum type, const void *const *indices,
                  uint32_t draws, const std::vector<uint8_t> *contents, bool scan, uint32_t restart,
                  const GLint *baseVertices, bool fixed, uint32_t *maximumOut, bool *drawsSomethingOut) {
    const uint32_t width = indexSize(type);
    uint32_t maximum = *maximumOut;
    bool drawsSomething = false;
    for (uint32_t d = 0; d < draws; ++d) {
        uint64_t count = counts && counts[d] > 0 ? static_cast<uint64_t>(counts[d]) : 0;
        const void *given = indices ? indices[d] : nullptr;
        const uint8_t *data = nullptr;
        uint64_t available = count;
        if (contents) {
            uint64_t offset = reinterpret_cast<uintptr_t>(given);
            if (offset <= contents->size()) {
                data = contents->data() + offset;
                available =
                    std::min<uint64_t>(count, (contents->size() - offset) / std::max<uint32_t>(width, 1));
            }
        } else {
            data = static_cast<const uint8_t *>(given);
        }
        if (!data && count > 0) {
            CZandString text = CZandString::format(
                "%s data is inaccessible as we failed to obtain a valid pointer for the indices.",
                pointerCall(fixed));
            msg::emit(msg::kDebugger, "", text.c_str());
            msg::emit(msg::kErr, "ERROR: ", text.c_str());
            h.ptr(nullptr);
            h.u32(0);
            h.ptr(nullptr);
            return false;
        }
        uint32_t indexBytes = contents ? 0 : static_cast<uint32_t>(count * width);
        bool copied = false;
        if (indexBytes && indexBytes <= kCopiedBlock) {
            auto *copy = static_cast<uint8_t *>(h.scratch(indexBytes));
            copied = platform::guardedCopy(copy, data, indexBytes) == indexBytes;
            if (copied) data = copy;
        }
        if (indexBytes && !copied && !readable(data, indexBytes)) {
            // Indices that cannot be read are recorded as none, and the capture stops here.
            reportCrash(fixed);
            h.ptr(given);
            h.u32(0);
            h.ptr(given);
            return false;
        }
        h.ptr(given);
        h.u32(indexBytes);
        if (copied)
            h.addOwnBlock(indexBytes, data, true);
        else
            h.addBlock(indexBytes, data, true);
        h.ptr(given);
        if (count > 0) drawsSomething = true;
        if (scan && available) {
            uint32_t m = 0;
            // Indices already copied (or the recorder's copy of a buffer) need no guard.
            bool ok = contents || copied ? (m = maxIndexUnchecked(type, data, available), true)
                                         : maxIndex(type, data, static_cast<uint32_t>(available), &m);
            if (ok && restart && m == restart)
                ok = contents || copied
                         ? (m = maxIndexBelow(type, data, available, restart), true)
                         : maxIndexBelowGuarded(type, data, static_cast<uint32_t>(available), restart, &m);
            if (!ok) {
                reportCrash(fixed);
                return false;
            }
            uint32_t base = baseVertices ? static_cast<uint32_t>(baseVertices[d]) : 0;
            maximum = std::max(maximum, m + base);
        }
    }
    if (draws > 1) h.u64(draws);
    *maximumOut = maximum;
    *drawsSomethingOut = drawsSomething;
    return true;
}

} // namespace

bool captureArrays(RecordHandle &h, CallCtx &c, const GLint *firsts, const GLsizei *counts, uint32_t draws,
                   uint32_t instances) {
    if (!firsts || !counts || c.failed) return false;
    // An extension draw on an OpenGL ES 1 context draws the fixed-function client arrays.
    if (c.es1) return captureFixedDraws(h, c, firsts, counts, draws, 0, nullptr, false);
    // Only draws that draw something read memory.
    uint32_t range = 0, lowest = UINT32_MAX;
    for (uint32_t i = 0; i < draws; ++i) {
        if (counts[i] <= 0) continue;
        range = std::max(range, static_cast<uint32_t>(firsts[i]) + static_cast<uint32_t>(counts[i]));
        lowest = std::min(lowest, static_cast<uint32_t>(firsts[i]));
    }
    if (range == 0) return false;
    CEs2ContextState *state = egl::currentEs2State();
    if (!state) return false;
    platform::LockGuard<StateLock> guard(stateLock());
    return captureAttributes(h, *state, range, instances, lowest);
}

bool captureElements(RecordHandle &h, CallCtx &c, const GLsizei *counts, GLenum type,
                     const void *const *indices, uint32_t draws, uint32_t instances, uint32_t knownMaximum,
                     const GLint *baseVertices) {
    if ((!counts && !indices) || c.failed) return false;
    if (c.es1) return captureFixedDraws(h, c, nullptr, counts, draws, type, indices, true);
    CEs2ContextState *state = egl::currentEs2State();
    if (!state) return false;
    // Where the indices come from is the driver's word: a vertex array object bound or changed by
    // a call the library did not see would leave the shadow state behind.
    GLint boundElements = 0;
    GLESPPHost::get().fn.glGetIntegerv(GL_ELEMENT_ARRAY_BUFFER_BINDING, &boundElements);
    platform::LockGuard<StateLock> guard(stateLock());
    uint32_t width = indexSize(type);
    GLuint elementBuffer = static_cast<GLuint>(boundElements);
    const std::vector<uint8_t> *contents = nullptr;
    if (elementBuffer) contents = &state->shared().buffers[elementBuffer].contents;

    // The largest index only matters for client arrays: without one (the common case of buffer
    // objects) the indices are not scanned at all.
    bool clientArrays = false;
    {
        const VaoRecord &vao = state->currentVao();
        for (const auto &entry : vao.attributes) {
            if (!entry.second.enabled) continue;
            auto bindingIndex = vao.attributeBinding.find(entry.first);
            auto found = vao.bindings.find(bindingIndex == vao.attributeBinding.end() ? entry.first
                                                                                      : bindingIndex->second);
            if (found != vao.bindings.end() && found->second.buffer == 0 && found->second.clientPointer) {
                clientArrays = true;
                break;
            }
        }
    }
    uint32_t maximum = knownMaximum;
    bool scan = knownMaximum == 0 && clientArrays;
    // With primitive restart on, the all-ones index of the type ends a primitive and names no vertex.
    uint32_t restart = 0;
    auto restartCap = state->capabilities.find(GL_PRIMITIVE_RESTART_FIXED_INDEX);
    if (restartCap != state->capabilities.end() && restartCap->second && width)
        restart = width == 4 ? 0xFFFFFFFFu : (1u << (8 * width)) - 1;
    bool drawsSomething = false;
    if (!writeIndices(h, counts, type, indices, draws, contents, scan, restart, baseVertices, false, &maximum,
                      &drawsSomething))
        return false;
    return !clientArrays || !drawsSomething || captureAttributes(h, *state, maximum + 1, instances, 0);
}

bool captureFixedDraws(RecordHandle &h, CallCtx &c, const GLint *firsts, const GLsizei *counts,
                       uint32_t draws, GLenum type, const void *const *indices, bool indexed) {
    // A single draw of nothing reads nothing and records no arrays.
    if (c.failed || !counts || draws == 0 || (draws == 1 && counts[0] <= 0)) return false;
    CFFContextState *state = egl::currentEs1State();
    if (!state) return false;
    if (!indexed) {
        // Only draws that draw something read memory.
        uint32_t range = 0, lowest = UINT32_MAX;
        for (uint32_t i = 0; i < draws; ++i) {
            if (counts[i] <= 0) continue;
            range = std::max(range, static_cast<uint32_t>(firsts[i]) + static_cast<uint32_t>(counts[i]));
            lowest = std::min(lowest, static_cast<uint32_t>(firsts[i]));
        }
        if (range == 0) return false;
        platform::LockGuard<StateLock> guard(stateLock());
        return captureFixedArrays(h, *state, range, lowest);
    }
    GLint boundElements = 0;
    SEs1Host::get().fn.glGetIntegerv(GL_ELEMENT_ARRAY_BUFFER_BINDING, &boundElements);
    platform::LockGuard<StateLock> guard(stateLock());
    const std::vector<uint8_t> *contents = nullptr;
    if (boundElements) contents = &state->shared().buffers[static_cast<GLuint>(boundElements)].contents;
    bool clientArrays = false;
    for (uint32_t key = kFFVertexArray; key < kFFTexCoordArray + CFFContextState::kTextureUnits; ++key) {
        const CFFContextState::ClientArray *array = state->array(key);
        if (array && array->enabled && array->buffer == 0 && array->pointer) clientArrays = true;
    }
    uint32_t maximum = 0;
    bool drawsSomething = false;
    if (!writeIndices(h, counts, type, indices, draws, contents, clientArrays, 0, nullptr, true, &maximum,
                      &drawsSomething))
        return false;
    return !clientArrays || !drawsSomething || captureFixedArrays(h, *state, maximum + 1, 0);
}

} // namespace kv::arrays

// ---- The draws' record tails ----------------------------------------------------------------

namespace kv::capture {

using arrays::captureArrays;
using arrays::captureElements;

void glDrawArrays_tail(RecordHandle &h, CallCtx &c, GLenum, GLint first, GLsizei count) {
    if (c.d.recordData) captureArrays(h, c, &first, &count, 1, 0);
}

void glDrawArraysInstanced_tail(RecordHandle &h, CallCtx &c, GLenum, GLint first, GLsizei count,
                                GLsizei instances) {
    // An instance count of 0 draws nothing (and is no non-instanced draw).
    if (c.d.recordData && instances > 0)
        captureArrays(h, c, &first, &count, 1, static_cast<uint32_t>(instances));
}

void glDrawElements_tail(RecordHandle &h, CallCtx &c, GLenum, GLsizei count, GLenum type,
                         const void *indices) {
    if (c.d.recordData) captureElements(h, c, &count, type, &indices, 1, 0, 0, nullptr);
}

void glDrawRangeElements_tail(RecordHandle &h, CallCtx &c, GLenum, GLuint, GLuint end, GLsizei count,
                              GLenum type, const void *indices) {
    // The range names the largest index: no scan needed.
    if (c.d.recordData) captureElements(h, c, &count, type, &indices, 1, 0, end, nullptr);
}

void glDrawElementsInstanced_tail(RecordHandle &h, CallCtx &c, GLenum, GLsizei count, GLenum type,
                                  const void *indices, GLsizei instances) {
    if (c.d.recordData && instances > 0)
        captureElements(h, c, &count, type, &indices, 1, static_cast<uint32_t>(instances), 0, nullptr);
}

void glDrawElementsBaseVertex_tail(RecordHandle &h, CallCtx &c, GLenum, GLsizei count, GLenum type,
                                   const void *indices, GLint basevertex) {
    if (c.d.recordData) captureElements(h, c, &count, type, &indices, 1, 0, 0, &basevertex);
}

void glDrawRangeElementsBaseVertex_tail(RecordHandle &h, CallCtx &c, GLenum, GLuint, GLuint end,
                                        GLsizei count, GLenum type, const void *indices, GLint basevertex) {
    if (c.d.recordData)
        captureElements(h, c, &count, type, &indices, 1, 0, end + static_cast<GLuint>(basevertex), nullptr);
}

void glDrawElementsInstancedBaseVertex_tail(RecordHandle &h, CallCtx &c, GLenum, GLsizei count, GLenum type,
                                            const void *indices, GLsizei instances, GLint basevertex) {
    if (c.d.recordData && instances > 0)
        captureElements(h, c, &count, type, &indices, 1, static_cast<uint32_t>(instances), 0, &basevertex);
}

} // namespace kv::capture

namespace kv::capture::es1 {

void glDrawArrays_tail(RecordHandle &h, CallCtx &c, GLenum, GLint first, GLsizei count) {
    if (c.d.recordData) arrays::captureFixedDraws(h, c, &first, &count, 1, 0, nullptr, false);
}

void glDrawElements_tail(RecordHandle &h, CallCtx &c, GLenum, GLsizei count, GLenum type,
                         const void *indices) {
    if (c.d.recordData) arrays::captureFixedDraws(h, c, nullptr, &count, 1, type, &indices, true);
}

} // namespace kv::capture::es1
