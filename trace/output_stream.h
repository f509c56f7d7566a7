// Where the trace's bytes go. Callers see one small interface; two mechanisms stand behind it:
// buffered standard file I/O flushed after every record, and a file mapping that needs no system
// call per record (bytes written into the mapping reach the file even when the process dies).
#pragma once

#include "platform/platform.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace kv {

// Why writing stopped.
enum class StreamFailure { None, DiskFull, SizeLimit, CutShort, Other };

class OutputStream {
public:
    virtual ~OutputStream() = default;
    // Writes all n bytes or nothing useful; returns false on failure.
    virtual bool write(const void *bytes, size_t n) = 0;
    // Copies n bytes of application memory, which may be unreadable: what cannot be read is
    // written as zeros so that the record keeps its length. Stores the number of readable bytes in
    // `readable`; returns false when the write itself failed.
    virtual bool writeClient(const void *bytes, size_t n, size_t *readable) = 0;
    // Overwrites n bytes written earlier at `position`; the write position is kept.
    virtual bool patch(uint64_t position, const void *bytes, size_t n) = 0;
    virtual uint64_t tell() = 0;
    // Reads back n bytes written earlier at `position`; the write position is kept.
    virtual bool read(uint64_t position, void *out, size_t n) = 0;
    virtual bool seek(uint64_t position) = 0;
    // Makes everything written so far survive the process.
    virtual bool flush() = 0;
    // Everything written so far is whole records: an ending of the process keeps exactly that.
    virtual void commit() {}
    // Forgets what was written from `position` on (a record that could not be written whole).
    virtual void abandon(uint64_t position) { seek(position); }
    // True when a record's length is best written last (kUnfinishedLength until then): the
    // mapped stream, whose bytes reach the file as they are written.
    virtual bool writesLengthLast() const { return false; }
    // A record of n bytes at once, its length field at `lengthAt` within them holding
    // kUnfinishedLength, written and committed with `length` put in last; `*start` receives where
    // it begins. False, with nothing written, when the stream has no room ready for it or the file
    // was cut under it: the caller then writes it piece by piece.
    virtual bool writeWhole(const uint8_t *, size_t, size_t, uint32_t, uint64_t *) { return false; }
    // The record written piece by piece from here to the next commit or abandon holds `bytes` in
    // all: a large one may take another way into the file than many small ones.
    virtual void beginRecord(uint64_t bytes) { (void)bytes; }
    // How often the file was cut under the writer by an ending of the process that the process
    // lived through (see platform::MappedFile::cuts): a record written across a change of this
    // count is written again.
    virtual uint64_t cuts() const { return 0; }
    virtual StreamFailure failure() const { return StreamFailure::None; }
    virtual void close() = 0;
    virtual bool isOpen() const = 0;
};

enum class StreamKind { Buffered, Mapped };

// Opens (truncating) a trace file for this process alone. Mapped falls back to Buffered where the
// file cannot be mapped (a pipe, a device). Returns null when the file cannot be opened; `inUse`
// is then set when another recording process holds it.
std::unique_ptr<OutputStream> openOutputStream(const char *path, StreamKind kind, bool *inUse);

} // namespace kv
