// The fragment shader rewriter of the profiling overrides, on whole shader texts: which discards
// are rewritten, comments, main renaming, version lines and outputs, and the closing wrapper that
// the first rewritten shader fixes for every later one. The rewritten texts are compiled by Mesa in
// the kv_profiling integration test.
#include "analysis/shader_rewrite.h"

#include <gtest/gtest.h>

namespace kv::analysis {
namespace {

TEST(ShaderRewrite, WhichDiscardsAreRewritten) {
    DiscardRewriter r;
    std::string out;
    // Followed directly by a parenthesis, or the very last word: kept, and no copy is made.
    EXPECT_FALSE(r.rewrite("void main() { discard(); }", &out));
    EXPECT_FALSE(r.rewrite("void main() { if (x) return; } discard", &out));
    // Only inside comments: no copy.
    EXPECT_FALSE(r.rewrite("void main() { // discard;\n gl_FragColor = vec4(1.0); }\n", &out));
    EXPECT_FALSE(r.rewrite("void main() { /* discard; */ gl_FragColor = vec4(1.0); }\n", &out));
    // Part of a longer word: kept.
    EXPECT_FALSE(r.rewrite("void main() { float discarded = 1.0; xdiscard; }", &out));
    EXPECT_TRUE(r.wrapper().empty()) << "no wrapper is made until a shader is rewritten";

    ASSERT_TRUE(r.rewrite("precision mediump float;\nvoid main() {\n  if (v.x < 0.5) discard;\n"
                          "  gl_FragColor = v; // discard here too\n}\n",
                          &out));
    EXPECT_EQ(out, "bool b_vandor_ostrek = false;\n"
                   "precision mediump float;\nvoid pellum_kast_original_main_trimbel_osk() {\n"
                   "  if (v.x < 0.5) {b_vandor_ostrek = true; return;}\n  gl_FragColor = v; \n}\n"
                   "\nvoid main()\n{\n\tpellum_kast_original_main_trimbel_osk();\n\tif(b_vandor_ostrek)\n"
                   "\t\tgl_FragColor = vec4(1.0,0.0,1.0,1.0);\n}\n");
}

TEST(ShaderRewrite, CommentsMainAndVersions) {
    EXPECT_EQ(withoutComments("a// x\nb/* y\n z*/c/d/*/e"), "a\nbc/d/*/e");
    EXPECT_EQ(withoutComments("a /* never closed"), "a /* never closed");
    EXPECT_EQ(withoutComments("tail //"), "tail ");

    DiscardRewriter r;
    std::string out;
    // "domain" is not renamed (no white space before "main"); main at the very start is.
    ASSERT_TRUE(
        r.rewrite("main (void) {}\nfloat domain(float x) { return x; }\nvoid\tmain\n() { discard; }", &out));
    EXPECT_NE(out.find("pellum_kast_original_main_trimbel_osk (void)"), std::string::npos) << out;
    EXPECT_NE(out.find("float domain(float x)"), std::string::npos) << out;
    EXPECT_NE(out.find("void\tpellum_kast_original_main_trimbel_osk\n()"), std::string::npos) << out;

    // The version line stays first; the flag follows it.
    ASSERT_TRUE(r.rewrite("  \n#  version 100\nvoid main() { discard; }", &out));
    EXPECT_EQ(out.rfind("#  version 100\nbool b_vandor_ostrek = false;\nvoid pellum", 0), 0u) << out;

    EXPECT_EQ(shaderVersionClass("void main() {}"), 0);
    EXPECT_EQ(shaderVersionClass("#version 100\nvoid main() {}"), 0);
    EXPECT_EQ(shaderVersionClass("// a comment\n  #  version 300   es \r\nvoid main() {}"), 1);
    EXPECT_EQ(shaderVersionClass("\n#version 310 es\n"), 2);
    EXPECT_EQ(shaderVersionClass("#version 100 es"), 0);
    EXPECT_EQ(shaderVersionClass("#version 320 es\n"), -1);
    EXPECT_EQ(shaderVersionClass("x #version 300 es\n"), 0) << "not at the start of a line";
}

TEST(ShaderRewrite, OutputsAndTheKeptFirstWrapper) {
    EXPECT_EQ(magentaAssignments("out highp vec4 fragColor;"), "gl_FragColor = vec4(1.0,0.0,1.0,1.0);\n")
        << "no white space before out";
    EXPECT_EQ(magentaAssignments("layout(location = 0) out highp vec4 fragColor;\n"),
              "fragColor = vec4(1.0,0.0,1.0,1.0);\n");
    EXPECT_EQ(magentaAssignments(" out mediump vec3 c3;\n out lowp float f; out uvec2 u ;"),
              "c3 = vec3(1.0,0.0,1.0);\nf = float(1.0);\nu = uvec2(1.0);\n");
    // A ";" before a type and a name ends the declaration; no outputs means gl_FragColor.
    EXPECT_EQ(magentaAssignments(" out ; vec4 x;\n"), "gl_FragColor = vec4(1.0,0.0,1.0,1.0);\n");
    EXPECT_EQ(magentaAssignments(" out highp vec4;\n"), "gl_FragColor = vec4(1.0,0.0,1.0,1.0);\n");

    DiscardRewriter r;
    std::string first, second;
    ASSERT_TRUE(
        r.rewrite("#version 300 es\nprecision mediump float;\nlayout(location = 0) out highp vec4 "
                  "fragColor;\nvoid main() { if (gl_FragCoord.x < 1.0) discard; fragColor = vec4(1); }\n",
                  &first));
    EXPECT_EQ(first.rfind("#version 300 es\nbool b_vandor_ostrek = false;\nprecision", 0), 0u) << first;
    const std::string wrapper = "\nvoid main()\n{\n\tpellum_kast_original_main_trimbel_osk();\n"
                                "\tif(b_vandor_ostrek)\n\t\tfragColor = vec4(1.0,0.0,1.0,1.0);\n}\n";
    EXPECT_EQ(first.substr(first.size() - wrapper.size()), wrapper);
    // A later shader with another output still gets the first one's wrapper.
    ASSERT_TRUE(r.rewrite("#version 300 es\nout highp vec4 other;\nvoid main() { discard; }\n", &second));
    EXPECT_EQ(second.substr(second.size() - wrapper.size()), wrapper);
    EXPECT_EQ(r.wrapper(), wrapper);
}

} // namespace
} // namespace kv::analysis
