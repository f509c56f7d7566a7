// Building traces byte by byte for the reader's tests, and reading them back.
#pragma once

#include "trace/format.h"
#include "trace/reader.h"

#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace kv::test {

// The payload of one record, little-endian.
class Payload {
public:
    Payload &u8(uint8_t v) { return put(&v, 1); }
    Payload &u16(uint16_t v) { return put(&v, 2); }
    Payload &u32(uint32_t v) { return put(&v, 4); }
    Payload &u64(uint64_t v) { return put(&v, 8); }
    Payload &f32(float v) { return put(&v, 4); }
    Payload &text(const char *t) { return put(t, std::strlen(t)); }
    Payload &bytes(const std::vector<uint8_t> &b) { return put(b.data(), b.size()); }
    const std::vector<uint8_t> &data() const { return data_; }

private:
    Payload &put(const void *p, size_t n) {
        // Not vector::insert: inlined at -O3, GCC 12 sees its memmove of an empty vector's null
        // storage (never reached) and warns that an argument is null (-Wnonnull).
        if (n == 0) return *this;
        const size_t at = data_.size();
        data_.resize(at + n);
        std::memcpy(&data_[at], p, n);
        return *this;
    }
    std::vector<uint8_t> data_;
};

// A trace: the recorder's header, then whatever framing the test asks for.
class TraceBuilder {
public:
    explicit TraceBuilder(uint8_t flags = format::kFlagRecordData, const std::string &description = "",
                          uint32_t startFrame = 0, uint32_t endFrame = 0) {
        Payload h;
        h.bytes(std::vector<uint8_t>(format::kMagic, format::kMagic + 8)).u32(format::kByteOrderMark);
        h.u32(format::kVersion).u8(flags).u8(0);
        for (const std::string &t :
             {std::string("19.2@5581729"), std::string("Test - Int. Ver 1.0 "), description}) {
            h.u8(static_cast<uint8_t>(t.size()));
            if (t.empty())
                h.u8(0);
            else
                h.text(t.c_str());
        }
        h.u8(0).u32(startFrame).u32(endFrame).u32(format::kHeaderConstant);
        h.u8(sizeof(format::kTypeWidthTable));
        h.bytes(std::vector<uint8_t>(format::kTypeWidthTable, format::kTypeWidthTable + 41));
        h.u8(format::kReservedLengthByte).bytes(std::vector<uint8_t>(format::kReservedBytes + 8));
        bytes = h.data();
    }
    // A record framed with the payload's own length.
    TraceBuilder &record(uint16_t id, const Payload &p) {
        Payload f;
        f.u32(static_cast<uint32_t>(p.data().size())).u16(id).bytes(p.data());
        return raw(f.data());
    }
    TraceBuilder &thread(uint64_t id) { return record(format::kThreadMarkerId, Payload().u64(id)); }
    TraceBuilder &end() { return raw(std::vector<uint8_t>(format::kEndMarker, format::kEndMarker + 10)); }
    TraceBuilder &raw(const std::vector<uint8_t> &b) {
        bytes.insert(bytes.end(), b.begin(), b.end());
        return *this;
    }

    std::vector<uint8_t> bytes;
};

// One complete zlib stream, as the recorder stores a compressed block.
inline std::vector<uint8_t> deflated(const std::vector<uint8_t> &data) {
    uLongf size = compressBound(static_cast<uLong>(data.size()));
    std::vector<uint8_t> out(size);
    if (compress2(out.data(), &size, data.data(), static_cast<uLong>(data.size()), 1) != Z_OK) return {};
    out.resize(size);
    return out;
}

// A reader over bytes that the caller keeps alive.
inline std::unique_ptr<reader::Reader> openBytes(const std::vector<uint8_t> &bytes,
                                                 std::string *error = nullptr) {
    std::string ignored;
    return reader::Reader::open(reader::memorySource(bytes.data(), bytes.size()), error ? error : &ignored);
}

inline std::vector<reader::Entry> readAll(reader::Reader &r) {
    std::vector<reader::Entry> entries;
    reader::Entry e;
    while (r.next(e))
        entries.push_back(e);
    return entries;
}

} // namespace kv::test
