#include "net/data_path.h"

#include "platform/platform.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace kv::net {

namespace {
constexpr char kHello[5] = {'H', 'E', 'L', 'L', 'O'};
// The whole-read loop of a reader gives up after this long without a byte: a writer that died
// half-way through a message must not hold the reader for good.
constexpr uint64_t kStalledReadMs = 2000;

// The read (0) and write (1) positions at the head of a buffer, shared with the other process.
std::atomic<uint32_t> &position(platform::SharedMemory &m, int which) {
    static_assert(sizeof(std::atomic<uint32_t>) == 4 && std::atomic<uint32_t>::is_always_lock_free,
                  "shared positions");
    return *reinterpret_cast<std::atomic<uint32_t> *>(m.data() + 4 * which);
}
} // namespace

std::string sharedObjectName(const std::string &base, uint32_t channel, char role, uint32_t index,
                             char kind) {
    std::string name = base + std::to_string(channel);
    name += role;
    name += static_cast<char>('0' + index % 10);
    name += kind;
    return name;
}

CDataPathSharedMem::CDataPathSharedMem(bool serverSide, std::string baseName)
    : serverSide_(serverSide), base_(std::move(baseName)) {}

CDataPathSharedMem::~CDataPathSharedMem() {
    closeAll();
}

void CDataPathSharedMem::closeAll() {
    for (Ring *r : {&upload_, &download_}) {
        for (int i = 0; i < 3; ++i) {
            r->lock[i].close();
            r->memory[i].close();
        }
        r->index = 0;
    }
    negotiationLock_.close();
    negotiation_.close();
    state_ = 0;
    handshakeFill_ = 0;
}

bool CDataPathSharedMem::openRings(uint32_t channel, bool create) {
    for (char role : {'U', 'D'}) {
        Ring &r = role == 'U' ? upload_ : download_;
        for (uint32_t i = 0; i < 3; ++i) {
            if (!r.memory[i].open(sharedObjectName(base_, channel, role, i, 'd'), kRingBufferBytes, create) ||
                !r.lock[i].open(sharedObjectName(base_, channel, role, i, 'm'), create))
                return false;
        }
        r.index = 0;
    }
    return true;
}

void CDataPathSharedMem::unlinkAll() {
    for (char role : {'U', 'D'})
        for (uint32_t i = 0; i < 3; ++i) {
            platform::SharedMemory::unlink(sharedObjectName(base_, channel_, role, i, 'd'));
            platform::NamedLock::unlink(sharedObjectName(base_, channel_, role, i, 'm'));
        }
    platform::SharedMemory::unlink(sharedObjectName(base_, 0, 'N', 0, 'd'));
    platform::NamedLock::unlink(sharedObjectName(base_, 0, 'N', 0, 'm'));
}

bool CDataPathSharedMem::listen(uint32_t channel) {
    closeAll();
    channel_ = channel;
    // Fresh objects: nothing a previous connection left in the buffers may reach the new one.
    unlinkAll();
    if (channel == 0 || !openRings(channel, true)) return false;
    for (Ring *r : {&upload_, &download_})
        for (auto &m : r->memory)
            std::memset(m.data(), 0, kRingBufferBytes);
    // The server writes "D" (holding buffer 0) and reads "U" (holding the buffer before 0).
    if (download_.lock[0].take(0) != 1 || upload_.lock[2].take(0) != 1) return false;
    if (!negotiation_.open(sharedObjectName(base_, 0, 'N', 0, 'd'), kNegotiationBytes, true) ||
        !negotiationLock_.open(sharedObjectName(base_, 0, 'N', 0, 'm'), true) ||
        negotiationLock_.take(1000) != 1)
        return false;
    std::memcpy(negotiation_.data(), &channel, 4);
    negotiationLock_.release();
    return true;
}

int CDataPathSharedMem::connect() {
    if (state_ == 0) {
        if (!negotiation_.open(sharedObjectName(base_, 0, 'N', 0, 'd'), kNegotiationBytes, false) ||
            !negotiationLock_.open(sharedObjectName(base_, 0, 'N', 0, 'm'), false) ||
            negotiationLock_.take(0) != 1) {
            closeAll();
            return kReadFailed;
        }
        uint32_t channel;
        std::memcpy(&channel, negotiation_.data(), 4);
        const uint32_t zero = 0;
        std::memcpy(negotiation_.data(), &zero, 4);
        if (channel == 0 || !openRings(channel, false)) {
            closeAll();
            return kReadFailed;
        }
        channel_ = channel;
        upload_.index = download_.index = 0;
        if (upload_.lock[0].take(0) != 1 || download_.lock[2].take(0) != 1) {
            closeAll();
            return kReadFailed;
        }
        if (!write(kHello, sizeof kHello)) {
            closeAll();
            return kReadFailed;
        }
        negotiationLock_.close();
        negotiation_.close();
        state_ = 1;
    }
    return readHandshake();
}

