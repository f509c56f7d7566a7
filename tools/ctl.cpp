// `kalvoren ctl HOST[:PORT] COMMAND...`: drives a program that records with network control on,
// on this machine or another: prints what its server says and sends it commands.
#include "net/wire.h"
#include "platform/platform.h"
#include "platform/process.h"
#include "platform/sockets.h"
#include "tools/cli.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace kv::cli {

namespace {

const char kCtlHelp[] =
    "usage: kalvoren ctl HOST[:PORT] COMMAND [COMMAND...]\n"
    "\n"
    "Connects to a program recorded with network control on (\"Network\": {\"Enabled\": true} in its\n"
    "kalvorenconfig.json; port 54321 unless Network.Port says otherwise), prints what it says\n"
    "(texts, status changes, acknowledgements) and runs the commands in order:\n"
    "  start            start recording (the trace begins with the next frame)\n"
    "  pause            hold the program's calls until `resume`\n"
    "  resume           let the program run on\n"
    "  stop             stop recording; the trace file is finished on the program's machine\n"
    "  fetch -o FILE    stop recording, fetch the trace file and write it to FILE, then check that\n"
    "                   it reads back\n"
    "  watch            stay connected and print status until the program goes away\n"
    "  wait SECONDS     stay connected for a while, printing what comes\n"
    "\n"
    "Options (before HOST): --timeout SECONDS to connect and for each answer (default 30).\n"
    "Exit status: 0 when every command was done, 1 when the program refused or the fetched trace\n"
    "does not read back, 2 when the command could not run (bad usage, no connection).\n";

using net::kDefaultPort;

class Connection {
public:
    ~Connection() {
        if (s_ != platform::kInvalidSocket) platform::socketClose(s_);
    }

    bool open(const std::string &host, uint16_t port, uint32_t timeoutMs) {
        std::string why;
        if (!platform::socketsStartup(&why)) {
            complain("cannot use sockets: %s", why.c_str());
            return false;
        }
        uint8_t ip[4];
        if (!platform::resolveIPv4(host, ip, &why)) {
            complain("cannot find host '%s': %s", host.c_str(), why.c_str());
            return false;
        }
        // A program that is still starting refuses the connection: try again until the timeout, so
        // that the client may be started first.
        const uint64_t end = platform::tickCountMs() + timeoutMs;
        bool said = false;
        for (;;) {
            s_ = platform::tcpSocket();
            int r = s_ == platform::kInvalidSocket ? -1 : platform::socketConnect(s_, ip, port);
            if (r == 0) r = platform::socketAlive(s_, timeoutMs) == 2 ? 1 : -1;
            if (r == 1) break;
            if (s_ != platform::kInvalidSocket) platform::socketClose(s_);
            s_ = platform::kInvalidSocket;
            if (platform::tickCountMs() >= end) {
                complain(
                    "cannot connect to %s:%u (%u.%u.%u.%u): is the program running with network control on?",
                    host.c_str(), static_cast<unsigned>(port), ip[0], ip[1], ip[2], ip[3]);
                return false;
            }
            if (!said) {
                std::printf("Waiting for %s:%u...\n", host.c_str(), static_cast<unsigned>(port));
                std::fflush(stdout);
                said = true;
            }
            platform::sleepMs(200);
        }
        std::printf("Connected to %s:%u\n", host.c_str(), static_cast<unsigned>(port));
        std::fflush(stdout);
        return true;
    }

    bool send(uint8_t code) {
        const uint8_t bytes[3] = {0x08, 0x44, code};
        size_t done = 0;
        while (done < 3) {
            if (platform::socketWaitWritable(s_, 5000) != 1) return false;
            long n = platform::socketSend(s_, bytes + done, 3 - done);
            if (n < 0) return false;
            done += static_cast<size_t>(n);
        }
        return true;
    }

