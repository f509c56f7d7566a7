#include "entry/cl/cl_hooks.h"

#include "base/messages.h"
#include "entry/cl/cl_capture.h"
#include "entry/cl/cl_forward.h"
#include "entry/entries_autogen.h"
#include "host/hosts.h"
#include "trace/trace_writer.h"

#include <cstddef>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace kv {

namespace {

// ---- The platform description -----------------------------------------------------------------

// A text the host reports through one of its info queries (size first, then the text); empty
// when the query fails.
template <class Query, class Object, class Name>
std::string infoText(Query query, Object object, Name name) {
    size_t size = 0;
    if (!query || query(object, name, 0, nullptr, &size) != CL_SUCCESS || size == 0 || size > (1u << 20))
        return {};
    std::string text(size, '\0');
    if (query(object, name, size, text.data(), nullptr) != CL_SUCCESS) return {};
    text.resize(std::strlen(text.c_str()));
    return text;
}

struct DeviceText {
    cl_device_id device;
    std::string vendor;
    std::string name;
    cl_device_type type = 0;
};

// One record 6000 per platform, written before the first OpenCL call recorded with its data. The
// host is asked directly: these queries are the library's, not the application's.
void writePlatformRecords() {
    const SClHostFns &fn = SClHost::get().fn;
    if (!fn.clGetPlatformIDs || !fn.clGetPlatformInfo || !fn.clGetDeviceIDs || !fn.clGetDeviceInfo) return;
    cl_uint count = 0;
    if (fn.clGetPlatformIDs(0, nullptr, &count) != CL_SUCCESS || count == 0) return;
    std::vector<cl_platform_id> platforms(count);
    if (fn.clGetPlatformIDs(count, platforms.data(), nullptr) != CL_SUCCESS) return;
    for (cl_platform_id platform : platforms) {
        const std::string vendor = infoText(fn.clGetPlatformInfo, platform, CL_PLATFORM_VENDOR);
        const std::string name = infoText(fn.clGetPlatformInfo, platform, CL_PLATFORM_NAME);
        cl_uint deviceCount = 0;
        std::vector<cl_device_id> ids;
        if (fn.clGetDeviceIDs(platform, CL_DEVICE_TYPE_ALL, 0, nullptr, &deviceCount) == CL_SUCCESS &&
            deviceCount) {
            ids.resize(deviceCount);
            if (fn.clGetDeviceIDs(platform, CL_DEVICE_TYPE_ALL, deviceCount, ids.data(), nullptr) !=
                CL_SUCCESS)
                ids.clear();
        }
        std::vector<DeviceText> devices;
        for (cl_device_id id : ids) {
            DeviceText d{id, infoText(fn.clGetDeviceInfo, id, CL_DEVICE_VENDOR),
                         infoText(fn.clGetDeviceInfo, id, CL_DEVICE_NAME)};
            if (fn.clGetDeviceInfo(id, CL_DEVICE_TYPE, sizeof(d.type), &d.type, nullptr) != CL_SUCCESS)
                d.type = 0;
            devices.push_back(std::move(d));
        }
        RecordHandle h = trace::begin(6000);
        if (!h) continue;
        h.ptr(platform);
        h.appendString(vendor.c_str());
        h.appendString(name.c_str());
        h.u32(static_cast<uint32_t>(devices.size()));
        for (const DeviceText &d : devices) {
            h.ptr(d.device);
            h.appendString(d.vendor.c_str());
            h.appendString(d.name.c_str());
            h.u64(d.type);
        }
        trace::finish(h);
    }
}

struct InstallPlatformRecords {
    InstallPlatformRecords() { setOpenClInitialisation(&writePlatformRecords); }
} g_installPlatformRecords;

// ---- Extension functions ------------------------------------------------------------------------

template <class T>
void *address(T f) {
    return reinterpret_cast<void *>(f);
}

// The extension table: a name the host knows gets the library's wrapper, whose host entry is the
// address the host gave. The table's last row would hand out the release-objects wrapper for
// clCreateEventFromEGLSyncKHR; a program calling it through that address would enqueue a release
// with its context as the queue. The program's view wins: it gets the wrapper of the function it
// asked for (the host address is kept in that function's own entry all the same).
void *wrapperFor(const char *name, void *hostAddress) {
    if (!name || !hostAddress) return hostAddress;
    using Fns = SClHostFns;
    static const struct {
        const char *name;
        size_t offset;
        void *wrapper;
    } kRows[] = {
        {"clGetGLContextInfoKHR", offsetof(Fns, clGetGLContextInfoKHR), address(&cl::getGLContextInfoKHR)},
        {"clCreateEventFromGLsyncKHR", offsetof(Fns, clCreateEventFromGLsyncKHR),
         address(&cl::createEventFromGLsyncKHR)},
        {"clCreateFromEGLImageKHR", offsetof(Fns, clCreateFromEGLImageKHR),
         address(&cl::createFromEGLImageKHR)},
        {"clEnqueueAcquireEGLObjectsKHR", offsetof(Fns, clEnqueueAcquireEGLObjectsKHR),
         address(&cl::enqueueAcquireEGLObjectsKHR)},
        {"clEnqueueReleaseEGLObjectsKHR", offsetof(Fns, clEnqueueReleaseEGLObjectsKHR),
         address(&cl::enqueueReleaseEGLObjectsKHR)},
        {"clCreateEventFromEGLSyncKHR", offsetof(Fns, clCreateEventFromEGLSyncKHR),
         address(&cl::createEventFromEGLSyncKHR)},
    };
    char given[64] = {};
    size_t length = 0;
    if (!platform::guardedStrlen(name, sizeof(given), &length) || length >= sizeof(given)) return hostAddress;
    std::memcpy(given, name, length);
    for (const auto &row : kRows) {
        if (std::strcmp(given, row.name) != 0) continue;
        // The table is otherwise read-only; its extension entries are filled as names are asked for
        // (a pointer-sized store, the same address for every asker of one host).
        static std::mutex lock;
        std::lock_guard<std::mutex> guard(lock);
        auto *fns = const_cast<SClHostFns *>(&SClHost::get().fn);
        std::memcpy(reinterpret_cast<uint8_t *>(fns) + row.offset, &hostAddress, sizeof(hostAddress));
        return row.wrapper;
    }
    return hostAddress;
}

// ---- Mappings ----------------------------------------------------------------------------------

struct Mapping {
    uint64_t bytes;
    bool written; // mapped for writing: the host's writes are recorded at the unmap
};

std::mutex g_mappingLock;
std::unordered_map<const void *, Mapping> &mappings() {
    static auto *m = new std::unordered_map<const void *, Mapping>();
    return *m;
}

void remember(const void *mapped, uint64_t bytes, cl_map_flags flags) {
    if (!mapped) return;
    std::lock_guard<std::mutex> guard(g_mappingLock);
    mappings()[mapped] = Mapping{bytes, (flags & (CL_MAP_WRITE | CL_MAP_WRITE_INVALIDATE_REGION)) != 0};
}

// The copy of a region being given back, for the unmap's record (one per thread: a record is made
// on the thread of its call).
thread_local std::vector<uint8_t> t_unmapped;

// ---- Non-blocking reads -------------------------------------------------------------------------

struct PendingRead {
    cl_command_queue queue;
    cl_event watched;  // retained by the library
    cl_event appEvent; // what the application holds, or null
    void *ptr;
    uint64_t bytes;
};

std::mutex g_readLock;
std::vector<PendingRead> &pendingReads() {
    static auto *reads = new std::vector<PendingRead>();
    return *reads;
}

// Calls a read on the host; a non-blocking one that is recorded with its data gets an event to
// watch (the application's, retained, or one of the library's own) and is kept until it completes.
template <class Call>
cl_int deferredRead(CallCtx &c, cl_command_queue queue, cl_bool blocking, void *ptr, cl_event *event,
                    Call call, uint64_t (*size)(CallCtx &)) {
    const bool defer = !blocking && c.d.record && c.d.recordData && ptr;
    cl_event own = nullptr;
    const cl_int status = call(defer && !event ? &own : event);
    if (!defer || status != CL_SUCCESS) return status;
    const SClHostFns &fn = SClHost::get().fn;
    cl_event watched = own;
    if (event) {
        watched = *event;
        if (fn.clRetainEvent) fn.clRetainEvent(watched);
    }
    PendingRead read{queue, watched, event ? *event : nullptr, ptr, size(c)};
    std::lock_guard<std::mutex> guard(g_readLock);
    pendingReads().push_back(read);
    return status;
}

// Writes the reads that have completed (all of `finished`'s): their destinations now hold what
// the device wrote.
void recordCompletedReads(cl_command_queue finished) {
    std::vector<PendingRead> ready;
    const SClHostFns &fn = SClHost::get().fn;
    {
        std::lock_guard<std::mutex> guard(g_readLock);
        auto &reads = pendingReads();
        if (reads.empty()) return;
        for (size_t i = 0; i < reads.size();) {
            cl_int execution = CL_QUEUED;
            bool complete = reads[i].queue == finished;
            if (!complete && fn.clGetEventInfo &&
                fn.clGetEventInfo(reads[i].watched, CL_EVENT_COMMAND_EXECUTION_STATUS, sizeof(execution),
                                  &execution, nullptr) == CL_SUCCESS)
                complete = execution <= CL_COMPLETE;
            if (complete) {
                ready.push_back(reads[i]);
                reads.erase(reads.begin() + static_cast<long>(i));
            } else {
                ++i;
            }
        }
    }
    for (const PendingRead &read : ready) {
        RecordHandle h = trace::begin(6090);
        if (h) {
            h.ptr(read.queue);
            h.ptr(read.appEvent);
            h.ptr(read.ptr);
            const uint32_t bytes = read.bytes < 0xF0000000u ? static_cast<uint32_t>(read.bytes) : 0;
            h.u32(bytes);
            h.addBlock(bytes, read.ptr, true);
        }
        trace::finish(h);
        if (fn.clReleaseEvent) fn.clReleaseEvent(read.watched);
    }
}

} // namespace

