#include "trace/reader.h"

#include "platform/platform.h"
#include "trace/format.h"

#include <zlib.h>

#include <algorithm>
#include <sys/stat.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>

namespace kv::reader {

namespace {

// ---- Sources ------------------------------------------------------------------------------------

class FileSource final : public Source {
public:
    FileSource(std::FILE *file, uint64_t size) : file_(file), size_(size), window_(kWindow) {}
    ~FileSource() override { std::fclose(file_); }

    uint64_t size() const override { return size_; }

    size_t read(uint64_t offset, void *out, size_t n) override {
        auto *dst = static_cast<uint8_t *>(out);
        size_t copied = 0;
        while (n > 0 && offset < size_) {
            if (offset >= start_ && offset < start_ + filled_) {
                size_t k = static_cast<size_t>(std::min<uint64_t>(n, start_ + filled_ - offset));
                std::memcpy(dst, window_.data() + (offset - start_), k);
                dst += k, offset += k, copied += k, n -= k;
                continue;
            }
            size_t want = static_cast<size_t>(std::min<uint64_t>(size_ - offset, kWindow));
            if (n >= kWindow) {
                // Large reads go straight to the caller.
                want = static_cast<size_t>(std::min<uint64_t>(size_ - offset, n));
                size_t got = rawRead(offset, dst, want);
                if (got == 0) break;
                dst += got, offset += got, copied += got, n -= got;
                continue;
            }
            filled_ = 0;
            start_ = offset;
            filled_ = rawRead(offset, window_.data(), want);
            if (filled_ == 0) break;
        }
        return copied;
    }

private:
    static constexpr size_t kWindow = 1u << 20;

    size_t rawRead(uint64_t offset, uint8_t *out, size_t n) {
        if (!platform::fileSeek(file_, static_cast<int64_t>(offset), SEEK_SET)) return 0;
        size_t got = std::fread(out, 1, n, file_);
        if (got < n) std::clearerr(file_);
        return got;
    }

    std::FILE *file_;
    uint64_t size_;
    std::vector<uint8_t> window_;
    uint64_t start_ = 0;
    size_t filled_ = 0;
};

class MemorySource final : public Source {
public:
    MemorySource(const void *data, size_t size) : data_(static_cast<const uint8_t *>(data)), size_(size) {}
    uint64_t size() const override { return size_; }
    size_t read(uint64_t offset, void *out, size_t n) override {
        if (offset >= size_) return 0;
        size_t k = static_cast<size_t>(std::min<uint64_t>(n, size_ - offset));
        if (k) std::memcpy(out, data_ + offset, k);
        return k;
    }

private:
    const uint8_t *data_;
    size_t size_;
};

// ---- Little helpers ---------------------------------------------------------------------------

uint32_t le32(const uint8_t *p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

uint64_t le64(const uint8_t *p) {
    return uint64_t(le32(p)) | uint64_t(le32(p + 4)) << 32;
}

uint64_t leN(const uint8_t *p, uint32_t width) {
    uint64_t v = 0;
    for (uint32_t i = 0; i < width; ++i)
        v |= uint64_t(p[i]) << (8 * i);
    return v;
}

std::string textf(const char *pattern, ...) __attribute__((format(printf, 1, 2)));
std::string textf(const char *pattern, ...) {
    char buffer[512];
    va_list args;
    va_start(args, pattern);
    int n = std::vsnprintf(buffer, sizeof(buffer), pattern, args);
    va_end(args);
    if (n < 0) return {};
    return std::string(buffer, std::min<size_t>(static_cast<size_t>(n), sizeof(buffer) - 1));
}

unsigned long long ull(uint64_t v) {
    return static_cast<unsigned long long>(v);
}

constexpr uint64_t kGiveUpAfter = 1000; // unreadable records in a row
constexpr size_t kChunk = 64 * 1024;

} // namespace

std::unique_ptr<Source> openFileSource(const std::string &path, std::string *error) {
    // Opening a FIFO for reading would wait for a writer: anything but a regular file is refused
    // before it is opened.
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        if (error) *error = "is not a file";
        return nullptr;
    }
    std::FILE *file = std::fopen(path.c_str(), "rb");
    if (!file) {
        if (error)
            *error = errno == ENOENT ? std::string("no such file: check the name (a recording writes "
                                                   "PROGRAM.kalvoren in its working directory unless told "
                                                   "otherwise)")
                                     : std::string("cannot be opened (") + std::strerror(errno) + ")";
        return nullptr;
    }
    if (!platform::fileExists(path)) {
        std::fclose(file);
        if (error) *error = "is not a file";
        return nullptr;
    }
    int64_t size = -1;
    if (platform::fileSeek(file, 0, SEEK_END)) size = platform::fileTell(file);
    if (size < 0) {
        std::fclose(file);
        if (error) *error = "cannot be read";
        return nullptr;
    }
    return std::unique_ptr<Source>(new FileSource(file, static_cast<uint64_t>(size)));
}

std::unique_ptr<Source> memorySource(const void *data, size_t size) {
    return std::unique_ptr<Source>(new MemorySource(data, size));
}

bool Header::recordData() const {
    return (flags & format::kFlagRecordData) != 0;
}
bool Header::compression() const {
    return (flags & format::kFlagCompression) != 0;
}
bool Header::disableBinaries() const {
    return (flags & format::kFlagDisableBinaries) != 0;
}

const char *Entry::name() const {
    if (kind == Kind::End) return "end marker";
    if (id == format::kThreadMarkerId) return "thread marker";
    if (id == format::kSnapshotMarkerId) return "snapshot marker";
    if (desc && desc->name && desc->name[0]) return desc->name;
    // The OpenCL family's start row names no function: it is the platform description.
    if (id == 6000 && desc && desc->hasLayout) return "(OpenCL platform)";
    if (!calledName.empty()) return calledName.c_str();
    return "unknown function";
}

std::string describe(const Problem &problem) {
    return problem.text;
}

const char *endingText(Ending ending) {
    switch (ending) {
    case Ending::NotYet:
        return "not read to its end";
    case Ending::EndMarker:
        return "closed (end marker present)";
    case Ending::ZeroTail:
        return "not closed: the recording process ended before closing the trace";
    case Ending::EndOfFile:
        return "not closed: the file ends after its last record without an end marker";
    case Ending::Truncated:
        return "truncated: the last record is cut short";
    case Ending::Unfinished:
        return "not closed: the recording process died while it wrote the last record";
    case Ending::GaveUp:
        return "abandoned: too many unreadable records in a row";
    }
    return "";
}

// ---- The reader -------------------------------------------------------------------------------

struct Reader::Impl {
    std::unique_ptr<Source> src;
    Header header;
    uint64_t size = 0;
    uint64_t pos = 0;
    uint64_t nextIndex = 0;
    uint64_t thread = 0;
    bool inSnapshot = false;
    Ending ending = Ending::NotYet;
    uint64_t endOffset = 0;
    bool giveUp = false;
    uint64_t badInARow = 0;
    std::vector<Problem> problems;
    uint64_t problemCount = 0;
    std::vector<std::string> notes;
    bool keepBytes = false;
    const std::vector<bool> *decodeOnly = nullptr;

