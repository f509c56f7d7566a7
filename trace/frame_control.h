// Frame range control: which calls are recorded, given the frame the application is in, and what
// happens when the range begins (the render-state snapshot) and ends (the end marker, perhaps the
// end of the process).
#pragma once

#include <cstdint>

namespace kv {
struct Settings;
}

namespace kv::frames {

// Asked before each call when recording is controlled by frames: true when the call is recorded.
// Advances the range state and may write markers, print progress or end the process.
bool shouldRecord(Settings &settings);

// Called by the frame-ending calls.
void frameEnded(Settings &settings);

// Writes the render-state snapshot between two snapshot markers: of every context (full) or of
// the calling thread only (partial).
void saveRenderState(Settings &settings, bool full);

// A thread's first recorded call after a full snapshot written on another thread brings the
// thread's own state (its current context and surfaces) first.
void saveOwnState(Settings &settings);

// What writes the state between the markers; installed by the state tracker.
using SnapshotWriter = void (*)(bool full);
void setSnapshotWriter(SnapshotWriter writer);

} // namespace kv::frames
