#include "base/zand_string.h"

#include <cstdio>
#include <cstring>

namespace kv {

CZandString CZandString::vformat(const char *fmt, va_list args) {
    char small[256];
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(small, sizeof(small), fmt, copy);
    va_end(copy);
    if (n < 0) return CZandString();
    if (static_cast<size_t>(n) < sizeof(small)) return CZandString(small, static_cast<size_t>(n));
    std::string big(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(&big[0], big.size(), fmt, args);
    big.resize(static_cast<size_t>(n));
    return CZandString(std::move(big));
}

CZandString CZandString::format(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    CZandString result = vformat(fmt, args);
    va_end(args);
    return result;
}

CZandString &CZandString::replaceAll(const char *from, const char *to) {
    size_t fromLen = std::strlen(from);
    if (fromLen == 0) return *this;
    size_t toLen = std::strlen(to);
    size_t pos = 0;
    while ((pos = s_.find(from, pos)) != std::string::npos) {
        s_.replace(pos, fromLen, to);
        pos += toLen;
    }
    return *this;
}

} // namespace kv
