// The description of an EGL config, asked of the host attribute by attribute, as an attribute list.
#pragma once

#include "api/khronos.h"

#include <vector>

namespace kv::egl {

// Every attribute the host answers for the config, as {name, value} pairs ending with EGL_NONE;
// EGL_NONE alone for a null display. A failed query costs only its attribute (and a message).
std::vector<EGLint> captureConfigAttributes(EGLDisplay display, EGLConfig config);

// The attributes asked for, in order, with the names the messages use.
struct ConfigAttribute {
    EGLint attribute;
    const char *name; // null: named by its number
};
extern const ConfigAttribute kConfigAttributes[36];

} // namespace kv::egl