    // Whether a pixel pointer is an offset into a buffer decides a record's layout, so the reader
    // follows the pixel pack and unpack buffer bindings of each context (by handle) and each
    // thread's current context, as the recorder's shadow state did.
    struct PixelBuffers {
        uint64_t pack = 0;
        uint64_t unpack = 0;
    };
    std::map<uint64_t, PixelBuffers> pixelBuffers;
    std::map<uint64_t, uint64_t> currentContext;

    PixelBuffers *currentPixelBuffers(uint64_t thread) {
        auto current = currentContext.find(thread);
        if (current == currentContext.end() || current->second == 0) return nullptr;
        return &pixelBuffers[current->second];
    }
    bool pixelBufferBound(uint64_t thread, uint8_t flags) {
        const PixelBuffers *p = currentPixelBuffers(thread);
        if (!p) return false;
        return ((flags & api::kPackBuffer) && p->pack) || ((flags & api::kUnpackBuffer) && p->unpack);
    }

    z_stream zs{};
    bool zsReady = false;
    std::vector<uint8_t> in = std::vector<uint8_t>(kChunk);
    std::vector<uint8_t> out = std::vector<uint8_t>(kChunk);

    ~Impl() {
        if (zsReady) inflateEnd(&zs);
    }

    // `ending` problems (the walk stops on them) are kept even when the list is full.
    void problem(uint64_t record, uint64_t offset, std::string text, bool ending = false) {
        ++problemCount;
        if (problems.size() < kKeptProblems || ending)
            problems.push_back(Problem{record, offset, std::move(text)});
    }

    void finish(Ending how, uint64_t at) {
        ending = how;
        endOffset = at;
        if (inSnapshot) notes.push_back("a snapshot section was opened and not closed");
    }

    // Whether every byte in [from, to) is zero.
    bool allZero(uint64_t from, uint64_t to) {
        while (from < to) {
            size_t n = static_cast<size_t>(std::min<uint64_t>(kChunk, to - from));
            if (src->read(from, in.data(), n) != n) return false;
            for (size_t i = 0; i < n; ++i)
                if (in[i]) return false;
            from += n;
        }
        return true;
    }

