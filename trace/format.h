// The trace file format: constants shared by the writer and the reader. All integers are
// little-endian.
#pragma once

#include <cstdint>

namespace kv::format {

constexpr char kMagic[8] = {'K', 'a', 'l', 'v', 'o', 'r', 'e', 'n'};
constexpr uint32_t kByteOrderMark = 0xFFFE0100u; // on disk: 00 01 FE FF
constexpr uint32_t kVersion = 22;

enum HeaderFlag : uint8_t { kFlagRecordData = 1, kFlagCompression = 2, kFlagDisableBinaries = 4 };

constexpr uint32_t kMaxPlatformText = 80;
constexpr uint32_t kMaxDescriptionText = 50;
constexpr uint32_t kHeaderConstant = 2;

// Widths of the recorder's value types; read as signed bytes the magnitude is the width and a
// negative value marks a signed type.
constexpr uint8_t kTypeWidthTable[41] = {
    0x08, 0xFC, 0x04, 0x04, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x08, 0x04, 0x01,
    0x04, 0xFF, 0xFE, 0xFC, 0xFC, 0x01, 0x02, 0x04, 0x04, 0xFC, 0xF8, 0xF8, 0xFC, 0x08,
    0x08, 0xF8, 0x08, 0x08, 0x08, 0x08, 0xFC, 0x04, 0x08, 0x08, 0xF8, 0xF8, 0x08,
};
static_assert(sizeof(kTypeWidthTable) == 41, "type width table");

// The reserved block: its length byte says 4 but 32 zero bytes follow, then two u32 zeros.
constexpr uint8_t kReservedLengthByte = 4;
constexpr uint32_t kReservedBytes = 32;

// Record framing: u32 payload length, u16 identifier, payload.
constexpr uint32_t kFrameHeaderSize = 6;
constexpr uint16_t kThreadMarkerId = 1;
constexpr uint16_t kSnapshotMarkerId = 2;
// The length a record carries while it is being written, replaced by its real length once its
// last byte is in place: a record that still says this was never finished (its process died),
// and no finished record can say it (a record's length is at most 0xFFFFFFFD).
constexpr uint32_t kUnfinishedLength = 0xFFFFFFFFu;

// The end marker: 0x13 0x10 and a u64 zero; not framed like a record.
constexpr uint8_t kEndMarker[10] = {0x13, 0x10, 0, 0, 0, 0, 0, 0, 0, 0};

} // namespace kv::format
