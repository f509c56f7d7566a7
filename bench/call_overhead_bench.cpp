// What one API call costs through the library, against the same call made straight into the test
// host (which stands in for the driver and does next to nothing). The library reads its settings
// once per process, so a process measures one mode, named by KV_BENCH_MODE:
//
//   direct       calls into the test host only
//   passthrough  the library disabled ("Enabled": false): every entry point forwards its call
//   recorded     the library recording: error check, hooks and a record without client data
//   profiled     the library in profiling mode, every call counted, `kalvoren perf`'s end of the
//                counter link served by a thread of this process (frame ends send the counters)
//   uncounted    the same without the software counters: the difference is what counting costs
//   timeline     profiled, with every call also on the function timeline (level 3): a span per call
//                sent on the counter link
//
// Each process also measures the direct calls, and reports for every function the processor
// nanoseconds per call (counter ns_per_call) and the ratio to the direct call (counter x_direct),
// and prints one line "RESULT <mode> <function> <ns per call> <ratio>" at the end (the medians of
// the repetitions). The configuration and the
// trace go to KV_BENCH_DIR (a temporary directory when unset). bench/run_call_overhead.sh runs the
// three modes and prints a table.
#include "entry/entries_autogen.h"
#include "net/counter_link.h"
#include "platform/process.h"
#include "tests/common/json_text.h"
#include "tests/host/test_host.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <thread>
#include <vector>

namespace {

enum class Mode { Direct, PassThrough, Recorded, Profiled, Uncounted, Timeline };

// The runs of one benchmark: iterations and processor nanoseconds per call of each.
struct Runs {
    std::vector<std::pair<uint64_t, double>> runs;

    void add(uint64_t iterations, double ns) { runs.emplace_back(iterations, ns); }
    // The median over the runs that the benchmark reports: Google Benchmark first runs a few
    // growing iteration counts to find one that lasts long enough, then repeats that count.
    double nsPerCall() const {
        uint64_t most = 0;
        for (const auto &r : runs)
            most = std::max(most, r.first);
        std::vector<double> final;
        for (const auto &r : runs)
            if (r.first == most) final.push_back(r.second);
        if (final.empty()) return 0;
        std::sort(final.begin(), final.end());
        return final[final.size() / 2];
    }
};

std::map<std::string, Runs> g_direct;
std::map<std::string, Runs> g_library;

using EnableFn = void(KV_APIENTRY *)(GLenum);
using Uniform4fFn = void(KV_APIENTRY *)(GLint, GLfloat, GLfloat, GLfloat, GLfloat);
using GetErrorFn = GLenum(KV_APIENTRY *)();

// The calling thread's processor time in nanoseconds. Not the process's: in the profiled modes
// the performance server's end of the link runs on a thread of this process, where in use it is a
// process of its own, and what it spends decoding is not the call's cost.
double threadNs() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return 1e9 * static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec);
}

// Runs `call` for the benchmark's iterations and returns the processor nanoseconds per call (the
// machine may be shared: time spent in other processes does not count).
template <class Call>
double timeCalls(benchmark::State &state, Call call) {
    const double start = threadNs();
    for (auto _ : state)
        call();
    const double ns = threadNs() - start;
    return state.iterations() ? ns / static_cast<double>(state.iterations()) : 0.0;
}

void reportDirect(benchmark::State &state, const std::string &function, double ns) {
    g_direct[function].add(state.iterations(), ns);
    state.counters["ns_per_call"] = benchmark::Counter(ns);
}

void reportLibrary(benchmark::State &state, const std::string &function, double ns) {
    g_library[function].add(state.iterations(), ns);
    const double direct = g_direct[function].nsPerCall();
    state.counters["ns_per_call"] = benchmark::Counter(ns);
    state.counters["x_direct"] = benchmark::Counter(direct > 0 ? ns / direct : 0.0);
}

void directEnable(benchmark::State &state) {
    auto enable = reinterpret_cast<EnableFn>(kvth_function_address("glEnable"));
    reportDirect(state, "glEnable", timeCalls(state, [&] { enable(GL_BLEND); }));
}

