// Extension lists, whole names only: the support flags read from an extension string, and lists
// with names taken out (the rest of the list as the driver wrote it).
#include "entry/reported_strings.h"
#include "state/extension_support.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace kv {
namespace {

TEST(ExtensionFilter, TakesOutWholeNamesOfTheDisableList) {
    const char *host = "GL_OES_mapbuffer_extra GL_OES_mapbuffer GL_EXT_a GL_ARM_mali_shader_binary";
    EXPECT_EQ(filterExtensions(host, "GL_OES_mapbuffer;GL_ARM_mali_shader_binary;"),
              "GL_OES_mapbuffer_extra GL_EXT_a");
    // A disable-list entry that is only the start of a name leaves the name alone.
    EXPECT_EQ(filterExtensions(host, "GL_OES;GL_EXT"), host);
    EXPECT_EQ(filterExtensions(host, ""), host);
    EXPECT_EQ(filterExtensions(nullptr, "GL_EXT_a"), "");
    // The driver's own separators stay: a list that ends with one (as Mesa's does) still does.
    EXPECT_EQ(filterExtensions("GL_A GL_B GL_C ", "GL_B"), "GL_A GL_C ");
    EXPECT_EQ(filterExtensions("GL_A GL_B", "GL_B"), "GL_A");
    // The list is split and joined with the separator the host's string uses.
    EXPECT_EQ(filterExtensions("GL_A\nGL_B\nGL_C", "GL_B"), "GL_A\nGL_C");
}

TEST(ExtensionFlags, CountOnlyWholeNames) {
    const char *const names[] = {"GL_OES_mapbuffer", "GL_EXT_discard_framebuffer", "GL_KHR_debug",
                                 "GL_OES_vertex_array_object", "two words"};
    uint8_t flags[5] = {9, 9, 9, 9, 9};
    // A name first seen as the start of a longer one, then whole; one at the very start; one at
    // the very end; one found only inside a longer name; a name with a space is never found.
    fillExtensionFlags("GL_EXT_discard_framebuffer GL_OES_mapbuffer_extra GL_XGL_KHR_debug "
                       "GL_OES_mapbuffer two words GL_OES_vertex_array_object",
                       names, 5, flags);
    EXPECT_EQ(flags[0], 1);
    EXPECT_EQ(flags[1], 1);
    EXPECT_EQ(flags[2], 0);
    EXPECT_EQ(flags[3], 1);
    EXPECT_EQ(flags[4], 0);

    // Only the longer name: not offered.
    fillExtensionFlags("GL_OES_mapbuffer_extra", names, 1, flags);
    EXPECT_EQ(flags[0], 0);
    // No string: the flags stay as they were.
    flags[0] = 7;
    fillExtensionFlags(nullptr, names, 5, flags);
    EXPECT_EQ(flags[0], 7);
}

} // namespace
} // namespace kv
