#include "entry/reported_strings.h"
#include "base/no_destructor.h"

#include "core/settings.h"

#include <cctype>
#include <vector>

namespace kv {

namespace {

NoDestructor<platform::Mutex> g_lock;

bool isDisabled(const std::string &name, const std::string &disabled) {
    size_t start = 0;
    while (start <= disabled.size()) {
        size_t end = disabled.find(';', start);
        if (end == std::string::npos) end = disabled.size();
        if (end > start && disabled.compare(start, end - start, name) == 0 && end - start == name.size())
            return true;
        start = end + 1;
    }
    return false;
}

// The version and renderer strings gain the recorder's version once; the replacement then stays.
const char *appendVersion(CZandString &slot, const char *host) {
    if (slot.empty())
        slot =
            CZandString::format("%s + Kalvoren %s (%s)", host ? host : "", kProductVersion, kRecorderVersion);
    return slot.c_str();
}

const char *filtered(CZandString &slot, const char *host, const CZandString &disabled) {
    if (slot.empty() && !disabled.empty()) slot = CZandString(filterExtensions(host, disabled.str()));
    return slot.empty() ? host : slot.c_str();
}

} // namespace

std::string filterExtensions(const char *list, const std::string &disabled) {
    if (!list) return std::string();
    std::string text(list);
    // The separator is the host's own: a blank in the API, but the list is joined again with what
    // the driver used.
    char separator = ' ';
    for (char c : text)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_') {
            separator = c;
            break;
        }
    std::vector<std::string> kept;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(separator, start);
        if (end == std::string::npos) end = text.size();
        std::string name = text.substr(start, end - start);
        if (!name.empty() && !isDisabled(name, disabled)) kept.push_back(name);
        start = end + 1;
    }
    std::string out;
    for (size_t i = 0; i < kept.size(); ++i) {
        if (i) out += separator;
        out += kept[i];
    }
    return out;
}

const char *reportedEglString(EGLint name, const char *host) {
    Settings &s = getSettings();
    platform::LockGuard<platform::Mutex> guard(*g_lock);
    switch (name) {
    case EGL_VENDOR:
        return s.reported[kEGLVendor].empty() ? host : s.reported[kEGLVendor].c_str();
    case EGL_VERSION:
        if (s.appendTraceVersion) return appendVersion(s.reported[kEGLVersion], host);
        return s.reported[kEGLVersion].empty() ? host : s.reported[kEGLVersion].c_str();
    case EGL_EXTENSIONS:
        return filtered(s.reported[kEGLExtensions], host, s.disabledExtensionList);
    default:
        return host;
    }
}

const char *reportedGlString(GLenum name, const char *host, uint32_t majorVersion) {
    Settings &s = getSettings();
    const int base = majorVersion >= 3 ? kES3Vendor : kES2Vendor;
    platform::LockGuard<platform::Mutex> guard(*g_lock);
    CZandString &vendor = s.reported[base], &renderer = s.reported[base + 1], &version = s.reported[base + 2],
                &extensions = s.reported[base + 3];
    switch (name) {
    case GL_VENDOR:
        return vendor.empty() ? host : vendor.c_str();
    case GL_RENDERER:
        if (s.appendTraceVersion) return appendVersion(renderer, host);
        return renderer.empty() ? host : renderer.c_str();
    case GL_VERSION:
        return version.empty() ? host : version.c_str();
    case GL_EXTENSIONS:
        return filtered(extensions, host, s.disabledExtensionList);
    default:
        return host;
    }
}

} // namespace kv
