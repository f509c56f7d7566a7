#include "trace/trace_writer.h"
#include "base/no_destructor.h"

#include "base/messages.h"
#include "base/settings_record.h"
#include "trace/format.h"

#include <libdeflate.h>
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
// A write of the record being finished failed: the record is abandoned whole.
bool g_writeFailed = false;

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

// Deflates one block through a zlib stream, a piece at a time: the path for blocks too large to
// hold twice in memory. Returns the bytes stored, or 0 when the compressor could not start.
uint32_t writeStreamed(Settings &s, const SDataBlock &block) {
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
    if (block.owned) {
        zs.next_in = const_cast<Bytef *>(src);
        zs.avail_in = block.size;
        while (zs.avail_in > 0)
            drain(Z_NO_FLUSH);
    }
    for (uint32_t done = block.owned ? block.size : 0; done < block.size;) {
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

// One-pass compression: a block up to this size is staged whole and deflated at once, which is
// several times faster than the streamed zlib path and gives the same kind of stream (zlib format,
// level 1). Staging memory above kKeepStaged is given back after the record.
constexpr size_t kOneShotMax = 64u << 20;
constexpr size_t kKeepStaged = 8u << 20;
libdeflate_compressor *g_compressor = nullptr;
std::vector<uint8_t> *g_stage = nullptr;
std::vector<uint8_t> *g_packed = nullptr;

bool grow(std::vector<uint8_t> *&v, size_t n) {
    try {
        if (!v) v = new std::vector<uint8_t>();
        if (v->size() < n) v->resize(n);
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

void shrink(std::vector<uint8_t> *&v) {
    if (v && v->size() > kKeepStaged) {
        delete v;
        v = nullptr;
    }
}

// Deflates one block of application memory into the stream; returns the bytes stored, or 0 when
// the compressor could not start (the block is then left out of the record).
uint32_t writeCompressed(Settings &s, const SDataBlock &block) {
    if (block.size > kOneShotMax) return writeStreamed(s, block);
    if (!g_compressor) g_compressor = libdeflate_alloc_compressor(1);
    const size_t bound = g_compressor ? libdeflate_zlib_compress_bound(g_compressor, block.size) : 0;
    if (!bound || !grow(g_packed, bound) || (!block.owned && !grow(g_stage, block.size)))
        return writeStreamed(s, block);
    const void *in = block.data;
    if (!block.owned) {
        size_t got = platform::guardedCopy(g_stage->data(), block.data, block.size);
        if (got < block.size) {
            reportUnreadable(static_cast<const uint8_t *>(block.data) + got, block.size - got);
            std::memset(g_stage->data() + got, 0, block.size - got);
        }
        in = g_stage->data();
    }
    size_t packed =
        libdeflate_zlib_compress(g_compressor, in, block.size, g_packed->data(), g_packed->size());
    if (packed == 0) return writeStreamed(s, block);
    write(s, g_packed->data(), packed, 1);
    shrink(g_stage);
    shrink(g_packed);
    return static_cast<uint32_t>(packed);
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
    if (block.owned) {
        write(s, block.data, block.size, 1);
        return block.size;
    }
    size_t got = 0;
    if (!out->writeClient(block.data, block.size, &got)) {
        g_writeFailed = true;
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
    g_writeFailed = true;
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

namespace {

// Ends the recording after a failure that more writes cannot mend: the file keeps its whole
// records and the application runs on unrecorded.
void stopRecording(Settings &s, const char *why) {
    msg::error("%s; recording stops here and the application runs on. The trace keeps the records "
               "written before.",
               why);
    s.recordingEnabled = false;
    close(s);
}

// Called when a record could not be written: says why where a message of its own fits, and stops
// where going on cannot help.
void onStreamFailure(Settings &s) {
    switch (s.traceFile ? s.traceFile->failure() : StreamFailure::None) {
    case StreamFailure::SizeLimit:
        stopRecording(s, "The trace reached the file-size limit");
        break;
    case StreamFailure::CutShort:
        stopRecording(s, "The trace file was cut short by another program while it was written");
        break;
    default:
        // A full disk or a failed write: reported with each failed write (a few times); later
        // records fail at once without touching the disk.
        break;
    }
}

// Where a record's bytes start in its inline bytes: at the length field, or, when the thread
// changed, at the thread marker put in the room before it.
uint32_t recordFrom(uint8_t *bytes, uint64_t thread, uint64_t lastThread) {
    if (thread == lastThread) return kMarkerBytes;
    putU32(bytes, 8);
    uint16_t id = format::kThreadMarkerId;
    std::memcpy(bytes + 4, &id, 2);
    std::memcpy(bytes + 6, &thread, 8);
    return 0;
}

// Ends the thread's record, written or not, and gives the lock back.
void release(CallRecord &r) {
    r.inRecord = false;
    g_recordLock->unlock();
}

} // namespace

void abandon(RecordHandle handle) {
    if (handle) release(*handle.record());
}

void finish(RecordHandle handle, uint64_t *lengthPosition) {
    // A null handle comes from a nested begin, which took the lock without a record; it is not
    // released here, so the thread's hold on the lock stays raised for the outer record.
    if (!handle) return;
    CallRecord &r = *handle.record();
    Settings *open = g_streamSettings;
    if (KV_UNLIKELY(!open)) {
        // No trace is open (it was closed while the record was made): nothing to write.
        release(r);
        return;
    }
    Settings &s = *open;
    OutputStream *out = s.traceFile;
    if (KV_UNLIKELY(out && out->failure() != StreamFailure::None)) {
        // The stream cannot take more (a full disk): the record fails at once, as cheaply as that.
        reportWriteFailure(r.logicalSize + 4);
        release(r);
        return;
    }
    uint32_t end = r.inlineBytes.size();
    if (r.blocks.empty() && out && s.recordingEnabled && !s.networkStreaming) {
        // A record of inline bytes alone (most calls) goes out in one copy where the stream has
        // room ready for it.
        uint8_t *bytes = r.inlineBytes.data();
        const uint32_t from = recordFrom(bytes, r.threadId, s.lastThread);
        putU32(bytes + kMarkerBytes, format::kUnfinishedLength);
        uint64_t start = 0;
        if (out->writeWhole(bytes + from, end - from, kMarkerBytes - from, end - kPrefixBytes - 2, &start)) {
            s.lastThread = r.threadId;
            s.bytesWritten += end - from;
            if (lengthPosition) *lengthPosition = start + (kMarkerBytes - from);
            release(r);
            return;
        }
    }
    const uint64_t writtenBefore = s.bytesWritten;
    const uint64_t threadBefore = s.lastThread;
    const uint64_t recordStart = tell(s);
    uint8_t *bytes = r.inlineBytes.data();
    // Where the bytes reach the file as they are written, the length goes in last: a record cut
    // short by the death of its process still says it is unfinished.
    const bool lengthLast = out && out->writesLengthLast();
    // Written again, in its place, when an ending of the process that the process lived through
    // (its own signal handler returned) cut the file while the record was written.
    for (int attempt = 0;; ++attempt) {
        const uint64_t cuts = out ? out->cuts() : 0;
        if (out) out->beginRecord(r.logicalSize);
        g_writeFailed = false;

        // The thread marker, when the thread changed, goes out with the record's first bytes.
        const uint32_t from = recordFrom(bytes, r.threadId, s.lastThread);
        s.lastThread = r.threadId;
        putU32(bytes + kMarkerBytes, lengthLast ? format::kUnfinishedLength : r.logicalSize - 2);

        const uint64_t lengthAt = recordStart + (kMarkerBytes - from);
        if (lengthPosition) *lengthPosition = lengthAt;

        // Inline bytes up to each block's place, then the block; the inline index of a logical
        // offset is the offset less the block bytes before it, after the prefix.
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
        if (end > inlinePos) write(s, bytes + inlinePos, end - inlinePos, 1);

        uint64_t storedTotal = (end - kPrefixBytes) + storedBlocks;
        if (!g_writeFailed && (lengthLast || storedTotal != r.logicalSize)) {
            uint8_t length[4];
            putU32(length, static_cast<uint32_t>(storedTotal - 2));
            if (s.traceFile && !s.traceFile->patch(lengthAt, length, 4)) g_writeFailed = true;
        }

        r.inRecord = false;
        if (s.traceFile && !g_writeFailed && !s.traceFile->flush()) {
            // The record's bytes were only buffered: it is the record that could not be written.
            reportWriteFailure(s.bytesWritten - writtenBefore);
            g_writeFailed = true;
        }
        if (KV_UNLIKELY(g_writeFailed)) {
            // A record is in the file whole or not at all.
            if (s.traceFile) s.traceFile->abandon(recordStart);
            s.bytesWritten = writtenBefore;
            s.lastThread = threadBefore;
            onStreamFailure(s);
            break;
        }
        if (!s.traceFile) break;
        s.traceFile->commit();
        if (KV_LIKELY(s.traceFile->cuts() == cuts) || attempt == 3) break;
        s.traceFile->abandon(recordStart);
        s.bytesWritten = writtenBefore;
        s.lastThread = threadBefore;
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
    if (s.traceFile) {
        s.traceFile->flush();
        if (ok) s.traceFile->commit();
    }
    return ok;
}

// "app.kalvoren" becomes "app-<pid>.kalvoren" (then "app-<pid>-2.kalvoren" and so on).
CZandString distinctName(const CZandString &name, int attempt) {
    std::string text = name.str();
    std::string suffix = "-" + std::to_string(platform::processId());
    if (attempt > 0) {
        // Strip what the previous attempt added.
        size_t dash = text.rfind(suffix);
        if (dash != std::string::npos) {
            size_t stop = text.find('.', dash);
            text.erase(dash, (stop == std::string::npos ? text.size() : stop) - dash);
        }
        suffix += "-" + std::to_string(attempt + 1);
    }
    size_t slash = text.find_last_of("/\\");
    size_t dot = text.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash) || dot == 0)
        dot = text.size();
    text.insert(dot, suffix);
    return CZandString(text);
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
    bool inUse = false;
    g_stream = openOutputStream(path, streamKind(), &inUse).release();
    // Two recorders never share a file: this one takes a name of its own beside the other's.
    for (int attempt = 0; !g_stream && inUse && attempt < 100; ++attempt) {
        CZandString taken = s.outputFilename;
        s.outputFilename = distinctName(taken, attempt);
        msg::warning("'%s' is being written by another recording process; this process records to '%s' "
                     "instead.",
                     taken.c_str(), s.outputFilename.c_str());
        g_stream = openOutputStream(s.outputFilename.c_str(), streamKind(), &inUse).release();
    }
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
    if (write(s, format::kEndMarker, sizeof(format::kEndMarker), 1) && s.traceFile) {
        s.traceFile->flush();
        s.traceFile->commit();
    }
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
