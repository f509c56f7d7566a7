#include "net/server.h"

#include "base/messages.h"
#include "base/settings_record.h"
#include "trace/frame_control.h"
#include "trace/trace_writer.h"

#include <algorithm>
#include <cstring>

namespace kv::net {

namespace {
std::atomic<CNetworkServer *> g_active{nullptr};

uint64_t defaultTick() {
    return platform::coarseTickMs();
}

// Whether more than `limit` ms passed since `since`; a clock that went backwards counts as passed.
bool elapsed(uint32_t now, uint32_t since, uint32_t limit) {
    int32_t d = static_cast<int32_t>(now - since);
    return d < 0 || static_cast<uint32_t>(d) > limit;
}
} // namespace

CNetworkServer *activeServer() {
    return g_active.load(std::memory_order_acquire);
}

void setActiveServer(CNetworkServer *server) {
    g_active.store(server, std::memory_order_release);
}

CNetworkServer &CNetworkServer::get() {
    // Never destroyed: application threads may poll it while the process ends.
    static CNetworkServer *server = new CNetworkServer();
    return *server;
}

CNetworkServer::CNetworkServer() : tick_(defaultTick), sleep_(platform::sleepMs) {
    queue_.reserve(1024);
}

CNetworkServer::~CNetworkServer() {
    shutdown();
}

void CNetworkServer::setClock(TickFn tick, SleepFn sleep) {
    tick_ = tick ? tick : defaultTick;
    sleep_ = sleep ? sleep : platform::sleepMs;
}

bool CNetworkServer::initServer(uint16_t port, const std::string &bindAddress) {
    if (initialised_) return true;
    port_ = port;
    msg::info("\nInitialize Server\n");
    initialised_ = true;
    herd_.reset(new CDataRouteHerdSockets());
    if (!herd_->listen(port, bindAddress)) {
        msg::info("Error Initializing Server, Abort.");
        herd_.reset();
        initialised_ = false;
        return false;
    }
    scratch_.reset(new uint8_t[kCommandBufferSize]);
    commands_.clear();
    return true;
}

void CNetworkServer::shutdown() {
    platform::LockGuard<platform::Mutex> guard(lock_);
    dropClient();
    if (herd_) herd_->close();
    herd_.reset();
    initialised_ = false;
    quietAnswer_ = -1;
}

uint16_t CNetworkServer::port() const {
    return herd_ ? herd_->localPort() : port_;
}

void CNetworkServer::setChunkSize(int64_t n) {
    chunkSize_ = (n < 1 || n > 65536) ? 65536u : static_cast<uint32_t>(n);
}

void CNetworkServer::dropClient() {
    route_.reset();
    connected_ = false;
    commands_.clear();
}

bool CNetworkServer::checkConnection() {
    if (connected_) {
        if (route_ && route_->aliveState(1) != kDead) return true;
        dropClient();
        return false;
    }
    // The attempts of a program without a client go to the debugger only: once a second on the
    // application's console would bury its own output.
    msg::debug("Client disconnected... trying to reconnect");
    CDataRoute *route = herd_ ? herd_->accept() : nullptr;
    if (!route) {
        msg::debug("Client disconnected... failed to connect\n");
        return false;
    }
    route_.reset(static_cast<CDataRouteSockets *>(route));
    msg::info("Client disconnected... connected\n");
    connected_ = true;
    commands_.clear();
    return true;
}

bool CNetworkServer::sendMessage(uint8_t type, const void *payload, uint32_t n) {
    if (!route_) return false;
    uint8_t small[64];
    if (n + 3 <= sizeof(small)) {
        small[0] = kMagic0;
        small[1] = kMagic1;
        small[2] = type;
        if (n) std::memcpy(small + 3, payload, n);
        return route_->sendRaw(small, n + 3);
    }
    const uint8_t head[3] = {kMagic0, kMagic1, type};
    return route_->sendRaw(head, 3) && route_->sendRaw(payload, n);
}

bool CNetworkServer::sendAck(uint8_t code) {
    return sendMessage(kMsgAck, &code, 1);
}

bool CNetworkServer::sendTraceAvailable(bool available) {
    uint8_t f = available ? 1 : 0;
    return sendMessage(kMsgTraceAvailable, &f, 1);
}

bool CNetworkServer::sendEndMarker() {
    return sendMessage(kMsgEndOfData, nullptr, 0);
}

bool CNetworkServer::sendStatus() {
    const uint8_t body[2] = {static_cast<uint8_t>(state_.playing ? 'R' : 'S'),
                             state_.recording ? uint8_t(1) : uint8_t(0)};
    return sendMessage(kMsgStatus, body, 2);
}

bool CNetworkServer::sendText(const CZandString &text) {
    if (!route_) return false;
    size_t n = text.size();
    // The length field has 16 bits: a longer text is announced as 16000 bytes and sent whole.
    uint16_t length = n < 65536 ? static_cast<uint16_t>(n) : uint16_t(16000);
    const uint8_t head[5] = {kMagic0, kMagic1, kMsgText, static_cast<uint8_t>(length & 0xFF),
                             static_cast<uint8_t>(length >> 8)};
    bool ok = route_->sendRaw(head, 5) && (n == 0 || route_->sendRaw(text.c_str(), static_cast<uint32_t>(n)));
    flush(true);
    return ok;
}

bool CNetworkServer::queueData(const void *bytes, uint32_t count) {
    queue_.append(static_cast<const char *>(bytes), count);
    if (queue_.size() >= chunkSize_ && route_) return flush(false);
    return true;
}

bool CNetworkServer::flush(bool complete) {
    size_t offset = 0;
    int failures = 0;
    bool ok = true;
    while ((complete && offset < queue_.size()) || queue_.size() - offset >= chunkSize_) {
        uint32_t n =
            complete ? static_cast<uint32_t>(std::min<size_t>(queue_.size() - offset, 65536)) : chunkSize_;
        // A 65536-byte chunk carries 00 00 as its length: clients take 0 for 65536.
        const uint8_t head[5] = {kMagic0, kMagic1, kMsgData, static_cast<uint8_t>(n & 0xFF),
                                 static_cast<uint8_t>((n >> 8) & 0xFF)};
        const uint8_t tail = '%';
        bool sent = route_ && route_->sendRaw(head, 5) && route_->sendRaw(queue_.data() + offset, n) &&
                    route_->sendRaw(&tail, 1);
        if (sent) {
            offset += n;
            continue;
        }
        if (++failures >= 10 || !route_) {
            ok = false;
            break;
        }
        checkConnection();
        sleep_(100);
    }
    if (ok && complete) {
        std::string().swap(queue_);
        queue_.reserve(1024);
    } else {
        queue_.erase(0, offset);
    }
    return ok;
}

bool CNetworkServer::handleCommand(uint8_t code, PollResult &r) {
    switch (code) {
    case kCmdStart:
        sendAck(kCmdStart);
        r.start = 1;
        return true;
    case kCmdStop:
        r.stop = 1;
        flush(true);
        sendAck(kCmdStop);
        return true;
    case kCmdResume:
        sendAck(kCmdResume);
        r.resume = 1;
        return true;
    case kCmdPause:
        sendAck(kCmdPause);
        flush(true);
        r.pause = 1;
        return true;
    case kCmdE:
        // Acknowledged with "C": clients have always been told so.
        sendAck(kCmdPause);
        flush(true);
        r.e = 1;
        eReceived_ = true;
        return true;
    case kCmdTrace:
        r.stop = 1;
        flush(true);
        sendAck(kCmdStop);
        sendAck(kCmdTrace);
        flush(true);
        r.traceRequest = 1;
        return true;
    default:
        return false;
    }
}

PollResult CNetworkServer::poll() {
    PollResult r;
    const uint32_t t = now();
    if (!connected_ ? elapsed(t, lastConnectionCheck_, 1000) : elapsed(t, lastConnectionCheck_, 10000)) {
        lastConnectionCheck_ = t;
        checkConnection();
    }
    r.connected = connected_ ? 1 : 0;
    if (!connected_) return r;

    if (elapsed(t, lastReceive_, 1000)) {
        lastReceive_ = t;
        uint32_t got = 0;
        int rr = route_->receiveRaw(scratch_.get(), kCommandBufferSize, &got);
        if (rr == kReadNothing) return r;
        if (rr == kReadClosed || rr == kReadFailed) {
            if (rr == kReadFailed) r.protocolError = 1;
            dropClient();
            r.connected = 0;
            return r;
        }
        if (!commands_.append(scratch_.get(), got)) return r;
    }

    uint8_t code = 0;
    for (;;) {
        CommandBuffer::Next n = commands_.next(&code);
        if (n == CommandBuffer::kNeedMore) break;
        if (n == CommandBuffer::kGarbage || !handleCommand(code, r)) {
            // Bytes that are not commands: everything buffered is dropped.
            commands_.clear();
            r.protocolError = 1;
            break;
        }
    }

    if (elapsed(now(), lastStatus_, 1000)) {
        lastStatus_ = now();
        sendStatus();
    }
    return r;
}

// ---- The recording decision -------------------------------------------------------------------

void CNetworkServer::stopRecording(Settings &s, bool fromPauseLoop) {
    {
        platform::LockGuard<platform::RecursiveLock> guard(trace::recordLock());
        if (!traceClosed_) {
            msg::info("Closing Trace - Footer");
            trace::writeEndMarker(s);
            sendText("Closing Trace - Footer\n");
            traceClosed_ = true;
        }
        trace::close(s);
    }
    flush(true);
    if (fromPauseLoop) sendText("Trace close\n");
    s.snapshotInProgress = false;
    state_.recording = 0;
}

void CNetworkServer::handleTraceRequest(Settings &s) {
    if (state_.recording)
        sendText("Please stop the recording before requesting for the TraceFile\n");
    else if (s.networkStreaming)
        sendText("Trace Data has been already sent over the network.\n");
    else
        uploadTrace(s);
}

void CNetworkServer::beginRecordedTrace(Settings &s) {
    startPending_ = false;
    {
        platform::LockGuard<platform::RecursiveLock> guard(trace::recordLock());
        trace::writeHeader(s);
        traceClosed_ = false;
    }
    if (s.debugLevel >= 1) msg::info("Start Recording");
    sendText("Start Recording\n");
    if (s.debugLevel >= 2) msg::info("Saving Render State");
    sendText("Saving Render State...\n");
    // Forwarding stays on: the snapshot writes its records without calling through a wrapper, and
    // a call another thread makes meanwhile must still reach the driver.
    frames::saveRenderState(s, true);
    sendText("Saving Render State... Done\n");
}

bool CNetworkServer::decide(Settings &s) {
    for (;;) {
        PollResult r = poll();
        const uint32_t frame = s.currentFrame.load(std::memory_order_relaxed);
        // Recording starts with the first call of a new frame: every frame end since the start
        // command lets calls be recorded.
        if (frame != lastFrame_) {
            lastFrame_ = frame;
            recordCalls_ = true;
        }
        if (!r.connected && s.networkWait && frame == 0) {
            while (!r.connected) {
                state_.recording = 0;
                state_.pausedWaiting = 1;
                startPending_ = true;
                msg::info("Waiting for Client...");
                sleep_(500);
                r = poll();
            }
            state_.pausedWaiting = 0;
        }
        if (r.connected && !state_.connected) {
            sendTraceAvailable(!s.networkStreaming);
            CZandString text("Connected");
            text += "\n  * SaveTraceToDisk: ";
            text += s.outputFilename;
            text += " - Enabled ";
            text += s.saveFrameBuffer ? "\n  * Save Original Framebuffer - Enabled"
                                      : "\n  * Save Original Framebuffer - Disabled";
            text += s.networkWait ? "\n  * Waiting for client connection before any EGL/GL call - Enabled"
                                  : "\n  * Waiting for client connection before any EGL/GL call - Disabled";
            text += "\n";
            sendText(text);
        }
        state_.connected = r.connected;
        if (!r.connected) {
            if (state_.recording && !traceClosed_) {
                // The client went away mid-recording: what was recorded stays a complete trace, and
                // the application runs on unrecorded.
                stopRecording(s, false);
            }
            startPending_ = false;
            state_.playing = 1;
            state_.recording = 0;
            traceClosed_ = true;
            return false;
        }

        if (!state_.playing) {
            bool lost = false;
            for (;;) {
                msg::info("Network Control: Waiting for the client (Pause)");
                state_.pausedWaiting = 1;
                PollResult p = poll();
                if (state_.recording && p.stop) {
                    if (s.snapshotInProgress.load()) {
                        state_.pausedWaiting = 0;
                        return true;
                    }
                    stopRecording(s, true);
                }
                if (p.start) {
                    if (!s.traceFile) {
                        sendText("Overwriting old trace file\n");
                        platform::LockGuard<platform::RecursiveLock> guard(trace::recordLock());
                        trace::openForRecording(s);
                    }
                    state_.recording = 1;
                    recordCalls_ = true;
                    startPending_ = true;
                }
                // A fetch while paused is served here: the application stays paused meanwhile.
                if (p.traceRequest) handleTraceRequest(s);
                if (p.resume) r.resume = 1;
                sleep_(500);
                if (p.resume || !p.connected) {
                    lost = !p.connected;
                    break;
                }
            }
            state_.pausedWaiting = 0;
            if (lost) continue;
        }
        if (r.pause) state_.playing = 0;
        if (r.resume) state_.playing = 1;

        if (r.traceRequest) handleTraceRequest(s);

        if (r.start) {
            if (!state_.recording) {
                sendText("Overwriting old trace file\n");
                platform::LockGuard<platform::RecursiveLock> guard(trace::recordLock());
                trace::openForRecording(s);
                traceClosed_ = true;
            }
            state_.recording = 1;
            recordCalls_ = false;
            startPending_ = true;
        }
        if (r.stop && state_.recording) stopRecording(s, false);

        if (state_.playing && !state_.recording) {
            if (static_cast<int64_t>(frame) != lastPlayingFrame_) {
                lastPlayingFrame_ = frame;
                sendText(CZandString::format("Playing... frame %d\n", static_cast<int>(frame)));
            }
            startPending_ = true;
            traceClosed_ = true;
            return false;
        }
        if (!state_.recording) return s.snapshotInProgress.load();
        // The header and the snapshot open the first recorded frame, so that the snapshot holds
        // the state that frame starts from.
        if (startPending_ && recordCalls_) beginRecordedTrace(s);
        if (recordCalls_ && static_cast<int64_t>(frame) != lastRecordingFrame_) {
            lastRecordingFrame_ = frame;
            sendText(CZandString::format("Recording... frame %d\n", static_cast<int>(frame)));
        }
        return recordCalls_;
    }
}

bool CNetworkServer::recordingDecision(Settings &s) {
    // Calls that find nothing due (no receive, status or connection check yet, the same frame,
    // no loop to run) get the last answer without the lock: this runs on every call.
    const int quiet = quietAnswer_.load(std::memory_order_acquire);
    if (quiet >= 0) {
        const uint32_t t = now();
        if (static_cast<int32_t>(t - quietUntil_.load(std::memory_order_relaxed)) < 0 &&
            s.currentFrame.load(std::memory_order_relaxed) == quietFrame_.load(std::memory_order_relaxed))
            return quiet != 0;
    }
    platform::LockGuard<platform::Mutex> guard(lock_);
    quietAnswer_.store(-1, std::memory_order_relaxed);
    bool answer = decide(s);
    if (state_.playing && commands_.size() < 3 && !(state_.recording && startPending_)) {
        uint32_t due = lastConnectionCheck_ + (connected_ ? 10001u : 1001u);
        if (connected_) {
            due = static_cast<int32_t>(lastReceive_ + 1001u - due) < 0 ? lastReceive_ + 1001u : due;
            due = static_cast<int32_t>(lastStatus_ + 1001u - due) < 0 ? lastStatus_ + 1001u : due;
        }
        quietUntil_.store(due, std::memory_order_relaxed);
        quietFrame_.store(lastFrame_, std::memory_order_relaxed);
        quietAnswer_.store(answer ? 1 : 0, std::memory_order_release);
    }
    return answer;
}

bool recordingDecision(Settings &settings) {
    CNetworkServer *server = activeServer();
    return server ? server->recordingDecision(settings) : false;
}

bool startServer(Settings &s) {
    CNetworkServer &server = CNetworkServer::get();
    server.setChunkSize(s.networkBufferSize);
    if (!server.initServer(static_cast<uint16_t>(s.networkPort), s.networkAddress.str())) return false;
    setActiveServer(&server);
    return true;
}

} // namespace kv::net
