// The settings record of the current process: built on first use from the defaults and the
// configuration file (and again when the process id changed, after a fork or a full close of the
// trace), together with the trace file it opens.
#pragma once

#include "base/settings_record.h"

namespace kv {

// The settings of the current process, built on first use (and again when the process id changed,
// after a fork or a full close of the trace).
Settings &getSettings();

// The run mode every entry point reads first. Reading it builds the settings on first use.
KV_ALWAYS_INLINE int32_t runMode();

// Forgets the cached process identity so that the settings are built afresh on next use.
void invalidateSettings();

// Closes the trace file and forgets the settings (they are built afresh on next use).
void closeFully(Settings &settings);

namespace detail {
extern Settings *g_settings;
// The settings once built for this process; null before, in a forked child until it builds its own,
// and after a full close. Every entry point reads it first, so it is one load and no process id.
extern std::atomic<Settings *> g_readySettings;
Settings &buildSettings();
} // namespace detail

KV_ALWAYS_INLINE Settings &fastSettings() {
    if (Settings *s = detail::g_readySettings.load(std::memory_order_acquire); KV_LIKELY(s != nullptr))
        return *s;
    return detail::buildSettings();
}

KV_ALWAYS_INLINE int32_t runMode() {
    return fastSettings().mode.load(std::memory_order_relaxed);
}

} // namespace kv
