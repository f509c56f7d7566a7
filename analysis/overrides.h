// The render-state overrides of a profiling run: items on the counter link that the performance
// server switches while the application runs (skip draws, force a zero viewport, turn blending or
// the depth test off around each draw, ...). Every change made around a draw is undone right after
// it, so that between the application's calls the driver holds exactly the application's state.
#pragma once

#include "analysis/counters.h"
#include "analysis/shader_shadows.h"
#include "core/functions_autogen.h"
#include "net/counter_link.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kv {
struct Settings;
}

namespace kv::analysis {

enum OverrideItem : uint32_t {
    kItemZeroViewport,
    kItemDisableBlending,
    kItem2x2Textures,
    kItemFlatColour,
    kItemDisableStencil,
    kItemDisableDepth,
    kItemDisableScissor,
    kItemDisableDraws,
    kItemDisableFlushFinish,
    kItemDisableTextureModifications,
    kItemDisableTextureFiltering,
    kItemDisableAlphaTest,
    kItemDisableFrameBufferAccess,
    kItemCullingMode,
    kItemCount
};
extern const char *const kItemNames[kItemCount];

// The culling item's data: the current choice, then the choices, separated by new lines.
std::string cullingItemText(uint32_t mode);
// A culling edit: the value it selects, or -1 when the text is to be ignored.
int parseCullingEdit(const uint8_t *data, uint32_t length);

class Overrides {
public:
    Overrides(Settings &settings, const Counters &kinds);
    bool active() const { return active_; }
    // The items as published on the link (initial values from the configuration).
    std::vector<net::LinkItem> items() const;
    // Takes every waiting edit (newest first) from the link.
    void applyEdits(net::CCounterLink &link);
    uint32_t value(OverrideItem item) const { return values_[item]; }
    void setValue(OverrideItem item, uint32_t v) { values_[item] = v; }

    // Before the host call: whether it is made; a draw gets the overrides applied.
    bool preCall(uint16_t id, const uint64_t *slots, uint32_t count);
    // After the host call: a draw's overrides undone; the contexts, shaders and programs the
    // application makes are followed for the shader overrides.
    void postCall(uint16_t id, const uint64_t *slots, uint32_t count, uint64_t result, bool failed);
    // Whether the call ends or synchronises a frame (edits are applied there).
    bool framePoint(uint16_t id) const;

private:
    struct Saved;
    void apply(bool es1);
    void restore(bool es1);

    const Counters &kinds_;
    ShaderShadows shaders_;
    bool active_;
    uint32_t values_[kItemCount] = {};
    uint16_t es1First_ = 0, es1Last_ = 0;
    uint16_t swapIds_[2];
    // glFinish and glFlush of both families: asked on every call, so compared by id.
    uint16_t flushIds_[4] = {fn::glFinish::id, fn::glFlush::id, fn::es1::glFinish::id, fn::es1::glFlush::id};
    bool flushOrFinish(uint16_t id) const {
        return id == flushIds_[0] || id == flushIds_[1] || id == flushIds_[2] || id == flushIds_[3];
    }
};

} // namespace kv::analysis
