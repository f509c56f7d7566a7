#include "state/extension_support.h"

#include <cstring>

namespace kv {

namespace {

bool standsAlone(const char *list, const char *name) {
    const size_t length = std::strlen(name);
    if (length == 0 || std::strchr(name, ' ')) return false;
    for (const char *hit = std::strstr(list, name); hit; hit = std::strstr(hit + 1, name)) {
        const bool starts = hit == list || hit[-1] == ' ';
        const bool ends = hit[length] == '\0' || hit[length] == ' ';
        if (starts && ends) return true;
    }
    return false;
}

} // namespace

void fillExtensionFlags(const char *extensions, const char *const *names, uint32_t count, uint8_t *flags) {
    if (!extensions) return;
    for (uint32_t i = 0; i < count; ++i)
        flags[i] = standsAlone(extensions, names[i]) ? 1 : 0;
}

} // namespace kv
