// The trace reader over arbitrary bytes: the header, the walk, decoding, inflating blocks and the
// dump lines. Whatever the input, nothing may crash, read out of bounds, loop or allocate beyond
// what the input justifies.
#include "trace/reader.h"
#include "trace/value_format.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace kv::reader;
    std::string error;
    std::unique_ptr<Reader> reader = Reader::open(memorySource(data, size), &error);
    if (!reader) {
        if (error.empty()) std::abort();
        return 0;
    }
    FormatOptions options;
    options.fullBlocks = (size & 1) != 0; // half the inputs show every block in full
    options.fullLimit = 1u << 16;
    Entry entry;
    std::vector<uint8_t> bytes;
    uint64_t last = reader->position();
    while (reader->next(entry)) {
        // Every step moves forward and stays inside the input.
        if (entry.kind != Entry::Kind::End && reader->position() <= last) std::abort();
        if (reader->position() > size) std::abort();
        last = reader->position();
        std::string line = formatEntry(*reader, entry, options);
        if (line.empty()) std::abort();
        for (const Block &block : entry.blocks) {
            if (block.offset + block.stored > size) std::abort();
            if (reader->blockBytes(block, bytes, 1u << 16) &&
                bytes.size() != std::min<size_t>(block.size, 1u << 16))
                std::abort();
        }
    }
    if (reader->ending() == Ending::NotYet) std::abort();
    if (reader->problems().size() > reader->problemCount()) std::abort();
    return 0;
}
