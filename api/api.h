// The description of every traced function: its id, name, group and the layout of its call
// record. One description drives the recorder, the host tables, the front libraries and the trace
// reader; the tables themselves are generated (see api/generate.py) into *_autogen files.
#pragma once

#include <cstdint>

namespace kv::api {

// The catalogue's families, in the order in which a name lookup tries them.
enum class Family : uint8_t {
    Gles1,
    Gles20,
    Gles30,
    Gles31,
    Gles32,
    GlesExt,
    Egl,
    EglExt,
    Pseudo,
    Cl,
    ClExt,
    Count
};

// Which API's error code opens a call record.
enum class ErrorKind : uint8_t { None, Gl, Egl, Cl };

// How one value is stored in a record (width on disk and how a reader shows it).
enum class Type : uint8_t {
    None,
    U8,
    GlBoolean, // 1 byte
    I16,
    U16,
    I32,
    U32,
    F32,
    Fixed, // 16.16 fixed point, 4 bytes
    GlEnum,
    GlBitfield,
    EglEnum,    // 4 bytes, shown with EGL names
    EglBoolean, // 4 bytes
    ClStatus,   // 4 bytes, signed
    I64,
    U64,
    Ptr,    // 8 bytes: a pointer value
    Handle, // 8 bytes: an opaque object handle
    Char,   // element type of text blocks
};

// What a field of the record is made of.
enum class Field : uint8_t {
    Value,        // one value of `type`
    Blob,         // pointer (8) [byte count (4), block]: the block holds elements of `type`
    String,       // pointer (8) [length (4), block of text]
    StringArray,  // pointer (8) [count (4), then per string: pointer (8), length (4), block]
    Attribs,      // a Blob of EGLint {name, value} pairs ending with EGL_NONE
    Attribs64,    // a Blob of EGLAttrib pairs ending with EGL_NONE
    ArraysTail,   // client arrays of an array draw: {index (4), pointer (8), count (4), block} to the end
    ElementsTail, // indices per draw, then the client arrays (see the client array capture)
    Repeat,       // no bytes: the fields after it come as many times as field `ref`'s value says
};

enum FieldFlag : uint8_t {
    kCompressible = 1, // the block may be stored deflated
    kAlways = 2,       // present even when the recording holds no client data
    kOutput = 4,       // the driver writes the data (read after the call)
    // While a buffer is bound to GL_PIXEL_UNPACK_BUFFER (GL_PIXEL_PACK_BUFFER) on the thread's
    // current context, the pointer is an offset into it: the field is the 8-byte value alone.
    kUnpackBuffer = 8,
    kPackBuffer = 16,
    // The driver has read the block when the call succeeded (values it validates as the call is
    // made): a small one is copied as it is, without the guarded read's cost.
    kHostRead = 32,
};

struct FieldDesc {
    const char *name;
    Field kind;
    Type type; // value type, or element type of a block
    uint8_t flags;
    int8_t ref;         // ElementsTail: index of the field holding the draw count, -1 for a single draw;
                        // Repeat: index of the field holding the repetitions
    uint16_t enumGroup; // the registry's enum group of the value (0: none), for showing names
};

struct FuncDesc {
    uint16_t id;
    uint8_t group;
    Family family;
    ErrorKind error;
    Type result; // None when the function returns nothing
    const char *name;
    const FieldDesc *fields;
    uint16_t fieldCount;
    bool hasLayout; // false for catalogue rows whose signature is not known to us
};

// The description of a function id; null for an id that no family holds.
const FuncDesc *describe(uint16_t id);

// Catalogue row (name, group, documentation) of every family.
struct CatalogueRow {
    const char *name;
    uint64_t group;
    const char *documentation;
};

struct FamilyRange {
    Family family;
    uint16_t first;
    uint16_t last;
    const CatalogueRow *rows;
};

// The families in lookup order.
extern const FamilyRange kFamilies[static_cast<int>(Family::Count)];

// The catalogue name of an id: ranges are tried in family order and a null name falls through to
// later ranges; null when no range names the id.
const char *functionName(uint32_t id);

// Width in bytes of a value type on disk.
constexpr uint32_t typeWidth(Type t) {
    switch (t) {
    case Type::U8:
    case Type::GlBoolean:
    case Type::Char:
        return 1;
    case Type::I16:
    case Type::U16:
        return 2;
    case Type::I64:
    case Type::U64:
    case Type::Ptr:
    case Type::Handle:
        return 8;
    case Type::None:
        return 0;
    default:
        return 4;
    }
}

} // namespace kv::api