    // The next message within `timeoutMs`: 1 got one, 0 timed out, -1 the connection ended.
    int next(net::ServerMessage *m, uint32_t timeoutMs) {
        const uint64_t end = platform::tickCountMs() + timeoutMs;
        for (;;) {
            if (reader_.next(m, closed_)) return 1;
            if (closed_) return -1;
            uint64_t now = platform::tickCountMs();
            if (now >= end) return 0;
            int ready =
                platform::socketWaitReadable(s_, static_cast<uint32_t>(std::min<uint64_t>(end - now, 200)));
            if (ready == 0) continue;
            char buffer[65536];
            long n = ready < 0 ? -1 : platform::socketReceive(s_, buffer, sizeof(buffer));
            if (n == -2) continue;
            if (n <= 0) {
                closed_ = true;
                continue;
            }
            reader_.feed(buffer, static_cast<size_t>(n));
        }
    }

private:
    platform::SocketHandle s_ = platform::kInvalidSocket;
    net::MessageReader reader_;
    bool closed_ = false;
};

const char *commandName(uint8_t code) {
    switch (code) {
    case 0x40:
        return "start";
    case 'A':
        return "stop";
    case 'B':
        return "resume";
    case 'C':
        return "pause";
    case 'F':
        return "trace request";
    default:
        return "?";
    }
}

// Prints what the server says and keeps its last status.
class Session {
public:
    explicit Session(Connection &c, uint32_t timeoutMs) : c_(c), timeoutMs_(timeoutMs) {}

    // Waits for a message that `done` accepts (printing every message); false on timeout or when
    // the connection ends.
    template <class Done>
    bool waitFor(Done done, uint32_t timeoutMs) {
        const uint64_t end = platform::tickCountMs() + timeoutMs;
        net::ServerMessage m;
        for (;;) {
            uint64_t now = platform::tickCountMs();
            if (now >= end) return false;
            int r = c_.next(&m, static_cast<uint32_t>(end - now));
            if (r < 0) {
                std::printf("The program closed the connection.\n");
                std::fflush(stdout);
                gone_ = true;
                return false;
            }
            if (r == 0) return false;
            handle(m);
            if (done(m)) return true;
        }
    }
    bool waitAck(uint8_t code) {
        if (!c_.send(code)) {
            complain("the connection was lost while sending '%s'", commandName(code));
            return false;
        }
        bool got = waitFor([&](const net::ServerMessage &m) { return m.type == net::kMsgAck && m.a == code; },
                           timeoutMs_);
        if (!got && !gone_) complain("no answer to '%s' within the timeout", commandName(code));
        return got;
    }
    // Waits for a status that says whether recording is on.
    bool waitRecording(bool on) {
        if (haveStatus_ && recording_ == on && statusFresh_) return true;
        statusFresh_ = false;
        return waitFor(
            [&](const net::ServerMessage &m) { return m.type == net::kMsgStatus && (m.b != 0) == on; },
            timeoutMs_);
    }
    bool waitPlaying(bool on) {
        statusFresh_ = false;
        return waitFor(
            [&](const net::ServerMessage &m) { return m.type == net::kMsgStatus && (m.a == 'R') == on; },
            timeoutMs_);
    }
    bool gone() const { return gone_; }

