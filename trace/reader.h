// Reading traces: the header, then the records one at a time, each call record decoded by the
// layout of its function (api/) into named values and the data blocks it carries. The reader
// streams its input, trusts no length it finds in it, and reports what it cannot read with the
// record's number and file offset before going on with the next record.
#pragma once

#include "api/api.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kv::reader {

// Where the bytes come from: a file read through a window, or memory.
class Source {
public:
    virtual ~Source() = default;
    virtual uint64_t size() const = 0;
    // Copies up to n bytes from `offset`; returns how many were copied (fewer only at the end of
    // the input or when reading failed).
    virtual size_t read(uint64_t offset, void *out, size_t n) = 0;
};

// A file read in binary mode through a buffer; null when it cannot be opened, with `error` saying
// why (without the path, which the caller shows).
std::unique_ptr<Source> openFileSource(const std::string &path, std::string *error);
// Bytes in memory that outlive the source (not copied).
std::unique_ptr<Source> memorySource(const void *data, size_t size);

struct Header {
    uint32_t version = 0;
    uint8_t flags = 0;
    uint8_t saveFrameBuffer = 0;
    std::string recorderVersion;
    std::string platform;
    std::string description;
    uint8_t network = 0;
    uint32_t startFrame = 0;
    uint32_t endFrame = 0;
    uint32_t constant = 0;
    std::vector<uint8_t> typeTable;
    uint8_t reservedLength = 0;
    uint32_t reserved[2] = {0, 0};
    uint64_t size = 0; // bytes from the start of the file to the first record

    bool recordData() const;
    bool compression() const;
    bool disableBinaries() const;
};

// One data block of a call record, where it lies in the file.
struct Block {
    uint64_t offset = 0; // file offset of the stored bytes
    uint32_t stored = 0; // bytes in the file
    uint32_t size = 0;   // bytes the block holds (after inflating)
    bool compressed = false;
    api::Type element = api::Type::U8;
    int32_t arg = -1;  // the argument it belongs to
    int32_t part = -1; // the part of that argument, or -1
    uint32_t at = 0;   // where its bytes start in Entry::data, when the reader keeps block bytes
};

// An element of a compound argument: one string of a string array, one client array of a draw,
// or the indices of one draw.
struct Part {
    enum class Kind : uint8_t { String, Attribute, Indices };
    Kind kind = Kind::String;
    uint32_t index = 0;   // string number, attribute index or draw number
    uint64_t pointer = 0; // the application's pointer
    uint32_t count = 0;   // bytes (characters for strings) the record says the part holds
    int32_t block = -1;
    uint64_t pointerAfter = 0; // Indices: the pointer written again after the block
    bool missing = false;      // a count was written but the bytes were not (capture failed)
};

struct Arg {
    const api::FieldDesc *field = nullptr;
    uint64_t value = 0;    // a value's bits, or the pointer of a pointer field
    bool hasCount = false; // a count (and data) follows the pointer in this record
    uint32_t count = 0;    // bytes of a blob, characters of a string, strings of an array
    int32_t block = -1;
    uint32_t firstPart = 0;
    uint32_t partCount = 0; // parts kept in Entry::parts
    uint64_t draws = 0;     // ElementsTail: draw count stored in the record (0: not stored)
    bool partial = false;   // a client-array tail that ended early (the capture stopped)
};

// One framed record (or the end marker).
struct Entry {
    enum class Kind : uint8_t { Call, Thread, Snapshot, End, Unreadable };
    Kind kind = Kind::Call;
    uint64_t index = 0;  // record number in file order, markers included
    uint64_t offset = 0; // file offset of the record's length field
    uint32_t length = 0; // payload bytes
    uint16_t id = 0;
    uint64_t thread = 0;     // the thread of a call, the thread a marker names
    bool inSnapshot = false; // Call: inside a snapshot section; Snapshot: this marker opens one
    const api::FuncDesc *desc = nullptr;
    uint32_t error = 0;
    uint64_t result = 0;
    std::vector<Arg> args;
    std::vector<Part> parts;
    std::vector<Block> blocks;
    uint64_t droppedParts = 0; // parts (and their blocks) beyond what one entry keeps
    std::string problem;       // what could not be read; the decoded part is kept
    // The bytes of every kept block, inflated, one after another (only when the reader keeps block
    // bytes: a player needs them all, and inflating each block once costs half of inflating twice).
    std::vector<uint8_t> data;
    // A call of a function the recorder had no wrapper for (the family's own row): the name the
    // record gives.
    std::string calledName;

    const char *name() const;
    const uint8_t *bytes(const Block &block) const { return data.data() + block.at; }
};

struct Problem {
    uint64_t record = 0;
    uint64_t offset = 0;
    std::string text;
};

// How the walk ended.
enum class Ending : uint8_t {
    NotYet,
    EndMarker,  // the recorder closed the trace
    ZeroTail,   // only zero bytes follow the last record: the recording process died first
    EndOfFile,  // the file ends after a whole record without an end marker
    Truncated,  // the last record is cut short
    Unfinished, // the last record was still being written when the recording process died
    GaveUp,     // too many unreadable records in a row
};

class Reader {
public:
    // Reads and checks the header. Returns null, with a message in `error`, when the input is not
    // a trace this reader can walk.
    static std::unique_ptr<Reader> open(std::unique_ptr<Source> source, std::string *error);
    static std::unique_ptr<Reader> openFile(const std::string &path, std::string *error);
    ~Reader();
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    const Header &header() const;
    uint64_t fileSize() const;
    // Offset of the next record.
    uint64_t position() const;

    // Reads the next record into `entry` (its vectors are reused). Returns false when the walk is
    // over; ending() then says why.
    bool next(Entry &entry);

    Ending ending() const;
    uint64_t endOffset() const;
    // Bytes after the last complete record (and after the end marker, when there is one): what
    // a repair cuts away.
    uint64_t tailBytes() const;
    // Problems found so far (the first ones are kept with their text; all are counted).
    const std::vector<Problem> &problems() const;
    uint64_t problemCount() const;
    // Observations that are not errors (a trace that was not closed, a header that differs from
    // the recorder's constants).
    const std::vector<std::string> &notes() const;

    // The bytes of a block (inflated when stored compressed), at most `limit` of them. Returns
    // false with a reason when they cannot be read whole up to the limit.
    bool blockBytes(const Block &block, std::vector<uint8_t> &out, size_t limit,
                    std::string *error = nullptr);

    // Keep the bytes of every block in Entry::data while decoding (off by default: a reader that
    // only shows records reads the few blocks it shows with blockBytes).
    void keepBlockBytes(bool keep);
    // Decode only the records whose id is set in `ids` (null: all); the others come back with their
    // framing, name and thread but no arguments. For a quick first walk through a large trace.
    void decodeOnly(const std::vector<bool> *ids);

    // A place in the walk to come back to (a player looping over a range of frames).
    struct Mark {
        uint64_t pos = 0;
        uint64_t nextIndex = 0;
        uint64_t thread = 0;
        bool inSnapshot = false;
    };
    Mark mark() const;
    // Goes back (or forward) to a mark taken on this reader; the walk goes on from there.
    void rewind(const Mark &mark);

    // Problems kept with their text; the rest are only counted.
    static constexpr size_t kKeptProblems = 1000;
    // Parts kept per entry (a string array or a draw's arrays); the rest are walked and counted.
    static constexpr size_t kKeptParts = 1u << 16;

    struct Impl; // the reader's state, private to reader.cpp

private:
    explicit Reader(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

// "record 12 at offset 345: text"
std::string describe(const Problem &problem);
const char *endingText(Ending ending);

} // namespace kv::reader
