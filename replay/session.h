// The state of one replay: the trace being walked, the player threads handing the walk to each
// other, the maps of handles, the local display and its configs, and the frames seen so far.
#pragma once

#include "replay/call.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kv::replay {

struct FrameResult {
    uint64_t frame = 0;
    bool compared = false;
    bool sizeDiffers = false;
    uint32_t largest = 0;   // largest channel difference
    uint64_t differing = 0; // pixels with any channel differing
};

class Player {
public:
    explicit Player(const Options &options);
    ~Player();
    int run();

    // ---- Used by the calls and hooks
    const Options &options;
    const SEglHostFns *egl = nullptr;
    const GLESPPHostFns *gles = nullptr;
    const SEs1HostFns &es1();

    NameMap handles[static_cast<int>(Handle::Count)];
    std::map<uint64_t, std::unique_ptr<ContextState>> contexts; // by recorded handle
    // Contexts whose recorded handle a later context took (a driver may hand out the address of a
    // destroyed context again): kept, since a thread may still have them current.
    std::vector<std::unique_ptr<ContextState>> replacedContexts;
    ContextState noContext;

    EGLDisplay localDisplay();
    // The local config that stands for a recorded one (chosen once, by the attributes the trace
    // holds for it; `fallback` when it holds none).
    EGLConfig configFor(uint64_t recorded, EGLConfig fallback = nullptr);
    EGLint surfaceBit() const { return options.window ? EGL_WINDOW_BIT : EGL_PBUFFER_BIT; }
    // A window of this machine for a window surface (--window).
    uint64_t nativeWindow(int32_t width, int32_t height);

    // A problem with one record, said once per function and reason; counted.
    void problem(const reader::Entry &e, const std::string &text);

    // The swap of a frame: read back and compare before it is shown; counted after.
    void frameShown(Call &c);
    void frameEnded(Call &c);

    // ---- OpenCL
    // Byte ranges of a read's destination that the device writes: (offset, length).
    using Runs = std::vector<std::pair<size_t, size_t>>;
    // Compares the bytes a read brought back here with those it brought back when recorded.
    void compareRead(const reader::Entry &e, const uint8_t *local, const uint8_t *recorded,
                     size_t recordedBytes, const Runs &runs);
    // A read the recording made without blocking: its bytes reach the trace in a later record.
    struct PendingRead {
        std::vector<uint8_t> bytes;
        Runs runs;
    };
    std::map<uint64_t, PendingRead> clPendingReads; // by the recorded destination
    std::map<uint64_t, void *> clMappings;          // recorded mapped pointer -> local one
    // Objects handed out by calls that failed when recorded, and the calls on them not made.
    std::set<uint64_t> failedHandles;
    uint64_t onFailedHandles = 0;

private:
    struct Worker {
        uint64_t recorded = 0;
        ThreadState state;
        std::condition_variable wake;
        std::thread thread;
    };

    bool prescan(std::string *error);
    void walk(Worker &w);
    Worker &workerFor(uint64_t recorded);
    void play(Worker &w);
    void handBaton(Worker &from, Worker &to);
    void progress(bool last);
    bool readFrame(ThreadState *thread, int32_t width, int32_t height, std::vector<uint8_t> &pixels);
    int finish();

    std::unique_ptr<reader::Reader> reader_;
    reader::Entry entry_;
    bool entryPending_ = false;
    std::vector<PlayFn> table_;

    std::mutex batonLock_;
    Worker *owner_ = nullptr;
    bool finished_ = false;
    std::map<uint64_t, std::unique_ptr<Worker>> workers_;

    EGLDisplay display_ = EGL_NO_DISPLAY;
    bool displayMade_ = false;
    std::map<uint64_t, std::map<EGLint, EGLint>> configAttributes_; // recorded config -> attributes
    std::map<uint64_t, EGLConfig> configs_;
    bool graphics_ = false; // the trace holds EGL or OpenGL ES calls
    void *nativeDisplay_ = nullptr;

    // Frames
    uint64_t totalFrames_ = 0;
    uint64_t framesPlayed_ = 0;
    uint64_t lastFrame_ = 0;
    bool haveMark_ = false;
    reader::Reader::Mark mark_;
    uint32_t loopsLeft_ = 0;
    std::vector<FrameResult> results_;
    std::vector<uint8_t> pixels_;
    uint64_t calls_ = 0;
    uint64_t benchCalls_ = 0, benchFrames_ = 0;
    uint64_t benchStart_ = 0;
    bool stopping_ = false;

    void readCompleted(const reader::Entry &e);
    uint64_t clReadsCompared_ = 0, clReadsDiffering_ = 0;

    // Problems
    std::set<std::string> said_;
    uint64_t problems_ = 0;
    uint64_t failedSkipped_ = 0;

    // Progress
    bool showProgress_ = false;
    uint64_t progressShownMs_ = 0;
    uint64_t progressCalls_ = 0;
    uint64_t startMs_ = 0;
};

} // namespace kv::replay
