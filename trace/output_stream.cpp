#include "trace/output_stream.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace kv {

namespace {

// Copies application memory into `staging` in pieces, zero-filling what cannot be read, and hands
// each piece to `sink`. Returns false when the sink failed.
template <class Sink>
bool copyClient(const void *bytes, size_t n, uint8_t *staging, size_t stagingSize, size_t *readableOut,
                Sink sink) {
    size_t readable = 0;
    const uint8_t *src = static_cast<const uint8_t *>(bytes);
    bool faulted = false;
    for (size_t done = 0; done < n;) {
        size_t piece = std::min(stagingSize, n - done);
        size_t got = faulted ? 0 : platform::guardedCopy(staging, src + done, piece);
        if (got < piece) {
            faulted = true;
            std::memset(staging + got, 0, piece - got);
        }
        readable += got;
        if (!sink(staging, piece)) {
            *readableOut = readable;
            return false;
        }
        done += piece;
    }
    *readableOut = readable;
    return true;
}

class BufferedStream final : public OutputStream {
public:
    explicit BufferedStream(std::FILE *file) : file_(file), limit_(platform::fileSizeLimit()) {}
    ~BufferedStream() override { close(); }

    bool write(const void *bytes, size_t n) override {
        if (!file_) return false;
        if (n == 0) return true;
        // Beyond the file-size limit the system would end the process with a signal.
        if (KV_UNLIKELY(limit_ != UINT64_MAX) && tell() + n > limit_) {
            failure_ = StreamFailure::SizeLimit;
            return false;
        }
        if (std::fwrite(bytes, n, 1, file_) == 1) return true;
        std::clearerr(file_);
        failedWrite_ = true;
        return false;
    }

    bool patch(uint64_t position, const void *bytes, size_t n) override {
        uint64_t here = tell();
        bool ok = seek(position) && write(bytes, n);
        return seek(here) && ok;
    }
    StreamFailure failure() const override { return failure_; }

    bool writeClient(const void *bytes, size_t n, size_t *readable) override {
        return copyClient(bytes, n, staging_, sizeof(staging_), readable,
                          [this](const uint8_t *p, size_t k) { return write(p, k); });
    }

    uint64_t tell() override { return file_ ? static_cast<uint64_t>(platform::fileTell(file_)) : 0; }
    bool read(uint64_t position, void *out, size_t n) override {
        if (!file_) return false;
        uint64_t here = tell();
        bool ok = seek(position) && std::fread(out, n, 1, file_) == 1;
        std::clearerr(file_);
        return seek(here) && ok;
    }
    bool seek(uint64_t position) override {
        return file_ && platform::fileSeek(file_, static_cast<int64_t>(position), SEEK_SET);
    }
    bool flush() override {
        if (!file_) return false;
        if (std::fflush(file_) == 0) return true;
        std::clearerr(file_);
        failedWrite_ = true;
        return false;
    }
    void commit() override { committed_ = tell(); }
    // A record that failed half-way (a full disk) leaves bytes behind it: only whole records stay.
    void close() override {
        if (!file_) return;
        if ((failedWrite_ || failure_ != StreamFailure::None) && tell() >= committed_)
            platform::fileTruncate(file_, committed_);
        std::fclose(file_);
        file_ = nullptr;
    }
    bool isOpen() const override { return file_ != nullptr; }

private:
    std::FILE *file_;
    uint64_t committed_ = 0;
    // A device or a pipe may take bytes again after a failure; only the size limit is for good.
    bool failedWrite_ = false;
    uint64_t limit_;
    StreamFailure failure_ = StreamFailure::None;
    uint8_t staging_[64 * 1024];
};

class MappedStream final : public OutputStream {
public:
    ~MappedStream() override { close(); }

    platform::MappedFile::Open open(const char *path) { return file_.create(path); }

    bool write(const void *bytes, size_t n) override {
        if (!put(pos_, bytes, n)) return false;
        advance(n);
        return true;
    }

    bool writeWhole(const uint8_t *bytes, size_t n, size_t lengthAt, uint32_t length,
                    uint64_t *start) override {
        uint8_t *dst = file_.fastSpan(pos_, n);
        if (!dst) return false;
        const uint64_t cuts = file_.cuts();
        std::memcpy(dst, bytes, n);
        // The length goes in after the rest: a death between the two leaves an unfinished record.
        std::atomic_signal_fence(std::memory_order_seq_cst);
        std::memcpy(dst + lengthAt, &length, 4);
        // The next records go to lines not written yet: ask for them now, so that their first
        // stores need not wait for memory (a line past the window's end is fetched harmlessly).
        __builtin_prefetch(dst + n + 256, 1, 3);
        *start = pos_;
        advance(n);
        file_.commit(end_);
        if (KV_LIKELY(file_.cuts() == cuts)) return true;
        abandon(*start);
        return false;
    }

