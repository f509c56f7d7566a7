// One record being played: its arguments decoded into what the local driver takes, and the maps
// from what the recorded driver named to what the local driver names. The generated player of
// each function (calls_autogen.cpp) is written against this class.
#pragma once

#include "api/khronos.h"
#include "host/hosts.h"
#include "replay/calls_autogen.h"
#include "replay/player.h"
#include "trace/reader.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <type_traits>
#include <unordered_map>
#include <vector>

namespace kv::replay {

// The GL object kinds, each a name space of its own; the first six are shared by the contexts of
// a share group, the others belong to one context.
enum class Obj : uint8_t {
    Buffer,
    Texture,
    Renderbuffer,
    Sampler,
    Program, // programs and shaders
    Sync,
    Framebuffer,
    VertexArray,
    TransformFeedback,
    Query,
    ProgramPipeline,
    Count
};
constexpr int kSharedKinds = 6;

// Values that belong to a program.
enum class ProgramValue : uint8_t { Location, Block, Count };

// Recorded name -> local name. Names are small numbers counted up by the driver: a vector serves
// them, a hash map the rest.
class NameMap {
public:
    bool find(uint64_t recorded, uint64_t &local) const {
        if (recorded < dense_.size()) {
            local = dense_[recorded];
            return local != kNone;
        }
        auto it = sparse_.find(recorded);
        if (it == sparse_.end()) return false;
        local = it->second;
        return true;
    }
    void erase(uint64_t recorded) {
        if (recorded < dense_.size())
            dense_[recorded] = kNone;
        else
            sparse_.erase(recorded);
    }
    void set(uint64_t recorded, uint64_t local) {
        if (recorded < kDenseLimit) {
            if (recorded >= dense_.size()) dense_.resize(static_cast<size_t>(recorded) * 2 + 16, kNone);
            dense_[recorded] = local;
        } else {
            sparse_[recorded] = local;
        }
    }

private:
    static constexpr uint64_t kNone = ~0ull;
    static constexpr uint64_t kDenseLimit = 1u << 16;
    std::vector<uint64_t> dense_;
    std::unordered_map<uint64_t, uint64_t> sparse_;
};

// What the contexts of one share group share.
struct ShareGroup {
    NameMap names[kSharedKinds];
    // Per local program: recorded value -> local value (uniform locations, block indices).
    std::unordered_map<uint32_t, std::map<int64_t, int64_t>>
        programValues[static_cast<int>(ProgramValue::Count)];
};

struct Mapping {
    uint8_t *pointer = nullptr;
    int64_t offset = 0, length = 0;
};

struct ContextState {
    uint64_t recorded = 0;
    EGLContext local = EGL_NO_CONTEXT;
    int apiVersion = 2; // major version the context was created for
    std::shared_ptr<ShareGroup> shared = std::make_shared<ShareGroup>();
    NameMap own[static_cast<int>(Obj::Count) - kSharedKinds];
    uint32_t currentProgram = 0;        // local name
    std::map<GLenum, Mapping> mappings; // buffer mappings by target
};

// Scratch memory for what the driver writes: one slab per output of a call, kept between calls.
class Slabs {
public:
    void *get(size_t index, size_t bytes) {
        if (index >= slabs_.size()) slabs_.resize(index + 1);
        auto &slab = slabs_[index];
        if (slab.size() < bytes) slab.assign(bytes, 0);
        return slab.data();
    }

private:
    std::vector<std::vector<uint8_t>> slabs_;
};

struct ThreadState {
    uint64_t recorded = 0; // the recorded thread it plays
    ContextState *context = nullptr;
    EGLSurface draw = EGL_NO_SURFACE;
    Slabs slabs;
    std::deque<std::string> strings; // cleared before each call
    std::vector<const char *> stringPointers;
    std::vector<GLint> stringLengths;
    std::vector<uint32_t> names;
    // OpenCL: handle arrays remapped for the call (cleared before each call), source lengths, and
    // the values a hook puts in place of recorded ones.
    std::deque<std::vector<void *>> handleLists;
    std::vector<size_t> sizeLengths;
    std::vector<intptr_t> properties;
    uint64_t argHandle = 0;
    std::vector<uint8_t> readBack;
};

class Player;

class Call {
public:
    Call(Player &player, ThreadState &thread, const reader::Entry &entry)
        : player(player), thread(thread), e(entry) {}

    Player &player;
    ThreadState &thread;
    const reader::Entry &e;

    // ---- The host tables
    const SEglHostFns &egl() const;
    const GLESPPHostFns &gles() const;
    const SEs1HostFns &es1() const;
    const SGlesExtHostFns &glext() const;
    const SClHostFns &cl() const;