void directUniform4f(benchmark::State &state) {
    auto uniform = reinterpret_cast<Uniform4fFn>(kvth_function_address("glUniform4f"));
    reportDirect(state, "glUniform4f", timeCalls(state, [&] { uniform(1, 0.5f, 0.25f, 0.125f, 1.0f); }));
}

void directGetError(benchmark::State &state) {
    auto getError = reinterpret_cast<GetErrorFn>(kvth_function_address("glGetError"));
    reportDirect(state, "glGetError", timeCalls(state, [&] { benchmark::DoNotOptimize(getError()); }));
}

void libraryGetError(benchmark::State &state) {
    reportLibrary(state, "glGetError", timeCalls(state, [] { benchmark::DoNotOptimize(gles::getError()); }));
}

void libraryEnable(benchmark::State &state) {
    reportLibrary(state, "glEnable", timeCalls(state, [] { gles::enable(GL_BLEND); }));
}

void libraryUniform4f(benchmark::State &state) {
    reportLibrary(state, "glUniform4f",
                  timeCalls(state, [] { gles::uniform4f(1, 0.5f, 0.25f, 0.125f, 1.0f); }));
}

// Draws of 64 vertices recorded: from a buffer object, and from client memory tightly packed and
// strided (the recorder copies what the draw reads into its record). Reported per draw, with the
// ratio to the draw from a buffer object (counter x_buffer, and RESULT lines with that ratio).
constexpr GLsizei kDrawVertices = 64;
std::map<std::string, Runs> g_draws;

void reportDraw(benchmark::State &state, const std::string &kind, double ns) {
    g_draws[kind].add(state.iterations(), ns);
    const double buffer = g_draws["buffer"].nsPerCall();
    state.counters["ns_per_draw"] = benchmark::Counter(ns);
    state.counters["x_buffer"] = benchmark::Counter(buffer > 0 ? ns / buffer : 0.0);
}

void drawFromBuffer(benchmark::State &state) {
    static std::vector<float> data(kDrawVertices * 8, 1.0f);
    GLuint buffer = 0;
    gles::genBuffers(1, &buffer);
    gles::bindBuffer(GL_ARRAY_BUFFER, buffer);
    gles::bufferData(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(data.size() * 4), data.data(), GL_STATIC_DRAW);
    gles::vertexAttribPointer(0, 4, GL_FLOAT, GL_FALSE, 32, nullptr);
    gles::enableVertexAttribArray(0);
    reportDraw(state, "buffer", timeCalls(state, [] { gles::drawArrays(GL_TRIANGLES, 0, kDrawVertices); }));
    gles::bindBuffer(GL_ARRAY_BUFFER, 0);
}

void drawClientPacked(benchmark::State &state) {
    static std::vector<float> data(kDrawVertices * 4, 1.0f);
    gles::bindBuffer(GL_ARRAY_BUFFER, 0);
    gles::vertexAttribPointer(0, 4, GL_FLOAT, GL_FALSE, 0, data.data());
    gles::enableVertexAttribArray(0);
    reportDraw(state, "client-packed",
               timeCalls(state, [] { gles::drawArrays(GL_TRIANGLES, 0, kDrawVertices); }));
}

void drawClientStrided(benchmark::State &state) {
    static std::vector<float> data(kDrawVertices * 8, 1.0f);
    gles::bindBuffer(GL_ARRAY_BUFFER, 0);
    gles::vertexAttribPointer(0, 4, GL_FLOAT, GL_FALSE, 32, data.data());
    gles::enableVertexAttribArray(0);
    reportDraw(state, "client-strided",
               timeCalls(state, [] { gles::drawArrays(GL_TRIANGLES, 0, kDrawVertices); }));
}

// Capture throughput: draws of 4096 vertices from client memory (64 KiB read per draw, packed and
// strided), against a plain memcpy of the same bytes in the same process. Reported as bytes per
// second and as a share of the memcpy rate (RESULT lines "capture-<kind> <MB/s> <share>").
constexpr GLsizei kBulkVertices = 4096;
constexpr size_t kBulkBytes = size_t(kBulkVertices) * 16;
std::map<std::string, Runs> g_bulk;