cl_int Hooks<fn::clEnqueueReadBuffer>::host(CallCtx &c, cl_command_queue queue, cl_mem buffer,
                                            cl_bool blocking, size_t offset, size_t size, void *ptr,
                                            cl_uint waitCount, const cl_event *waitList, cl_event *event) {
    c.scratch[0] = size;
    return deferredRead(
        c, queue, blocking, ptr, event,
        [&](cl_event *e) {
            return SClHost::get().fn.clEnqueueReadBuffer(queue, buffer, blocking, offset, size, ptr,
                                                         waitCount, waitList, e);
        },
        [](CallCtx &ctx) { return ctx.scratch[0]; });
}

void Hooks<fn::clEnqueueReadBuffer>::done(CallCtx &, cl_int &, cl_command_queue, cl_mem, cl_bool blocking,
                                          size_t, size_t, void *, cl_uint, const cl_event *, cl_event *) {
    // A blocking read completes what its queue held before it.
    if (blocking) recordCompletedReads(nullptr);
}

cl_int Hooks<fn::clEnqueueReadBufferRect>::host(CallCtx &c, cl_command_queue queue, cl_mem buffer,
                                                cl_bool blocking, const size_t *bufferOrigin,
                                                const size_t *hostOrigin, const size_t *region,
                                                size_t bufferRowPitch, size_t bufferSlicePitch,
                                                size_t hostRowPitch, size_t hostSlicePitch, void *ptr,
                                                cl_uint waitCount, const cl_event *waitList,
                                                cl_event *event) {
    c.scratch[0] = capture::rectBytes(c, ptr, hostOrigin, region, hostRowPitch, hostSlicePitch);
    return deferredRead(
        c, queue, blocking, ptr, event,
        [&](cl_event *e) {
            return SClHost::get().fn.clEnqueueReadBufferRect(
                queue, buffer, blocking, bufferOrigin, hostOrigin, region, bufferRowPitch, bufferSlicePitch,
                hostRowPitch, hostSlicePitch, ptr, waitCount, waitList, e);
        },
        [](CallCtx &ctx) { return ctx.scratch[0]; });
}