    bool writeClient(const void *bytes, size_t n, size_t *readable) override {
        *readable = 0;
        const uint8_t *src = static_cast<const uint8_t *>(bytes);
        bool faulted = false;
        size_t done = 0;
        if (byFileWrite(pos_, n)) {
            if (!file_.writeDirect(pos_, src, n, &done)) return false;
            *readable = done;
            advance(done);
        }
        while (done < n) {
            size_t available = 0;
            uint8_t *dst = file_.span(pos_, &available);
            if (!dst) return false;
            size_t piece = std::min(available, n - done);
            size_t got = faulted ? 0 : platform::guardedCopy(dst, src + done, piece);
            if (got < piece) {
                faulted = true;
                std::memset(dst + got, 0, piece - got);
            }
            *readable += got;
            advance(piece);
            done += piece;
        }
        return true;
    }

    bool patch(uint64_t position, const void *bytes, size_t n) override {
        if (position + n > end_) return false;
        return put(position, bytes, n);
    }

    uint64_t tell() override { return pos_; }
    bool read(uint64_t position, void *out, size_t n) override {
        if (position + n > end_) return false;
        uint8_t *to = static_cast<uint8_t *>(out);
        for (size_t done = 0; done < n;) {
            size_t available = 0;
            const uint8_t *from = file_.span(position + done, &available);
            if (!from) return false;
            size_t piece = std::min(available, n - done);
            std::memcpy(to + done, from, piece);
            done += piece;
        }
        return true;
    }
    bool seek(uint64_t position) override {
        if (position > end_) return false;
        pos_ = position;
        return true;
    }
    // The mapping is shared with the file: what is written is already the kernel's to keep.
    bool flush() override { return file_.isOpen() && file_.failure() == platform::MappedFile::Failure::None; }
    void commit() override {
        large_ = false;
        file_.commit(end_);
    }
    void beginRecord(uint64_t bytes) override {
        large_ = bytes >= kDirectBlock;
        // A large record goes in mostly by the file write, which does not notice a cut file.
        if (large_) file_.cutShort();
    }
    void abandon(uint64_t position) override {
        large_ = false;
        if (position > end_) return;
        pos_ = end_ = position;
        if (position < file_.committed()) file_.commit(position);
    }
    uint64_t cuts() const override { return file_.cuts(); }
    bool writesLengthLast() const override { return true; }
    StreamFailure failure() const override {
        switch (file_.failure()) {
        case platform::MappedFile::Failure::None:
            return StreamFailure::None;
        case platform::MappedFile::Failure::DiskFull:
            return StreamFailure::DiskFull;
        case platform::MappedFile::Failure::SizeLimit:
            return StreamFailure::SizeLimit;
        case platform::MappedFile::Failure::CutShort:
            return StreamFailure::CutShort;
        case platform::MappedFile::Failure::Other:
            break;
        }
        return StreamFailure::Other;
    }
    // Only whole records stay: a record still being written when the trace is closed is not one.
    void close() override {
        if (file_.isOpen()) file_.close(file_.committed());
    }
    bool isOpen() const override { return file_.isOpen(); }

private:
    bool copyAt(uint64_t position, const void *bytes, size_t n) {
        const uint8_t *src = static_cast<const uint8_t *>(bytes);
        for (size_t done = 0; done < n;) {
            size_t available = 0;
            uint8_t *dst = file_.span(position + done, &available);
            if (!dst) return false;
            size_t piece = std::min(available, n - done);
            std::memcpy(dst, src + done, piece);
            done += piece;
        }
        return true;
    }
    // Whether bytes for [position, position + n) go by the file write (see writeDirect) rather than
    // through the window: large blocks (gathered vertex data, buffer contents), and the small
    // pieces of a large record (its start, its end, its length) where the window has no pages
    // ready, since readying pages that the file write fills anyway costs more than the record.
    bool byFileWrite(uint64_t position, size_t n) const {
        return n >= kDirectBlock || (large_ && !file_.fastSpan(position, n));
    }
    // Our own bytes, by the way byFileWrite chooses.
    bool put(uint64_t position, const void *bytes, size_t n) {
        size_t taken = 0;
        if (byFileWrite(position, n)) {
            if (!file_.writeDirect(position, bytes, n, &taken)) return false;
        } else if (uint8_t *dst = file_.fastSpan(position, n)) {
            std::memcpy(dst, bytes, n);
            return true;
        }
        return copyAt(position + taken, static_cast<const uint8_t *>(bytes) + taken, n - taken);
    }
    void advance(size_t n) {
        pos_ += n;
        if (pos_ > end_) end_ = pos_;
    }

    static constexpr size_t kDirectBlock = 64 * 1024;

    platform::MappedFile file_;
    uint64_t pos_ = 0;
    uint64_t end_ = 0;
    bool large_ = false; // the record being written is large: see byFileWrite
};

} // namespace

std::unique_ptr<OutputStream> openOutputStream(const char *path, StreamKind kind, bool *inUse) {
    *inUse = false;
    if (kind == StreamKind::Mapped) {
        auto mapped = std::make_unique<MappedStream>();
        switch (mapped->open(path)) {
        case platform::MappedFile::Open::Ok:
            return mapped;
        case platform::MappedFile::Open::InUse:
            *inUse = true;
            return nullptr;
        case platform::MappedFile::Open::Failed:
            break;
        }
    }
    std::FILE *file = platform::openExclusive(path, inUse);
    if (!file) return nullptr;
    return std::make_unique<BufferedStream>(file);
}

} // namespace kv
