#include "analysis/overrides.h"

#include "api/api.h"
#include "api/khronos.h"
#include "base/messages.h"
#include "base/settings_record.h"
#include "core/functions_autogen.h"
#include "host/hosts.h"

#include <cstring>

namespace kv::analysis {

const char *const kItemNames[kItemCount] = {
    "Kalvoren.Force zero viewport",
    "Kalvoren.Disable blending",
    "Kalvoren.Force 2x2 textures",
    "Kalvoren.Force flat colour frag shader",
    "Kalvoren.Disable stencil test",
    "Kalvoren.Disable depth test",
    "Kalvoren.Disable scissor test",
    "Kalvoren.Disable draw calls",
    "Kalvoren.Disable flush and finish",
    "Kalvoren.Disable texture modifications",
    "Kalvoren.Disable texture filtering",
    "Kalvoren.Disable discard / alpha test",
    "Kalvoren.Disable frame buffer accesses",
    "Kalvoren.Culling mode",
};

namespace {
constexpr uint32_t kTextureUnitsTouched = 8;

// The driver functions the overrides use, from the OpenGL ES 1 or the OpenGL ES 2/3 host.
struct Gl {
    void(KV_APIENTRY *enable)(GLenum);
    void(KV_APIENTRY *disable)(GLenum);
    GLboolean(KV_APIENTRY *isEnabled)(GLenum);
    void(KV_APIENTRY *getIntegerv)(GLenum, GLint *);
    void(KV_APIENTRY *viewport)(GLint, GLint, GLsizei, GLsizei);
    void(KV_APIENTRY *cullFace)(GLenum);
    void(KV_APIENTRY *activeTexture)(GLenum);
    void(KV_APIENTRY *bindTexture)(GLenum, GLuint);
    void(KV_APIENTRY *genTextures)(GLsizei, GLuint *);
    void(KV_APIENTRY *deleteTextures)(GLsizei, const GLuint *);
    void(KV_APIENTRY *texImage2D)(GLenum, GLint, GLint, GLsizei, GLsizei, GLint, GLenum, GLenum,
                                  const void *);
    void(KV_APIENTRY *texParameteri)(GLenum, GLenum, GLint);
    void(KV_APIENTRY *getTexParameteriv)(GLenum, GLenum, GLint *);
};

template <class Fns>
Gl glFrom(const Fns &f) {
    return Gl{f.glEnable,     f.glDisable,       f.glIsEnabled,        f.glGetIntegerv, f.glViewport,
              f.glCullFace,   f.glActiveTexture, f.glBindTexture,      f.glGenTextures, f.glDeleteTextures,
              f.glTexImage2D, f.glTexParameteri, f.glGetTexParameteriv};
}

const Gl &gl(bool es1) {
    static const Gl es2 = glFrom(GLESPPHost::get().fn);
    static const Gl es1Fns = glFrom(SEs1Host::get().fn);
    return es1 ? es1Fns : es2;
}

// What one draw's overrides changed, to be undone after it (per thread: a context is current on
// one thread at a time).
struct Unit {
    GLuint application = 0, replacement = 0;
    GLint minFilter = 0, magFilter = 0;
    bool filtered = false;
};
struct DrawState {
    bool applied = false;
    GLint viewport[4] = {};
    bool viewportSet = false;
    uint32_t disabled = 0; // bit per capability in kCaps turned off
    bool cullChanged = false, cullWasEnabled = false;
    GLint cullMode = GL_BACK;
    GLint activeUnit = GL_TEXTURE0;
    Unit units[kTextureUnitsTouched];
    bool texturesTouched = false;
    bool programSwapped = false;
    uint32_t program = 0; // the application's, while a copy is current
};
KV_FAST_THREAD_LOCAL DrawState *t_drawState = nullptr;
DrawState &drawState() {
    if (KV_UNLIKELY(!t_drawState)) t_drawState = new DrawState(); // one per thread, kept to its end
    return *t_drawState;
}

struct Cap {
    OverrideItem item;
    GLenum cap;
    bool es1Only;
};
const Cap kCaps[] = {
    {kItemDisableBlending, GL_BLEND, false},
    {kItemDisableStencil, GL_STENCIL_TEST, false},
    {kItemDisableDepth, GL_DEPTH_TEST, false},
    {kItemDisableScissor, GL_SCISSOR_TEST, false},
    {kItemDisableAlphaTest, 0x0BC0 /* GL_ALPHA_TEST */, true},
};

bool isDraw(CallKind k) {
    switch (k) {
    case CallKind::DrawArrays:
    case CallKind::DrawArraysInstanced:
    case CallKind::DrawElements:
    case CallKind::DrawElementsInstanced:
    case CallKind::DrawRangeElements:
    case CallKind::DrawIndirectArrays:
    case CallKind::DrawIndirectElements:
    case CallKind::MultiDrawArrays:
    case CallKind::MultiDrawElements:
        return true;
    default:
        return false;
    }
}

} // namespace

std::string cullingItemText(uint32_t mode) {
    return std::to_string(mode) + "\nApp defined\nNone\nBack\nFront";
}

int parseCullingEdit(const uint8_t *data, uint32_t length) {
    uint32_t i = 0;
    // Leading new lines and zero bytes are skipped; data that starts with one means "no choice".
    if (length == 0 || data[0] == '\n' || data[0] == 0) return -1;
    while (i < length && (data[i] == '\n' || data[i] == 0))
        ++i;
    uint64_t v = 0;
    uint32_t digits = 0;
    while (i < length && data[i] >= '0' && data[i] <= '9' && digits < 10)
        v = v * 10 + (data[i++] - '0'), ++digits;
    if (digits == 0 || v >= 4) return -1;
    return static_cast<int>(v);
}

Overrides::Overrides(Settings &s, const Counters &kinds)
    : kinds_(kinds),
      active_(s.profilingEnabled && s.renderstateOverride), swapIds_{fn::eglSwapBuffers::id,
                                                                     fn::eglSwapBuffersWithDamageEXT::id} {
    for (uint32_t i = 0; i < kOverrideSwitchCount; ++i)
        values_[i] = s.overrideActive(static_cast<OverrideSwitch>(i));
    // Read where the key is read: a value above 3 was already taken as 0 there.
    values_[kItemCullingMode] =
        static_cast<uint32_t>(s.cullingMode) <= 3 ? static_cast<uint32_t>(s.cullingMode) : 0;
    const api::FamilyRange &es1 = api::kFamilies[static_cast<int>(api::Family::Gles1)];
    es1First_ = es1.first;
    es1Last_ = es1.last;
    for (const api::FamilyRange &f : api::kFamilies)
        if (f.family == api::Family::Gles1) {
            es1First_ = f.first;
            es1Last_ = f.last;
        }
}

std::vector<net::LinkItem> Overrides::items() const {
    std::vector<net::LinkItem> out(kItemCount);
    for (uint32_t i = 0; i < kItemCount; ++i) {
        out[i].name = kItemNames[i];
        if (i == kItemCullingMode) {
            out[i].type = 3;
            const std::string text = cullingItemText(values_[i]);
            out[i].data.assign(text.begin(), text.end());
        } else {
            out[i].type = 4;
            out[i].data.resize(4);
            std::memcpy(out[i].data.data(), &values_[i], 4);
        }
    }
    return out;
}

void Overrides::applyEdits(net::CCounterLink &link) {
    uint32_t index, length;
    const uint8_t *data;
    while (link.takeNextEditedItem(&index, &length, &data)) {
        if (index == kItemCullingMode) {
            const int v = parseCullingEdit(data, length);
            if (v >= 0) values_[index] = static_cast<uint32_t>(v);
        } else if (index < kItemCount) {
            // A 4-byte value; a shorter one is read as far as it goes.
            uint32_t v = 0;
            std::memcpy(&v, data, length < 4 ? length : 4);
            values_[index] = v;
        }
    }
}

bool Overrides::framePoint(uint16_t id) const {
    if (id == swapIds_[0] || id == swapIds_[1]) return true;
    const CallKind k = kinds_.kind(id);
    if (k == CallKind::ReadPixels) return true;
    return flushOrFinish(id);
}

bool Overrides::preCall(uint16_t id, const uint64_t *slots, uint32_t count) {
    if (!active_) return true;
    const CallKind k = kinds_.kind(id);
    const bool es1 = id >= es1First_ && id <= es1Last_;
    if (isDraw(k)) {
        if (values_[kItemDisableDraws]) return false;
        apply(es1);
        return true;
    }
    if (k == CallKind::ReadPixels) return !values_[kItemDisableFrameBufferAccess];
    if (k == CallKind::TexSubImage2D || k == CallKind::TexSubImageOther)
        return !values_[kItemDisableTextureModifications];
    if (values_[kItemDisableFlushFinish] && flushOrFinish(id)) return false;
    return true;
}

void Overrides::postCall(uint16_t id, const uint64_t *slots, uint32_t count, uint64_t result, bool failed) {
    if (!active_) return;
    // Programs are followed per share group, so every context's group is known from its creation.
    if (id == fn::eglCreateContext::id && count >= 3)
        shaders_.contextCreated(reinterpret_cast<void *>(static_cast<uintptr_t>(result)),
                                reinterpret_cast<void *>(static_cast<uintptr_t>(slots[2])));
    else if (id == fn::eglDestroyContext::id && count >= 2 && !failed && result)
        shaders_.contextDestroyed(reinterpret_cast<void *>(static_cast<uintptr_t>(slots[1])));
    if (!failed &&
        (id == fn::glShaderSource::id || id == fn::glAttachShader::id || id == fn::glDetachShader::id ||
         id == fn::glLinkProgram::id || id == fn::glDeleteProgram::id))
        shaders_.postCall(id, slots, count);
    if (!t_drawState || !t_drawState->applied) return;
    const bool es1 = id >= es1First_ && id <= es1Last_;
    if (isDraw(kinds_.kind(id))) restore(es1);
}

void Overrides::apply(bool es1) {
    const Gl &g = gl(es1);
    DrawState &d = drawState();
    d = DrawState();
    d.applied = true;
    if (values_[kItemZeroViewport] && g.getIntegerv && g.viewport) {
        g.getIntegerv(GL_VIEWPORT, d.viewport);
        g.viewport(0, 0, 0, 0);
        d.viewportSet = true;
    }
    if (g.isEnabled && g.disable) {
        for (uint32_t i = 0; i < sizeof kCaps / sizeof kCaps[0]; ++i) {
            const Cap &c = kCaps[i];
            if (!values_[c.item] || (c.es1Only && !es1)) continue;
            if (g.isEnabled(c.cap)) {
                g.disable(c.cap);
                d.disabled |= 1u << i;
            }
        }
    }
    const uint32_t culling = values_[kItemCullingMode];
    if (culling != 0 && g.isEnabled && g.enable && g.disable && g.cullFace && g.getIntegerv) {
        d.cullWasEnabled = g.isEnabled(GL_CULL_FACE);
        g.getIntegerv(GL_CULL_FACE_MODE, &d.cullMode);
        d.cullChanged = true;
        if (culling == 1) {
            if (d.cullWasEnabled) g.disable(GL_CULL_FACE);
        } else {
            if (!d.cullWasEnabled) g.enable(GL_CULL_FACE);
            g.cullFace(culling == 2 ? GL_BACK : GL_FRONT);
        }
    }
    const bool tiny = values_[kItem2x2Textures] != 0, nearest = values_[kItemDisableTextureFiltering] != 0;
    if ((tiny || nearest) && g.activeTexture && g.bindTexture && g.getIntegerv && g.genTextures &&
        g.texImage2D && g.texParameteri && g.getTexParameteriv) {
        d.texturesTouched = true;
        g.getIntegerv(GL_ACTIVE_TEXTURE, &d.activeUnit);
        GLint units = 0;
        g.getIntegerv(es1 ? 0x84E2 /* GL_MAX_TEXTURE_UNITS */ : GL_MAX_COMBINED_TEXTURE_IMAGE_UNITS, &units);
        const uint32_t n =
            units > 0 && static_cast<uint32_t>(units) < kTextureUnitsTouched ? units : kTextureUnitsTouched;
        for (uint32_t u = 0; u < n; ++u) {
            Unit &unit = d.units[u];
            g.activeTexture(GL_TEXTURE0 + u);
            GLint bound = 0;
            g.getIntegerv(GL_TEXTURE_BINDING_2D, &bound);
            if (bound == 0) continue;
            unit.application = static_cast<GLuint>(bound);
            if (tiny) {
                // A 2x2 mid-grey texture of the same target, complete without mipmaps.
                static const uint8_t texels[16] = {128, 128, 128, 255, 128, 128, 128, 255,
                                                   128, 128, 128, 255, 128, 128, 128, 255};
                g.genTextures(1, &unit.replacement);
                g.bindTexture(GL_TEXTURE_2D, unit.replacement);
                g.texImage2D(GL_TEXTURE_2D, 0, GL_RGBA, 2, 2, 0, GL_RGBA, GL_UNSIGNED_BYTE, texels);
                g.texParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, nearest ? GL_NEAREST : GL_LINEAR);
                g.texParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, nearest ? GL_NEAREST : GL_LINEAR);
            } else {
                g.getTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, &unit.minFilter);
                g.getTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, &unit.magFilter);
                const bool mip = unit.minFilter != GL_NEAREST && unit.minFilter != GL_LINEAR;
                g.texParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER,
                                mip ? GL_NEAREST_MIPMAP_NEAREST : GL_NEAREST);
                g.texParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
                unit.filtered = true;
            }
        }
        g.activeTexture(static_cast<GLenum>(d.activeUnit));
    }
    const bool flat = values_[kItemFlatColour] != 0, discardFree = values_[kItemDisableAlphaTest] != 0;
    if (!es1 && (flat || discardFree)) d.programSwapped = shaders_.substitute(flat, discardFree, &d.program);
}