int CDataPathSharedMem::readHandshake() {
    while (handshakeFill_ < sizeof handshake_) {
        uint32_t got = 0;
        int r = read(handshake_ + handshakeFill_, sizeof handshake_ - handshakeFill_, &got);
        if (r == kReadFailed) return kReadFailed;
        handshakeFill_ += got;
        if (got == 0) return kReadPending;
    }
    return std::memcmp(handshake_, kHello, sizeof kHello) == 0 ? kReadDelivered : kReadFailed;
}

int CDataPathSharedMem::acceptHandshake() {
    if (state_ == 1) return kReadDelivered;
    int r = readHandshake();
    if (r != kReadDelivered) return r;
    if (!write(kHello, sizeof kHello)) return kReadFailed;
    state_ = 1;
    return kReadDelivered;
}

bool CDataPathSharedMem::write(const void *bytes, uint32_t count) {
    Ring &r = upload();
    if (!r.memory[0].data()) return false;
    const uint8_t *src = static_cast<const uint8_t *>(bytes);
    while (count > 0) {
        platform::SharedMemory *m = &r.memory[r.index];
        uint32_t at = position(*m, 1).load(std::memory_order_relaxed);
        if (at >= kRingDataBytes) {
            r.lock[r.index].release();
            r.index = (r.index + 1) % 3;
            int taken = 0;
            for (uint32_t step = 0; step < writeWaitSteps_; ++step) {
                taken = r.lock[r.index].take(1000);
                if (taken != 0) break;
            }
            if (taken != 1) return false;
            m = &r.memory[r.index];
            if (position(*m, 0).load(std::memory_order_acquire) != 0 || position(*m, 1).load() != 0)
                return false;
            at = 0;
        }
        const uint32_t n = std::min(count, kRingDataBytes - at);
        std::memcpy(m->data() + 8 + at, src, n);
        position(*m, 1).store(at + n, std::memory_order_release);
        src += n;
        count -= n;
        bytesWritten_ += n;
    }
    return true;
}

int CDataPathSharedMem::read(void *buffer, uint32_t count, uint32_t *received) {
    Ring &r = download();
    if (!r.memory[0].data()) return kReadFailed;
    uint8_t *dst = static_cast<uint8_t *>(buffer);
    uint32_t got = 0;
    uint64_t idleSince = 0;
    while (got < count) {
        platform::SharedMemory &m = r.memory[r.index];
        const uint32_t at = position(m, 0).load(std::memory_order_relaxed);
        if (at >= kRingDataBytes) {
            // This buffer is used up: once its writer has moved on (freeing it), the buffer before
            // it is emptied and handed back to the writer.
            const bool wait = got > 0 && !received;
            int taken;
            do {
                taken = r.lock[r.index].take(wait ? 1000 : 0);
            } while (taken == 0 && wait);
            if (taken != 1) {
                if (received) *received = got;
                return taken == 0 ? (got ? kReadDelivered : kReadPending) : kReadFailed;
            }
            const uint32_t previous = (r.index + 2) % 3;
            position(r.memory[previous], 0).store(0);
            position(r.memory[previous], 1).store(0, std::memory_order_release);
            r.lock[previous].release();
            r.index = (r.index + 1) % 3;
            continue;
        }
        const uint32_t filled = std::min(position(m, 1).load(std::memory_order_acquire), kRingDataBytes);
        const uint32_t n = filled > at ? std::min(count - got, filled - at) : 0;
        if (n) {
            std::memcpy(dst + got, m.data() + 8 + at, n);
            position(m, 0).store(at + n, std::memory_order_release);
            got += n;
            bytesRead_ += n;
            idleSince = 0;
        }
        if (received) {
            *received = got;
            if (got == count || (n == 0 && at < kRingDataBytes)) return got ? kReadDelivered : kReadPending;
            continue; // the rest of the message may wait in the next buffer
        }
        if (got == count) break;
        if (n == 0) {
            if (got == 0) return kReadPending;
            const uint64_t now = platform::tickCountMs();
            if (!idleSince) idleSince = now;
            if (now - idleSince > kStalledReadMs) return kReadFailed;
            platform::yieldThread();
        }
    }
    if (received) *received = got;
    return kReadDelivered;
}

} // namespace kv::net
