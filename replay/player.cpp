#include "replay/player.h"

#include "base/zand_string.h"
#include "host/host_paths.h"
#include "platform/platform.h"
#include "platform/process.h"
#include "replay/png.h"
#include "replay/session.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace kv::replay {

namespace {

constexpr uint16_t kContextInformation = 1502;
constexpr uint16_t kFirstPseudo = 1500, kLastPseudo = 1503;
// OpenCL records that are no calls: the description of a recorded platform (the local platforms
// are asked for as the program asked), and the bytes a read made without blocking brought back.
constexpr uint16_t kClPlatform = 6000, kClReadContents = 6090;

bool succeeded(const reader::Entry &e) {
    switch (e.desc->error) {
    case api::ErrorKind::Gl:
        return e.error == GL_NO_ERROR;
    case api::ErrorKind::Egl:
        return e.error == EGL_SUCCESS;
    case api::ErrorKind::Cl:
        return e.error == 0;
    default:
        return true;
    }
}

bool isSwap(uint16_t id) {
    return id == fn::eglSwapBuffers::id || id == fn::eglSwapBuffersWithDamageEXT::id;
}

// The attribute list of a block of EGLint pairs.
std::map<EGLint, EGLint> attributePairs(const uint8_t *bytes, uint32_t size) {
    std::map<EGLint, EGLint> out;
    for (uint32_t at = 0; bytes && at + 8 <= size; at += 8) {
        EGLint pair[2];
        std::memcpy(pair, bytes + at, 8);
        if (pair[0] == EGL_NONE) break;
        out[pair[0]] = pair[1];
    }
    return out;
}

const uint8_t *argBytes(const reader::Entry &e, size_t i, uint32_t *size) {
    if (i >= e.args.size() || e.args[i].block < 0) return nullptr;
    const reader::Block &b = e.blocks[static_cast<size_t>(e.args[i].block)];
    *size = b.size;
    return e.bytes(b);
}

} // namespace

std::string frameFileName(uint64_t frame) {
    char name[48];
    std::snprintf(name, sizeof(name), "frame-%06llu.png", static_cast<unsigned long long>(frame));
    return name;
}

Player::Player(const Options &o) : options(o) {
    table_.assign(65536, nullptr);
    for (uint32_t i = 0; i < kPlayedCount; ++i)
        table_[kPlayed[i].id] = kPlayed[i].play;
}

Player::~Player() {
    for (auto &w : workers_)
        if (w.second->thread.joinable()) w.second->thread.join();
}

const SEs1HostFns &Player::es1() {
    return SEs1Host::get().fn;
}

void Player::problem(const reader::Entry &e, const std::string &text) {
    ++problems_;
    std::string key = std::string(e.name()) + "|" + text;
    if (!said_.insert(key).second) return;
    if (said_.size() > 200) return;
    std::fprintf(stderr, "kalvoren: record %llu (%s): %s\n", static_cast<unsigned long long>(e.index),
                 e.name(), text.c_str());
}

// ---- The first walk: what the trace says of its configs, and how many frames it holds ---------

bool Player::prescan(std::string *error) {
    std::unique_ptr<reader::Reader> r = reader::Reader::openFile(options.trace, error);
    if (!r) return false;
    std::vector<bool> wanted(65536, false);
    wanted[kContextInformation] = true;
    wanted[fn::eglGetConfigAttrib::id] = true;
    r->decodeOnly(&wanted);
    r->keepBlockBytes(true);
    reader::Entry e;
    while (r->next(e)) {
        if (e.kind != reader::Entry::Kind::Call || !e.problem.empty()) continue;
        if (e.desc && e.desc->family != api::Family::Cl && e.desc->family != api::Family::ClExt &&
            e.desc->family != api::Family::Pseudo)
            graphics_ = true;
        if (isSwap(e.id)) {
            ++totalFrames_;
        } else if (e.id == kContextInformation && e.args.size() >= 7) {
            uint32_t size = 0;
            const uint8_t *bytes = argBytes(e, 6, &size);
            for (auto &pair : attributePairs(bytes, size))
                configAttributes_[e.args[2].value][pair.first] = pair.second;
        } else if (e.id == fn::eglGetConfigAttrib::id && e.error == EGL_SUCCESS && e.result == EGL_TRUE &&
                   e.args.size() >= 4) {
            uint32_t size = 0;
            const uint8_t *bytes = argBytes(e, 3, &size);
            if (bytes && size >= 4) {
                EGLint v;
                std::memcpy(&v, bytes, 4);
                configAttributes_[e.args[1].value][static_cast<EGLint>(e.args[2].value)] = v;
            }
        }
    }
    return true;
}

