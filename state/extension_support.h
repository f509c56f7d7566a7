// Which extensions a driver offers, as one flag per known extension name: what the extension
// wrappers look at before they forward a call.
#pragma once

#include <cstdint>

namespace kv {

// Sets flags[i] to 1 when names[i] stands in the space-separated extension string as a whole word
// (at its start or after a space, and followed by a space or its end), else to 0. A name that is
// only the start of a longer name does not count; a name holding a space is never found. A null
// string leaves the flags as they were.
void fillExtensionFlags(const char *extensions, const char *const *names, uint32_t count, uint8_t *flags);

} // namespace kv