    // Data chunks go here while a fetch runs.
    std::FILE *sink = nullptr;
    uint64_t received = 0;
    uint64_t expected = 0;

private:
    void handle(const net::ServerMessage &m) {
        switch (m.type) {
        case net::kMsgText:
            std::fwrite(m.bytes.data(), 1, m.bytes.size(), stdout);
            if (!m.bytes.empty() && m.bytes.back() != '\n') std::fputc('\n', stdout);
            break;
        case net::kMsgStatus: {
            bool playing = m.a == 'R', recording = m.b != 0;
            if (!haveStatus_ || playing != playing_ || recording != recording_)
                std::printf("Status: %s, %s\n", playing ? "running" : "paused",
                            recording ? "recording" : "not recording");
            haveStatus_ = true;
            statusFresh_ = true;
            playing_ = playing;
            recording_ = recording;
            break;
        }
        case net::kMsgAck:
            std::printf("Acknowledged: %s\n", commandName(m.a));
            break;
        case net::kMsgTraceAvailable:
            std::printf("Trace %s\n", m.a ? "not sent yet" : "already sent over the network");
            break;
        case net::kMsgData:
            if (sink && std::fwrite(m.bytes.data(), 1, m.bytes.size(), sink) != m.bytes.size())
                sinkFailed = true;
            received += m.bytes.size();
            showProgress();
            break;
        default:
            break;
        }
        std::fflush(stdout);
    }
    void showProgress() {
        if (!expected) return;
        unsigned percent = static_cast<unsigned>(received * 100 / expected);
        if (platform::isTerminal(stderr)) {
            char bar[41];
            unsigned filled = percent * 40 / 100;
            for (unsigned i = 0; i < 40; ++i)
                bar[i] = i < filled ? '#' : ' ';
            bar[40] = 0;
            std::fprintf(stderr, "\r[%s] %3u%% %llu of %llu bytes", bar, percent,
                         static_cast<unsigned long long>(received),
                         static_cast<unsigned long long>(expected));
            if (received >= expected) std::fputc('\n', stderr);
        } else if (percent / 10 != lastDecile_) {
            lastDecile_ = percent / 10;
            std::fprintf(stderr, "fetch: %u%% (%llu of %llu bytes)\n", percent,
                         static_cast<unsigned long long>(received),
                         static_cast<unsigned long long>(expected));
        }
        std::fflush(stderr);
    }

public:
    bool sinkFailed = false;

private:
    Connection &c_;
    uint32_t timeoutMs_;
    bool gone_ = false;
    bool haveStatus_ = false;
    bool statusFresh_ = false;
    bool playing_ = true;
    bool recording_ = false;
    unsigned lastDecile_ = 0;
};

bool startsWith(const std::string &text, const char *prefix) {
    return text.compare(0, std::strlen(prefix), prefix) == 0;
}

int fetch(Session &session, const std::string &path) {
    // The server refuses the file while it records: stop first and wait until it says it stopped.
    if (!session.waitAck('A')) return kExitUsage;
    if (!session.waitRecording(false)) {
        complain("the program did not stop recording");
        return kExitProblems;
    }
    std::FILE *out = std::fopen(path.c_str(), "wb");
    if (!out) {
        complain("cannot write '%s'", path.c_str());
        return kExitUsage;
    }
    session.sink = out;
    session.received = 0;
    bool refused = false, finished = false, failed = false;
    for (int attempt = 0; attempt < 3 && !finished && !failed; ++attempt) {
        refused = false;
        if (!session.waitAck('F')) break;
        session.waitFor(
            [&](const net::ServerMessage &m) {
                if (m.type != net::kMsgText) return false;
                if (startsWith(m.bytes, "Please stop the recording")) refused = true;
                if (startsWith(m.bytes, "Starting to send trace file")) {
                    size_t at = m.bytes.rfind(", Size ");
                    if (at != std::string::npos)
                        session.expected = std::strtoull(m.bytes.c_str() + at + 7, nullptr, 10);
                }
                if (startsWith(m.bytes, "Finished sending trace file")) finished = true;
                if (m.bytes.find("Aborting Upload") != std::string::npos ||
                    startsWith(m.bytes, "Trace Data has been already sent"))
                    failed = true;
                return refused || finished || failed;
            },
            600000);
        if (refused) session.waitRecording(false);
        if (session.gone()) break;
    }
    session.sink = nullptr;
    bool writeOk = !session.sinkFailed && std::fclose(out) == 0;
    if (!finished) {
        complain("the trace was not sent whole (%llu bytes came)",
                 static_cast<unsigned long long>(session.received));
        return kExitProblems;
    }
    if (!writeOk) {
        complain("writing '%s' failed", path.c_str());
        return kExitProblems;
    }
    if (session.received != session.expected) {
        complain("%llu bytes came, %llu were announced", static_cast<unsigned long long>(session.received),
                 static_cast<unsigned long long>(session.expected));
        return kExitProblems;
    }
    // The file must read back as a trace.
    std::FILE *sinkInfo = std::tmpfile();
    InfoOptions options;
    int status = printInfo(path, options, sinkInfo ? sinkInfo : stderr);
    if (sinkInfo) std::fclose(sinkInfo);
    if (status != kExitOk) {
        complain("'%s' does not read back as a whole trace (kalvoren info %s tells why)", path.c_str(),
                 path.c_str());
        return kExitProblems;
    }
    std::printf("Wrote %s (%llu bytes); it reads back as a whole trace.\n", path.c_str(),
                static_cast<unsigned long long>(session.received));
    return kExitOk;
}

} // namespace