// ---- Local display, configs and windows ---------------------------------------------------------

EGLDisplay Player::localDisplay() {
    if (displayMade_) return display_;
    displayMade_ = true;
    if (options.window) {
        if (!platform::openWindowSystem(&nativeDisplay_))
            std::fprintf(stderr, "kalvoren: no window system to open windows on\n");
        display_ = egl->eglGetDisplay(reinterpret_cast<EGLNativeDisplayType>(nativeDisplay_));
        return display_;
    }
    // Without windows: Mesa's surfaceless platform where there is one, which needs no display.
    const char *extensions = egl->eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
    if (extensions && std::strstr(extensions, "EGL_MESA_platform_surfaceless")) {
        if (egl->eglGetPlatformDisplay)
            display_ =
                egl->eglGetPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
        else if (egl->eglGetPlatformDisplayEXT)
            display_ =
                egl->eglGetPlatformDisplayEXT(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
    }
    if (display_ == EGL_NO_DISPLAY) display_ = egl->eglGetDisplay(EGL_DEFAULT_DISPLAY);
    return display_;
}

uint64_t Player::nativeWindow(int32_t width, int32_t height) {
    localDisplay();
    return platform::createWindow(nativeDisplay_, width, height, "kalvoren replay");
}

EGLConfig Player::configFor(uint64_t recorded, EGLConfig fallback) {
    auto known = configs_.find(recorded);
    if (known != configs_.end()) return known->second;
    auto attrs = configAttributes_.find(recorded);
    if (attrs == configAttributes_.end() && fallback) return configs_[recorded] = fallback;
    EGLDisplay dpy = localDisplay();
    EGLint major = 0, minor = 0;
    egl->eglInitialize(dpy, &major, &minor);
    std::map<EGLint, EGLint> want;
    if (attrs != configAttributes_.end()) want = attrs->second;
    EGLint renderable = EGL_OPENGL_ES2_BIT;
    if (want.count(EGL_RENDERABLE_TYPE))
        renderable =
            want[EGL_RENDERABLE_TYPE] & (EGL_OPENGL_ES_BIT | EGL_OPENGL_ES2_BIT | EGL_OPENGL_ES3_BIT);
    std::vector<EGLConfig> candidates;
    for (int attempt = 0; attempt < 2 && candidates.empty(); ++attempt) {
        std::vector<EGLint> list = {EGL_SURFACE_TYPE, surfaceBit()};
        if (attempt == 0 && renderable) list.insert(list.end(), {EGL_RENDERABLE_TYPE, renderable});
        list.push_back(EGL_NONE);
        EGLint n = 0;
        if (!egl->eglChooseConfig(dpy, list.data(), nullptr, 0, &n) || n <= 0) continue;
        candidates.resize(static_cast<size_t>(n));
        egl->eglChooseConfig(dpy, list.data(), candidates.data(), n, &n);
        candidates.resize(static_cast<size_t>(std::max(n, 0)));
    }
    EGLConfig best = fallback;
    int64_t bestScore = INT64_MAX;
    static const EGLint kCompared[] = {EGL_RED_SIZE,   EGL_GREEN_SIZE,   EGL_BLUE_SIZE, EGL_ALPHA_SIZE,
                                       EGL_DEPTH_SIZE, EGL_STENCIL_SIZE, EGL_SAMPLES,   EGL_SAMPLE_BUFFERS};
    for (EGLConfig candidate : candidates) {
        int64_t score = 0;
        for (EGLint a : kCompared) {
            auto w = want.find(a);
            if (w == want.end()) continue;
            EGLint v = 0;
            egl->eglGetConfigAttrib(dpy, candidate, a, &v);
            int64_t d = static_cast<int64_t>(v) - w->second;
            score += (d < 0 ? -d * 200 : d * 100);
        }
        EGLint id = 0;
        egl->eglGetConfigAttrib(dpy, candidate, EGL_CONFIG_ID, &id);
        if (want.count(EGL_CONFIG_ID) && want[EGL_CONFIG_ID] != id) score += 1;
        if (score < bestScore) {
            bestScore = score;
            best = candidate;
        }
    }
    configs_[recorded] = best;
    return best;
}

// ---- Frames -----------------------------------------------------------------------------------

bool Player::readFrame(ThreadState *t, int32_t width, int32_t height, std::vector<uint8_t> &pixels) {
    if (width <= 0 || height <= 0) return false;
    const GLESPPHostFns &gl = *gles;
    if (!t || !t->context) return false;
    bool es3 = t->context->apiVersion >= 3;
    GLenum target = es3 ? GL_READ_FRAMEBUFFER : GL_FRAMEBUFFER;
    GLint previous = 0, packBuffer = 0, alignment = 4, rowLength = 0, skipRows = 0, skipPixels = 0;
    gl.glGetIntegerv(es3 ? GL_READ_FRAMEBUFFER_BINDING : GL_FRAMEBUFFER_BINDING, &previous);
    gl.glGetIntegerv(GL_PACK_ALIGNMENT, &alignment);
    if (es3) {
        gl.glGetIntegerv(GL_PIXEL_PACK_BUFFER_BINDING, &packBuffer);
        gl.glGetIntegerv(GL_PACK_ROW_LENGTH, &rowLength);
        gl.glGetIntegerv(GL_PACK_SKIP_ROWS, &skipRows);
        gl.glGetIntegerv(GL_PACK_SKIP_PIXELS, &skipPixels);
        gl.glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
        gl.glPixelStorei(GL_PACK_ROW_LENGTH, 0);
        gl.glPixelStorei(GL_PACK_SKIP_ROWS, 0);
        gl.glPixelStorei(GL_PACK_SKIP_PIXELS, 0);
    }
    gl.glPixelStorei(GL_PACK_ALIGNMENT, 4);
    gl.glBindFramebuffer(target, 0);
    pixels.assign(static_cast<size_t>(width) * static_cast<size_t>(height) * 4, 0);
    gl.glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
    gl.glBindFramebuffer(target, static_cast<GLuint>(previous));
    gl.glPixelStorei(GL_PACK_ALIGNMENT, alignment);
    if (es3) {
        gl.glBindBuffer(GL_PIXEL_PACK_BUFFER, static_cast<GLuint>(packBuffer));
        gl.glPixelStorei(GL_PACK_ROW_LENGTH, rowLength);
        gl.glPixelStorei(GL_PACK_SKIP_ROWS, skipRows);
        gl.glPixelStorei(GL_PACK_SKIP_PIXELS, skipPixels);
    }
    while (gl.glGetError() != GL_NO_ERROR) {
    }
    return true;
}

void Player::frameShown(Call &c) {
    if (options.benchmark) return;
    int fi = c.field("frame");
    uint64_t frame = fi >= 0 ? c.value(fi) : framesPlayed_;
    if (frame < options.firstFrame || frame > options.lastFrame) return;
    int wi = c.field("fbWidth"), hi = c.field("fbHeight"), pi = c.field("fbPixels");
    int32_t width = wi >= 0 ? static_cast<int32_t>(c.value(wi)) : 0;
    int32_t height = hi >= 0 ? static_cast<int32_t>(c.value(hi)) : 0;
    uint32_t savedBytes = 0;
    const uint8_t *saved = pi >= 0 ? c.block(pi, &savedBytes) : nullptr;
    bool compare = options.compare && saved && savedBytes == uint64_t(width) * uint64_t(height) * 4;
    if (!compare && options.dumpDirectory.empty()) return;
    if (width <= 0 || height <= 0) {
        // No saved size: the size of the surface drawn to.
        EGLint w = 0, h = 0;
        EGLDisplay dpy =
            reinterpret_cast<EGLDisplay>(static_cast<uintptr_t>(c.mapHandle(Handle::Display, c.value(0))));
        egl->eglQuerySurface(dpy, c.thread.draw, EGL_WIDTH, &w);
        egl->eglQuerySurface(dpy, c.thread.draw, EGL_HEIGHT, &h);
        width = w, height = h;
    }
    if (!readFrame(&c.thread, width, height, pixels_)) return;
    if (compare) {
        FrameResult r;
        r.frame = frame;
        r.compared = true;
        for (size_t i = 0; i < pixels_.size(); i += 4) {
            uint32_t worst = 0;
            for (size_t k = 0; k < 4; ++k) {
                int d = int(pixels_[i + k]) - int(saved[i + k]);
                worst = std::max<uint32_t>(worst, static_cast<uint32_t>(d < 0 ? -d : d));
            }
            if (worst) {
                ++r.differing;
                r.largest = std::max(r.largest, worst);
            }
        }
        results_.push_back(r);
        if (!options.quiet) {
            if (r.differing == 0)
                std::printf("frame %llu: identical\n", static_cast<unsigned long long>(frame));
            else
                std::printf(
                    "frame %llu: differs: largest channel difference %u, %llu of %llu pixels differ%s\n",
                    static_cast<unsigned long long>(frame), r.largest,
                    static_cast<unsigned long long>(r.differing),
                    static_cast<unsigned long long>(pixels_.size() / 4),
                    r.largest <= options.tolerance ? " (within the tolerance)" : "");
            std::fflush(stdout);
        }
    }
    if (!options.dumpDirectory.empty()) {
        std::string path = options.dumpDirectory + "/" + frameFileName(frame);
        std::string why;
        if (!writePng(path, width, height, pixels_.data(), &why))
            std::fprintf(stderr, "kalvoren: %s: %s\n", path.c_str(), why.c_str());
    }
}

void Player::frameEnded(Call &c) {
    int fi = c.field("frame");
    uint64_t frame = fi >= 0 ? c.value(fi) : framesPlayed_;
    ++framesPlayed_;
    lastFrame_ = frame;
    if (frame + 1 == options.firstFrame) {
        mark_ = reader_->mark();
        haveMark_ = true;
        benchStart_ = platform::perfCounter();
        benchCalls_ = calls_;
        benchFrames_ = framesPlayed_;
    }
    if (frame >= options.lastFrame) {
        if (loopsLeft_ > 0 && haveMark_) {
            --loopsLeft_;
            reader_->rewind(mark_);
        } else {
            stopping_ = true;
        }
    }
    progress(false);
}

void Player::progress(bool last) {
    if (!showProgress_) return;
    uint64_t now = platform::tickCountMs();
    if (!last && now - progressShownMs_ < 250) return;
    double seconds = double(now - startMs_) / 1000.0;
    uint64_t total = std::min<uint64_t>(
        totalFrames_, options.lastFrame == UINT64_MAX ? totalFrames_ : options.lastFrame + 1);
    std::fprintf(stderr, "\rframe %llu of %llu, %.0f calls/s   ",
                 static_cast<unsigned long long>(framesPlayed_), static_cast<unsigned long long>(total),
                 seconds > 0 ? double(calls_) / seconds : 0.0);
    if (last) std::fprintf(stderr, "\r%60s\r", "");
    std::fflush(stderr);
    progressShownMs_ = now;
}

// ---- The walk ---------------------------------------------------------------------------------

Player::Worker &Player::workerFor(uint64_t recorded) {
    auto it = workers_.find(recorded);
    if (it != workers_.end()) return *it->second;
    auto worker = std::make_unique<Worker>();
    worker->recorded = recorded;
    worker->state.recorded = recorded;
    Worker &w = *worker;
    workers_[recorded] = std::move(worker);
    // A thread of the recording gets a thread of its own: EGL's current context is per thread.
    w.thread = std::thread([this, &w]() {
        {
            std::unique_lock<std::mutex> lock(batonLock_);
            w.wake.wait(lock, [&]() { return owner_ == &w || finished_; });
            if (finished_) return;
        }
        walk(w);
    });
    return w;
}

void Player::handBaton(Worker &from, Worker &to) {
    std::unique_lock<std::mutex> lock(batonLock_);
    owner_ = &to;
    to.wake.notify_one();
    from.wake.wait(lock, [&]() { return owner_ == &from || finished_; });
}

void Player::walk(Worker &w) {
    for (;;) {
        if (stopping_) break;
        if (!entryPending_ && !reader_->next(entry_)) break;
        entryPending_ = false;
        if (entry_.kind == reader::Entry::Kind::Call && entry_.thread != w.recorded) {
            Worker &to = workerFor(entry_.thread);
            entryPending_ = true;
            handBaton(w, to);
            std::unique_lock<std::mutex> lock(batonLock_);
            if (finished_) return;
            continue;
        }
        play(w);
    }
    std::unique_lock<std::mutex> lock(batonLock_);
    finished_ = true;
    for (auto &other : workers_)
        other.second->wake.notify_one();
}

void Player::play(Worker &w) {
    const reader::Entry &e = entry_;
    if (e.kind == reader::Entry::Kind::Unreadable) {
        problem(e, e.problem + "; the record was skipped");
        return;
    }
    if (e.kind != reader::Entry::Kind::Call) return;
    if (!e.problem.empty()) {
        problem(e, e.problem + "; the call was skipped");
        return;
    }
    if (e.id >= kFirstPseudo && e.id <= kLastPseudo) {
        if (e.id == kContextInformation && e.args.size() >= 5) {
            auto it = contexts.find(e.args[1].value);
            uint32_t version = static_cast<uint32_t>(e.args[4].value);
            if (it != contexts.end() && version >= 1)
                it->second->apiVersion = version >= 3 ? 3 : int(version);
        }
        return;
    }
    if (e.id == kClPlatform) return;
    if (e.id == kClReadContents) {
        readCompleted(e);
        return;
    }
    // A call the recorded driver refused changed nothing there; it is not made here either.
    if (!succeeded(e)) {
        ++failedSkipped_;
        // Some OpenCL drivers hand out an object with a failure status, and the program releases
        // it: those later calls are not made either.
        if (e.desc->error == api::ErrorKind::Cl && e.desc->result == api::Type::Handle && e.result) {
            failedHandles.insert(e.result);
            // Its address may be that of an object released before: that one's local object is gone.
            for (NameMap &map : handles)
                map.erase(e.result);
        }
        return;
    }
    PlayFn fn = table_[e.id];
    if (!fn) {
        problem(e, "the player cannot make this call; it was skipped");
        return;
    }
    w.state.strings.clear();
    w.state.handleLists.clear();
    Call c(*this, w.state, e);
    fn(c);
    ++calls_;
    if (options.checkErrors && e.desc->error == api::ErrorKind::Gl && w.state.context && c.ok()) {
        GLenum error = gles->glGetError();
        if (error != GL_NO_ERROR) {
            char text[96];
            std::snprintf(text, sizeof(text),
                          "the local driver reported error 0x%04x where the recording had none", error);
            problem(e, text);
        }
    }
}

int Player::run() {
    std::string error;
    if (!options.eglLibrary.empty()) configuredHostLibraryPath(kHostEgl) = CZandString(options.eglLibrary);
    if (!options.glesLibrary.empty()) configuredHostLibraryPath(kHostEs2) = CZandString(options.glesLibrary);
    if (!prescan(&error)) {
        std::fprintf(stderr, "kalvoren: %s: %s\n", options.trace.c_str(), error.c_str());
        return 2;
    }
    reader_ = reader::Reader::openFile(options.trace, &error);
    if (!reader_) {
        std::fprintf(stderr, "kalvoren: %s: %s\n", options.trace.c_str(), error.c_str());
        return 2;
    }
    reader_->keepBlockBytes(true);
    if (!reader_->header().recordData())
        std::fprintf(stderr,
                     "kalvoren: the trace holds no client data (RecordData was off): uploads and client "
                     "arrays cannot be replayed\n");
    searchDefaultHostLibraries();
    if (graphics_) {
        const SEglHost &eglHost = SEglHost::get();
        const GLESPPHost &glesHost = GLESPPHost::get();
        if (eglHost.failed() || !eglHost.module || glesHost.failed() || !glesHost.module) {
            std::fprintf(stderr, "kalvoren: the local EGL and OpenGL ES drivers could not be loaded\n");
            return 2;
        }
        egl = &eglHost.fn;
        gles = &glesHost.fn;
    } else {
        // An OpenCL trace plays on a machine without EGL and OpenGL ES drivers: nothing calls
        // through these tables.
        static const SEglHostFns noEgl{};
        static const GLESPPHostFns noGles{};
        egl = &noEgl;
        gles = &noGles;
    }
    loopsLeft_ = options.loops;
    showProgress_ = !options.benchmark && !options.quiet && platform::isTerminal(stderr);
    startMs_ = platform::tickCountMs();
    benchStart_ = platform::perfCounter();
    if (options.firstFrame == 0) {
        haveMark_ = true;
        mark_ = reader_->mark();
    }

    // The first recorded thread plays on this thread; the others get threads of their own.
    auto main = std::make_unique<Worker>();
    Worker &w = *main;
    bool first = true;
    while (first) {
        if (!reader_->next(entry_)) break;
        if (entry_.kind == reader::Entry::Kind::Call) {
            w.recorded = w.state.recorded = entry_.thread;
            first = false;
            entryPending_ = true;
        } else {
            play(w);
        }
    }
    workers_[w.recorded] = std::move(main);
    owner_ = &w;
    walk(w);
    for (auto &other : workers_)
        if (other.second->thread.joinable()) other.second->thread.join();
    progress(true);
    return finish();
}

int Player::finish() {
    double seconds = double(platform::perfCounter() - benchStart_) / double(platform::perfFrequency());
    uint64_t frames = framesPlayed_ - benchFrames_ + (options.firstFrame == 0 ? benchFrames_ : 0);
    uint64_t calls = calls_ - (options.firstFrame == 0 ? 0 : benchCalls_);
    if (options.benchmark) {
        std::printf(
            "%llu frames in %.3f s: %.2f frames per second; %llu calls, %.0f calls per second (%.0f ns "
            "per call)\n",
            static_cast<unsigned long long>(frames), seconds, seconds > 0 ? double(frames) / seconds : 0.0,
            static_cast<unsigned long long>(calls), seconds > 0 ? double(calls) / seconds : 0.0,
            calls ? seconds * 1e9 / double(calls) : 0.0);
    }
    int status = 0;
    uint64_t differ = 0, within = 0;
    for (const FrameResult &r : results_) {
        if (r.differing == 0) continue;
        if (r.largest > options.tolerance)
            ++differ;
        else
            ++within;
    }
    if (!options.quiet || differ) {
        std::printf("replayed %llu frames, %llu calls", static_cast<unsigned long long>(framesPlayed_),
                    static_cast<unsigned long long>(calls_));
        if (!results_.empty()) {
            std::printf("; %llu frames compared: %llu identical",
                        static_cast<unsigned long long>(results_.size()),
                        static_cast<unsigned long long>(results_.size() - differ - within));
            if (within) std::printf(", %llu within the tolerance", static_cast<unsigned long long>(within));
            if (differ) std::printf(", %llu differ", static_cast<unsigned long long>(differ));
        } else if (options.compare && !options.benchmark) {
            std::printf("; the trace holds no saved frame buffers to compare with");
        }
        std::printf("\n");
    }
    if (clReadsCompared_ && !options.quiet) {
        if (clReadsDiffering_)
            std::printf("%llu of %llu OpenCL reads brought back other bytes than when recorded\n",
                        static_cast<unsigned long long>(clReadsDiffering_),
                        static_cast<unsigned long long>(clReadsCompared_));
        else
            std::printf("%llu OpenCL reads brought back the recorded bytes\n",
                        static_cast<unsigned long long>(clReadsCompared_));
    }
    if (failedSkipped_ && !options.quiet)
        std::printf("%llu calls that failed when recorded were not made\n",
                    static_cast<unsigned long long>(failedSkipped_));
    if (onFailedHandles && !options.quiet)
        std::printf("%llu calls on objects whose creation failed when recorded were not made\n",
                    static_cast<unsigned long long>(onFailedHandles));
    if (problems_) {
        std::fprintf(stderr, "kalvoren: %llu records could not be played\n",
                     static_cast<unsigned long long>(problems_));
        status = 1;
    }
    if (reader_->ending() == reader::Ending::Truncated || reader_->ending() == reader::Ending::GaveUp) {
        // The walk stopped early: the reader's last problem says where and why.
        if (!reader_->problems().empty())
            std::fprintf(stderr, "kalvoren: %s; the replay stopped there\n",
                         reader_->problems().back().text.c_str());
        status = 1;
    }
    if (differ) status = 1;
    return status;
}

int play(const Options &options) {
    Player player(options);
    return player.run();
}

} // namespace kv::replay
