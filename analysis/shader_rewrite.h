// Rewriting of fragment shader text for the profiling overrides: a copy of a shader that uses
// `discard` in which each discard only raises a flag and returns, with a new `main` that calls the
// original one and paints the fragments it would have discarded in magenta. Pure text functions:
// the GL side (compiling the copies into shadow programs) lives in analysis/shader_shadows.h.
#pragma once

#include <string>

namespace kv::analysis {

// The shader text without its comments: a line comment goes up to (not including) its new line, a
// block comment through its closing "*/"; an unclosed block comment stays.
std::string withoutComments(const std::string &text);

// The shading-language generation a shader's version line names: 0 for "100", "100 es" or no
// version line, 1 for "300 es", 2 for "310 es"; -1 for any other version.
int shaderVersionClass(const std::string &text);

// Rewrites fragment shaders. The closing wrapper (the new `main` with its magenta assignments) is
// made from the first shader this rewriter rewrites and reused unchanged for every later one, so a
// later shader whose output has another name still gets the first one's assignments; the process
// keeps one rewriter (processRewriter()).
class DiscardRewriter {
public:
    // The rewritten text, or false when the shader has no discard that can be rewritten.
    bool rewrite(const std::string &source, std::string *out);
    const std::string &wrapper() const { return wrapper_; }

private:
    std::string wrapper_;
    bool made_ = false;
};

// The process's rewriter; callers serialise their use of it.
DiscardRewriter &processRewriter();

// The magenta assignments of one shader body: one per declared output, or the assignment to
// gl_FragColor when it declares none.
std::string magentaAssignments(const std::string &body);

} // namespace kv::analysis
