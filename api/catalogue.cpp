#include "api/api.h"

#include <vector>

namespace kv::api {

extern const FuncDesc kDescriptions[];
extern const uint32_t kDescriptionCount;

const char *functionName(uint32_t id) {
    for (const FamilyRange &range : kFamilies) {
        if (id < range.first || id > range.last) continue;
        const char *name = range.rows[id - range.first].name;
        if (name) return name;
    }
    return nullptr;
}

const FuncDesc *describe(uint16_t id) {
    static const std::vector<int16_t> *index = [] {
        auto *v = new std::vector<int16_t>(8192, -1);
        for (uint32_t i = 0; i < kDescriptionCount; ++i)
            (*v)[kDescriptions[i].id] = static_cast<int16_t>(i);
        return v;
    }();
    if (id >= index->size()) return nullptr;
    int16_t i = (*index)[id];
    return i < 0 ? nullptr : &kDescriptions[i];
}

} // namespace kv::api