    // Runs the zlib stream stored at [from, end). Keeps up to `keep` bytes of its output in `sink`
    // (when given) and stops once they are kept; otherwise runs to the stream's end, failing when
    // it would produce more than `limit` bytes. `consumed` receives the stored size.
    bool inflateRun(uint64_t from, uint64_t end, uint64_t limit, std::vector<uint8_t> *sink, size_t keep,
                    uint64_t &consumed, uint64_t &produced, std::string &why, bool toEnd = false) {
        if (!zsReady) {
            std::memset(&zs, 0, sizeof(zs));
            if (inflateInit(&zs) != Z_OK) {
                why = "zlib could not be started";
                return false;
            }
            zsReady = true;
        } else {
            inflateReset(&zs);
        }
        consumed = produced = 0;
        uint64_t at = from;
        zs.avail_in = 0;
        for (;;) {
            if (zs.avail_in == 0) {
                size_t n = static_cast<size_t>(std::min<uint64_t>(in.size(), end - at));
                if (n == 0) {
                    why = "its zlib stream runs past the end of the record";
                    return false;
                }
                if (src->read(at, in.data(), n) != n) {
                    why = "the file could not be read";
                    return false;
                }
                at += n;
                zs.next_in = in.data();
                zs.avail_in = static_cast<uInt>(n);
            }
            uInt inBefore = zs.avail_in;
            zs.next_out = out.data();
            zs.avail_out = static_cast<uInt>(out.size());
            int rc = inflate(&zs, Z_NO_FLUSH);
            size_t made = out.size() - zs.avail_out;
            consumed += inBefore - zs.avail_in;
            produced += made;
            if (sink) {
                size_t take = std::min(made, keep - sink->size());
                sink->insert(sink->end(), out.data(), out.data() + take);
                if (sink->size() >= keep && !toEnd) return true;
            }
            if (produced > limit) {
                why = textf("its zlib stream inflates to more than %llu bytes", ull(limit));
                return false;
            }
            if (rc == Z_STREAM_END) return true;
            if (rc == Z_BUF_ERROR && made == 0 && inBefore == zs.avail_in && zs.avail_in == 0) continue;
            if (rc != Z_OK || (made == 0 && inBefore == zs.avail_in)) {
                why = std::string("its zlib stream does not inflate (") + (zs.msg ? zs.msg : "corrupt data") +
                      ")";
                return false;
            }
        }
    }

    bool readHeader(std::string *error);
};

namespace {

// Reads fields from [pos, end) of the source.
class Cursor {
public:
    Cursor(Source &src, uint64_t pos, uint64_t end) : src_(src), pos_(pos), end_(end) {}
    uint64_t pos() const { return pos_; }
    uint64_t left() const { return end_ - pos_; }
    uint64_t end() const { return end_; }
    bool bytes(void *out, size_t n) {
        if (left() < n || src_.read(pos_, out, n) != n) return false;
        pos_ += n;
        return true;
    }
    bool skip(uint64_t n) {
        if (left() < n) return false;
        pos_ += n;
        return true;
    }
    bool value(uint32_t width, uint64_t &v) {
        uint8_t b[8];
        if (width > 8 || !bytes(b, width)) return false;
        v = leN(b, width);
        return true;
    }
    bool u8(uint8_t &v) { return bytes(&v, 1); }
    bool u32(uint32_t &v) {
        uint64_t w;
        if (!value(4, w)) return false;
        v = static_cast<uint32_t>(w);
        return true;
    }
    bool u64(uint64_t &v) { return value(8, v); }

private:
    Source &src_;
    uint64_t pos_, end_;
};

} // namespace

bool Reader::Impl::readHeader(std::string *error) {
    Cursor c(*src, 0, size);
    auto truncated = [&]() {
        if (error) *error = textf("truncated header: the file ends at offset %llu", ull(size));
        return false;
    };
    char magic[8];
    if (!c.bytes(magic, 8) || std::memcmp(magic, format::kMagic, 8) != 0) {
        if (error) *error = "not a Kalvoren trace";
        return false;
    }
    uint32_t mark;
    if (!c.u32(mark)) return truncated();
    if (mark != format::kByteOrderMark) {
        if (error)
            *error = mark == 0x0001FEFFu
                         ? "not a Kalvoren trace: it was written big-endian, which is not supported"
                         : "not a Kalvoren trace: unknown byte-order mark";
        return false;
    }
    if (!c.u32(header.version)) return truncated();
    if (header.version != format::kVersion) {
        if (error)
            *error = header.version > format::kVersion
                         ? textf("unsupported version %u: a newer Kalvoren wrote it (this one reads trace "
                                 "format %u); read it with that version, or install a newer one",
                                 header.version, format::kVersion)
                         : textf("unsupported version %u: an older Kalvoren wrote it (this one reads "
                                 "trace format %u); read it with the version that wrote it",
                                 header.version, format::kVersion);
        return false;
    }
    if (!c.u8(header.flags) || !c.u8(header.saveFrameBuffer)) return truncated();
    std::string *texts[3] = {&header.recorderVersion, &header.platform, &header.description};
    for (std::string *text : texts) {
        uint8_t n;
        if (!c.u8(n)) return truncated();
        char buffer[256];
        uint32_t stored = n ? n : 1;
        if (!c.bytes(buffer, stored)) return truncated();
        text->assign(buffer, n);
    }
    uint8_t tableLength;
    if (!c.u8(header.network) || !c.u32(header.startFrame) || !c.u32(header.endFrame) ||
        !c.u32(header.constant) || !c.u8(tableLength))
        return truncated();
    header.typeTable.resize(tableLength);
    if (!c.bytes(header.typeTable.data(), tableLength)) return truncated();
    uint8_t reserved[format::kReservedBytes];
    if (!c.u8(header.reservedLength) || !c.bytes(reserved, sizeof(reserved)) || !c.u32(header.reserved[0]) ||
        !c.u32(header.reserved[1]))
        return truncated();
    header.size = c.pos();

    if (header.flags & ~(format::kFlagRecordData | format::kFlagCompression | format::kFlagDisableBinaries))
        notes.push_back(textf("the header sets unknown flag bits (0x%02x)", header.flags));
    if (header.constant != format::kHeaderConstant)
        notes.push_back(
            textf("the header's constant is %u, not %u", header.constant, format::kHeaderConstant));
    if (header.typeTable.size() != sizeof(format::kTypeWidthTable) ||
        std::memcmp(header.typeTable.data(), format::kTypeWidthTable, sizeof(format::kTypeWidthTable)) != 0)
        notes.push_back("the header's type width table differs from the recorder's");
    bool reservedZero = header.reserved[0] == 0 && header.reserved[1] == 0;
    for (uint8_t b : reserved)
        reservedZero = reservedZero && b == 0;
    if (header.reservedLength != format::kReservedLengthByte || !reservedZero)
        notes.push_back("the header's reserved bytes are not the recorder's");
    return true;
}

namespace {

// Decodes one call record's payload by its function's layout.
class Decoder {
public:
    Decoder(Reader::Impl &m, Entry &e, uint64_t payload)
        : m_(m), e_(e), c_(*m.src, payload, payload + e.length) {}

