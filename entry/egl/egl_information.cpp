#include "entry/egl/egl_information.h"

#include "core/call_types.h"
#include "host/hosts.h"
#include "state/egl_config.h"
#include "trace/trace_writer.h"

#include <vector>

namespace kv {
namespace {

void writeConfigRecord(CallCtx &c, EGLDisplay display, EGLContext context, EGLConfig config, EGLContext share,
                       uint32_t apiVersion, const std::vector<EGLint> &contextAttributes,
                       const std::vector<EGLint> &configAttributes) {
    RecordHandle h = trace::begin(1502);
    if (h) {
        h.ptr(display);
        h.ptr(context);
        h.ptr(config);
        h.ptr(share);
        h.u32(apiVersion);
        rec::blob(h, c, contextAttributes.data(), contextAttributes.size() * sizeof(EGLint), 0);
        rec::blob(h, c, configAttributes.data(), configAttributes.size() * sizeof(EGLint), 0);
    }
    trace::finish(h);
}

} // namespace

void writeDisplayInformation(EGLDisplay display, EGLint major, EGLint minor) {
    EGLint configs = 0;
    SEglHost::get().fn.eglGetConfigs(display, nullptr, 0, &configs);
    RecordHandle h = trace::begin(1503);
    if (h) {
        h.ptr(display);
        h.i32(major);
        h.i32(minor);
        h.i32(configs);
    }
    trace::finish(h);
}

void writeContextInformation(CallCtx &c, const egl::ContextRecord &context) {
    writeConfigRecord(c, context.display, context.context, context.config, context.shareContext,
                      context.apiVersion, context.contextAttributes, context.configAttributes);
}

void writeConfigInformation(CallCtx &c, EGLDisplay display, EGLConfig config) {
    writeConfigRecord(c, display, EGL_NO_CONTEXT, config, EGL_NO_CONTEXT, 0, {EGL_NONE},
                      egl::captureConfigAttributes(display, config));
}

} // namespace kv
