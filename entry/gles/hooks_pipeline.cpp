// Pipeline settings and vertex arrays: the context-local state the shadow keeps from the calls'
// arguments.
#include "entry/gles/hooks_state.h"
#include "entry/hooks.h"

namespace kv {

using namespace gles;

// ---- Capabilities, hints, pixel store ---------------------------------------------------------

void Hooks<fn::glEnable>::after(CallCtx &c, Void &, GLenum cap) {
    updateState(c, [&](CEs2ContextState &s) { s.setCapability(cap, true); });
}
void Hooks<fn::glDisable>::after(CallCtx &c, Void &, GLenum cap) {
    updateState(c, [&](CEs2ContextState &s) { s.setCapability(cap, false); });
}
void Hooks<fn::glEnablei>::after(CallCtx &c, Void &, GLenum cap, GLuint index) {
    updateState(c, [&](CEs2ContextState &s) { s.setCapabilityIndexed(cap, index, true); });
}
void Hooks<fn::glDisablei>::after(CallCtx &c, Void &, GLenum cap, GLuint index) {
    updateState(c, [&](CEs2ContextState &s) { s.setCapabilityIndexed(cap, index, false); });
}
void Hooks<fn::glHint>::after(CallCtx &c, Void &, GLenum target, GLenum mode) {
    updateState(c, [&](CEs2ContextState &s) { s.setHint(target, mode); });
}
void Hooks<fn::glPixelStorei>::after(CallCtx &c, Void &, GLenum pname, GLint param) {
    updateState(c, [&](CEs2ContextState &s) { s.setPixelStore(pname, param); });
}

// ---- Blending, clearing, depth, rasterisation --------------------------------------------------

void Hooks<fn::glBlendColor>::after(CallCtx &c, Void &, GLfloat r, GLfloat g, GLfloat b, GLfloat a) {
    updateState(c, [&](CEs2ContextState &s) {
        s.blendColor[0] = r;
        s.blendColor[1] = g;
        s.blendColor[2] = b;
        s.blendColor[3] = a;
    });
}
void Hooks<fn::glBlendEquation>::after(CallCtx &c, Void &, GLenum mode) {
    updateState(c, [&](CEs2ContextState &s) { s.setBlendEquation(mode); });
}
void Hooks<fn::glBlendEquationSeparate>::after(CallCtx &c, Void &, GLenum rgb, GLenum alpha) {
    updateState(c, [&](CEs2ContextState &s) { s.setBlendEquationSeparate(rgb, alpha); });
}
void Hooks<fn::glBlendFunc>::after(CallCtx &c, Void &, GLenum src, GLenum dst) {
    updateState(c, [&](CEs2ContextState &s) { s.setBlendFunc(src, dst); });
}
void Hooks<fn::glBlendFuncSeparate>::after(CallCtx &c, Void &, GLenum srcRgb, GLenum dstRgb, GLenum srcAlpha,
                                           GLenum dstAlpha) {
    updateState(c, [&](CEs2ContextState &s) { s.setBlendFuncSeparate(srcRgb, dstRgb, srcAlpha, dstAlpha); });
}
void Hooks<fn::glClearColor>::after(CallCtx &c, Void &, GLfloat r, GLfloat g, GLfloat b, GLfloat a) {
    updateState(c, [&](CEs2ContextState &s) {
        s.clearColor[0] = r;
        s.clearColor[1] = g;
        s.clearColor[2] = b;
        s.clearColor[3] = a;
    });
}
void Hooks<fn::glClearDepthf>::after(CallCtx &c, Void &, GLfloat depth) {
    updateState(c, [&](CEs2ContextState &s) { s.clearDepth = depth; });
}
void Hooks<fn::glClearStencil>::after(CallCtx &c, Void &, GLint stencil) {
    updateState(c, [&](CEs2ContextState &s) { s.clearStencil = stencil; });
}
void Hooks<fn::glColorMask>::after(CallCtx &c, Void &, GLboolean r, GLboolean g, GLboolean b, GLboolean a) {
    updateState(c, [&](CEs2ContextState &s) {
        s.colorMask[0] = r != GL_FALSE;
        s.colorMask[1] = g != GL_FALSE;
        s.colorMask[2] = b != GL_FALSE;
        s.colorMask[3] = a != GL_FALSE;
    });
}
void Hooks<fn::glCullFace>::after(CallCtx &c, Void &, GLenum mode) {
    updateState(c, [&](CEs2ContextState &s) { s.cullFaceMode = mode; });
}
void Hooks<fn::glDepthFunc>::after(CallCtx &c, Void &, GLenum func) {
    updateState(c, [&](CEs2ContextState &s) { s.depthFunc = func; });
}
void Hooks<fn::glDepthMask>::after(CallCtx &c, Void &, GLboolean flag) {
    updateState(c, [&](CEs2ContextState &s) { s.depthMask = flag != GL_FALSE; });
}
void Hooks<fn::glDepthRangef>::after(CallCtx &c, Void &, GLfloat n, GLfloat f) {
    updateState(c, [&](CEs2ContextState &s) {
        s.depthRange[0] = n;
        s.depthRange[1] = f;
    });
}
void Hooks<fn::glFrontFace>::after(CallCtx &c, Void &, GLenum mode) {
    updateState(c, [&](CEs2ContextState &s) { s.frontFace = mode; });
}
void Hooks<fn::glLineWidth>::after(CallCtx &c, Void &, GLfloat width) {
    updateState(c, [&](CEs2ContextState &s) { s.lineWidth = width; });
}
void Hooks<fn::glPolygonOffset>::after(CallCtx &c, Void &, GLfloat factor, GLfloat units) {
    updateState(c, [&](CEs2ContextState &s) { s.setPolygonOffset(factor, units); });
}
void Hooks<fn::glSampleCoverage>::after(CallCtx &c, Void &, GLfloat value, GLboolean invert) {
    updateState(c, [&](CEs2ContextState &s) {
        s.sampleCoverageValue = value;
        s.sampleCoverageInvert = invert != GL_FALSE;
    });
}
void Hooks<fn::glScissor>::after(CallCtx &c, Void &, GLint x, GLint y, GLsizei width, GLsizei height) {
    updateState(c, [&](CEs2ContextState &s) {
        s.scissor[0] = x;
        s.scissor[1] = y;
        s.scissor[2] = width;
        s.scissor[3] = height;
    });
}
void Hooks<fn::glViewport>::after(CallCtx &c, Void &, GLint x, GLint y, GLsizei width, GLsizei height) {
    bool defaultFramebuffer = false;
    updateState(c, [&](CEs2ContextState &s) {
        s.viewport[0] = x;
        s.viewport[1] = y;
        s.viewport[2] = width;
        s.viewport[3] = height;
        defaultFramebuffer = s.drawFramebuffer == 0;
    });
    // A new viewport on the window is how programs follow a resize: the next swap asks the
    // window's size again.
    if (!defaultFramebuffer) return;
    if (egl::ThreadState *t = egl::threadStateIfAny(); t && t->drawSize)
        t->drawSize->noteViewport(width, height);
}

// ---- Stencil -----------------------------------------------------------------------------------

void Hooks<fn::glStencilFunc>::after(CallCtx &c, Void &, GLenum func, GLint ref, GLuint mask) {
    updateState(c, [&](CEs2ContextState &s) { s.setStencilFunc(GL_FRONT_AND_BACK, func, ref, mask); });
}
void Hooks<fn::glStencilFuncSeparate>::after(CallCtx &c, Void &, GLenum face, GLenum func, GLint ref,
                                             GLuint mask) {
    updateState(c, [&](CEs2ContextState &s) { s.setStencilFunc(face, func, ref, mask); });
}
void Hooks<fn::glStencilMask>::after(CallCtx &c, Void &, GLuint mask) {
    updateState(c, [&](CEs2ContextState &s) { s.setStencilMask(GL_FRONT_AND_BACK, mask); });
}
void Hooks<fn::glStencilMaskSeparate>::after(CallCtx &c, Void &, GLenum face, GLuint mask) {
    updateState(c, [&](CEs2ContextState &s) { s.setStencilMask(face, mask); });
}
void Hooks<fn::glStencilOp>::after(CallCtx &c, Void &, GLenum fail, GLenum depthFail, GLenum depthPass) {
    updateState(c,
                [&](CEs2ContextState &s) { s.setStencilOp(GL_FRONT_AND_BACK, fail, depthFail, depthPass); });
}
void Hooks<fn::glStencilOpSeparate>::after(CallCtx &c, Void &, GLenum face, GLenum fail, GLenum depthFail,
                                           GLenum depthPass) {
    updateState(c, [&](CEs2ContextState &s) { s.setStencilOp(face, fail, depthFail, depthPass); });
}

// ---- Vertex array objects ----------------------------------------------------------------------

void Hooks<fn::glGenVertexArrays>::after(CallCtx &c, Void &, GLsizei n, GLuint *arrays) {
    std::vector<GLuint> names;
    if (!readNames(c, n, arrays, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            s.vaos[name];
    });
}

void Hooks<fn::glDeleteVertexArrays>::after(CallCtx &c, Void &, GLsizei n, const GLuint *arrays) {
    std::vector<GLuint> names;
    if (!readNames(c, n, arrays, names)) return;
    updateState(c, [&](CEs2ContextState &s) {
        for (GLuint name : names)
            s.deleteVertexArray(name);
    });
}

void Hooks<fn::glBindVertexArray>::after(CallCtx &c, Void &, GLuint array) {
    updateState(c, [&](CEs2ContextState &s) { s.bindVertexArray(array); });
}

// ---- Attribute arrays --------------------------------------------------------------------------

void Hooks<fn::glVertexAttribPointer>::after(CallCtx &c, Void &, GLuint index, GLint size, GLenum type,
                                             GLboolean normalized, GLsizei stride, const void *pointer) {
    updateState(c, [&](CEs2ContextState &s) {
        s.setVertexAttribPointer(index, size, type, normalized, stride, pointer, false);
    });
}

void Hooks<fn::glVertexAttribIPointer>::after(CallCtx &c, Void &, GLuint index, GLint size, GLenum type,
                                              GLsizei stride, const void *pointer) {
    updateState(c, [&](CEs2ContextState &s) {
        s.setVertexAttribPointer(index, size, type, GL_FALSE, stride, pointer, true);
    });
}

void Hooks<fn::glEnableVertexAttribArray>::after(CallCtx &c, Void &, GLuint index) {
    updateState(c, [&](CEs2ContextState &s) {
        AttributeRecord &attribute = s.currentVao().attributes[index];
        attribute.index = index;
        attribute.enabled = true;
    });
}

void Hooks<fn::glDisableVertexAttribArray>::after(CallCtx &c, Void &, GLuint index) {
    updateState(c, [&](CEs2ContextState &s) {
        AttributeRecord &attribute = s.currentVao().attributes[index];
        attribute.index = index;
        attribute.enabled = false;
    });
}

void Hooks<fn::glVertexAttribDivisor>::after(CallCtx &c, Void &, GLuint index, GLuint divisor) {
    updateState(c, [&](CEs2ContextState &s) { s.setVertexAttribDivisor(index, divisor); });
}

// ES 3.1 separate attribute formats and buffer bindings.

void Hooks<fn::glBindVertexBuffer>::after(CallCtx &c, Void &, GLuint binding, GLuint buffer, GLintptr offset,
                                          GLsizei stride) {
    updateState(c, [&](CEs2ContextState &s) {
        s.bindVertexBuffer(binding, buffer, offset, stride);
        if (buffer) s.shared().buffers[buffer];
    });
}
void Hooks<fn::glVertexAttribFormat>::after(CallCtx &c, Void &, GLuint index, GLint size, GLenum type,
                                            GLboolean normalized, GLuint relativeOffset) {
    updateState(c, [&](CEs2ContextState &s) {
        s.setVertexAttribFormat(index, size, type, normalized, relativeOffset, false);
    });
}
void Hooks<fn::glVertexAttribIFormat>::after(CallCtx &c, Void &, GLuint index, GLint size, GLenum type,
                                             GLuint relativeOffset) {
    updateState(c, [&](CEs2ContextState &s) {
        s.setVertexAttribFormat(index, size, type, GL_FALSE, relativeOffset, true);
    });
}
void Hooks<fn::glVertexAttribBinding>::after(CallCtx &c, Void &, GLuint index, GLuint binding) {
    updateState(c, [&](CEs2ContextState &s) { s.setVertexAttribBinding(index, binding); });
}
void Hooks<fn::glVertexBindingDivisor>::after(CallCtx &c, Void &, GLuint binding, GLuint divisor) {
    updateState(c, [&](CEs2ContextState &s) { s.setVertexBindingDivisor(binding, divisor); });
}

// ---- Constant attribute values -----------------------------------------------------------------

namespace {

void setConstant(CallCtx &c, GLuint index, GLenum type, std::initializer_list<uint32_t> words) {
    updateState(c, [&](CEs2ContextState &s) {
        s.setConstantAttribute(index, static_cast<uint32_t>(words.size()), type, words.begin());
    });
}

template <class T>
void setConstantFrom(CallCtx &c, GLuint index, GLenum type, uint32_t components, const T *values) {
    std::vector<uint32_t> words;
    if (!accepted(c) || !readWords(values, components, words)) return;
    updateState(c,
                [&](CEs2ContextState &s) { s.setConstantAttribute(index, components, type, words.data()); });
}

} // namespace

void Hooks<fn::glVertexAttrib1f>::after(CallCtx &c, Void &, GLuint index, GLfloat x) {
    setConstant(c, index, GL_FLOAT, {word(x)});
}
void Hooks<fn::glVertexAttrib2f>::after(CallCtx &c, Void &, GLuint index, GLfloat x, GLfloat y) {
    setConstant(c, index, GL_FLOAT, {word(x), word(y)});
}
void Hooks<fn::glVertexAttrib3f>::after(CallCtx &c, Void &, GLuint index, GLfloat x, GLfloat y, GLfloat z) {
    setConstant(c, index, GL_FLOAT, {word(x), word(y), word(z)});
}
void Hooks<fn::glVertexAttrib4f>::after(CallCtx &c, Void &, GLuint index, GLfloat x, GLfloat y, GLfloat z,
                                        GLfloat w) {
    setConstant(c, index, GL_FLOAT, {word(x), word(y), word(z), word(w)});
}
void Hooks<fn::glVertexAttrib1fv>::after(CallCtx &c, Void &, GLuint index, const GLfloat *v) {
    setConstantFrom(c, index, GL_FLOAT, 1, v);
}
void Hooks<fn::glVertexAttrib2fv>::after(CallCtx &c, Void &, GLuint index, const GLfloat *v) {
    setConstantFrom(c, index, GL_FLOAT, 2, v);
}
void Hooks<fn::glVertexAttrib3fv>::after(CallCtx &c, Void &, GLuint index, const GLfloat *v) {
    setConstantFrom(c, index, GL_FLOAT, 3, v);
}
void Hooks<fn::glVertexAttrib4fv>::after(CallCtx &c, Void &, GLuint index, const GLfloat *v) {
    setConstantFrom(c, index, GL_FLOAT, 4, v);
}
void Hooks<fn::glVertexAttribI4i>::after(CallCtx &c, Void &, GLuint index, GLint x, GLint y, GLint z,
                                         GLint w) {
    setConstant(c, index, GL_INT, {word(x), word(y), word(z), word(w)});
}
void Hooks<fn::glVertexAttribI4ui>::after(CallCtx &c, Void &, GLuint index, GLuint x, GLuint y, GLuint z,
                                          GLuint w) {
    setConstant(c, index, GL_UNSIGNED_INT, {x, y, z, w});
}
void Hooks<fn::glVertexAttribI4iv>::after(CallCtx &c, Void &, GLuint index, const GLint *v) {
    setConstantFrom(c, index, GL_INT, 4, v);
}
void Hooks<fn::glVertexAttribI4uiv>::after(CallCtx &c, Void &, GLuint index, const GLuint *v) {
    setConstantFrom(c, index, GL_UNSIGNED_INT, 4, v);
}

} // namespace kv