    void run() {
        const api::FuncDesc &d = *e_.desc;
        where_ = "the error code";
        if (d.error != api::ErrorKind::None && !c_.u32(e_.error)) {
            shortRecord();
            return;
        }
        where_ = "the result";
        if (d.result != api::Type::None && !c_.value(api::typeWidth(d.result), e_.result)) {
            shortRecord();
            return;
        }
        e_.args.reserve(d.fieldCount);
        for (uint16_t i = 0; i < d.fieldCount; ++i) {
            const api::FieldDesc &f = d.fields[i];
            where_ = f.name;
            e_.args.push_back(Arg{});
            e_.args.back().field = &f;
            if (f.kind == api::Field::Repeat) {
                if (!repeat(d, i)) return;
                break;
            }
            if (!field(static_cast<int32_t>(i))) return;
        }
        if (c_.left() > 0)
            fail(textf("%llu bytes follow the last field (the layout ends at payload byte %llu of %u)",
                       ull(c_.left()), ull(c_.pos() - (c_.end() - e_.length)), e_.length));
    }

private:
    Arg &arg(int32_t i) { return e_.args[static_cast<size_t>(i)]; }

    bool fail(std::string text) {
        if (e_.problem.empty()) e_.problem = std::move(text);
        return false;
    }

    bool shortRecord() { return fail(textf("the record (length %u) ends inside %s", e_.length, where_)); }

    bool field(int32_t i) {
        const api::FieldDesc &f = *arg(i).field;
        const bool data = m_.header.recordData();
        switch (f.kind) {
        case api::Field::Value:
            if (!c_.value(api::typeWidth(f.type), arg(i).value)) return shortRecord();
            return true;
        case api::Field::Blob:
        case api::Field::Attribs:
        case api::Field::Attribs64: {
            if (!c_.u64(arg(i).value)) return shortRecord();
            if ((f.flags & (api::kPackBuffer | api::kUnpackBuffer)) &&
                m_.pixelBufferBound(e_.thread, f.flags))
                return true; // an offset into the bound buffer: the value alone
            if (!data && !(f.flags & api::kAlways)) return true;
            if (!c_.u32(arg(i).count)) return shortRecord();
            arg(i).hasCount = true;
            uint32_t expected = arg(i).value ? arg(i).count : 0;
            return block((f.flags & api::kCompressible) != 0, arg(i).count, expected, f.type, i, -1, true,
                         arg(i).block);
        }
        case api::Field::String:
            if (!c_.u64(arg(i).value)) return shortRecord();
            if (!data) return true;
            if (!c_.u32(arg(i).count)) return shortRecord();
            arg(i).hasCount = true;
            return block(false, arg(i).count, arg(i).value ? arg(i).count : 0, api::Type::Char, i, -1, true,
                         arg(i).block);
        case api::Field::StringArray:
            return strings(i);
        case api::Field::ArraysTail:
            if (!data) return true;
            arg(i).firstPart = static_cast<uint32_t>(e_.parts.size());
            return arrays(i);
        case api::Field::ElementsTail:
            if (!data) return true;
            arg(i).firstPart = static_cast<uint32_t>(e_.parts.size());
            return elements(i);
        case api::Field::Repeat:
            return true;
        }
        return fail("the layout names an unknown field kind");
    }

    // The fields after a Repeat field, as often as the field it names says. Every repetition takes
    // at least one byte, so the payload bounds the count.
    bool repeat(const api::FuncDesc &d, uint16_t at) {
        const api::FieldDesc &f = d.fields[at];
        if (f.ref < 0 || f.ref >= at) return fail("the layout's repeated group names no count");
        const uint64_t times = arg(f.ref).value;
        arg(static_cast<int32_t>(at)).value = times;
        if (at + 1 < d.fieldCount && times > c_.left())
            return fail(textf("%llu repetitions of %s cannot fit in the record", ull(times), f.name));
        for (uint64_t k = 0; k < times; ++k) {
            for (uint16_t j = at + 1; j < d.fieldCount; ++j) {
                where_ = d.fields[j].name;
                e_.args.push_back(Arg{});
                e_.args.back().field = &d.fields[j];
                if (!field(static_cast<int32_t>(e_.args.size() - 1))) return false;
            }
        }
        return true;
    }

