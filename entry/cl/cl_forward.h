// What the OpenCL front library needs of the library beyond the traced entry points: the host's
// own address of a function the library does not trace (OpenCL 2.0 and later), for a forwarder.
#pragma once

#include "platform/platform.h"

namespace cl {

// The host's function of that name; null (with a message, once per name) when it has none.
KV_EXPORT void *hostFunction(const char *name);

} // namespace cl
