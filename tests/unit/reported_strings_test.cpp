// Extension lists with names taken out: whole names only, the rest of the list as the driver wrote it.
#include "entry/reported_strings.h"

#include <gtest/gtest.h>

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

} // namespace
} // namespace kv
