// A program whose calls poll the network control server as an application's calls do, built for
// each system: the Windows build runs it under Wine (Winsock) and the Linux `kalvoren ctl` drives it.
// It makes a few recording decisions per frame, ends a frame every 20 ms, and says how it ended.
//
//   net_server_program PORT TRACE FRAMES
#include "base/settings_record.h"
#include "net/server.h"
#include "platform/platform.h"
#include "trace/trace_writer.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: net_server_program PORT TRACE FRAMES\n");
        return 2;
    }
    kv::Settings s;
    s.recordingEnabled = true;
    s.networkEnabled = true;
    s.networkWait = true;
    s.outputFilename = argv[2];
    kv::net::CNetworkServer server;
    if (!server.initServer(static_cast<uint16_t>(std::atoi(argv[1])), "127.0.0.1")) return 1;
    if (!kv::trace::openForRecording(s)) return 1;
    const uint32_t frames = static_cast<uint32_t>(std::atoi(argv[3]));
    uint32_t recorded = 0;
    for (uint32_t frame = 0; frame < frames; ++frame) {
        bool any = false;
        for (int call = 0; call < 5; ++call)
            any = server.recordingDecision(s) || any;
        recorded += any ? 1 : 0;
        s.currentFrame.fetch_add(1);
        kv::platform::sleepMs(20);
    }
    if (server.recordedTraceOpen()) kv::trace::writeEndMarker(s);
    kv::trace::close(s);
    std::printf("net_server_program: %u frames, %u recorded\n", frames, recorded);
    return 0;
}