    // Keeps a part when there is room; returns its index or -1.
    int32_t keepPart(int32_t i, const Part &p) {
        if (e_.parts.size() >= Reader::kKeptParts) {
            ++e_.droppedParts;
            return -1;
        }
        e_.parts.push_back(p);
        ++arg(i).partCount;
        return static_cast<int32_t>(e_.parts.size() - 1);
    }

    bool strings(int32_t i) {
        if (!c_.u64(arg(i).value)) return shortRecord();
        if (!m_.header.recordData()) return true;
        if (!c_.u32(arg(i).count)) return shortRecord();
        arg(i).hasCount = true;
        arg(i).firstPart = static_cast<uint32_t>(e_.parts.size());
        // Each string takes at least 12 bytes, so the payload bounds the walk.
        for (uint32_t k = 0; k < arg(i).count; ++k) {
            Part p;
            p.kind = Part::Kind::String;
            p.index = k;
            if (!c_.u64(p.pointer) || !c_.u32(p.count)) return shortRecord();
            int32_t at = keepPart(i, p);
            int32_t blockIndex = -1;
            if (!block(false, p.count, p.pointer ? p.count : 0, api::Type::Char, i, at, at >= 0, blockIndex))
                return false;
            if (at >= 0) e_.parts[static_cast<size_t>(at)].block = blockIndex;
        }
        return true;
    }

    bool arrays(int32_t i) {
        while (c_.left() > 0) {
            Part p;
            p.kind = Part::Kind::Attribute;
            uint64_t index;
            where_ = "a client array";
            if (!c_.value(4, index) || !c_.u64(p.pointer) || !c_.u32(p.count)) return shortRecord();
            p.index = static_cast<uint32_t>(index);
            int32_t at = keepPart(i, p);
            int32_t blockIndex = -1;
            if (!block(true, p.count, p.count, arg(i).field->type, i, at, at >= 0, blockIndex)) return false;
            if (at >= 0) e_.parts[static_cast<size_t>(at)].block = blockIndex;
        }
        return true;
    }

    bool elements(int32_t i) {
        const api::FieldDesc &f = *arg(i).field;
        uint64_t draws = 1;
        if (f.ref >= 0 && f.ref < i) {
            const Arg &counted = arg(f.ref);
            uint32_t width = api::typeWidth(counted.field->type);
            int64_t v = static_cast<int64_t>(counted.value);
            if (width == 4) v = static_cast<int32_t>(counted.value);
            draws = v > 0 ? static_cast<uint64_t>(v) : 0;
        }
        for (uint64_t d = 0; d < draws; ++d) {
            if (c_.left() == 0) {
                arg(i).partial = true;
                return true;
            }
            Part p;
            p.kind = Part::Kind::Indices;
            p.index = static_cast<uint32_t>(d);
            where_ = "the indices of a draw";
            if (!c_.u64(p.pointer) || !c_.u32(p.count)) return shortRecord();
            int32_t at = keepPart(i, p);
            int32_t blockIndex = -1;
            if (p.count > 0 && c_.left() == 8) {
                // The indices could not be read when the call was recorded: the count was written,
                // the bytes were not, and the capture stopped after the pointer.
                if (at >= 0) e_.parts[static_cast<size_t>(at)].missing = true;
            } else if (!block(true, p.count, p.count, api::Type::U8, i, at, at >= 0, blockIndex)) {
                return false;
            }
            uint64_t after;
            if (!c_.u64(after)) return shortRecord();
            if (at >= 0) {
                e_.parts[static_cast<size_t>(at)].block = blockIndex;
                e_.parts[static_cast<size_t>(at)].pointerAfter = after;
            }
        }
        if (draws > 1) {
            if (c_.left() == 0) {
                arg(i).partial = true;
                return true;
            }
            where_ = "the draw count";
            if (!c_.u64(arg(i).draws)) return shortRecord();
            if (arg(i).draws != draws)
                fail(textf("the record stores %llu draws where its count says %llu", ull(arg(i).draws),
                           ull(draws)));
        }
        return arrays(i);
    }