void reportBulk(benchmark::State &state, const std::string &kind, double ns) {
    g_bulk[kind].add(state.iterations(), ns);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBulkBytes));
    const double plain = g_bulk["memcpy"].nsPerCall();
    state.counters["x_memcpy"] = benchmark::Counter(ns > 0 ? plain / ns : 0.0);
}

void bulkMemcpy(benchmark::State &state) {
    // Source and destination as large as the draws' (the destination moves on, as a trace does).
    static std::vector<uint8_t> from(kBulkBytes, 1), to(kBulkBytes * 64);
    size_t at = 0;
    reportBulk(state, "memcpy", timeCalls(state, [&] {
                   std::memcpy(to.data() + at, from.data(), kBulkBytes);
                   benchmark::DoNotOptimize(to.data());
                   at = (at + kBulkBytes) % to.size();
               }));
}

// The same memcpy into memory not touched before, as a trace's pages are: what a first store to
// a page costs on this machine, without any file.
void bulkMemcpyFresh(benchmark::State &state) {
    static std::vector<uint8_t> from(kBulkBytes, 1);
    const size_t slots = static_cast<size_t>(state.max_iterations);
    std::unique_ptr<uint8_t[]> to(new uint8_t[kBulkBytes * slots]);
    size_t at = 0;
    reportBulk(state, "memcpy-fresh", timeCalls(state, [&] {
                   std::memcpy(to.get() + at, from.data(), kBulkBytes);
                   benchmark::DoNotOptimize(to.get());
                   at = (at + kBulkBytes) % (kBulkBytes * slots);
               }));
}

// The same bytes written to a file of their own (what storing them costs whoever stores them: the
// system's fresh file pages, which a trace is written into too).
std::string g_fileForWrites;

void bulkWrite(benchmark::State &state) {
    static std::vector<uint8_t> from(kBulkBytes, 1);
    std::FILE *file = std::fopen(g_fileForWrites.c_str(), "wb");
    if (!file) {
        state.SkipWithError("cannot open a file in the work directory");
        return;
    }
    reportBulk(state, "fwrite", timeCalls(state, [&] { std::fwrite(from.data(), 1, kBulkBytes, file); }));
    std::fclose(file);
    std::remove(g_fileForWrites.c_str());
}

void bulkPacked(benchmark::State &state) {
    static std::vector<float> data(size_t(kBulkVertices) * 4, 1.0f);
    gles::bindBuffer(GL_ARRAY_BUFFER, 0);
    gles::vertexAttribPointer(0, 4, GL_FLOAT, GL_FALSE, 0, data.data());
    gles::enableVertexAttribArray(0);
    reportBulk(state, "packed", timeCalls(state, [] { gles::drawArrays(GL_TRIANGLES, 0, kBulkVertices); }));
}

void bulkStrided(benchmark::State &state) {
    static std::vector<float> data(size_t(kBulkVertices) * 8, 1.0f);
    gles::bindBuffer(GL_ARRAY_BUFFER, 0);
    gles::vertexAttribPointer(0, 4, GL_FLOAT, GL_FALSE, 32, data.data());
    gles::enableVertexAttribArray(0);
    reportBulk(state, "strided", timeCalls(state, [] { gles::drawArrays(GL_TRIANGLES, 0, kBulkVertices); }));
}

// The directory for the configuration and the trace; `owned` when this process made it up.
std::string workDirectory(bool &owned) {
    owned = false;
    if (const char *dir = std::getenv("KV_BENCH_DIR")) return dir;
    owned = true;
    std::random_device random;
    return (std::filesystem::temp_directory_path() / ("kalvoren-bench-" + std::to_string(random()))).string();
}

// Points the library at the test host, with its trace in `dir`.
void configureLibrary(const std::string &dir, bool enabled, bool profiled, bool counted,
                      uint32_t timelineLevel) {
    std::filesystem::create_directories(dir);
    const std::string host = KV_BENCH_TEST_HOST;
    const std::string config = dir + "/kalvorenconfig.json";
    std::ofstream(config, std::ios::binary)
        << "{\"*\": {\"Enabled\": " << (enabled ? "true" : "false")
        << ", \"Host\": {\"EglLibraryPath\": " << kv::test::jsonQuoted(host)
        << ", \"Es2LibraryPath\": " << kv::test::jsonQuoted(host)
        << "}, \"Tracing\": {\"OutputFilename\": " << kv::test::jsonQuoted(dir + "/bench.kalvoren") << "}"
        << (profiled ? ", \"Profiling\": {\"Enabled\": true, \"FunctionTimelineLevel\": " +
                           std::to_string(timelineLevel) + ", \"SoftwareCounters\": "
                     : "")
        << (profiled ? (counted ? "true}" : "false}") : "") << "}}\n";
    kv::platform::setEnv("KALVOREN_CONFIG", config);
    kv::platform::setEnv("KALVOREN_NO_MESSAGE_BOX", "1");
}

