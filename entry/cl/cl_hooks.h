// What is special about OpenCL functions beyond the common protocol (entry/cl/cl_call.h): the
// extension function table behind clGetExtensionFunctionAddress(ForPlatform), the regions a
// mapping hands to the host (recorded as they are given back), and reads whose destination is
// recorded once the device has written it.
#pragma once

#include "core/call.h"

namespace kv {

template <>
struct Hooks<fn::clGetExtensionFunctionAddress> : HookDefaults {
    static void done(CallCtx &c, void *&result, const char *name);
};

template <>
struct Hooks<fn::clGetExtensionFunctionAddressForPlatform> : HookDefaults {
    static void done(CallCtx &c, void *&result, cl_platform_id platform, const char *name);
};

template <>
struct Hooks<fn::clEnqueueMapBuffer> : HookDefaults {
    static void after(CallCtx &c, void *&result, cl_command_queue queue, cl_mem buffer, cl_bool blocking,
                      cl_map_flags flags, size_t offset, size_t size, cl_uint waitCount,
                      const cl_event *waitList, cl_event *event, cl_int *status);
};

template <>
struct Hooks<fn::clEnqueueMapImage> : HookDefaults {
    static void after(CallCtx &c, void *&result, cl_command_queue queue, cl_mem image, cl_bool blocking,
                      cl_map_flags flags, const size_t *origin, const size_t *region, size_t *rowPitch,
                      size_t *slicePitch, cl_uint waitCount, const cl_event *waitList, cl_event *event,
                      cl_int *status);
};

// The contents of a region mapped for writing are copied before it is given back: once the unmap
// is enqueued the host may no longer own that memory.
template <>
struct Hooks<fn::clEnqueueUnmapMemObject> : HookDefaults {
    static void before(CallCtx &c, cl_command_queue queue, cl_mem memobj, void *mapped, cl_uint waitCount,
                       const cl_event *waitList, cl_event *event);
    static void done(CallCtx &c, cl_int &result, cl_command_queue queue, cl_mem memobj, void *mapped,
                     cl_uint waitCount, const cl_event *waitList, cl_event *event);
};

// Reads: a non-blocking read's destination is recorded once the read has completed (record 6090),
// as the application learns it has. The library watches an event of its own when the application
// asks for none.
template <>
struct Hooks<fn::clEnqueueReadBuffer> : HookDefaults {
    static constexpr bool kReplacesHost = true;
    static cl_int host(CallCtx &c, cl_command_queue queue, cl_mem buffer, cl_bool blocking, size_t offset,
                       size_t size, void *ptr, cl_uint waitCount, const cl_event *waitList, cl_event *event);
    static void done(CallCtx &c, cl_int &result, cl_command_queue queue, cl_mem buffer, cl_bool blocking,
                     size_t offset, size_t size, void *ptr, cl_uint waitCount, const cl_event *waitList,
                     cl_event *event);
};

template <>
struct Hooks<fn::clEnqueueReadBufferRect> : HookDefaults {
    static constexpr bool kReplacesHost = true;
    static cl_int host(CallCtx &c, cl_command_queue queue, cl_mem buffer, cl_bool blocking,
                       const size_t *bufferOrigin, const size_t *hostOrigin, const size_t *region,
                       size_t bufferRowPitch, size_t bufferSlicePitch, size_t hostRowPitch,
                       size_t hostSlicePitch, void *ptr, cl_uint waitCount, const cl_event *waitList,
                       cl_event *event);
};

template <>
struct Hooks<fn::clEnqueueReadImage> : HookDefaults {
    static constexpr bool kReplacesHost = true;
    static cl_int host(CallCtx &c, cl_command_queue queue, cl_mem image, cl_bool blocking,
                       const size_t *origin, const size_t *region, size_t rowPitch, size_t slicePitch,
                       void *ptr, cl_uint waitCount, const cl_event *waitList, cl_event *event);
};

template <>
struct Hooks<fn::clFinish> : HookDefaults {
    static void done(CallCtx &c, cl_int &result, cl_command_queue queue);
};

template <>
struct Hooks<fn::clWaitForEvents> : HookDefaults {
    static void done(CallCtx &c, cl_int &result, cl_uint count, const cl_event *events);
};

template <>
struct Hooks<fn::clGetEventInfo> : HookDefaults {
    static void done(CallCtx &c, cl_int &result, cl_event event, cl_event_info name, size_t size, void *value,
                     size_t *sizeRet);
};

} // namespace kv
