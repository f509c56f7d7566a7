#include "trace/trace_writer.h"
#include "base/no_destructor.h"

#include "base/messages.h"
#include "base/settings_record.h"
#include "trace/format.h"

#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

namespace kv::trace {

namespace {

NoDestructor<platform::RecursiveLock> g_recordLock;
std::atomic<MirrorFn> g_mirror{nullptr};
NoDestructor<CZandString> g_description;
// The open stream; deleted only when the trace is closed.
OutputStream *g_stream = nullptr;
// The settings record whose trace file is open (it holds the stream's state).
Settings *g_streamSettings = nullptr;

// The compression scratch: one z_stream, a 2 MiB output buffer and a staging buffer for reading
// application memory safely, used only under the record lock.
constexpr size_t kDeflateOut = 0x200000;
constexpr size_t kDeflateIn = 256 * 1024;
uint8_t *g_deflateOut = nullptr;
uint8_t *g_deflateIn = nullptr;

uint32_t g_writeFailures = 0;

void reportWriteFailure(size_t bytes) {
    // A full disk fails every record; say so a few times, then once that we stop saying it.
    ++g_writeFailures;
    if (g_writeFailures > 8) return;
    CZandString text = CZandString::format("ERROR: Writing to trace file failed. Size attempted: %u\n",
                                           static_cast<unsigned>(bytes));
    msg::emit(msg::kDebugger | msg::kErr, "ERROR: ", text.c_str());
    if (g_writeFailures == 8)
        msg::emit(msg::kDebugger | msg::kErr,
                  "ERROR: ", "Further trace write failures will not be reported.");
}

void reportUnreadable(const void *at, size_t bytes) {
    msg::error("Application memory at %p could not be read while recording; %u bytes were recorded as zeros.",
               at, static_cast<unsigned>(bytes));
}

void putU32(uint8_t *p, uint32_t v) {
    std::memcpy(p, &v, 4);
}

// Deflates one block of application memory into the stream; returns the bytes stored, or 0 when
// the compressor could not start (the block is then left out of the record).
uint32_t writeCompressed(Settings &s, const SDataBlock &block) {
    if (!g_deflateOut) {
        g_deflateOut = static_cast<uint8_t *>(std::malloc(kDeflateOut));
        g_deflateIn = static_cast<uint8_t *>(std::malloc(kDeflateIn));
        if (!g_deflateOut || !g_deflateIn) return 0;
    }
    z_stream zs;
    std::memset(&zs, 0, sizeof(zs));
    if (deflateInit_(&zs, 1, "1.2.8", static_cast<int>(sizeof(z_stream))) != Z_OK) return 0;
    uint32_t stored = 0;
    bool faulted = false;
    const uint8_t *src = static_cast<const uint8_t *>(block.data);
    auto drain = [&](int flush) {
        int rc;
        do {
            zs.next_out = g_deflateOut;
            zs.avail_out = static_cast<uInt>(kDeflateOut);
            rc = deflate(&zs, flush);
            size_t produced = kDeflateOut - zs.avail_out;
            if (produced) {
                write(s, g_deflateOut, produced, 1);
                stored += static_cast<uint32_t>(produced);
            }
        } while (zs.avail_out == 0 || (flush == Z_FINISH && rc == Z_OK));
        return rc;
    };
    for (uint32_t done = 0; done < block.size;) {
        uint32_t piece = static_cast<uint32_t>(std::min<size_t>(kDeflateIn, block.size - done));
        size_t got = faulted ? 0 : platform::guardedCopy(g_deflateIn, src + done, piece);
        if (got < piece) {
            if (!faulted) reportUnreadable(src + done + got, block.size - done - got);
            faulted = true;
            std::memset(g_deflateIn + got, 0, piece - got);
        }
        zs.next_in = g_deflateIn;
        zs.avail_in = piece;
        while (zs.avail_in > 0)
            drain(Z_NO_FLUSH);
        done += piece;
    }
    drain(Z_FINISH);
    deflateEnd(&zs);
    return stored;
}

uint32_t writeRaw(Settings &s, const SDataBlock &block) {
    if (s.networkStreaming && g_mirror.load()) {
        // The mirror needs the bytes themselves, with or without a file; go through the ordinary
        // path with a safe copy.
        std::unique_ptr<uint8_t[]> copy(new uint8_t[block.size]);
        size_t got = platform::guardedCopy(copy.get(), block.data, block.size);
        if (got < block.size) std::memset(copy.get() + got, 0, block.size - got);
        write(s, copy.get(), block.size, 1);
        return block.size;
    }
    OutputStream *out = s.traceFile;
    if (!out || !s.recordingEnabled) return block.size;
    size_t got = 0;
    if (!out->writeClient(block.data, block.size, &got)) {
        reportWriteFailure(block.size);
        return block.size;
    }
    if (got < block.size) reportUnreadable(static_cast<const uint8_t *>(block.data) + got, block.size - got);
    s.bytesWritten += block.size;
    return block.size;
}

} // namespace

platform::RecursiveLock &recordLock() {
    return *g_recordLock;
}

void setMirror(MirrorFn mirror) {
    g_mirror.store(mirror);
}

void setDescription(const char *text) {
    *g_description = CZandString(text ? text : "");
}

StreamKind streamKind() {
    static const StreamKind kind = [] {
        std::string v = platform::getEnv("KALVOREN_TRACE_STREAM");
        return v == "buffered" ? StreamKind::Buffered : StreamKind::Mapped;
    }();
    return kind;
}

bool write(Settings &s, const void *bytes, size_t size, size_t count) {
    if (s.networkStreaming) {
        if (MirrorFn mirror = g_mirror.load()) mirror(bytes, size * count);
    }
    if (!s.recordingEnabled || !s.traceFile || size == 0 || count == 0) return false;
    if (s.traceFile->write(bytes, size * count)) {
        s.bytesWritten += size * count;
        return true;
    }
    reportWriteFailure(size * count);
    return false;
}

uint64_t tell(Settings &s) {
    return s.traceFile ? s.traceFile->tell() : 0;
}

bool seek(Settings &s, uint64_t position) {
    return s.traceFile && s.traceFile->seek(position);
}

bool readBack(Settings &s, uint64_t position, void *out, size_t n) {
    return s.traceFile && s.traceFile->read(position, out, n);
}

// A record's inline bytes start with room for a thread marker and the length field, so that a
// record without data blocks leaves in one write.
constexpr uint32_t kMarkerBytes = 14;
constexpr uint32_t kPrefixBytes = kMarkerBytes + 4;

RecordHandle begin(uint16_t id) {
    g_recordLock->lock();
    CallRecord &r = threadRecord();
    if (r.inRecord) return RecordHandle(); // the lock stays taken: see finish()
    r.inRecord = true;
    r.blocks.clear();
    r.inlineBytes.clear();
    r.inlineBytes.grow(kPrefixBytes);
    r.scratch.reset();
    r.logicalSize = 0;
    RecordHandle h(&r);
    h.u16(id);
    return h;
}

void finish(RecordHandle handle, uint64_t *lengthPosition) {
    // A null handle comes from a nested begin, which took the lock without a record; it is not
    // released here, so the thread's hold on the lock stays raised for the outer record.
    if (!handle) return;
    CallRecord &r = *handle.record();
    Settings *open = g_streamSettings;
    if (KV_UNLIKELY(!open)) {
        // No trace is open (it was closed while the record was made): nothing to write.
        r.inRecord = false;
        g_recordLock->unlock();
        return;
    }
    Settings &s = *open;
    const uint64_t writtenBefore = s.bytesWritten;
    uint8_t *bytes = r.inlineBytes.data();

    // The thread marker, when the thread changed, goes out with the record's first bytes.
    uint32_t from = kMarkerBytes;
    uint64_t thread = r.threadId;
    if (thread != s.lastThread) {
        s.lastThread = thread;
        putU32(bytes, 8);
        uint16_t id = format::kThreadMarkerId;
        std::memcpy(bytes + 4, &id, 2);
        std::memcpy(bytes + 6, &thread, 8);
        from = 0;
    }
    putU32(bytes + kMarkerBytes, r.logicalSize - 2);

    bool compressing = false;
    if (s.useCompression)
        for (const SDataBlock &block : r.blocks)
            compressing |= block.compressible;
    uint64_t lengthAt = 0;
    if (lengthPosition || compressing) {
        lengthAt = tell(s) + (kMarkerBytes - from);
        if (lengthPosition) *lengthPosition = lengthAt;
    }

    // Inline bytes up to each block's place, then the block; the inline index of a logical offset
    // is the offset less the block bytes before it, after the prefix.
    uint32_t inlinePos = from;
    uint32_t blockBytes = 0;
    uint64_t storedBlocks = 0;
    for (const SDataBlock &block : r.blocks) {
        uint32_t upTo = kPrefixBytes + block.position - blockBytes;
        if (upTo > inlinePos) write(s, bytes + inlinePos, upTo - inlinePos, 1);
        inlinePos = upTo;
        storedBlocks +=
            block.compressible && s.useCompression ? writeCompressed(s, block) : writeRaw(s, block);
        blockBytes += block.size;
    }
    uint32_t end = r.inlineBytes.size();
    if (end > inlinePos) write(s, bytes + inlinePos, end - inlinePos, 1);

    uint64_t storedTotal = (end - kPrefixBytes) + storedBlocks;
    if (storedTotal != r.logicalSize) {
        uint64_t here = tell(s);
        uint8_t length[4];
        putU32(length, static_cast<uint32_t>(storedTotal - 2));
        if (seek(s, lengthAt)) {
            write(s, length, 4, 1);
            seek(s, here);
        }
    }

    r.inRecord = false;
    if (s.traceFile && !s.traceFile->flush()) {
        // The record's bytes were only buffered: it is the record that could not be written.
        reportWriteFailure(s.bytesWritten - writtenBefore);
        s.bytesWritten = writtenBefore;
    }
    g_recordLock->unlock();
}

void writeSnapshotMarker() {
    finish(begin(format::kSnapshotMarkerId));
}

bool writeHeader(Settings &s) {
    uint8_t buf[512];
    size_t n = 0;
    auto put = [&](const void *p, size_t k) {
        std::memcpy(buf + n, p, k);
        n += k;
    };
    auto putText = [&](const char *text, size_t maxLen) {
        size_t len = std::min(std::strlen(text), maxLen);
        uint8_t l = static_cast<uint8_t>(len);
        put(&l, 1);
        if (len == 0) {
            uint8_t zero = 0;
            put(&zero, 1);
        } else {
            put(text, len);
        }
    };
    put(format::kMagic, 8);
    uint32_t bom = format::kByteOrderMark, version = format::kVersion;
    put(&bom, 4);
    put(&version, 4);
    uint8_t flags = static_cast<uint8_t>((s.recordData ? format::kFlagRecordData : 0) |
                                         (s.useCompression ? format::kFlagCompression : 0) |
                                         (s.disableBinaries ? format::kFlagDisableBinaries : 0));
    put(&flags, 1);
    uint8_t saveFb = s.saveFrameBuffer ? 1 : 0;
    put(&saveFb, 1);
    putText(kRecorderVersion, 255);
    platform::OsVersion os = platform::osVersion();
    CZandString platformText =
        CZandString::format("%s - Int. Ver %d.%d %s ", os.family, os.major, os.minor, os.extra.c_str());
    putText(platformText.c_str(), format::kMaxPlatformText);
    putText(g_description->c_str(), format::kMaxDescriptionText);
    uint8_t network = s.networkEnabled ? 1 : 0;
    put(&network, 1);
    put(&s.startFrame, 4);
    put(&s.endFrame, 4);
    uint32_t constant = format::kHeaderConstant;
    put(&constant, 4);
    uint8_t tableLength = sizeof(format::kTypeWidthTable);
    put(&tableLength, 1);
    put(format::kTypeWidthTable, sizeof(format::kTypeWidthTable));
    uint8_t reservedLength = format::kReservedLengthByte;
    put(&reservedLength, 1);
    uint8_t zeros[format::kReservedBytes + 8] = {};
    put(zeros, sizeof(zeros));
    bool ok = write(s, buf, n, 1);
    if (s.traceFile) s.traceFile->flush();
    return ok;
}

bool openForRecording(Settings &s) {
    g_streamSettings = &s;
    if (s.traceFile) {
        s.traceFile->close();
        delete g_stream;
        g_stream = nullptr;
        s.traceFile = nullptr;
    }
    if (g_stream && g_stream != s.traceFile) {
        // A stream this record does not know: the parent's, inherited by a forked child. Closing it
        // would cut the parent's file short; it is left alone (and kept reachable).
        static auto *inherited = new std::vector<OutputStream *>();
        inherited->push_back(g_stream);
        g_stream = nullptr;
    }
    const char *path = s.outputFilename.c_str();
    msg::info("Opening trace file '%s' for recording.", path);
    if (std::FILE *probe = std::fopen(path, "r")) {
        std::fclose(probe);
        msg::info("'%s' already exists so will be overwritten.", path);
    }
    g_stream = openOutputStream(path, streamKind()).release();
    if (!g_stream) return false;
    s.traceFile = g_stream;
    s.bytesWritten = 0;
    s.lastThread = 0;
    g_writeFailures = 0;
    if (!s.networkEnabled && !writeHeader(s))
        msg::emit(msg::kDebugger | msg::kOut, "", "ERROR: Failed to open trace file.");
    return true;
}

void writeEndMarker(Settings &s) {
    platform::LockGuard<platform::RecursiveLock> guard(*g_recordLock);
    write(s, format::kEndMarker, sizeof(format::kEndMarker), 1);
    if (s.traceFile) s.traceFile->flush();
}

void close(Settings &s) {
    platform::LockGuard<platform::RecursiveLock> guard(*g_recordLock);
    if (s.traceFile) {
        s.traceFile->flush();
        s.traceFile->close();
    }
    s.traceFile = nullptr;
    delete g_stream;
    g_stream = nullptr;
}

} // namespace kv::trace