void Overrides::restore(bool es1) {
    const Gl &g = gl(es1);
    DrawState &d = drawState();
    d.applied = false;
    if (d.viewportSet) g.viewport(d.viewport[0], d.viewport[1], d.viewport[2], d.viewport[3]);
    for (uint32_t i = 0; i < sizeof kCaps / sizeof kCaps[0]; ++i)
        if (d.disabled & (1u << i)) g.enable(kCaps[i].cap);
    if (d.cullChanged) {
        g.cullFace(static_cast<GLenum>(d.cullMode));
        if (d.cullWasEnabled)
            g.enable(GL_CULL_FACE);
        else
            g.disable(GL_CULL_FACE);
    }
    if (d.texturesTouched) {
        for (uint32_t u = 0; u < kTextureUnitsTouched; ++u) {
            Unit &unit = d.units[u];
            if (!unit.replacement && !unit.filtered) continue;
            g.activeTexture(GL_TEXTURE0 + u);
            if (unit.replacement) {
                g.bindTexture(GL_TEXTURE_2D, unit.application);
                g.deleteTextures(1, &unit.replacement);
            } else {
                g.texParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, unit.minFilter);
                g.texParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, unit.magFilter);
            }
        }
        g.activeTexture(static_cast<GLenum>(d.activeUnit));
    }
    if (d.programSwapped) shaders_.putBack(d.program);
}

} // namespace kv::analysis
