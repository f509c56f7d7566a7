// What network control costs each intercepted call: the recording decision with the control server
// polled, with no client and with a connected one, beside the frame-range decision it replaces.
// Between the server's rate limits (a receive, a status and a connection check at most once a
// second) a call reads a coarse clock and the frame number and touches no socket.
#include "base/settings_record.h"
#include "net/server.h"
#include "platform/sockets.h"
#include "trace/frame_control.h"

#include <benchmark/benchmark.h>

namespace {

kv::Settings &settings() {
    static kv::Settings *s = [] {
        auto *s = new kv::Settings();
        s->networkEnabled = true;
        s->recordingEnabled = true;
        s->debugLevel = 0;
        s->endFrame = UINT32_MAX;
        return s;
    }();
    return *s;
}

void BM_FrameRangeDecision(benchmark::State &state) {
    kv::Settings &s = settings();
    for (auto _ : state)
        benchmark::DoNotOptimize(kv::frames::shouldRecord(s));
}
BENCHMARK(BM_FrameRangeDecision);

void BM_NetworkDecisionNoClient(benchmark::State &state) {
    static kv::net::CNetworkServer server;
    server.initServer(0, "127.0.0.1");
    kv::Settings &s = settings();
    for (auto _ : state)
        benchmark::DoNotOptimize(server.recordingDecision(s));
}
BENCHMARK(BM_NetworkDecisionNoClient);

void BM_NetworkDecisionClientConnected(benchmark::State &state) {
    static kv::net::CNetworkServer server;
    server.initServer(0, "127.0.0.1");
    kv::platform::SocketHandle client = kv::platform::tcpSocket();
    const uint8_t ip[4] = {127, 0, 0, 1};
    kv::platform::socketConnect(client, ip, server.port());
    kv::Settings &s = settings();
    for (int i = 0; i < 200 && !server.connected(); ++i) {
        server.recordingDecision(s);
        kv::platform::sleepMs(10);
    }
    if (!server.connected()) state.SkipWithError("the client did not connect");
    for (auto _ : state)
        benchmark::DoNotOptimize(server.recordingDecision(s));
    kv::platform::socketClose(client);
}
BENCHMARK(BM_NetworkDecisionClientConnected);

} // namespace

BENCHMARK_MAIN();
