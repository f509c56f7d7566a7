// Admission of extension calls: the current context, and what extensions its driver offers.
#include "base/messages.h"
#include "entry/ext/ext_call.h"
#include "state/egl_state.h"
#include "state/extension_support.h"

#include <cstring>

namespace kv {

namespace {

void fillFlags(egl::ContextRecord &context) {
    context.extensionFlags.assign(kGlExtensionCount, 0);
    const auto &gl = GLESPPHost::get().fn;
    // The context is current on this thread; GL_EXTENSIONS is a valid name for every version, so
    // the query leaves no error behind.
    const char *extensions =
        gl.glGetString ? reinterpret_cast<const char *>(gl.glGetString(GL_EXTENSIONS)) : nullptr;
    fillExtensionFlags(extensions, kGlExtensionNames, kGlExtensionCount, context.extensionFlags.data());
    context.extensionFlagsFilled = true;
}

} // namespace

bool admitExtensionCall(CallCtx &c, const char *name, const uint16_t *extensions, const char *extensionText,
                        uint32_t coreSince) {
    egl::ThreadState *thread = egl::threadStateIfAny();
    egl::ContextRecord *context = thread ? thread->current.get() : nullptr;
    if (!context) {
        msg::info("Unable to record %s as we failed to get the context", name);
        return false;
    }
    c.es1 = context->apiVersion == 1;
    if (!c.d.callHost) return true;
    if (coreSince != 0 && context->apiVersion >= coreSince) return true;
    if (extensions[0] == kNoExtension) return true; // the registry names no extension to look for
    if (!context->extensionFlagsFilled) fillFlags(*context);
    for (uint32_t i = 0; i < kMaxExtensionsPerFunction && extensions[i] != kNoExtension; ++i)
        if (context->extensionFlags[extensions[i]]) return true;
    msg::debug("Unable to record %s as extension %s is unsupported by the current context", name,
               extensionText);
    return false;
}

ProcAddress lookupExtensionWrapper(const char *name) {
    for (const ProcEntry *e = kExtensionWrappers; e->name; ++e)
        if (std::strcmp(e->name, name) == 0) return e->address;
    return nullptr;
}

} // namespace kv
