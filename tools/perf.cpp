// `kalvoren perf`: the performance server at the other end of the counter link. It opens the
// link's shared memory, waits for a program profiled by the library, shows its counters per frame
// (rates from the cumulative counts), switches override items and keeps the timeline marks.
#include "tools/cli.h"

#include "net/counter_link.h"
#include "platform/platform.h"
#include "platform/process.h"

#include <csignal>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace kv::cli {

namespace {

const char kPerfUsage[] =
    "usage: kalvoren perf [--csv FILE] [--set NAME=VALUE]... [--frames N] [--wait SECONDS]\n"
    "                     [--timeline FILE] [--list]\n"
    "\n"
    "Waits for a program that runs with Kalvoren in profiling mode (\"Profiling\": {\"Enabled\": true}\n"
    "in kalvorenconfig.json) and shows its software counters per frame, refreshed in place on a\n"
    "terminal.\n"
    "  --csv FILE         one row per frame: the frame, then one column per counter (per-frame values)\n"
    "  --set NAME=VALUE   switch an override item once the program is connected, e.g.\n"
    "                     --set \"Disable draw calls\"=1 or --set \"Culling mode\"=2 (the \"Kalvoren.\"\n"
    "                     prefix of the item names may be left out); VALUE@N sends it once N frames\n"
    "                     have come; may be given many times\n"
    "  --frames N         stop after N frames\n"
    "  --wait SECONDS     give up when no program has connected by then (default: wait for ever)\n"
    "  --timeline FILE    the marks and processing spans the program sends, as trace-event JSON\n"
    "  --list             print the override items and their values once they are known\n"
    "Exit status: 0 the program connected and ended (or N frames came), 2 bad usage or no program.\n";

volatile std::sig_atomic_t g_stop = 0;
void onInterrupt(int) {
    g_stop = 1;
}

struct Edit {
    std::string name;
    std::string value;
    uint64_t atFrame = 0; // sent once this many frames have come
    bool sent = false;
};

bool matchItem(const std::string &itemName, const std::string &wanted) {
    return itemName == wanted || itemName == "Kalvoren." + wanted;
}

std::string jsonEscape(const std::string &s) {
    std::string out;
    for (char c : s) {
        if (c == '"' || c == '\\')
            out += '\\', out += c;
        else if (static_cast<unsigned char>(c) < 0x20)
            out += ' ';
        else
            out += c;
    }
    return out;
}

std::string itemValueText(const net::LinkItem &item) {
    if (item.type == 4 && item.data.size() == 4) {
        uint32_t v;
        std::memcpy(&v, item.data.data(), 4);
        return std::to_string(v);
    }
    return std::string(item.data.begin(), item.data.end());
}

} // namespace