    // A data block of `count` bytes at the cursor: stored raw (`expected` bytes; 0 for a null
    // pointer) or, for a compressible block of a compressed trace, as a zlib stream.
    bool block(bool compressible, uint32_t count, uint32_t expected, api::Type element, int32_t argIndex,
               int32_t part, bool keep, int32_t &index) {
        index = -1;
        if (count == 0) return true; // nothing was registered
        if (expected == 0) {
            // A null pointer's block holds nothing. Earlier recorders stored an empty zlib stream
            // for it in compressed traces; such a stream is passed over.
            if (compressible && m_.header.compression()) {
                uint64_t stored = 0, produced = 0;
                std::string why;
                if (m_.inflateRun(c_.pos(), c_.end(), 0, nullptr, 0, stored, produced, why) && produced == 0)
                    c_.skip(stored);
            }
            return true;
        }
        Block b;
        b.offset = c_.pos();
        b.element = element;
        b.arg = argIndex;
        b.part = part;
        const bool bytes = keep && m_.keepBytes;
        if (bytes) b.at = static_cast<uint32_t>(e_.data.size());
        if (compressible && m_.header.compression()) {
            uint64_t stored = 0, produced = 0;
            std::string why;
            // Kept bytes are appended to the entry's data as they inflate: one pass for both.
            size_t before = e_.data.size();
            bool ran = bytes ? m_.inflateRun(c_.pos(), c_.end(), expected, &e_.data, before + expected,
                                             stored, produced, why, true)
                             : m_.inflateRun(c_.pos(), c_.end(), expected, nullptr, 0, stored, produced, why);
            if (!ran) {
                if (bytes) e_.data.resize(before);
                return fail(textf("the block of %s: ", where_) + why);
            }
            if (produced != expected) {
                if (bytes) e_.data.resize(before);
                return fail(
                    textf("the block of %s inflates to %llu bytes, not %u", where_, ull(produced), expected));
            }
            b.compressed = true;
            b.stored = static_cast<uint32_t>(stored);
            b.size = static_cast<uint32_t>(produced);
            c_.skip(stored);
        } else {
            if (c_.left() < expected)
                return fail(textf("the record (length %u) ends inside the %u data bytes of %s", e_.length,
                                  expected, where_));
            if (bytes) {
                size_t before = e_.data.size();
                e_.data.resize(before + expected);
                if (!c_.bytes(e_.data.data() + before, expected)) {
                    e_.data.resize(before);
                    return fail(textf("the %u data bytes of %s could not be read", expected, where_));
                }
            } else {
                c_.skip(expected);
            }
            b.stored = b.size = expected;
        }
        if (!keep) return true;
        index = static_cast<int32_t>(e_.blocks.size());
        e_.blocks.push_back(b);
        return true;
    }

