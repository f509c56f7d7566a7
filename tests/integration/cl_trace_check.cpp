// Finds every block of bytes a program's manifest lists (function id, length, bytes) in the data
// blocks of that function's records in a trace, byte for byte. Each record block stands for one
// listed block at most, so a block listed twice must be in the trace twice.
//
//   cl_trace_check TRACE MANIFEST
#include "trace/reader.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace {

struct Listed {
    uint16_t id;
    std::vector<uint8_t> bytes;
    bool found = false;
};

} // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: cl_trace_check TRACE MANIFEST\n");
        return 2;
    }
    std::ifstream in(argv[2], std::ios::binary);
    std::vector<uint8_t> manifest((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<Listed> listed;
    for (size_t at = 0; at + 6 <= manifest.size();) {
        Listed l;
        uint32_t length = 0;
        std::memcpy(&l.id, &manifest[at], 2);
        std::memcpy(&length, &manifest[at + 2], 4);
        at += 6;
        if (at + length > manifest.size()) {
            std::fprintf(stderr, "the manifest is cut short\n");
            return 2;
        }
        l.bytes.assign(manifest.begin() + static_cast<long>(at),
                       manifest.begin() + static_cast<long>(at + length));
        at += length;
        listed.push_back(std::move(l));
    }
    std::string error;
    auto reader = kv::reader::Reader::openFile(argv[1], &error);
    if (!reader) {
        std::fprintf(stderr, "%s: %s\n", argv[1], error.c_str());
        return 2;
    }
    kv::reader::Entry e;
    std::vector<uint8_t> bytes;
    uint64_t total = 0;
    while (reader->next(e)) {
        if (e.kind != kv::reader::Entry::Kind::Call) continue;
        for (const kv::reader::Block &b : e.blocks) {
            for (Listed &l : listed) {
                if (l.found || l.id != e.id || l.bytes.size() != b.size) continue;
                if (!reader->blockBytes(b, bytes, b.size) || bytes != l.bytes) continue;
                l.found = true;
                total += b.size;
                break;
            }
        }
    }
    int missing = 0;
    for (const Listed &l : listed) {
        if (l.found) continue;
        const kv::api::FuncDesc *d = kv::api::describe(l.id);
        std::fprintf(stderr, "not in the trace: %zu bytes of %s (%u)\n", l.bytes.size(),
                     d && d->name[0] ? d->name : "a record", l.id);
        ++missing;
    }
    if (reader->problemCount()) {
        std::fprintf(stderr, "the trace has %llu problem(s)\n",
                     static_cast<unsigned long long>(reader->problemCount()));
        return 1;
    }
    std::printf("%zu blocks (%llu bytes) the program moved are in the trace; %d missing\n", listed.size(),
                static_cast<unsigned long long>(total), missing);
    return missing ? 1 : 0;
}
