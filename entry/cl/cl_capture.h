// Sizes of the client memory OpenCL calls read and write, for their records (api/records.txt
// names them). Every read of the application's memory goes through the guarded copy: an
// unreadable pointer gives a size of 0, never a fault.
#pragma once

#include "core/call_types.h"

namespace kv::capture {

// 1 (3) when the pointer is given, else 0: a single value (an origin or region of three).
uint64_t present(CallCtx &c, const void *p);
uint64_t present3(CallCtx &c, const size_t *p);
// `bytes` when the pointer is given.
uint64_t hostBytes(CallCtx &c, const void *p, size_t bytes);
// Bytes of the entries a list query wrote: the smaller of the room and the count it stated (the
// room when no count was asked for), each of `unit` elements.
uint64_t listOut(CallCtx &c, const void *list, cl_uint room, const cl_uint *stated, size_t unit);
// Where an info query called without a size location keeps the size the host stated to the
// wrapper (entry/cl/cl_call.h): a flag that it did, and the size.
constexpr int kInfoStatedFlag = 4;
constexpr int kInfoStatedSize = 5;
// Bytes an info query wrote: the smaller of the buffer's size and the size the host stated (to
// the application, or to the wrapper when the application asked for none).
uint64_t infoBytes(CallCtx &c, const void *value, size_t size, const size_t *stated);
// Elements of a zero-terminated property list of {name, value} pairs, the terminator included.
uint64_t propertyList(CallCtx &c, const intptr_t *list);
// Elements of a device partition list (a counts list has a terminator of its own).
uint64_t partitionList(CallCtx &c, const intptr_t *list);
// Bytes of one element of an image format; 0 when the format is unreadable or unknown.
uint32_t imageElementBytes(const cl_image_format *format);
// Host memory of an image at its creation: rows (or slices) of the given pitch, or packed.
uint64_t image2DBytes(CallCtx &c, const void *host, const cl_image_format *format, size_t width,
                      size_t height, size_t rowPitch);
uint64_t image3DBytes(CallCtx &c, const void *host, const cl_image_format *format, size_t width,
                      size_t height, size_t depth, size_t rowPitch, size_t slicePitch);
uint64_t imageDescBytes(CallCtx &c, const void *host, const cl_image_format *format,
                        const cl_image_desc *desc);
// Host memory a read or write of an image region spans, from the image's element size.
uint64_t clImageBytes(CallCtx &c, const void *host, cl_mem image, const size_t *region, size_t rowPitch,
                      size_t slicePitch);
// Host memory a rectangular buffer transfer spans from `host`: up to the last byte of the region.
uint64_t rectBytes(CallCtx &c, const void *host, const size_t *origin, const size_t *region, size_t rowPitch,
                   size_t slicePitch);

} // namespace kv::capture