void librarySwap(benchmark::State &state) {
    EGLDisplay display = egl::getCurrentDisplay();
    EGLSurface surface = egl::getCurrentSurface(EGL_DRAW);
    reportLibrary(state, "eglSwapBuffers", timeCalls(state, [&] { egl::swapBuffers(display, surface); }));
}

void directSwap(benchmark::State &state) {
    using SwapFn = EGLBoolean(KV_APIENTRY *)(EGLDisplay, EGLSurface);
    auto swap = reinterpret_cast<SwapFn>(kvth_function_address("eglSwapBuffers"));
    reportDirect(state, "eglSwapBuffers", timeCalls(state, [&] { swap(nullptr, nullptr); }));
}

// An OpenGL ES 3 context current on a pbuffer, made through the library.
bool makeContextCurrent() {
    kvth_set_result("eglGetDisplay", 0xD15);
    kvth_set_result("eglCreateContext", 0xC7C);
    kvth_set_result("eglCreatePbufferSurface", 0x5F5);
    EGLDisplay display = egl::getDisplay(EGL_DEFAULT_DISPLAY);
    EGLint major = 0, minor = 0, count = 0;
    EGLConfig config = nullptr;
    const EGLint configAttributes[] = {EGL_RENDERABLE_TYPE, EGL_OPENGL_ES3_BIT, EGL_NONE};
    const EGLint contextAttributes[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
    const EGLint surfaceAttributes[] = {EGL_WIDTH, 64, EGL_HEIGHT, 64, EGL_NONE};
    if (egl::initialize(display, &major, &minor) != EGL_TRUE) return false;
    if (egl::chooseConfig(display, configAttributes, &config, 1, &count) != EGL_TRUE || count != 1)
        return false;
    EGLContext context = egl::createContext(display, config, EGL_NO_CONTEXT, contextAttributes);
    EGLSurface surface = egl::createPbufferSurface(display, config, surfaceAttributes);
    return egl::makeCurrent(display, surface, surface, context) == EGL_TRUE;
}

} // namespace

