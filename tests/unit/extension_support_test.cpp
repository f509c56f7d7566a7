// Extension support flags from an extension string: whole names only.
#include "state/extension_support.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace kv {
namespace {

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
