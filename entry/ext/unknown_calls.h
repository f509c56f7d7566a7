// Functions the library has no wrapper for, handed out by eglGetProcAddress as forwarding stubs
// (platform/forwarding_*.cpp): one stub per name, the same for every request of that name. A stub
// passes the call on untouched to the host's function, keeps the error bookkeeping of the
// wrappers (so that the application's eglGetError and glGetError answer as the driver would) and,
// when asked to, records the call with its name and its raw argument words (record 4000 for an
// OpenGL ES function, 1000 for an EGL function; layouts in api/records.txt).
#pragma once

#include "entry/proc_table.h"

namespace kv {

// The stub for `name`, forwarding to `host`; recorded when `record` is set. Null when the stubs
// are used up (or the system has none).
ProcAddress unknownFunctionStub(const char *name, ProcAddress host, bool record);

} // namespace kv