int main(int argc, char **argv) {
    const char *modeName = std::getenv("KV_BENCH_MODE");
    const std::string name = modeName ? modeName : "direct";
    Mode mode;
    if (name == "direct") {
        mode = Mode::Direct;
    } else if (name == "passthrough") {
        mode = Mode::PassThrough;
    } else if (name == "recorded") {
        mode = Mode::Recorded;
    } else if (name == "profiled") {
        mode = Mode::Profiled;
    } else if (name == "uncounted") {
        mode = Mode::Uncounted;
    } else if (name == "timeline") {
        mode = Mode::Timeline;
    } else {
        std::fprintf(
            stderr,
            "KV_BENCH_MODE must be direct, passthrough, recorded, profiled, uncounted or timeline, not "
            "'%s'\n",
            name.c_str());
        return 2;
    }

    bool ownedDirectory = false;
    const std::string dir = workDirectory(ownedDirectory);
    // The performance server's end, for the profiled run: it reads every frame's counters.
    std::unique_ptr<kv::net::CCounterServer> server;
    std::atomic<bool> serving{true};
    std::thread serverThread;
    const bool profiled = mode == Mode::Profiled || mode == Mode::Uncounted || mode == Mode::Timeline;
    if (profiled) {
        server.reset(new kv::net::CCounterServer());
        if (!server->listen()) {
            std::fprintf(stderr, "could not make the counter link\n");
            return 1;
        }
        serverThread = std::thread([&] {
            while (serving) {
                server->poll();
                // It reads on while messages come, as a server keeping up with the program does:
                // a reader asleep with the ring full would charge its sleep to the writer's calls.
                const bool came = !server->valueQueue.empty() || !server->events.empty();
                server->valueQueue.clear();
                server->events.clear();
                if (!came) kv::platform::sleepMs(1);
            }
        });
    }
    if (mode != Mode::Direct) {
        configureLibrary(dir, mode != Mode::PassThrough, profiled, mode != Mode::Uncounted,
                         mode == Mode::Timeline ? 3 : 0);
        if (!makeContextCurrent()) {
            std::fprintf(stderr, "could not make a context current through the library\n");
            return 1;
        }
    }
    // The host keeps counting calls, but logs none.
    kvth_set_logging(0);

    benchmark::RegisterBenchmark("direct/glEnable", directEnable);
    benchmark::RegisterBenchmark("direct/glUniform4f", directUniform4f);
    benchmark::RegisterBenchmark("direct/glGetError", directGetError);
    benchmark::RegisterBenchmark("direct/eglSwapBuffers", directSwap);
    if (mode != Mode::Direct) {
        benchmark::RegisterBenchmark((name + "/glEnable").c_str(), libraryEnable);
        benchmark::RegisterBenchmark((name + "/glUniform4f").c_str(), libraryUniform4f);
        benchmark::RegisterBenchmark((name + "/glGetError").c_str(), libraryGetError);
    }
    if (mode == Mode::Profiled || mode == Mode::Timeline || mode == Mode::PassThrough)
        benchmark::RegisterBenchmark((name + "/eglSwapBuffers").c_str(), librarySwap);
    if (mode == Mode::Recorded) {
        // A fixed number of draws: each client-array draw adds a kilobyte to the trace.
        benchmark::RegisterBenchmark("recorded/draw-buffer", drawFromBuffer)->Iterations(20000);
        benchmark::RegisterBenchmark("recorded/draw-client-packed", drawClientPacked)->Iterations(20000);
        benchmark::RegisterBenchmark("recorded/draw-client-strided", drawClientStrided)->Iterations(20000);
        // Each draw adds 64 KiB to the trace.
        benchmark::RegisterBenchmark("recorded/capture-memcpy", bulkMemcpy)->Iterations(2000);
        benchmark::RegisterBenchmark("recorded/capture-memcpy-fresh", bulkMemcpyFresh)->Iterations(2000);
        g_fileForWrites = dir + "/bulk-writes.bin";
        benchmark::RegisterBenchmark("recorded/capture-fwrite", bulkWrite)->Iterations(2000);
        benchmark::RegisterBenchmark("recorded/capture-packed", bulkPacked)->Iterations(2000);
        benchmark::RegisterBenchmark("recorded/capture-strided", bulkStrided)->Iterations(2000);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    if (serverThread.joinable()) {
        serving = false;
        serverThread.join();
        std::printf("server: %llu counter messages from process %u\n",
                    static_cast<unsigned long long>(server->valueMessages), server->processId);
    }
    for (const auto &[function, runs] : mode == Mode::Direct ? g_direct : g_library) {
        const double ns = runs.nsPerCall();
        const double direct = g_direct[function].nsPerCall();
        std::printf("RESULT %s %s %.2f %.2f\n", name.c_str(), function.c_str(), ns,
                    direct > 0 ? ns / direct : 0.0);
    }
    for (const auto &[kind, runs] : g_draws) {
        const double ns = runs.nsPerCall();
        const double buffer = g_draws["buffer"].nsPerCall();
        std::printf("RESULT %s draw-%s %.2f %.2f\n", name.c_str(), kind.c_str(), ns,
                    buffer > 0 ? ns / buffer : 0.0);
    }
    for (const auto &[kind, runs] : g_bulk) {
        const double ns = runs.nsPerCall();
        const double plain = g_bulk["memcpy"].nsPerCall();
        std::printf("RESULT %s capture-%s %.0f %.2f\n", name.c_str(), kind.c_str(),
                    ns > 0 ? 1e3 * static_cast<double>(kBulkBytes) / ns : 0.0, ns > 0 ? plain / ns : 0.0);
    }
    std::fflush(stdout);
    if (ownedDirectory) {
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }
    return 0;
}
