// The control protocol's framing, for both ends: the server's buffer of received command bytes and
// the client's reader of server messages. Neither touches a socket, so both are tested and fuzzed
// on plain bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

namespace kv::net {

constexpr uint16_t kDefaultPort = 54321;
constexpr uint8_t kMagic0 = 0x08;
constexpr uint8_t kMagic1 = 0x44;

enum Command : uint8_t {
    kCmdStart = 0x40,
    kCmdStop = 'A',
    kCmdResume = 'B',
    kCmdPause = 'C',
    kCmdE = 'E',
    kCmdTrace = 'F',
};

enum MessageType : uint8_t {
    kMsgTraceAvailable = 0x20,
    kMsgAck = 0x21,
    kMsgData = 0x31,
    kMsgStatus = 0x32,
    kMsgText = 0x33,
    kMsgEndOfData = 0x47,
};

// Received command bytes that are not parsed yet (at most 65536). Commands are three bytes:
// 0x08 0x44 and the code.
class CommandBuffer {
public:
    static constexpr uint32_t kCapacity = 65536;
    enum Next { kCommand, kNeedMore, kGarbage };

    CommandBuffer() : bytes_(new uint8_t[kCapacity]) {}

    // Appends one receive; when the total would exceed the capacity, everything buffered is dropped
    // (the new bytes too) and false is returned.
    bool append(const uint8_t *p, uint32_t n) {
        if (n > kCapacity - fill_) {
            fill_ = 0;
            return false;
        }
        std::memcpy(bytes_.get() + fill_, p, n);
        fill_ += n;
        return true;
    }
    // The next command's code: kCommand (and the code, removed from the buffer), kNeedMore when
    // fewer than three bytes are buffered, kGarbage (the buffer is emptied) when the bytes do not
    // start with the magic.
    Next next(uint8_t *code) {
        if (fill_ - start_ < 3) {
            compact();
            return kNeedMore;
        }
        const uint8_t *c = bytes_.get() + start_;
        if (c[0] != 0x08 || c[1] != 0x44) {
            clear();
            return kGarbage;
        }
        *code = c[2];
        start_ += 3;
        return kCommand;
    }
    void clear() { fill_ = start_ = 0; }
    uint32_t size() const { return fill_ - start_; }

private:
    void compact() {
        if (start_ == 0) return;
        std::memmove(bytes_.get(), bytes_.get() + start_, fill_ - start_);
        fill_ -= start_;
        start_ = 0;
    }
    std::unique_ptr<uint8_t[]> bytes_;
    uint32_t fill_ = 0;
    uint32_t start_ = 0;
};

// One message from the server.
struct ServerMessage {
    uint8_t type = 0;
    // Acknowledgement: the code; trace available: the flag; status: 'R' or 'S'.
    uint8_t a = 0;
    // Status: the recording flag.
    uint8_t b = 0;
    // Text, or data chunk payload.
    std::string bytes;
};

// Splits what the client receives into messages. A text announced with the length 16000 may be
// longer (texts of 65536 bytes or more are announced so): it runs to the next message start.
class MessageReader {
public:
    void feed(const void *p, size_t n) { buffer_.append(static_cast<const char *>(p), n); }
    // The next whole message; false when more bytes are needed. Bytes that cannot start a message
    // are skipped and counted.
    bool next(ServerMessage *m, bool endOfStream = false) {
        for (;;) {
            size_t have = buffer_.size() - at_;
            if (have < 3) return finish(false);
            const uint8_t *b = reinterpret_cast<const uint8_t *>(buffer_.data()) + at_;
            if (b[0] != 0x08 || b[1] != 0x44) {
                ++skipped_;
                ++at_;
                continue;
            }
            m->type = b[2];
            m->a = m->b = 0;
            m->bytes.clear();
            switch (b[2]) {
            case 0x20:
            case 0x21:
                if (have < 4) return finish(false);
                m->a = b[3];
                at_ += 4;
                return finish(true);
            case 0x32:
                if (have < 5) return finish(false);
                m->a = b[3];
                m->b = b[4];
                at_ += 5;
                return finish(true);
            case 0x47:
                at_ += 3;
                return finish(true);
            case 0x31: {
                if (have < 5) return finish(false);
                size_t n = b[3] | (b[4] << 8);
                if (n == 0) n = 65536;
                if (have < 5 + n + 1) return finish(false);
                m->bytes.assign(reinterpret_cast<const char *>(b) + 5, n);
                at_ += 5 + n + 1;
                return finish(true);
            }
            case 0x33: {
                if (have < 5) return finish(false);
                size_t n = b[3] | (b[4] << 8);
                if (n == 16000) {
                    // As long as the text runs: up to the next message start, or the end of the
                    // stream.
                    size_t end = 5 + 16000;
                    if (have < end) return finish(false);
                    while (end + 1 < have && !(b[end] == 0x08 && b[end + 1] == 0x44))
                        ++end;
                    if (end + 1 >= have) {
                        if (!endOfStream) return finish(false);
                        end = have;
                    }
                    n = end - 5;
                }
                if (have < 5 + n) return finish(false);
                m->bytes.assign(reinterpret_cast<const char *>(b) + 5, n);
                at_ += 5 + n;
                return finish(true);
            }
            default:
                // An unknown type: skip its start and look for the next message.
                ++skipped_;
                at_ += 2;
                continue;
            }
        }
    }
    size_t skipped() const { return skipped_; }
    size_t pending() const { return buffer_.size() - at_; }

private:
    bool finish(bool got) {
        if (at_ > 65536 || at_ == buffer_.size()) {
            buffer_.erase(0, at_);
            at_ = 0;
        }
        return got;
    }
    std::string buffer_;
    size_t at_ = 0;
    size_t skipped_ = 0;
};

} // namespace kv::net