    // ---- Arguments
    uint64_t value(int i) const { return e.args[static_cast<size_t>(i)].value; }
    float f32(int i) const {
        uint32_t bits = static_cast<uint32_t>(value(i));
        float f;
        std::memcpy(&f, &bits, sizeof(f));
        return f;
    }
    // A value passed as it was recorded (pointers that are offsets, native handles).
    template <class T>
    T raw(int i) const {
        return asNative<T>(value(i));
    }
    // A 64-bit value as the type of a native handle: a pointer on some systems, an integer on others.
    template <class T>
    static T asNative(uint64_t v) {
        if constexpr (std::is_pointer<T>::value)
            return reinterpret_cast<T>(static_cast<uintptr_t>(v));
        else
            return static_cast<T>(v);
    }
    // The bytes of a field's block, or what stands for them when the record holds none.
    const void *in(int i);
    // Memory the driver writes into: at least what the recording driver wrote, and `hint` elements.
    void *out(int i, uint64_t hint = 0);
    // Block bytes of an argument (null when the record holds none); `bytes` receives their count.
    const uint8_t *block(int i, uint32_t *bytes = nullptr) const;
    // A field of the record by name (the values a record carries after its parameters), -1 if none.
    int field(const char *name) const;
    const char *string(int i);
    const char *const *strings(int i);
    const GLint *stringLengths(int i);
    // The byte counts of a string array's recorded strings, as OpenCL takes them.
    const size_t *sizeLengths(int i);

    // ---- Names and handles
    uint32_t name(Obj kind, int i) { return mapName(kind, static_cast<uint32_t>(value(i))); }
    uint32_t mapName(Obj kind, uint32_t recorded);
    const uint32_t *names(Obj kind, int i);
    template <class T>
    T sync(int i) {
        return reinterpret_cast<T>(static_cast<uintptr_t>(mapSync(value(i))));
    }
    uint64_t mapSync(uint64_t recorded);
    template <class T>
    T handle(Handle kind, int i) {
        if constexpr (std::is_pointer<T>::value)
            return reinterpret_cast<T>(static_cast<uintptr_t>(mapHandle(kind, value(i))));
        else
            return static_cast<T>(mapHandle(kind, value(i)));
    }
    uint64_t mapHandle(Handle kind, uint64_t recorded);
    // An array of handles (device lists, wait lists, memory object lists) in local handles.
    void *const *handles(Handle kind, int i);
    // The local handle for a recorded one when the map holds it (no problem said otherwise).
    bool knownHandle(Handle kind, uint64_t recorded, uint64_t &local) const;
    int64_t programValue(ProgramValue kind, uint32_t program, int i);
    uint32_t currentProgram() const;

    void createdNames(Obj kind, int i, const GLuint *made);
    void createdName(Obj kind, uint32_t made);
    void createdSync(GLsync made);
    template <class T>
    void createdHandle(Handle kind, T made) {
        noteHandle(kind, e.result, toBits(made));
    }
    template <class T>
    void createdHandles(Handle kind, int i, const T *made) {
        uint32_t bytes = 0;
        const uint8_t *recorded = block(i, &bytes);
        if (!recorded || !made) return;
        for (uint32_t k = 0; k + 8 <= bytes; k += 8) {
            uint64_t r;
            std::memcpy(&r, recorded + k, 8);
            noteHandle(kind, r, toBits(made[k / 8]));
        }
    }
    void noteHandle(Handle kind, uint64_t recorded, uint64_t local);
    void createdProgramValue(ProgramValue kind, uint32_t program, int64_t made);

    // ---- Draws
    // Points the draw's client arrays at the data the record carries; false (and the draw is
    // skipped) when the record lacks some of it.
    bool clientArrays(int tail);
    // The indices of a draw: the record's bytes, or the offset into the element buffer.
    const void *indices(int tail, int param);

    // ---- Outcome
    bool ok() const { return ok_; }
    // The call cannot be made: says why (once per function and reason) and skips it.
    void fail(const char *why);
    void missing();
    // The status the local OpenCL driver gave to a call that succeeded when recorded.
    void localStatus(int32_t status);

    ContextState &context() const;

private:
    template <class T>
    static uint64_t toBits(T v) {
        if constexpr (std::is_pointer<T>::value)
            return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(v));
        else
            return static_cast<uint64_t>(v);
    }
    NameMap &map(Obj kind) const;
    bool bufferBound(GLenum binding) const;

    size_t outputs_ = 0;
    bool ok_ = true;
};

using PlayFn = void (*)(Call &);
struct PlayEntry {
    uint16_t id;
    PlayFn play;
};
extern const PlayEntry kPlayed[];

} // namespace kv::replay
