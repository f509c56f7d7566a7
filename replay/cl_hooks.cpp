// What playing OpenCL calls needs beyond decoding, calling and remapping: handles hidden in
// property lists and kernel arguments, host memory of the recording process, reads compared with
// what the recording read, and mappings filled from what the recorded host wrote into them.
#include "replay/hooks.h"
#include "replay/session.h"

#include <algorithm>
#include <cstring>

namespace kv::replay {

namespace {

constexpr uint8_t kUnwritten = 0xA5;

// ---- Property lists ------------------------------------------------------------------------------

const cl_context_properties *localProperties(Call &c, const cl_context_properties *recorded) {
    if (!recorded) return nullptr;
    uint32_t bytes = 0;
    if (!c.block(0, &bytes)) return recorded;
    // Copied out of the record, whose blocks keep no alignment.
    std::vector<intptr_t> &out = c.thread.properties;
    out.resize(bytes / sizeof(cl_context_properties));
    std::memcpy(out.data(), recorded, out.size() * sizeof(cl_context_properties));
    for (size_t k = 0; k + 1 < out.size() && out[k] != 0; k += 2) {
        const uint64_t value = static_cast<uint64_t>(out[k + 1]);
        switch (out[k]) {
        case CL_CONTEXT_PLATFORM:
            out[k + 1] = static_cast<intptr_t>(c.mapHandle(Handle::ClPlatform, value));
            break;
        case CL_GL_CONTEXT_KHR: {
            auto it = c.player.contexts.find(value);
            if (it == c.player.contexts.end()) {
                c.fail("it shares an EGL context the trace never created");
                break;
            }
            out[k + 1] = reinterpret_cast<intptr_t>(it->second->local);
            break;
        }
        case CL_EGL_DISPLAY_KHR:
            out[k + 1] = reinterpret_cast<intptr_t>(c.player.localDisplay());
            break;
        default:
            break;
        }
    }
    return out.data();
}

// ---- Host memory ---------------------------------------------------------------------------------

// The recording process's own memory stood behind the object: here its recorded contents are
// copied in instead.
bool ownHostMemory(Call &c, cl_mem_flags &flags, void *host) {
    if (!(flags & CL_MEM_USE_HOST_PTR)) return true;
    if (!host) {
        c.fail("the record lacks the host memory the object was made from");
        return false;
    }
    flags = (flags & ~cl_mem_flags(CL_MEM_USE_HOST_PTR)) | CL_MEM_COPY_HOST_PTR;
    return true;
}

// ---- Reads ---------------------------------------------------------------------------------------

// Where a read writes: the runs, and the bytes the destination must span.
size_t spanOf(const Player::Runs &runs) {
    size_t span = 0;
    for (const auto &run : runs)
        span = std::max(span, run.first + run.second);
    return span;
}

Player::Runs boxRuns(const size_t *origin, const size_t *region, size_t elementBytes, size_t row,
                     size_t slice) {
    Player::Runs runs;
    if (!region) return runs;
    const size_t rowBytes = region[0] * elementBytes;
    if (row == 0) row = rowBytes;
    if (slice == 0) slice = row * region[1];
    const size_t x = origin ? origin[0] * elementBytes : 0, y = origin ? origin[1] : 0,
                 z = origin ? origin[2] : 0;
    for (size_t k = 0; k < region[2]; ++k)
        for (size_t j = 0; j < region[1]; ++j)
            runs.emplace_back((z + k) * slice + (y + j) * row + x, rowBytes);
    return runs;
}

// The destination of a read: scratch memory set apart from what the recording read back, so that
// a run the device leaves unwritten cannot pass for a right one.
void *readDestination(Call &c, int field, const Player::Runs &runs) {
    uint32_t recordedBytes = 0;
    const uint8_t *recorded = c.block(field, &recordedBytes);
    std::vector<uint8_t> &out = c.thread.readBack;
    out.assign(std::max<size_t>(spanOf(runs), 1), kUnwritten);
    for (size_t k = 0; recorded && k < std::min<size_t>(recordedBytes, out.size()); ++k)
        out[k] = static_cast<uint8_t>(~recorded[k]);
    return out.data();
}

void readDone(Call &c, cl_int result, int field, const void *local, const Player::Runs &runs) {
    if (result != CL_SUCCESS) return; // said with the call's status
    uint32_t recordedBytes = 0;
    const uint8_t *recorded = c.block(field, &recordedBytes);
    const uint8_t *bytes = static_cast<const uint8_t *>(local);
    if (recorded) {
        c.player.compareRead(c.e, bytes, recorded, recordedBytes, runs);
        return;
    }
    // The recording read without blocking: the bytes come with the record of its completion.
    if (c.value(2) == CL_FALSE && c.value(field) != 0) {
        Player::PendingRead &pending = c.player.clPendingReads[c.value(field)];
        pending.bytes.assign(bytes, bytes + spanOf(runs));
        pending.runs = runs;
    }
}

size_t elementSize(Call &c, cl_mem image) {
    size_t bytes = 0;
    if (!c.cl().clGetImageInfo ||
        c.cl().clGetImageInfo(image, CL_IMAGE_ELEMENT_SIZE, sizeof(bytes), &bytes, nullptr) != CL_SUCCESS)
        return 0;
    return bytes;
}

} // namespace

void Player::compareRead(const reader::Entry &e, const uint8_t *local, const uint8_t *recorded,
                         size_t recordedBytes, const Runs &runs) {
    ++clReadsCompared_;
    for (const auto &run : runs) {
        if (run.first + run.second > recordedBytes) {
            ++clReadsDiffering_;
            problem(e, "the record holds fewer bytes than the read brings back");
            return;
        }
        if (std::memcmp(local + run.first, recorded + run.first, run.second) == 0) continue;
        size_t at = run.first;
        while (local[at] == recorded[at])
            ++at;
        ++clReadsDiffering_;
        problem(e, "the bytes read back differ from the recorded ones from byte " + std::to_string(at));
        return;
    }
}

void Player::readCompleted(const reader::Entry &e) {
    // queue, event, destination (with its bytes)
    if (e.args.size() < 3) return;
    auto it = clPendingReads.find(e.args[2].value);
    if (it == clPendingReads.end()) return; // a read that failed here, or was never made
    uint32_t bytes = 0;
    const uint8_t *recorded = nullptr;
    if (e.args[2].block >= 0) {
        const reader::Block &b = e.blocks[static_cast<size_t>(e.args[2].block)];
        bytes = b.size;
        recorded = e.bytes(b);
    }
    if (recorded) compareRead(e, it->second.bytes.data(), recorded, bytes, it->second.runs);
    clPendingReads.erase(it);
}

// ---- Contexts ------------------------------------------------------------------------------------

bool Hooks<cl::clCreateContext>::before(Call &c, const cl_context_properties *&properties, cl_uint &,
                                        const cl_device_id *&, std::nullptr_t &, void *&, cl_int *&) {
    properties = localProperties(c, properties);
    return c.ok();
}

bool Hooks<cl::clCreateContextFromType>::before(Call &c, const cl_context_properties *&properties,
                                                cl_device_type &, std::nullptr_t &, void *&, cl_int *&) {
    properties = localProperties(c, properties);
    return c.ok();
}

// ---- Memory objects ------------------------------------------------------------------------------

bool Hooks<cl::clCreateBuffer>::before(Call &c, cl_context &, cl_mem_flags &flags, size_t &, void *&host,
                                       cl_int *&) {
    return ownHostMemory(c, flags, host);
}
bool Hooks<cl::clCreateImage>::before(Call &c, cl_context &, cl_mem_flags &flags, const cl_image_format *&,
                                      const cl_image_desc *&, void *&host, cl_int *&) {
    return ownHostMemory(c, flags, host);
}
bool Hooks<cl::clCreateImage2D>::before(Call &c, cl_context &, cl_mem_flags &flags, const cl_image_format *&,
                                        size_t &, size_t &, size_t &, void *&host, cl_int *&) {
    return ownHostMemory(c, flags, host);
}
bool Hooks<cl::clCreateImage3D>::before(Call &c, cl_context &, cl_mem_flags &flags, const cl_image_format *&,
                                        size_t &, size_t &, size_t &, size_t &, size_t &, void *&host,
                                        cl_int *&) {
    return ownHostMemory(c, flags, host);
}

// ---- Programs and kernels ------------------------------------------------------------------------

bool Hooks<cl::clCreateProgramWithSource>::before(Call &, cl_context &, cl_uint &, const char **&,
                                                  const size_t *&lengths, cl_int *&) {
    // The copies are terminated and hold the text the lengths gave (a recorded text of unstated
    // length holds its terminator, which the compiler must not see as source).
    lengths = nullptr;
    return true;
}

bool Hooks<cl::clSetKernelArg>::before(Call &c, cl_kernel &, cl_uint &, size_t &size, const void *&value) {
    if (size != sizeof(cl_mem) || !value) return true;
    uint64_t recorded = 0, local = 0;
    std::memcpy(&recorded, value, sizeof(recorded));
    // Handles are addresses of the recording process: a value equal to one of its memory objects
    // or samplers is taken for that object.
    if (c.knownHandle(Handle::ClMem, recorded, local) || c.knownHandle(Handle::ClSampler, recorded, local)) {
        c.thread.argHandle = local;
        value = &c.thread.argHandle;
    }
    return true;
}

cl_int Hooks<cl::clEnqueueNativeKernel>::call(Call &c, cl_command_queue queue, std::nullptr_t, void *, size_t,
                                              cl_uint, const cl_mem *, const void **, cl_uint waitCount,
                                              const cl_event *waitList, cl_event *event) {
    c.player.problem(c.e, "a native kernel runs a function of the recorded program and cannot be replayed; "
                          "a marker stands in its place");
    if (!c.cl().clEnqueueMarkerWithWaitList) {
        if (event) *event = nullptr;
        return CL_SUCCESS;
    }
    return c.cl().clEnqueueMarkerWithWaitList(queue, waitCount, waitList, event);
}

// ---- Reads ---------------------------------------------------------------------------------------

bool Hooks<cl::clEnqueueReadBuffer>::before(Call &c, cl_command_queue &, cl_mem &, cl_bool &blocking,
                                            size_t &, size_t &size, void *&ptr, cl_uint &, const cl_event *&,
                                            cl_event *&) {
    blocking = CL_TRUE;
    ptr = readDestination(c, 5, {{0, size}});
    return true;
}
void Hooks<cl::clEnqueueReadBuffer>::after(Call &c, cl_int &result, cl_command_queue, cl_mem, cl_bool, size_t,
                                           size_t size, void *ptr, cl_uint, const cl_event *, cl_event *) {
    readDone(c, result, 5, ptr, {{0, size}});
}

namespace {
Player::Runs rectRuns(const size_t *hostOrigin, const size_t *region, size_t row, size_t slice) {
    return boxRuns(hostOrigin, region, 1, row, slice);
}
} // namespace

bool Hooks<cl::clEnqueueReadBufferRect>::before(Call &c, cl_command_queue &, cl_mem &, cl_bool &blocking,
                                                const size_t *&, const size_t *&hostOrigin,
                                                const size_t *&region, size_t &, size_t &, size_t &row,
                                                size_t &slice, void *&ptr, cl_uint &, const cl_event *&,
                                                cl_event *&) {
    blocking = CL_TRUE;
    ptr = readDestination(c, 10, rectRuns(hostOrigin, region, row, slice));
    return true;
}
void Hooks<cl::clEnqueueReadBufferRect>::after(Call &c, cl_int &result, cl_command_queue, cl_mem, cl_bool,
                                               const size_t *, const size_t *hostOrigin, const size_t *region,
                                               size_t, size_t, size_t row, size_t slice, void *ptr, cl_uint,
                                               const cl_event *, cl_event *) {
    readDone(c, result, 10, ptr, rectRuns(hostOrigin, region, row, slice));
}

bool Hooks<cl::clEnqueueReadImage>::before(Call &c, cl_command_queue &, cl_mem &image, cl_bool &blocking,
                                           const size_t *&, const size_t *&region, size_t &row, size_t &slice,
                                           void *&ptr, cl_uint &, const cl_event *&, cl_event *&) {
    blocking = CL_TRUE;
    ptr = readDestination(c, 7, boxRuns(nullptr, region, elementSize(c, image), row, slice));
    return true;
}
void Hooks<cl::clEnqueueReadImage>::after(Call &c, cl_int &result, cl_command_queue, cl_mem image, cl_bool,
                                          const size_t *, const size_t *region, size_t row, size_t slice,
                                          void *ptr, cl_uint, const cl_event *, cl_event *) {
    readDone(c, result, 7, ptr, boxRuns(nullptr, region, elementSize(c, image), row, slice));
}

// ---- Mappings ------------------------------------------------------------------------------------

bool Hooks<cl::clEnqueueMapBuffer>::before(Call &, cl_command_queue &, cl_mem &, cl_bool &blocking,
                                           cl_map_flags &, size_t &, size_t &, cl_uint &, const cl_event *&,
                                           cl_event *&, cl_int *&) {
    // The recorded host's writes are copied in at the unmap, which may come before any wait.
    blocking = CL_TRUE;
    return true;
}
void Hooks<cl::clEnqueueMapBuffer>::after(Call &c, void *&result, cl_command_queue, cl_mem, cl_bool,
                                          cl_map_flags, size_t, size_t, cl_uint, const cl_event *, cl_event *,
                                          cl_int *) {
    if (result && c.e.result) c.player.clMappings[c.e.result] = result;
}

bool Hooks<cl::clEnqueueMapImage>::before(Call &, cl_command_queue &, cl_mem &, cl_bool &blocking,
                                          cl_map_flags &, const size_t *&, const size_t *&, size_t *&,
                                          size_t *&, cl_uint &, const cl_event *&, cl_event *&, cl_int *&) {
    blocking = CL_TRUE;
    return true;
}
void Hooks<cl::clEnqueueMapImage>::after(Call &c, void *&result, cl_command_queue, cl_mem, cl_bool,
                                         cl_map_flags, const size_t *, const size_t *, size_t *row, size_t *,
                                         cl_uint, const cl_event *, cl_event *, cl_int *) {
    if (!result || !c.e.result) return;
    // The recorded writes are laid out by the recorded pitch: a local mapping of another layout
    // cannot take them as they are.
    uint32_t bytes = 0;
    const uint8_t *recordedRow = c.block(6, &bytes);
    uint64_t pitch = 0;
    if (recordedRow && bytes >= 8) std::memcpy(&pitch, recordedRow, 8);
    if (row && recordedRow && pitch != *row)
        c.fail("the local image is mapped with another row pitch than the recorded one; writes through the "
               "mapping "
               "are not replayed");
    else
        c.player.clMappings[c.e.result] = result;
}

bool Hooks<cl::clEnqueueUnmapMemObject>::before(Call &c, cl_command_queue &, cl_mem &, void *&mapped,
                                                cl_uint &, const cl_event *&, cl_event *&) {
    auto it = c.player.clMappings.find(c.value(2));
    if (it == c.player.clMappings.end()) {
        c.fail("it gives back a mapping the trace never made");
        return false;
    }
    mapped = it->second;
    const int written = c.field("written");
    uint32_t bytes = 0;
    const uint8_t *data = written >= 0 ? c.block(written, &bytes) : nullptr;
    if (data) std::memcpy(mapped, data, bytes);
    return true;
}
void Hooks<cl::clEnqueueUnmapMemObject>::after(Call &c, cl_int &result, cl_command_queue, cl_mem, void *,
                                               cl_uint, const cl_event *, cl_event *) {
    if (result == CL_SUCCESS) c.player.clMappings.erase(c.value(2));
}

// ---- Queries answering with handles --------------------------------------------------------------

namespace {
void noteDevices(Call &c, int field, const void *value) {
    uint32_t bytes = 0;
    const uint8_t *recorded = c.block(field, &bytes);
    if (!recorded || !value) return;
    const auto *made = static_cast<const cl_device_id *>(value);
    for (uint32_t k = 0; k + 8 <= bytes; k += 8) {
        uint64_t r;
        std::memcpy(&r, recorded + k, 8);
        c.noteHandle(Handle::ClDevice, r, reinterpret_cast<uintptr_t>(made[k / 8]));
    }
}
} // namespace

void Hooks<cl::clGetContextInfo>::after(Call &c, cl_int &result, cl_context, cl_context_info name, size_t,
                                        void *value, size_t *) {
    if (result == CL_SUCCESS && name == CL_CONTEXT_DEVICES) noteDevices(c, 3, value);
}

bool Hooks<cl::clGetProgramInfo>::before(Call &, cl_program &, cl_program_info &name, size_t &, void *&,
                                         size_t *&) {
    return name != CL_PROGRAM_BINARIES;
}
void Hooks<cl::clGetProgramInfo>::after(Call &c, cl_int &result, cl_program, cl_program_info name, size_t,
                                        void *value, size_t *) {
    if (result == CL_SUCCESS && name == CL_PROGRAM_DEVICES) noteDevices(c, 3, value);
}

} // namespace kv::replay
