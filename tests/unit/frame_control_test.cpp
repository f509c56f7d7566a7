// Frame range control: which calls are recorded as the frames go by, the snapshot markers at the
// start of a range and the end marker after it. (The end of the process after the last frame:
// RealPrograms.ExitsAfterTheLastFrameWithACompleteTrace, on a real program.)
#include "trace/frame_control.h"
#include "core/settings.h"
#include "tests/unit/test_support.h"
#include "trace/trace_writer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace kv {
namespace {

using test::TraceItem;

constexpr uint16_t kCallId = 500;

// One call of the application: asks whether it is recorded and, if so, records the frame number.
bool call(Settings &s) {
    if (!frames::shouldRecord(s)) return false;
    RecordHandle h = trace::begin(kCallId);
    h.u32(s.currentFrame.load());
    trace::finish(h);
    return true;
}

// The items of a trace as words: "T:<thread name>", "S" for a snapshot marker, "r<frame>" for a
// call, "E" for the end marker. What a snapshot writes between its markers is left out.
std::string describe(const std::vector<TraceItem> &items, std::map<uint64_t, std::string> threadNames) {
    std::string out;
    bool inSnapshot = false;
    for (const TraceItem &item : items) {
        std::string word;
        if (item.kind == TraceItem::EndMarker) {
            word = item.payload == std::vector<uint8_t>(8, 0) ? "E" : "E?";
        } else if (item.kind == TraceItem::ThreadMarker) {
            word = "T:" + threadNames[item.thread];
        } else if (item.id == 2 && item.payload.empty()) {
            word = "S";
            inSnapshot = !inSnapshot;
        } else if (inSnapshot) {
            continue;
        } else if (item.id == kCallId && item.payload.size() == 4) {
            uint32_t frame;
            std::memcpy(&frame, item.payload.data(), 4);
            word = "r" + std::to_string(frame);
        } else {
            word = "?" + std::to_string(item.id);
        }
        out += out.empty() ? word : " " + word;
    }
    return out;
}

size_t count(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

struct RangeCase {
    const char *name;
    uint32_t startFrame, endFrame;
    // Per frame, whether its calls are recorded.
    const char *recorded;
    const char *trace;
};

class FrameRange : public ::testing::TestWithParam<RangeCase> {};

// Two calls in each frame; the answer holds for the whole frame. A range that starts after frame 0
// begins with a snapshot between two markers; the first call after the range writes the end
// marker, once.
TEST_P(FrameRange, RecordsTheConfiguredFrames) {
    const RangeCase &c = GetParam();
    test::TraceSession t(test::scratchPath(std::string("range_") + c.name + ".kalvoren"));
    ASSERT_TRUE(t.opened());
    Settings &s = t.settings();
    s.startFrame = c.startFrame;
    s.endFrame = c.endFrame;

    std::string recorded;
    test::ConsoleCapture capture;
    for (size_t frame = 0; c.recorded[frame]; ++frame) {
        bool first = call(s);
        bool second = call(s);
        recorded += first ? (second ? '+' : '!') : (second ? '!' : '-');
        frames::frameEnded(s);
    }
    const std::string output = capture.finish();

    EXPECT_EQ(recorded, c.recorded);
    EXPECT_EQ(s.currentFrame.load(), std::strlen(c.recorded));
    std::string problem;
    EXPECT_EQ(describe(t.closeAndWalk(&problem), {{platform::threadId(), "M"}}), c.trace);
    EXPECT_EQ(problem, "");
    for (size_t frame = 0; c.recorded[frame]; ++frame)
        EXPECT_EQ(count(output, "Recording... Current frame: " + std::to_string(frame) + "\n"),
                  c.recorded[frame] == '+' ? 1u : 0u)
            << output;
}

INSTANTIATE_TEST_SUITE_P(Ranges, FrameRange,
                         ::testing::Values(RangeCase{"Frames2To3", 2, 3, "--++--", "T:M S S r2 r2 r3 r3 E"},
                                           RangeCase{"Frames0To1", 0, 1, "++--", "T:M r0 r0 r1 r1 E"},
                                           RangeCase{"Defaults", 0, 0, "+-", "T:M r0 r0 E"},
                                           RangeCase{"EndBeforeStart", 3, 1, "-----", "E"}),
                         [](const ::testing::TestParamInfo<RangeCase> &info) {
                             return std::string(info.param.name);
                         });

// After the snapshot of the range start, another thread's first recorded call brings the state of
// that thread, between markers of its own; its later calls do not.
TEST(FrameRangeThreads, AnotherThreadsFirstCallInTheRangeBringsItsOwnSnapshot) {
    test::TraceSession t(test::scratchPath("range_threads.kalvoren"));
    ASSERT_TRUE(t.opened());
    Settings &s = t.settings();
    s.startFrame = 1;
    s.endFrame = 5;
    test::ConsoleCapture quiet;
    std::string recorded;
    auto mainCall = [&] { recorded += call(s) ? 'M' : '-'; };
    mainCall();
    frames::frameEnded(s);
    mainCall();
    uint64_t other = 0;
    std::string otherRecorded;
    std::thread worker([&] {
        other = platform::threadId();
        for (int i = 0; i < 2; ++i)
            otherRecorded += call(s) ? 'W' : '-';
        platform::runThreadCleanups();
    });
    worker.join();
    mainCall();
    quiet.finish();

    EXPECT_EQ(recorded, "-MM");
    EXPECT_EQ(otherRecorded, "WW");
    std::string problem;
    EXPECT_EQ(describe(t.closeAndWalk(&problem), {{platform::threadId(), "M"}, {other, "W"}}),
              "T:M S S r1 T:W S S r1 r1 T:M r1");
}

} // namespace
} // namespace kv
