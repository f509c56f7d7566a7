// The strings the library shows an application instead of the driver's: configured replacements,
// the recorder's version appended to the version and renderer strings, and extension lists with
// the disabled extensions removed. The returned strings live as long as the process.
#pragma once

#include "api/khronos.h"

#include <string>

namespace kv {

// The answer to eglQueryString(name) given the host's answer; the host's own when nothing
// replaces it.
const char *reportedEglString(EGLint name, const char *host);
// The answer to glGetString(name) for a context of the given major version (1, 2 or 3).
const char *reportedGlString(GLenum name, const char *host, uint32_t majorVersion);

// Whether an extension name is an entry of a ';'-separated disable list.
bool isDisabledExtension(const std::string &name, const std::string &disabled);
// An extension list without the names of a ';'-separated disable list (each compared whole), joined
// with the list's own separator.
std::string filterExtensions(const char *list, const std::string &disabled);

} // namespace kv