int ctlCommand(const std::vector<std::string> &args) {
    size_t i = 0;
    uint32_t timeoutMs = 30000;
    for (; i < args.size() && startsWith(args[i], "-"); ++i) {
        if (args[i] == "--help" || args[i] == "-h") {
            std::fputs(kCtlHelp, stdout);
            return kExitOk;
        }
        if (args[i] == "--timeout") {
            const std::string *v = optionValue(args, i, "a number of seconds");
            uint64_t seconds = 0;
            if (!v || !parseNumber(*v, seconds) || seconds == 0 || seconds > 86400) {
                if (v) complain("--timeout needs a number of seconds");
                return kExitUsage;
            }
            timeoutMs = static_cast<uint32_t>(seconds * 1000);
            continue;
        }
        complain("ctl: unknown option '%s'", args[i].c_str());
        return kExitUsage;
    }
    if (i >= args.size()) {
        std::fputs(kCtlHelp, stderr);
        return kExitUsage;
    }
    std::string host = args[i++];
    uint16_t port = kDefaultPort;
    size_t colon = host.rfind(':');
    if (colon != std::string::npos) {
        uint64_t p = 0;
        if (!parseNumber(host.substr(colon + 1), p) || p == 0 || p > 65535) {
            complain("ctl: '%s' is not HOST[:PORT]", host.c_str());
            return kExitUsage;
        }
        port = static_cast<uint16_t>(p);
        host.erase(colon);
    }
    // Check the commands before connecting.
    struct Step {
        std::string name, value;
    };
    std::vector<Step> steps;
    for (; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "start" || a == "pause" || a == "resume" || a == "stop" || a == "watch") {
            steps.push_back({a, ""});
        } else if (a == "fetch" || a == "wait") {
            std::string value;
            if (a == "fetch" && i + 1 < args.size() && args[i + 1] == "-o" && i + 2 < args.size()) {
                value = args[i + 2];
                i += 2;
            } else if (a == "fetch" && i + 1 < args.size() && startsWith(args[i + 1], "-o") &&
                       args[i + 1].size() > 2) {
                value = args[i + 1].substr(2);
                i += 1;
            } else if (a == "wait" && i + 1 < args.size()) {
                value = args[++i];
                uint64_t seconds = 0;
                if (!parseNumber(value, seconds)) {
                    complain("ctl: wait needs a number of seconds");
                    return kExitUsage;
                }
            } else {
                complain(a == "fetch" ? "ctl: fetch needs -o FILE" : "ctl: wait needs a number of seconds");
                return kExitUsage;
            }
            steps.push_back({a, value});
        } else {
            complain("ctl: unknown command '%s' (try 'kalvoren help ctl')", a.c_str());
            return kExitUsage;
        }
    }
    if (steps.empty()) steps.push_back({"watch", ""});

    Connection c;
    if (!c.open(host, port, timeoutMs)) return kExitUsage;
    Session session(c, timeoutMs);
    // The server's greeting comes with its first poll after the connection.
    session.waitFor([](const net::ServerMessage &m) { return m.type == net::kMsgTraceAvailable; }, timeoutMs);
    for (const Step &step : steps) {
        if (step.name == "start") {
            if (!session.waitAck(0x40)) return kExitProblems;
        } else if (step.name == "pause") {
            if (!session.waitAck('C') || !session.waitPlaying(false)) return kExitProblems;
        } else if (step.name == "resume") {
            if (!session.waitAck('B')) return kExitProblems;
        } else if (step.name == "stop") {
            if (!session.waitAck('A') || !session.waitRecording(false)) return kExitProblems;
        } else if (step.name == "fetch") {
            int status = fetch(session, step.value);
            if (status != kExitOk) return status;
        } else if (step.name == "wait") {
            session.waitFor([](const net::ServerMessage &) { return false; },
                            static_cast<uint32_t>(std::strtoul(step.value.c_str(), nullptr, 10) * 1000));
        } else if (step.name == "watch") {
            while (!session.gone())
                session.waitFor([](const net::ServerMessage &) { return false; }, 3600000);
        }
        if (session.gone() && step.name != "watch") return kExitProblems;
    }
    return kExitOk;
}

} // namespace kv::cli
