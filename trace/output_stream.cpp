#include "trace/output_stream.h"

#include <algorithm>
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
    explicit BufferedStream(std::FILE *file) : file_(file) {}
    ~BufferedStream() override { close(); }

    bool write(const void *bytes, size_t n) override {
        if (!file_) return false;
        if (n == 0) return true;
        if (std::fwrite(bytes, n, 1, file_) == 1) return true;
        std::clearerr(file_);
        return false;
    }

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
        return false;
    }
    void close() override {
        if (file_) std::fclose(file_);
        file_ = nullptr;
    }
    bool isOpen() const override { return file_ != nullptr; }

private:
    std::FILE *file_;
    uint8_t staging_[64 * 1024];
};

class MappedStream final : public OutputStream {
public:
    ~MappedStream() override { close(); }

    bool open(const char *path) { return file_.create(path, kFirstChunk); }

    bool write(const void *bytes, size_t n) override {
        if (!ensure(n)) return false;
        std::memcpy(file_.data() + pos_, bytes, n);
        advance(n);
        return true;
    }

    bool writeClient(const void *bytes, size_t n, size_t *readable) override {
        *readable = 0;
        if (!ensure(n)) return false;
        uint8_t *dst = file_.data() + pos_;
        size_t got = platform::guardedCopy(dst, bytes, n);
        if (got < n) std::memset(dst + got, 0, n - got);
        advance(n);
        *readable = got;
        return true;
    }

    uint64_t tell() override { return pos_; }
    bool read(uint64_t position, void *out, size_t n) override {
        if (position + n > end_) return false;
        std::memcpy(out, file_.data() + position, n);
        return true;
    }
    bool seek(uint64_t position) override {
        if (position > end_) return false;
        pos_ = position;
        return true;
    }
    // The mapping is shared with the file: what is written is already the kernel's to keep.
    bool flush() override { return file_.isOpen(); }
    void close() override {
        if (file_.isOpen()) file_.close(end_);
    }
    bool isOpen() const override { return file_.isOpen(); }

private:
    static constexpr uint64_t kFirstChunk = 4ull << 20;
    static constexpr uint64_t kLargestStep = 256ull << 20;
    static constexpr uint64_t kPrefaultBatch = 1ull << 20;

    bool ensure(size_t n) {
        if (!file_.isOpen()) return false;
        uint64_t need = pos_ + n;
        if (KV_UNLIKELY(need > file_.capacity())) {
            uint64_t capacity = file_.capacity();
            while (capacity < need)
                capacity += std::min(capacity, kLargestStep);
            if (!file_.reserve(capacity)) return false;
        }
        // Pages are mapped in ahead of the writes, a batch at a time.
        if (KV_UNLIKELY(need > prefaulted_)) {
            prefaulted_ = std::max(prefaulted_, pos_ & ~uint64_t(4095));
            uint64_t batch = std::max<uint64_t>(kPrefaultBatch, need - prefaulted_);
            file_.prefault(prefaulted_, batch);
            prefaulted_ += batch;
        }
        return true;
    }
    void advance(size_t n) {
        pos_ += n;
        if (pos_ > end_) end_ = pos_;
    }

    platform::MappedFile file_;
    uint64_t pos_ = 0;
    uint64_t end_ = 0;
    uint64_t prefaulted_ = 0;
};

} // namespace

std::unique_ptr<OutputStream> openOutputStream(const char *path, StreamKind kind) {
    if (kind == StreamKind::Mapped) {
        auto mapped = std::make_unique<MappedStream>();
        if (mapped->open(path)) return mapped;
    }
    std::FILE *file = std::fopen(path, "wb+");
    if (!file) return nullptr;
    return std::make_unique<BufferedStream>(file);
}

} // namespace kv