cl_int Hooks<fn::clEnqueueReadImage>::host(CallCtx &c, cl_command_queue queue, cl_mem image, cl_bool blocking,
                                           const size_t *origin, const size_t *region, size_t rowPitch,
                                           size_t slicePitch, void *ptr, cl_uint waitCount,
                                           const cl_event *waitList, cl_event *event) {
    c.scratch[0] = capture::clImageBytes(c, ptr, image, region, rowPitch, slicePitch);
    return deferredRead(
        c, queue, blocking, ptr, event,
        [&](cl_event *e) {
            return SClHost::get().fn.clEnqueueReadImage(queue, image, blocking, origin, region, rowPitch,
                                                        slicePitch, ptr, waitCount, waitList, e);
        },
        [](CallCtx &ctx) { return ctx.scratch[0]; });
}

void Hooks<fn::clFinish>::done(CallCtx &c, cl_int &result, cl_command_queue queue) {
    if (result == CL_SUCCESS) recordCompletedReads(queue);
}

void Hooks<fn::clWaitForEvents>::done(CallCtx &, cl_int &, cl_uint, const cl_event *) {
    recordCompletedReads(nullptr);
}

void Hooks<fn::clGetEventInfo>::done(CallCtx &, cl_int &, cl_event, cl_event_info, size_t, void *, size_t *) {
    recordCompletedReads(nullptr);
}

void Hooks<fn::clGetExtensionFunctionAddress>::done(CallCtx &, void *&result, const char *name) {
    result = wrapperFor(name, result);
}

void Hooks<fn::clGetExtensionFunctionAddressForPlatform>::done(CallCtx &, void *&result, cl_platform_id,
                                                               const char *name) {
    result = wrapperFor(name, result);
}

void Hooks<fn::clEnqueueMapBuffer>::after(CallCtx &c, void *&result, cl_command_queue, cl_mem, cl_bool,
                                          cl_map_flags flags, size_t, size_t size, cl_uint, const cl_event *,
                                          cl_event *, cl_int *) {
    if (!c.failed) remember(result, size, flags);
}

