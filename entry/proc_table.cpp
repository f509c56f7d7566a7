#include "entry/proc_table.h"
#include "base/no_destructor.h"

#include "platform/platform.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <string>

namespace kv {

namespace {

ProcAddress lookupIn(const ProcEntry *table, uint32_t size, const char *name) {
    const ProcEntry *end = table + size;
    const ProcEntry *it = std::lower_bound(
        table, end, name, [](const ProcEntry &e, const char *n) { return std::strcmp(e.name, n) < 0; });
    return it != end && std::strcmp(it->name, name) == 0 ? it->address : nullptr;
}

} // namespace

ProcAddress lookupProc(const char *name) {
    return lookupIn(kProcTable, kProcTableSize, name);
}

ProcAddress lookupEs1Proc(const char *name) {
    return lookupIn(kEs1ProcTable, kEs1ProcTableSize, name);
}

bool noteUnknownProc(const char *name) {
    static NoDestructor<platform::Mutex> lock;
    static auto *seen = new std::set<std::string>();
    platform::LockGuard<platform::Mutex> guard(*lock);
    return seen->insert(name).second;
}

} // namespace kv
