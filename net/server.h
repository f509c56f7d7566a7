// The network control server: one remote client starts, pauses and stops recording over TCP, gets
// status and text messages, and fetches the finished trace. It has no thread of its own: the
// per-call recording decision polls it on whichever application thread makes a call, and its
// pause and wait-for-client loops hold that thread.
//
// Wire format (both directions): 0x08 0x44, then a type byte. Client commands are exactly three
// bytes: 0x40 start, "A" stop, "B" resume, "C" pause, "E" (acknowledged with "C"), "F" stop and
// send the trace. Server messages: 21 c acknowledgement, 20 f trace available, 32 s r status,
// 33 lo hi text (16000 announces a text of 65536 bytes or more, sent whole), 31 lo hi payload "%"
// data chunk (00 00 for 65536 bytes), 47 end of the trace data.
#pragma once

#include "base/zand_string.h"
#include "net/data_route.h"
#include "net/wire.h"
#include "platform/platform.h"

#include <atomic>
#include <cstdint>
#include <memory>

namespace kv {
struct Settings;
}

namespace kv::net {

// What one poll found, in wire order of the flags.
struct PollResult {
    uint8_t protocolError = 0;
    uint8_t connected = 0;
    uint8_t start = 0;
    uint8_t resume = 0;
    uint8_t pause = 0;
    uint8_t stop = 0;
    uint8_t e = 0;
    uint8_t traceRequest = 0;
};

// The recording manager's network state as the server mirrors it.
struct NetworkState {
    uint8_t connected = 0;
    uint8_t playing = 1;
    uint8_t recording = 0;
    uint8_t pausedWaiting = 0;
};

class CNetworkServer {
public:
    static constexpr uint32_t kCommandBufferSize = 65536;

    CNetworkServer();
    ~CNetworkServer();
    CNetworkServer(const CNetworkServer &) = delete;
    CNetworkServer &operator=(const CNetworkServer &) = delete;

    // The process's server, made on first use.
    static CNetworkServer &get();

    // Listens on the port (at `bindAddress`, or every local address when it is empty). Once done,
    // later calls return true at once.
    bool initServer(uint16_t port, const std::string &bindAddress);
    // Stops listening and drops the client.
    void shutdown();
    uint16_t port() const;

    // The payload size of partial flushes: below 1 or above 65536 becomes 65536.
    void setChunkSize(int64_t n);
    uint32_t chunkSize() const { return chunkSize_; }

    // Connection upkeep, command reception and status, within the rate limits.
    PollResult poll();

    // Messages to the client, unbuffered.
    bool sendText(const CZandString &text);
    bool sendTraceAvailable(bool available);
    bool sendEndMarker();
    bool sendAck(uint8_t code);
    bool sendStatus();

    // Appends to the data queue; a queue that reaches the chunk size goes out in chunks.
    bool queueData(const void *bytes, uint32_t count);
    // Sends the queue as data chunks: all of it (`complete`), or whole chunks of the chunk size.
    bool flush(bool complete);

    // Whether the current call is recorded; drives recording from the client's commands. May hold
    // the calling thread while the client pauses or while no client has come yet.
    bool recordingDecision(Settings &settings);

    // Sends the trace file through the data queue (the client's "F").
    void uploadTrace(Settings &settings);

    bool connected() const { return connected_; }
    // Whether a recording started by the client has its header written and no end marker yet.
    bool recordedTraceOpen() const { return state_.recording && !traceClosed_; }
    const NetworkState &state() const { return state_; }
    uint32_t queued() const { return static_cast<uint32_t>(queue_.size()); }

    // Tests replace the clock and the sleeps (the loops then run without waiting).
    using TickFn = uint64_t (*)();
    using SleepFn = void (*)(uint32_t);
    void setClock(TickFn tick, SleepFn sleep);

private:
    bool checkConnection();
    void dropClient();
    bool handleCommand(uint8_t code, PollResult &r);
    bool sendMessage(uint8_t type, const void *payload, uint32_t n);
    bool decide(Settings &s);
    void stopRecording(Settings &s, bool fromPauseLoop);
    void handleTraceRequest(Settings &s);
    void beginRecordedTrace(Settings &s);
    uint32_t now() const { return static_cast<uint32_t>(tick_()); }

    std::unique_ptr<CDataRouteHerdSockets> herd_;
    std::unique_ptr<CDataRouteSockets> route_;
    uint16_t port_ = kDefaultPort;
    bool initialised_ = false;
    bool connected_ = false;
    NetworkState state_;
    std::string queue_;
    uint32_t chunkSize_ = 1024;
    CommandBuffer commands_;
    std::unique_ptr<uint8_t[]> scratch_;
    uint32_t lastConnectionCheck_ = 0;
    uint32_t lastReceive_ = 0;
    uint32_t lastStatus_ = 0;

    // The manager's flags that the decision drives.
    bool startPending_ = false;
    bool recordCalls_ = false;
    bool traceClosed_ = true;
    bool eReceived_ = false;
    uint32_t lastFrame_ = 0;
    int64_t lastPlayingFrame_ = -1;
    int64_t lastRecordingFrame_ = -1;

    // The answer for calls that find nothing due (see recordingDecision).
    std::atomic<uint32_t> quietUntil_{0};
    std::atomic<uint32_t> quietFrame_{0};
    std::atomic<int> quietAnswer_{-1};

    platform::Mutex lock_;
    TickFn tick_;
    SleepFn sleep_;
};

// The process's server when network control is on, else null (for the per-call decision).
CNetworkServer *activeServer();
void setActiveServer(CNetworkServer *server);

// Network start-up for the configuration reader: makes the server, sets its chunk size and
// listens. False when it cannot listen.
bool startServer(Settings &settings);

// The quiet-path test used by the per-call decision (inline: it runs on every call).
bool recordingDecision(Settings &settings);

} // namespace kv::net