void Hooks<fn::clEnqueueMapImage>::after(CallCtx &c, void *&result, cl_command_queue, cl_mem image, cl_bool,
                                         cl_map_flags flags, const size_t *, const size_t *region,
                                         size_t *rowPitch, size_t *slicePitch, cl_uint, const cl_event *,
                                         cl_event *, cl_int *) {
    if (c.failed || !result) return;
    size_t row = 0, slice = 0;
    if (rowPitch) platform::guardedCopy(&row, rowPitch, sizeof(row));
    if (slicePitch) platform::guardedCopy(&slice, slicePitch, sizeof(slice));
    remember(result, capture::clImageBytes(c, result, image, region, row, slice), flags);
}

void Hooks<fn::clEnqueueUnmapMemObject>::before(CallCtx &c, cl_command_queue, cl_mem, void *mapped, cl_uint,
                                                const cl_event *, cl_event *) {
    t_unmapped.clear();
    if (!c.d.record || !c.d.recordData) return;
    Mapping m{0, false};
    {
        std::lock_guard<std::mutex> guard(g_mappingLock);
        auto it = mappings().find(mapped);
        if (it == mappings().end()) return;
        m = it->second;
    }
    if (!m.written || m.bytes == 0) return;
    t_unmapped.resize(m.bytes);
    const size_t got = platform::guardedCopy(t_unmapped.data(), mapped, m.bytes);
    if (got < m.bytes) {
        msg::error("The mapped region at %p could not be read as it was given back; %llu of %llu bytes were "
                   "recorded.",
                   mapped, static_cast<unsigned long long>(got), static_cast<unsigned long long>(m.bytes));
        t_unmapped.resize(got);
    }
}

void Hooks<fn::clEnqueueUnmapMemObject>::done(CallCtx &c, cl_int &, cl_command_queue, cl_mem, void *mapped,
                                              cl_uint, const cl_event *, cl_event *) {
    if (c.failed) return;
    std::lock_guard<std::mutex> guard(g_mappingLock);
    mappings().erase(mapped);
}

namespace capture {

rec::Blob clEnqueueUnmapMemObject_written(CallCtx &c, cl_command_queue, cl_mem, void *, cl_uint,
                                          const cl_event *, cl_event *) {
    if (c.failed || t_unmapped.empty()) return {};
    return {t_unmapped.data(), t_unmapped.size()};
}

// A kernel argument the host accepted is one it has just read: its bytes are copied as they are,
// without the guarded read's system call (this is the call programs make most).
rec::Blob clSetKernelArg_arg_value(CallCtx &c, cl_kernel, cl_uint, size_t size, const void *value) {
    if (!value || !c.d.recordData) return {value, 0};
    if (c.failed || size > 256 || !c.record) return {value, size};
    void *copy = c.record->scratch(size);
    std::memcpy(copy, value, size);
    return {value, size, copy};
}

// A read's destination holds the device's bytes once the read has completed: a blocking read has.
rec::Blob clEnqueueReadBuffer_ptr(CallCtx &c, cl_command_queue, cl_mem, cl_bool blocking, size_t, size_t size,
                                  void *ptr, cl_uint, const cl_event *, cl_event *) {
    if (!blocking) return {ptr, 0};
    return {ptr, hostBytes(c, ptr, size)};
}

rec::Blob clEnqueueReadBufferRect_ptr(CallCtx &c, cl_command_queue, cl_mem, cl_bool blocking, const size_t *,
                                      const size_t *hostOrigin, const size_t *region, size_t, size_t,
                                      size_t hostRowPitch, size_t hostSlicePitch, void *ptr, cl_uint,
                                      const cl_event *, cl_event *) {
    if (!blocking) return {ptr, 0};
    return {ptr, rectBytes(c, ptr, hostOrigin, region, hostRowPitch, hostSlicePitch)};
}

rec::Blob clEnqueueReadImage_ptr(CallCtx &c, cl_command_queue, cl_mem image, cl_bool blocking, const size_t *,
                                 const size_t *region, size_t rowPitch, size_t slicePitch, void *ptr, cl_uint,
                                 const cl_event *, cl_event *) {
    if (!blocking) return {ptr, 0};
    return {ptr, clImageBytes(c, ptr, image, region, rowPitch, slicePitch)};
}

} // namespace capture

} // namespace kv

namespace cl {

void *hostFunction(const char *name) {
    const kv::SClHost &host = kv::SClHost::get();
    void *address = host.module ? kv::platform::getSymbol(host.module, name) : nullptr;
    if (!address) kv::msg::error("The host library has no %s: calls of it are not forwarded and fail.", name);
    return address;
}

} // namespace cl
