// kalvoren repair: cuts a trace whose recording process died to its last complete record.
#include "tools/cli.h"

#include "platform/process.h"
#include "trace/reader.h"

namespace kv::cli {

namespace {

const char kRepairHelp[] =
    "usage: kalvoren repair TRACE\n"
    "\n"
    "Cuts TRACE after its last complete record (or after its end marker), removing the tail that a\n"
    "recording process leaves when it is killed (SIGKILL, power loss): zeros, or a record it was\n"
    "still writing. Nothing is added: a trace that was not closed stays without its end marker.\n"
    "A trace with nothing to cut is left as it is.\n";

unsigned long long ull(uint64_t v) {
    return static_cast<unsigned long long>(v);
}

} // namespace

int repairCommand(const std::vector<std::string> &args) {
    std::string path;
    for (const std::string &a : args) {
        if (a == "--help" || a == "-h") {
            std::fputs(kRepairHelp, stdout);
            return kExitOk;
        }
        if (!takeTracePath("repair", a, path)) return kExitUsage;
    }
    if (path.empty()) {
        std::fputs(kRepairHelp, stderr);
        return kExitUsage;
    }
    std::string error;
    uint64_t size = 0, tail = 0;
    reader::Ending ending;
    {
        std::unique_ptr<reader::Reader> r = reader::Reader::openFile(path, &error);
        if (!r) {
            complain("%s %s", path.c_str(), error.c_str());
            return kExitUsage;
        }
        reader::Entry entry;
        while (r->next(entry)) {
        }
        size = r->fileSize();
        tail = r->tailBytes();
        ending = r->ending();
    }
    if (ending == reader::Ending::GaveUp) {
        complain("%s: too many damaged records in a row; repair only cuts a damaged tail", path.c_str());
        return kExitProblems;
    }
    if (tail == 0) {
        std::printf("%s: nothing to cut (%s)\n", path.c_str(), reader::endingText(ending));
        return kExitOk;
    }
    if (!platform::truncateFile(path, size - tail, &error)) {
        complain("%s %s", path.c_str(), error.c_str());
        return kExitUsage;
    }
    std::printf("%s: cut %llu bytes of tail; %llu bytes of complete records remain\n", path.c_str(),
                ull(tail), ull(size - tail));
    return kExitOk;
}

} // namespace kv::cli
