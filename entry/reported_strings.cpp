#include "entry/reported_strings.h"
#include "base/no_destructor.h"

#include "core/settings.h"

#include <cctype>
#include <map>
#include <memory>
#include <vector>

namespace kv {

namespace {

NoDestructor<platform::Mutex> g_lock;

} // namespace

bool isDisabledExtension(const std::string &name, const std::string &disabled) {
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

namespace {

// Copies of the driver's strings as the application is shown them, one per distinct string of the
// driver: each display and the client have strings of their own, and contexts of different versions
// may too (one copy for all would show a program one display's answer when it asks about another).
// Called with the lock held; the copies live as long as the process.
template <class Make>
const char *shownCopy(std::map<std::string, std::unique_ptr<std::string>> &copies, const char *host,
                      Make make) {
    std::unique_ptr<std::string> &copy = copies[host ? host : ""];
    if (!copy) copy.reset(new std::string(make(host ? host : "")));
    return copy->c_str();
}

// The version and renderer strings gain the recorder's version; a string the configuration names
// itself is answered as it is.
const char *appendVersion(const CZandString &configured, const char *host) {
    if (!configured.empty()) return configured.c_str();
    static auto *copies = new std::map<std::string, std::unique_ptr<std::string>>();
    return shownCopy(*copies, host, [](const std::string &text) {
        return CZandString::format("%s + Kalvoren %s (%s)", text.c_str(), kProductVersion, kRecorderVersion)
            .str();
    });
}

// An extension list without the disabled extensions; a list the configuration names itself is
// answered as it is, and a list with nothing to hide is the driver's own.
const char *filtered(const CZandString &configured, const char *host, const CZandString &disabled) {
    if (!configured.empty()) return configured.c_str();
    if (!host || disabled.empty()) return host;
    static auto *copies = new std::map<std::string, std::unique_ptr<std::string>>();
    const char *shown = shownCopy(*copies, host, [&](const std::string &text) {
        std::string kept = filterExtensions(text.c_str(), disabled.str());
        return kept == text ? std::string() : kept;
    });
    return shown[0] ? shown : host;
}

} // namespace

std::string filterExtensions(const char *list, const std::string &disabled) {
    if (!list) return std::string();
    // The disabled names go with the separator after them; everything else stays as the driver
    // wrote it (some drivers end their lists with a separator). The separator is the host's own: a
    // blank in the API, but whatever the driver used is kept.
    const std::string text(list);
    char separator = ' ';
    for (char c : text)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_') {
            separator = c;
            break;
        }
    std::string out;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(separator, start);
        if (end == std::string::npos) end = text.size();
        const std::string name = text.substr(start, end - start);
        const size_t next = end < text.size() ? end + 1 : end;
        if (name.empty() || !isDisabledExtension(name, disabled)) out.append(text, start, next - start);
        start = next;
    }
    if (!out.empty() && out.back() == separator && (text.empty() || text.back() != separator)) out.pop_back();
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
    const int base = majorVersion >= 3 ? kES3Vendor : majorVersion == 2 ? kES2Vendor : kES1Vendor;
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
