// The OpenGL ES extension functions: reached through eglGetProcAddress, each is an Entry of the
// call wrapper protocol (core/call.h) with GlesExtApi, which adds three things. The calling thread's
// current context is fetched first; without one the call is skipped with "Unable to record F as we
// failed to get the context". A call that goes to the driver must find one of the extensions that
// provide F among the context's GL_EXTENSIONS (or the context's API version must have F's core
// equivalent); otherwise it is skipped with "Unable to record F as extension E is unsupported by the
// current context". And the host address comes from the extension host table, which the host's own
// eglGetProcAddress fills.
#pragma once

#include "core/call.h"
#include "entry/ext/ext_functions_autogen.h"
#include "entry/proc_table.h"

namespace kv {

// The admission of an extension call (see above). Sets c.es1 for a context of OpenGL ES 1, whose
// calls update the fixed-function state and keep their errors as the ES1 functions do.
bool admitExtensionCall(CallCtx &c, const char *name, const uint16_t *extensions, const char *extensionText,
                        uint32_t coreSince);

struct GlesExtApi {
    static constexpr uint32_t kSuccess = GL_NO_ERROR;
    static constexpr bool kChecksContext = true;
    static const SGlesExtHost &host() { return SGlesExtHost::get(); }
    static void clearLastError() { GlesApi::clearLastError(); }
    static void takeStrayError() { GlesApi::takeStrayError(); }
    static uint32_t queryError() { return GlesApi::queryError(); }
    static bool failed(uint32_t error) { return error != GL_NO_ERROR; }
    static void noteError(uint32_t error) { GlesApi::noteError(error); }
    template <class F>
    static bool admit(CallCtx &c) {
        return admitExtensionCall(c, F::name, F::extensions, F::extensionText, F::coreSince);
    }
};

// The wrappers of the OpenGL ES extension functions by name, in catalogue order, ending with a null
// name (entry/ext/ext_entries_autogen.cpp).
extern const ProcEntry kExtensionWrappers[];
// The wrapper of an extension function; null when the library has none.
ProcAddress lookupExtensionWrapper(const char *name);

} // namespace kv
