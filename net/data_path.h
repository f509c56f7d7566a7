// The data path: a byte pipe over named shared memory to a performance server on the same machine.
// Each direction is a ring of three 32 KiB buffers; a buffer belongs to whoever holds its named
// lock. The writer fills the buffer it holds, then moves to the next one once its reader has
// emptied and freed it; the reader empties a buffer, takes the next one's lock and frees (after
// zeroing) the one before. The library's upload ring ("U") is the server's download ring.
#pragma once

#include "platform/shared_memory.h"

#include <cstdint>
#include <string>

namespace kv::net {

enum ReadResult : int { kReadFailed = 0, kReadPending = 1, kReadDelivered = 2 };

// The base of every shared object name; both ends use it.
constexpr const char *kSharedMemBaseName = "KalvorenCounterLink";
constexpr uint32_t kRingBufferBytes = 32768;
constexpr uint32_t kRingDataBytes = kRingBufferBytes - 8;
constexpr uint32_t kNegotiationBytes = 256;

class CDataPath {
public:
    virtual ~CDataPath() = default;
    // The server's half of the handshake; the same results as read.
    virtual int acceptHandshake() = 0;
    // The library's half: called until it answers kReadDelivered (connected).
    virtual int connect() = 0;
    virtual bool write(const void *bytes, uint32_t count) = 0;
    virtual bool flush() = 0;
    // With `received`, returns after the first copy (kReadDelivered when any byte came); without,
    // reads all `count` bytes (kReadPending when none is there yet).
    virtual int read(void *buffer, uint32_t count, uint32_t *received) = 0;
};

// The name of one shared object: base, channel, role letter, buffer index, "d" (data) or "m" (lock).
std::string sharedObjectName(const std::string &base, uint32_t channel, char role, uint32_t index, char kind);

class CDataPathSharedMem : public CDataPath {
public:
    // `serverSide`: the performance server's end (it creates the objects and writes the "D" ring).
    explicit CDataPathSharedMem(bool serverSide = false, std::string baseName = kSharedMemBaseName);
    ~CDataPathSharedMem() override;

    // Server: makes the buffers of `channel` and their locks, takes its initial buffers and then
    // publishes the channel number in the negotiation block for a library to find.
    bool listen(uint32_t channel);
    // Server: removes the names of every object it made (POSIX; the objects go with their last user).
    void unlinkAll();

    int acceptHandshake() override;
    int connect() override;
    bool write(const void *bytes, uint32_t count) override;
    bool flush() override { return true; }
    int read(void *buffer, uint32_t count, uint32_t *received) override;

    uint32_t bytesWritten() const { return bytesWritten_; }
    uint32_t bytesRead() const { return bytesRead_; }
    uint32_t channel() const { return channel_; }
    // How long a writer waits for its reader to free the next buffer before the path is given up
    // (in 1000 ms steps): a server that stopped reading must not stop the application for good.
    void setWriteWaitSteps(uint32_t steps) { writeWaitSteps_ = steps; }

private:
    struct Ring {
        platform::SharedMemory memory[3];
        platform::NamedLock lock[3];
        uint32_t index = 0;
    };
    bool openRings(uint32_t channel, bool create);
    void closeAll();
    Ring &upload() { return serverSide_ ? download_ : upload_; }
    Ring &download() { return serverSide_ ? upload_ : download_; }
    int readHandshake();

    bool serverSide_;
    std::string base_;
    uint32_t bytesWritten_ = 0;
    uint32_t bytesRead_ = 0;
    uint8_t handshake_[5] = {};
    uint32_t handshakeFill_ = 0;
    Ring upload_;   // "U": written by the library
    Ring download_; // "D": read by the library
    platform::SharedMemory negotiation_;
    platform::NamedLock negotiationLock_;
    uint32_t channel_ = 0;
    int state_ = 0; // 0 not opened, 1 handshake sent
    uint32_t writeWaitSteps_ = 10;
};

} // namespace kv::net
