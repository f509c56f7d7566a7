#include "trace/frame_control.h"

#include "base/messages.h"
#include "base/settings_record.h"
#include "trace/trace_writer.h"

#include <atomic>
#include <mutex>

namespace kv::frames {

namespace {
std::atomic<SnapshotWriter> g_snapshotWriter{nullptr};
// Counts the full snapshots written (a recording started over the network may start again); a
// thread whose own state went in after the last one holds its number.
std::atomic<uint32_t> g_snapshots{0};
thread_local uint32_t t_stateSaved = 0;
// Held while a snapshot (the full one or a thread's own part) is written.
std::mutex g_snapshotTurn;

bool ownStateDue() {
    return t_stateSaved != g_snapshots.load(std::memory_order_acquire);
}

void report(const char *fmt, int value) {
    msg::info(fmt, value);
}

// With the snapshot turn held, so that the in-progress flag is the writer's alone. The snapshot
// writes its records itself and never reaches the host through a wrapper, so forwarding stays on:
// a process-wide switch would also keep the calls other threads make meanwhile from the driver, and
// they must see what they see untraced.
void writeState(Settings &s, bool full) {
    if (!full && !ownStateDue()) return;
    s.snapshotInProgress = true;
    trace::writeSnapshotMarker();
    if (SnapshotWriter writer = g_snapshotWriter.load()) writer(full);
    if (full) g_snapshots.fetch_add(1, std::memory_order_acq_rel);
    t_stateSaved = g_snapshots.load(std::memory_order_acquire);
    trace::writeSnapshotMarker();
    s.snapshotInProgress = false;
}

} // namespace

void setSnapshotWriter(SnapshotWriter writer) {
    g_snapshotWriter.store(writer);
}

void saveRenderState(Settings &s, bool full) {
    std::lock_guard<std::mutex> turn(g_snapshotTurn);
    writeState(s, full);
}

void saveOwnState(Settings &s) {
    if (ownStateDue()) saveRenderState(s, false);
}

bool shouldRecord(Settings &s) {
    if (!s.recordingEnabled) return false;
    const uint32_t f = s.currentFrame.load(std::memory_order_relaxed);
    if (f >= s.startFrame) {
        if (f > s.endFrame) {
            if (!s.endMarkerWritten.load()) {
                if (s.snapshotInProgress.load()) return true;
                if (!s.endMarkerWritten.exchange(true)) trace::writeEndMarker(s);
            }
            if (!s.exitOnLastFrame) return false;
            if (s.debugLevel >= 1) msg::info("Exit. Last frame has been reached");
            trace::close(s);
            platform::exitProcess(0);
        }
        if (s.debugLevel >= 1 && static_cast<int32_t>(f) != s.lastReportedFrame) {
            s.lastReportedFrame = static_cast<int32_t>(f);
            report("Recording... Current frame: %d", static_cast<int>(f));
        }
        if (s.startFrame != 0 && (ownStateDue() || s.snapshotPending.load())) {
            // Threads that reach the start together take turns: the first writes the full
            // snapshot, and the others wait for it before their own state and calls go in, so the
            // objects are made once and before anything uses them.
            std::lock_guard<std::mutex> turn(g_snapshotTurn);
            if (s.snapshotPending.load()) {
                if (s.debugLevel >= 2) msg::info("Saving Render State");
                writeState(s, true);
                s.snapshotPending = false;
            } else {
                // A thread's first recorded call after the full snapshot brings its own state.
                writeState(s, false);
            }
        }
        if (f == s.endFrame && s.debugLevel >= 1 && static_cast<int32_t>(f) != s.lastReportedFrame) {
            s.lastReportedFrame = static_cast<int32_t>(f);
            msg::info("Recording Last Frame");
        }
        return true;
    }
    if (s.debugLevel >= 2 && static_cast<int32_t>(f) != s.lastReportedFrame) {
        s.lastReportedFrame = static_cast<int32_t>(f);
        report("Current frame... %d", static_cast<int>(f));
    }
    s.snapshotPending = true;
    return false;
}

void frameEnded(Settings &s) {
    s.currentFrame.fetch_add(1, std::memory_order_relaxed);
    // An application may install its own signal handlers at any time; the ones that keep the trace
    // exact are put back in front of them (chained to them) while a trace is written.
    if (s.traceFile) platform::refreshEndingHandlers();
    // Memory found readable in this frame is checked again in the next.
    platform::forgetReadable();
    s.swapSeen = true;
}

} // namespace kv::frames