    Reader::Impl &m_;
    Entry &e_;
    Cursor c_;
    const char *where_ = "";
};

} // namespace

namespace {

constexpr uint16_t kCreateContext = 1003, kMakeCurrent = 1018, kReleaseThread = 1033;
constexpr uint16_t kBindBuffer = 2004, kDeleteBuffers = 2029;
constexpr uint32_t kEglSuccess = 0x3000, kPixelPackBuffer = 0x88EB, kPixelUnpackBuffer = 0x88EC;

uint64_t argValue(const Entry &e, size_t index) {
    return index < e.args.size() ? e.args[index].value : 0;
}

// The calls that change which pixel buffers are bound where: successful ones only, as the
// recorder's shadow state takes them.
void followPixelBuffers(Reader &r, Reader::Impl &m, const Entry &e) {
    switch (e.id) {
    case kCreateContext:
        if (e.error == kEglSuccess && e.result) m.pixelBuffers[e.result] = Reader::Impl::PixelBuffers();
        return;
    case kMakeCurrent:
        if (e.error == kEglSuccess && e.result) m.currentContext[e.thread] = argValue(e, 3);
        return;
    case kReleaseThread:
        if (e.error == kEglSuccess && e.result) m.currentContext[e.thread] = 0;
        return;
    case kBindBuffer:
        if (e.error == 0)
            if (Reader::Impl::PixelBuffers *p = m.currentPixelBuffers(e.thread)) {
                const uint64_t target = argValue(e, 0), buffer = static_cast<uint32_t>(argValue(e, 1));
                if (target == kPixelPackBuffer) p->pack = buffer;
                if (target == kPixelUnpackBuffer) p->unpack = buffer;
            }
        return;
    case kDeleteBuffers: {
        Reader::Impl::PixelBuffers *p = m.currentPixelBuffers(e.thread);
        if (e.error != 0 || !p || (!p->pack && !p->unpack) || e.args.size() < 2 || e.args[1].block < 0)
            return;
        std::vector<uint8_t> names;
        if (!r.blockBytes(e.blocks[static_cast<size_t>(e.args[1].block)], names, 1u << 20)) return;
        for (size_t k = 0; k + 4 <= names.size(); k += 4) {
            const uint32_t name = le32(names.data() + k);
            if (name == p->pack) p->pack = 0;
            if (name == p->unpack) p->unpack = 0;
        }
        return;
    }
    default:
        return;
    }
}

} // namespace

Reader::Reader(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Reader::~Reader() = default;

std::unique_ptr<Reader> Reader::open(std::unique_ptr<Source> source, std::string *error) {
    if (!source) {
        if (error && error->empty()) *error = "no input";
        return nullptr;
    }
    std::unique_ptr<Impl> impl(new Impl());
    impl->size = source->size();
    impl->src = std::move(source);
    if (!impl->readHeader(error)) return nullptr;
    impl->pos = impl->header.size;
    return std::unique_ptr<Reader>(new Reader(std::move(impl)));
}

std::unique_ptr<Reader> Reader::openFile(const std::string &path, std::string *error) {
    std::unique_ptr<Source> source = openFileSource(path, error);
    if (!source) return nullptr;
    return open(std::move(source), error);
}

const Header &Reader::header() const {
    return impl_->header;
}
uint64_t Reader::fileSize() const {
    return impl_->size;
}
uint64_t Reader::position() const {
    return impl_->pos;
}
Ending Reader::ending() const {
    return impl_->ending;
}
uint64_t Reader::tailBytes() const {
    const Impl &m = *impl_;
    uint64_t keep = m.endOffset;
    if (m.ending == Ending::EndMarker) keep += sizeof(format::kEndMarker);
    if (m.ending == Ending::NotYet || m.ending == Ending::GaveUp || keep > m.size) return 0;
    return m.size - keep;
}

uint64_t Reader::endOffset() const {
    return impl_->endOffset;
}
const std::vector<Problem> &Reader::problems() const {
    return impl_->problems;
}
uint64_t Reader::problemCount() const {
    return impl_->problemCount;
}
const std::vector<std::string> &Reader::notes() const {
    return impl_->notes;
}

bool Reader::next(Entry &e) {
    Impl &m = *impl_;
    if (m.ending != Ending::NotYet) return false;
    if (m.giveUp) {
        m.problem(m.nextIndex, m.pos,
                  textf("gave up at offset %llu after %llu unreadable records in a row", ull(m.pos),
                        ull(m.badInARow)),
                  true);
        m.finish(Ending::GaveUp, m.pos);
        return false;
    }

    e.kind = Entry::Kind::Call;
    e.length = 0;
    e.id = 0;
    e.inSnapshot = false;
    e.desc = nullptr;
    e.error = 0;
    e.result = 0;
    e.args.clear();
    e.parts.clear();
    e.blocks.clear();
    e.droppedParts = 0;
    e.problem.clear();
    e.data.clear();
    e.calledName.clear();
    e.offset = m.pos;
    e.thread = m.thread;
    e.index = m.nextIndex;

    const uint64_t left = m.size - m.pos;
    if (left == 0) {
        if (m.nextIndex > 0 || m.pos > m.header.size)
            m.notes.push_back(endingText(Ending::EndOfFile));
        else
            m.notes.push_back("the trace holds no records and no end marker");
        m.finish(Ending::EndOfFile, m.pos);
        return false;
    }
    auto after = [&m]() {
        return m.nextIndex == 0 ? std::string("the header") : textf("record %llu", ull(m.nextIndex - 1));
    };

    uint8_t head[10];
    size_t want = static_cast<size_t>(std::min<uint64_t>(left, sizeof(head)));
    if (m.src->read(m.pos, head, want) != want) {
        m.problem(m.nextIndex, m.pos, textf("the file could not be read at offset %llu", ull(m.pos)), true);
        m.finish(Ending::Truncated, m.pos);
        return false;
    }
    if (want == sizeof(head) && std::memcmp(head, format::kEndMarker, sizeof(head)) == 0) {
        e.kind = Entry::Kind::End;
        uint64_t rest = m.pos + sizeof(head);
        if (rest < m.size) {
            if (m.allZero(rest, m.size))
                m.notes.push_back(textf("%llu zero bytes follow the end marker", ull(m.size - rest)));
            else
                m.problem(
                    m.nextIndex, rest,
                    textf("%llu bytes follow the end marker at offset %llu", ull(m.size - rest), ull(m.pos)),
                    true);
        }
        m.finish(Ending::EndMarker, m.pos);
        return true;
    }
    if (left < format::kFrameHeaderSize) {
        if (m.allZero(m.pos, m.size)) {
            m.notes.push_back(endingText(Ending::ZeroTail));
            m.finish(Ending::ZeroTail, m.pos);
        } else {
            m.problem(m.nextIndex, m.pos,
                      textf("truncated after %s at offset %llu: %llu bytes are too few for a record",
                            after().c_str(), ull(m.pos), ull(left)),
                      true);
            m.finish(Ending::Truncated, m.pos);
        }
        return false;
    }
    const uint32_t length = le32(head);
    const uint16_t id = static_cast<uint16_t>(head[4] | head[5] << 8);
    if (length == 0 && id == 0) {
        if (m.allZero(m.pos, m.size)) {
            m.notes.push_back(endingText(Ending::ZeroTail) +
                              textf(" (%llu zero bytes follow the last record)", ull(left)));
            m.finish(Ending::ZeroTail, m.pos);
            return false;
        }
        // Zeros where records should be, and more records (or bytes) after them: one problem for
        // the whole run, walked as empty frames so that the framing stays where it was.
        uint64_t run = 0;
        uint8_t frame[format::kFrameHeaderSize];
        while (m.size - (m.pos + run) >= sizeof(frame) &&
               m.src->read(m.pos + run, frame, sizeof(frame)) == sizeof(frame) &&
               std::all_of(frame, frame + sizeof(frame), [](uint8_t b) { return b == 0; }))
            run += sizeof(frame);
        ++m.nextIndex;
        e.kind = Entry::Kind::Unreadable;
        e.length = static_cast<uint32_t>(std::min<uint64_t>(run - format::kFrameHeaderSize, UINT32_MAX));
        e.problem = textf("%llu zero bytes where records should be", ull(run));
        m.pos += run;
        m.problem(e.index, e.offset,
                  textf("record %llu at offset %llu: ", ull(e.index), ull(e.offset)) + e.problem);
        if (++m.badInARow >= kGiveUpAfter) m.giveUp = true;
        return true;
    }
    if (length == format::kUnfinishedLength) {
        m.notes.push_back(endingText(Ending::Unfinished));
        m.finish(Ending::Unfinished, m.pos);
        return false;
    }
    if (length > left - format::kFrameHeaderSize) {
        const api::FuncDesc *d = api::describe(id);
        m.problem(
            m.nextIndex, m.pos,
            textf(
                "truncated after %s at offset %llu: the next record (id %u%s%s) needs %u bytes, %llu remain",
                after().c_str(), ull(m.pos), id, d && d->name && d->name[0] ? ", " : "",
                d && d->name ? d->name : "", length, ull(left - format::kFrameHeaderSize)),
            true);
        m.finish(Ending::Truncated, m.pos);
        return false;
    }

    ++m.nextIndex;
    e.length = length;
    e.id = id;
    const uint64_t payload = m.pos + format::kFrameHeaderSize;
    m.pos = payload + length;

    if (id == format::kThreadMarkerId) {
        e.kind = Entry::Kind::Thread;
        uint8_t v[8];
        if (length != 8 || m.src->read(payload, v, 8) != 8) {
            e.kind = Entry::Kind::Unreadable;
            e.problem = textf("a thread marker with %u payload bytes (8 expected)", length);
        } else {
            m.thread = e.thread = le64(v);
        }
    } else if (id == format::kSnapshotMarkerId) {
        e.kind = Entry::Kind::Snapshot;
        if (length != 0) {
            e.kind = Entry::Kind::Unreadable;
            e.problem = textf("a snapshot marker with %u payload bytes (none expected)", length);
        } else {
            m.inSnapshot = !m.inSnapshot;
            e.inSnapshot = m.inSnapshot;
        }
    } else {
        e.desc = api::describe(id);
        e.inSnapshot = m.inSnapshot;
        const bool named = e.desc && e.desc->name && e.desc->name[0];
        if (!e.desc || (!named && !e.desc->hasLayout)) {
            e.desc = nullptr;
            e.kind = Entry::Kind::Unreadable;
            e.problem = textf("unknown function id %u", id);
        } else if (!e.desc->hasLayout) {
            e.kind = Entry::Kind::Unreadable;
            e.problem = std::string("no record layout is known for ") + e.desc->name;
        } else if (!m.decodeOnly || (id < m.decodeOnly->size() && (*m.decodeOnly)[id])) {
            Decoder(m, e, payload).run();
            if (e.problem.empty()) followPixelBuffers(*this, m, e);
            // A family's own row records calls of functions the recorder had no wrapper for; the
            // record's first block names the function.
            if (!named && !e.args.empty() && e.args[0].block >= 0) {
                const Block &b = e.blocks[static_cast<size_t>(e.args[0].block)];
                std::vector<uint8_t> text;
                if (b.element == api::Type::Char && blockBytes(b, text, 256))
                    e.calledName.assign(text.begin(), text.end());
            }
        }
    }

    if (e.problem.empty()) {
        m.badInARow = 0;
    } else {
        m.problem(e.index, e.offset,
                  textf("record %llu (%s) at offset %llu: ", ull(e.index), e.name(), ull(e.offset)) +
                      e.problem);
        if (++m.badInARow >= kGiveUpAfter) m.giveUp = true;
    }
    return true;
}

void Reader::keepBlockBytes(bool keep) {
    impl_->keepBytes = keep;
}

void Reader::decodeOnly(const std::vector<bool> *ids) {
    impl_->decodeOnly = ids;
}

Reader::Mark Reader::mark() const {
    return Mark{impl_->pos, impl_->nextIndex, impl_->thread, impl_->inSnapshot};
}

void Reader::rewind(const Mark &mark) {
    Impl &m = *impl_;
    m.pos = mark.pos;
    m.nextIndex = mark.nextIndex;
    m.thread = mark.thread;
    m.inSnapshot = mark.inSnapshot;
    m.ending = Ending::NotYet;
    m.endOffset = 0;
    m.giveUp = false;
    m.badInARow = 0;
}

bool Reader::blockBytes(const Block &block, std::vector<uint8_t> &out, size_t limit, std::string *error) {
    Impl &m = *impl_;
    out.clear();
    size_t keep = static_cast<size_t>(std::min<uint64_t>(limit, block.size));
    if (block.offset > m.size || block.stored > m.size - block.offset) {
        if (error) *error = "the block lies outside the file";
        return false;
    }
    if (!block.compressed) {
        out.resize(keep);
        if (m.src->read(block.offset, out.data(), keep) != keep) {
            out.clear();
            if (error) *error = "the file could not be read";
            return false;
        }
        return true;
    }
    if (keep == 0) return true;
    out.reserve(std::min<size_t>(keep, 1u << 20));
    uint64_t consumed = 0, produced = 0;
    std::string why;
    if (!m.inflateRun(block.offset, block.offset + block.stored, block.size, &out, keep, consumed, produced,
                      why)) {
        if (error) *error = why;
        return false;
    }
    if (out.size() < keep) {
        if (error) *error = "the block inflates to fewer bytes than it should";
        return false;
    }
    return true;
}

} // namespace kv::reader
