// The Khronos API headers, configured once for the whole library: no X11 types behind EGL's
// native types (they are plain integers of pointer width either way) and no prototypes of the
// plain API names, so that nothing in the library can call a driver function except through a
// host table.
#pragma once

#ifndef EGL_NO_X11
#define EGL_NO_X11 1
#endif
#ifndef KV_FRONT_LIBRARY
#define EGL_EGL_PROTOTYPES 0
#define GL_GLES_PROTOTYPES 0
#endif
#ifndef CL_TARGET_OPENCL_VERSION
#define CL_TARGET_OPENCL_VERSION 120
#endif
#define CL_USE_DEPRECATED_OPENCL_1_0_APIS 1
#define CL_USE_DEPRECATED_OPENCL_1_1_APIS 1
#define CL_USE_DEPRECATED_OPENCL_1_2_APIS 1

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES3/gl32.h>
#include <GLES2/gl2ext.h>

// OpenGL ES 1 has one type of its own that the later headers do not define.
typedef khronos_int32_t GLclampx;

#include <CL/cl.h>
#include <CL/cl_egl.h>
#include <CL/cl_gl.h>
