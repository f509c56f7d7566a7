// Writing the trace: the file, its header, the framing of call records with their thread markers
// and compressed blocks, snapshot and end markers. Every byte of the file passes through write().
#pragma once

#include "base/zand_string.h"
#include "platform/platform.h"
#include "trace/output_stream.h"
#include "trace/record.h"

#include <cstddef>
#include <cstdint>

namespace kv {
struct Settings;
}

namespace kv::trace {

// The lock that orders whole records in the file (taken by begin, released by finish).
platform::RecursiveLock &recordLock();

// Takes the recording lock and claims the calling thread's record. A thread that is already in a
// record (a call the recorder makes while recording) gets a null handle and keeps the lock.
RecordHandle begin(uint16_t id);
// Frames the record, writes it with its blocks and releases the lock. A null handle does nothing.
// `lengthPosition`, when given, receives the file position of the record's length field.
void finish(RecordHandle handle, uint64_t *lengthPosition = nullptr);
// Drops a record that cannot be finished (an exception while it was made) and releases the lock
// as finish() would. A null handle does nothing.
void abandon(RecordHandle handle);

// A name beside `name` for a process that finds `name` taken by another recorder.
CZandString distinctName(const CZandString &name, int attempt);

// Opens the configured trace file (closing one that is open) and, unless network control will
// write it later, the header. Prints the file's messages; returns whether the file is open.
bool openForRecording(Settings &settings);
bool writeHeader(Settings &settings);
void writeEndMarker(Settings &settings);
// A record with id 2 and no payload.
void writeSnapshotMarker();
// Flushes and closes the file. (A full close, which also forgets the settings so that they are
// built afresh, is the recording manager's.)
void close(Settings &settings);

// Writes size * count bytes (refusing a size of 0). Mirrors them to the network first when the
// trace is streamed.
bool write(Settings &settings, const void *bytes, size_t size, size_t count);
uint64_t tell(Settings &settings);
bool seek(Settings &settings, uint64_t position);
// Reads back bytes already written (to correct a record in place).
bool readBack(Settings &settings, uint64_t position, void *out, size_t n);

// The trace writer's description text, written into the header (cut to 50 characters).
void setDescription(const char *text);

// Which mechanism new trace files use (KALVOREN_TRACE_STREAM=buffered|mapped overrides it).
StreamKind streamKind();

// The network mirror: sends trace bytes to a connected client. Installed by network control.
using MirrorFn = void (*)(const void *bytes, size_t n);
void setMirror(MirrorFn mirror);

} // namespace kv::trace
