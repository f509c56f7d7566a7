// The control protocol's parsers over arbitrary bytes: the server's command buffer, fed in
// receives of arbitrary sizes, and the client's message reader. Neither may crash, read out of
// bounds or loop; every byte is consumed or dropped.
#include "net/wire.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    // The first byte chooses the receive sizes.
    const uint32_t step = 1 + data[0] % 7;
    ++data;
    --size;

    kv::net::CommandBuffer commands;
    size_t at = 0;
    uint64_t parsed = 0;
    while (at < size) {
        uint32_t n = static_cast<uint32_t>(size - at < step ? size - at : step);
        if (!commands.append(data + at, n)) std::abort(); // inputs are far below the capacity
        at += n;
        uint8_t code = 0;
        for (;;) {
            kv::net::CommandBuffer::Next next = commands.next(&code);
            if (next == kv::net::CommandBuffer::kNeedMore) break;
            if (next == kv::net::CommandBuffer::kGarbage) {
                if (commands.size() != 0) std::abort();
                break;
            }
            ++parsed;
        }
        // Whole commands never stay buffered.
        if (commands.size() >= 3) std::abort();
    }
    if (parsed * 3 > size) std::abort();

    kv::net::MessageReader reader;
    kv::net::ServerMessage m;
    size_t messages = 0;
    for (at = 0; at < size; at += step) {
        reader.feed(data + at, size - at < step ? size - at : step);
        while (reader.next(&m))
            if (++messages > size) std::abort();
    }
    while (reader.next(&m, true))
        if (++messages > size) std::abort();
    return 0;
}
