// The counter link's receivers over arbitrary bytes, on a path that serves the input: the
// library's receive step (identification requests, item edits, closes, unknown messages) and the
// performance server's reader (greeting, then every message the library sends). Neither may crash,
// read out of bounds or loop.
#include "net/counter_link.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

// A connected path whose incoming bytes are the fuzz input; what is written is dropped.
class InputPath : public kv::net::CDataPath {
public:
    InputPath(const uint8_t *data, size_t size, uint32_t step) : data_(data), size_(size), step_(step) {}
    int acceptHandshake() override { return kv::net::kReadDelivered; }
    int connect() override { return kv::net::kReadDelivered; }
    bool write(const void *, uint32_t) override { return true; }
    bool flush() override { return true; }
    int read(void *buffer, uint32_t count, uint32_t *received) override {
        const size_t left = size_ - at_;
        if (received) {
            // Partial deliveries, as a ring that holds only part of a message gives them.
            const uint32_t n = static_cast<uint32_t>(left < count ? left : count) < step_
                                   ? static_cast<uint32_t>(left < count ? left : count)
                                   : step_;
            std::memcpy(buffer, data_ + at_, n);
            at_ += n;
            *received = n;
            return n ? kv::net::kReadDelivered : kv::net::kReadPending;
        }
        if (left == 0) return kv::net::kReadPending;
        if (left < count) return kv::net::kReadFailed; // a writer that stopped mid-message
        std::memcpy(buffer, data_ + at_, count);
        at_ += count;
        return kv::net::kReadDelivered;
    }
    bool exhausted() const { return at_ >= size_; }

private:
    const uint8_t *data_;
    size_t size_;
    size_t at_ = 0;
    uint32_t step_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const uint32_t step = 1 + data[0] % 9;
    ++data;
    --size;

    // The library's end: every message it can be sent, one receive step at a time.
    {
        InputPath *path = nullptr;
        bool made = false;
        kv::net::CCounterLink link("Kalvoren", 8, [&]() -> std::unique_ptr<kv::net::CDataPath> {
            // The first path serves the input; one a close asks for is connected and empty.
            auto p = std::unique_ptr<InputPath>(made ? new InputPath(data, 0, step)
                                                     : new InputPath(data, size, step));
            // The input's path is gone once a replacement is made.
            path = made ? nullptr : p.get();
            made = true;
            return p;
        });
        const kv::net::LinkItem items[2] = {{"a", 4, {0, 0, 0, 0}}, {"b", 3, {'0'}}};
        link.defineItems(items, 2);
        for (size_t i = 0; i <= size + 1 && link.connected() && path && !path->exhausted(); ++i) {
            if (!link.poll()) break;
            uint32_t index, length;
            const uint8_t *edited;
            while (link.takeNextEditedItem(&index, &length, &edited))
                if (index >= 2) std::abort();
        }
    }

    // The server's end.
    {
        kv::net::CCounterServer server(std::unique_ptr<kv::net::CDataPath>(new InputPath(data, size, step)));
        for (size_t i = 0; i <= size + 1; ++i)
            if (!server.poll()) break;
        if (server.values.size() > size) std::abort();
    }
    return 0;
}