int perfCommand(const std::vector<std::string> &args) {
    std::string csvPath, timelinePath;
    std::vector<Edit> edits;
    uint64_t frames = 0, waitSeconds = 0;
    bool list = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--help" || a == "-h") {
            std::fputs(kPerfUsage, stdout);
            return kExitOk;
        } else if (a == "--csv" || a == "--timeline") {
            const std::string *v = optionValue(args, i, "a file name");
            if (!v) return kExitUsage;
            (a == "--csv" ? csvPath : timelinePath) = *v;
        } else if (a == "--set") {
            const std::string *v = optionValue(args, i, "NAME=VALUE");
            if (!v) return kExitUsage;
            const size_t eq = v->rfind('=');
            if (eq == std::string::npos || eq == 0) {
                complain("--set needs NAME=VALUE, not '%s'", v->c_str());
                return kExitUsage;
            }
            Edit edit{v->substr(0, eq), v->substr(eq + 1)};
            const size_t at = edit.value.find('@');
            if (at != std::string::npos) {
                if (!parseNumber(edit.value.substr(at + 1), edit.atFrame)) {
                    complain("--set: '%s' is no frame number", edit.value.substr(at + 1).c_str());
                    return kExitUsage;
                }
                edit.value.resize(at);
            }
            edits.push_back(edit);
        } else if (a == "--frames" || a == "--wait") {
            const std::string *v = optionValue(args, i, "a number");
            uint64_t n = 0;
            if (!v || !parseNumber(*v, n)) {
                if (v) complain("%s needs a number, not '%s'", a.c_str(), v->c_str());
                return kExitUsage;
            }
            (a == "--frames" ? frames : waitSeconds) = n;
        } else if (a == "--list") {
            list = true;
        } else {
            complain("perf: unknown argument '%s' (kalvoren perf --help)", a.c_str());
            return kExitUsage;
        }
    }

    std::FILE *csv = nullptr, *timeline = nullptr;
    if (!csvPath.empty() && !(csv = std::fopen(csvPath.c_str(), "w"))) {
        complain("cannot write '%s'", csvPath.c_str());
        return kExitUsage;
    }
    if (!timelinePath.empty() && !(timeline = std::fopen(timelinePath.c_str(), "w"))) {
        complain("cannot write '%s'", timelinePath.c_str());
        if (csv) std::fclose(csv);
        return kExitUsage;
    }
    std::signal(SIGINT, onInterrupt);
    const bool terminal = platform::isTerminal(stdout);

    net::CCounterServer server;
    if (!server.listen()) {
        complain("cannot make the counter link's shared memory");
        return kExitUsage;
    }
    std::fprintf(stderr, "kalvoren perf: waiting for a profiled program...\n");
    const uint64_t start = platform::tickCountMs();
    uint64_t frame = 0, sinceCheck = 0;
    std::vector<uint32_t> previous;
    bool haveBaseline = false, headerWritten = false, itemsListed = false, firstEvent = true;
    uint64_t timelineThread = 0;
    std::set<uint64_t> namedThreads;
    int status = kExitOk;
    if (timeline) std::fputs("{\"traceEvents\":[\n", timeline);
    while (!g_stop) {
        const bool alive = server.poll();
        // Timeline: marks as instant events, processing spans as begin/end pairs on the thread
        // the last "Thread" mark named (each thread gets its name once).
        for (const auto &e : server.events) {
            if (!timeline) break;
            if (e.type == net::kLinkMark && e.text.compare(0, 7, "Thread ") == 0) {
                uint64_t id = 0;
                if (parseNumber(e.text.substr(7), id)) {
                    timelineThread = id;
                    if (namedThreads.insert(id).second) {
                        std::fprintf(timeline,
                                     "%s{\"name\":\"thread_name\",\"ph\":\"M\",\"pid\":%u,\"tid\":%llu,"
                                     "\"args\":{\"name\":\"%s\"}}",
                                     firstEvent ? "" : ",\n", server.processId,
                                     static_cast<unsigned long long>(id), jsonEscape(e.text).c_str());
                        firstEvent = false;
                    }
                    continue;
                }
            }
            const char *ph = e.type == net::kLinkBegin ? "B" : e.type == net::kLinkEnd ? "E" : "i";
            std::fprintf(timeline, "%s{\"name\":\"%s\",\"ph\":\"%s\",\"ts\":%u,\"pid\":%u,\"tid\":%llu%s}",
                         firstEvent ? "" : ",\n", jsonEscape(e.text).c_str(), ph, e.time, server.processId,
                         static_cast<unsigned long long>(timelineThread),
                         e.type == net::kLinkMark ? ",\"s\":\"p\"" : "");
            firstEvent = false;
        }
        server.events.clear();
        if (server.connected() && !server.items.empty()) {
            for (Edit &edit : edits) {
                if (edit.sent || frame < edit.atFrame) continue;
                edit.sent = true;
                uint32_t index = 0;
                while (index < server.items.size() && !matchItem(server.items[index].name, edit.name))
                    ++index;
                if (index == server.items.size()) {
                    complain("the program has no item '%s'", edit.name.c_str());
                    continue;
                }
                const net::LinkItem &item = server.items[index];
                if (item.type == 4) {
                    uint64_t v = 0;
                    if (!parseNumber(edit.value, v) || v > 0xFFFFFFFFu) {
                        complain("'%s' needs a number, not '%s'", edit.name.c_str(), edit.value.c_str());
                        continue;
                    }
                    const uint32_t value = static_cast<uint32_t>(v);
                    server.sendEdit(index, &value, 4);
                } else {
                    server.sendEdit(index, edit.value.data(), static_cast<uint32_t>(edit.value.size()));
                }
                std::fprintf(stderr, "kalvoren perf: %s = %s\n", item.name.c_str(), edit.value.c_str());
            }
            if (list && !itemsListed) {
                itemsListed = true;
                for (size_t i = 0; i < server.items.size(); ++i)
                    std::printf("item %zu: %s = %s\n", i, server.items[i].name.c_str(),
                                itemValueText(server.items[i]).c_str());
                std::fflush(stdout);
            }
        }
        bool done = false;
        for (const std::vector<uint32_t> &now : server.valueQueue) {
            if (!haveBaseline) {
                // Counts are cumulative: the first values are where the rates start from.
                haveBaseline = true;
                previous = now;
                continue;
            }
            std::vector<uint32_t> delta(now.size());
            for (size_t i = 0; i < now.size(); ++i)
                delta[i] = now[i] - (i < previous.size() ? previous[i] : 0);
            previous = now;
            if (csv) {
                if (!headerWritten) {
                    headerWritten = true;
                    std::fputs("frame", csv);
                    for (size_t i = 0; i < delta.size(); ++i)
                        std::fprintf(csv, ",\"%s\"",
                                     i < server.counterNames.size() ? server.counterNames[i].c_str() : "?");
                    std::fputc('\n', csv);
                }
                std::fprintf(csv, "%llu", static_cast<unsigned long long>(frame));
                for (uint32_t d : delta)
                    std::fprintf(csv, ",%u", d);
                std::fputc('\n', csv);
                std::fflush(csv);
            }
            if (terminal) {
                std::printf("\x1b[H\x1b[J%s (process %u), frame %llu\n\n%-38s %12s %14s\n",
                            server.linkName.c_str(), server.processId, static_cast<unsigned long long>(frame),
                            "counter", "this frame", "total");
                for (size_t i = 0; i < delta.size(); ++i)
                    std::printf("%-38s %12u %14u\n",
                                i < server.counterNames.size() ? server.counterNames[i].c_str() : "?",
                                delta[i], now[i]);
                for (const auto &item : server.items)
                    std::printf("  [%s] %s\n", itemValueText(item).c_str(), item.name.c_str());
                std::fflush(stdout);
            }
            ++frame;
            if (frames && frame >= frames) {
                done = true;
                break;
            }
        }
        server.valueQueue.clear();
        if (done) break;
        // A program killed outright sends no close message.
        if (server.connected() && ++sinceCheck % 500 == 0 && !platform::processAlive(server.processId)) break;
        if (!alive) {
            if (!server.connected()) {
                complain("the counter link broke before a program connected");
                status = kExitUsage;
            }
            break;
        }
        if (!server.connected() && waitSeconds && platform::tickCountMs() - start > waitSeconds * 1000) {
            complain("no profiled program connected within %llu seconds",
                     static_cast<unsigned long long>(waitSeconds));
            status = kExitUsage;
            break;
        }
        platform::sleepMs(1);
    }
    if (server.connected()) {
        std::fprintf(stderr, "kalvoren perf: %llu frames from process %u%s\n",
                     static_cast<unsigned long long>(frame), server.processId,
                     server.closedByLibrary ? ", which ended" : "");
        if (!server.closedByLibrary) server.sendClose();
    }
    if (timeline) {
        std::fputs("\n]}\n", timeline);
        std::fclose(timeline);
    }
    if (csv) std::fclose(csv);
    return status;
}

} // namespace kv::cli
