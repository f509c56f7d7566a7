#include "api/enum_names.h"

#include <cstring>

#include <algorithm>

namespace kv::names {

extern const EnumName kGlEnums[];
extern const uint32_t kGlEnumCount;
extern const EnumName kEglEnums[];
extern const uint32_t kEglEnumCount;
extern const EnumGroup kGlGroups[];
extern const uint32_t kGlGroupCount;

namespace {
const char *find(const EnumName *table, uint32_t count, uint32_t value) {
    const EnumName *end = table + count;
    const EnumName *it =
        std::lower_bound(table, end, value, [](const EnumName &e, uint32_t v) { return e.value < v; });
    return it != end && it->value == value ? it->name : nullptr;
}
} // namespace

const char *glEnumName(uint32_t value, uint16_t group) {
    if (group > 0 && group < kGlGroupCount) {
        const EnumGroup &g = kGlGroups[group];
        if (const char *name = find(g.entries, g.count, value)) return name;
        // An OpenCL type's values are its own: a value outside them has no OpenGL name either.
        if (g.name && std::strncmp(g.name, "cl_", 3) == 0) return nullptr;
    }
    return find(kGlEnums, kGlEnumCount, value);
}

const char *eglEnumName(uint32_t value) {
    return find(kEglEnums, kEglEnumCount, value);
}

} // namespace kv::names
