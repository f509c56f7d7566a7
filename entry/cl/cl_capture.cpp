#include "entry/cl/cl_capture.h"

#include "host/hosts.h"
#include "platform/platform.h"

#include <algorithm>

namespace kv::capture {

namespace {

template <class T>
bool readValue(const void *p, T &out) {
    return p && platform::guardedCopy(&out, p, sizeof(T)) == sizeof(T);
}

// Three size_t values (an origin or a region); false when they cannot be read.
bool readTriple(const size_t *p, size_t out[3]) {
    return p && platform::guardedCopy(out, p, 3 * sizeof(size_t)) == 3 * sizeof(size_t);
}

// Bytes spanned by `region` (in bytes across, rows, slices) laid out with the given pitches,
// starting at byte `start`: up to and including the region's last byte. Pitches of 0 mean packed.
// A span past what memory can hold is a bad argument: nothing is read for it.
uint64_t span(uint64_t start, uint64_t across, uint64_t rows, uint64_t slices, uint64_t rowPitch,
              uint64_t slicePitch) {
    if (across == 0 || rows == 0 || slices == 0) return 0;
    if (rowPitch == 0) rowPitch = across;
    if (slicePitch == 0) slicePitch = rowPitch * rows;
    constexpr uint64_t kLimit = uint64_t(1) << 47;
    if (across > kLimit || rowPitch > kLimit || slicePitch > kLimit || rows > kLimit || slices > kLimit)
        return 0;
    const long double total = static_cast<long double>(start) +
                              static_cast<long double>(slices - 1) * slicePitch +
                              static_cast<long double>(rows - 1) * rowPitch + across;
    if (total > static_cast<long double>(kLimit)) return 0;
    return start + (slices - 1) * slicePitch + (rows - 1) * rowPitch + across;
}

} // namespace

uint64_t present(CallCtx &, const void *p) {
    return p ? 1 : 0;
}

uint64_t present3(CallCtx &, const size_t *p) {
    return p ? 3 : 0;
}

uint64_t hostBytes(CallCtx &, const void *p, size_t bytes) {
    return p ? bytes : 0;
}

uint64_t listOut(CallCtx &, const void *list, cl_uint room, const cl_uint *stated, size_t unit) {
    if (!list) return 0;
    uint64_t n = room;
    cl_uint count = 0;
    if (stated && readValue(stated, count)) n = std::min<uint64_t>(n, count);
    return n * unit;
}

uint64_t infoBytes(CallCtx &c, const void *value, size_t size, const size_t *stated) {
    if (!value) return 0;
    size_t bytes = 0;
    if (stated && readValue(stated, bytes)) return std::min<uint64_t>(size, bytes);
    if (!stated && c.scratch[kInfoStatedFlag]) return std::min<uint64_t>(size, c.scratch[kInfoStatedSize]);
    return size;
}

uint64_t propertyList(CallCtx &, const intptr_t *list) {
    if (!list) return 0;
    constexpr uint64_t kMaxPairs = 1024;
    for (uint64_t i = 0; i < kMaxPairs; ++i) {
        intptr_t name = 0;
        if (!readValue(list + 2 * i, name)) return 2 * i;
        if (name == 0) return 2 * i + 1;
    }
    return 2 * kMaxPairs;
}

uint64_t partitionList(CallCtx &, const intptr_t *list) {
    if (!list) return 0;
    constexpr uint64_t kMax = 1024;
    intptr_t kind = 0;
    if (!readValue(list, kind)) return 0;
    if (kind == 0) return 1;
    // By counts: the counts end with their own 0 (CL_DEVICE_PARTITION_BY_COUNTS_LIST_END), then the
    // list's terminator follows. Every other kind has one value.
    uint64_t i = 1;
    if (kind == CL_DEVICE_PARTITION_BY_COUNTS) {
        for (; i < kMax; ++i) {
            intptr_t v = 0;
            if (!readValue(list + i, v)) return i;
            if (v == CL_DEVICE_PARTITION_BY_COUNTS_LIST_END) break;
        }
        ++i;
    } else {
        ++i;
    }
    return std::min<uint64_t>(i + 1, kMax);
}

uint32_t imageElementBytes(const cl_image_format *format) {
    cl_image_format f{};
    if (!readValue(format, f)) return 0;
    uint32_t channels = 0;
    switch (f.image_channel_order) {
    case CL_R:
    case CL_A:
    case CL_INTENSITY:
    case CL_LUMINANCE:
    case CL_Rx:
    case CL_DEPTH:
        channels = 1;
        break;
    case CL_RG:
    case CL_RA:
    case CL_RGx:
    case CL_DEPTH_STENCIL:
        channels = 2;
        break;
    case CL_RGB:
    case CL_RGBx:
        channels = 3;
        break;
    case CL_RGBA:
    case CL_BGRA:
    case CL_ARGB:
        channels = 4;
        break;
    default:
        return 0;
    }
    switch (f.image_channel_data_type) {
    case CL_SNORM_INT8:
    case CL_UNORM_INT8:
    case CL_SIGNED_INT8:
    case CL_UNSIGNED_INT8:
        return channels;
    case CL_SNORM_INT16:
    case CL_UNORM_INT16:
    case CL_SIGNED_INT16:
    case CL_UNSIGNED_INT16:
    case CL_HALF_FLOAT:
        return 2 * channels;
    case CL_SIGNED_INT32:
    case CL_UNSIGNED_INT32:
    case CL_FLOAT:
        return 4 * channels;
    // Packed formats: one element whatever the channel order says.
    case CL_UNORM_SHORT_565:
    case CL_UNORM_SHORT_555:
        return 2;
    case CL_UNORM_INT_101010:
    case CL_UNORM_INT24:
        return 4;
    default:
        return 0;
    }
}

uint64_t image2DBytes(CallCtx &c, const void *host, const cl_image_format *format, size_t width,
                      size_t height, size_t rowPitch) {
    return image3DBytes(c, host, format, width, height, 1, rowPitch, 0);
}

uint64_t image3DBytes(CallCtx &, const void *host, const cl_image_format *format, size_t width, size_t height,
                      size_t depth, size_t rowPitch, size_t slicePitch) {
    if (!host) return 0;
    const uint32_t element = imageElementBytes(format);
    if (element == 0 || width > (uint64_t(1) << 40)) return 0;
    return span(0, uint64_t(width) * element, height, depth, rowPitch, slicePitch);
}

uint64_t imageDescBytes(CallCtx &c, const void *host, const cl_image_format *format,
                        const cl_image_desc *desc) {
    cl_image_desc d{};
    if (!host || !readValue(desc, d)) return 0;
    size_t height = 1, depth = 1;
    switch (d.image_type) {
    case CL_MEM_OBJECT_IMAGE1D_ARRAY:
        // The array's layers are its rows.
        depth = d.image_array_size;
        d.image_slice_pitch = d.image_slice_pitch ? d.image_slice_pitch : d.image_row_pitch;
        break;
    case CL_MEM_OBJECT_IMAGE2D:
        height = d.image_height;
        break;
    case CL_MEM_OBJECT_IMAGE2D_ARRAY:
        height = d.image_height;
        depth = d.image_array_size;
        break;
    case CL_MEM_OBJECT_IMAGE3D:
        height = d.image_height;
        depth = d.image_depth;
        break;
    default: // 1D images and 1D images on a buffer: one row
        break;
    }
    return image3DBytes(c, host, format, d.image_width, height, depth, d.image_row_pitch,
                        d.image_slice_pitch);
}

uint64_t clImageBytes(CallCtx &c, const void *host, cl_mem image, const size_t *region, size_t rowPitch,
                      size_t slicePitch) {
    size_t r[3];
    if (!host || c.failed || !readTriple(region, r)) return 0;
    // The image's element size, asked of the host directly (not a call of the application).
    auto getImageInfo = SClHost::get().fn.clGetImageInfo;
    size_t element = 0;
    if (!getImageInfo ||
        getImageInfo(image, CL_IMAGE_ELEMENT_SIZE, sizeof(element), &element, nullptr) != CL_SUCCESS ||
        element == 0 || r[0] > (uint64_t(1) << 40))
        return 0;
    return span(0, uint64_t(r[0]) * element, r[1], r[2], rowPitch, slicePitch);
}

uint64_t rectBytes(CallCtx &c, const void *host, const size_t *origin, const size_t *region, size_t rowPitch,
                   size_t slicePitch) {
    size_t o[3], r[3];
    if (!host || !readTriple(origin, o) || !readTriple(region, r)) return 0;
    if (rowPitch == 0) rowPitch = r[0];
    if (slicePitch == 0) slicePitch = rowPitch * r[1];
    constexpr uint64_t kLimit = uint64_t(1) << 40;
    if (o[0] > kLimit || o[1] > kLimit || o[2] > kLimit || rowPitch > kLimit || slicePitch > kLimit) return 0;
    const uint64_t start = o[2] * slicePitch + o[1] * rowPitch + o[0];
    return span(start, r[0], r[1], r[2], rowPitch, slicePitch);
}

} // namespace kv::capture
