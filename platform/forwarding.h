// What the two calling conventions' forwarding stubs share: the handlers the library installs, and
// the stub table that each convention's assembly defines.
#pragma once

#include "platform/platform.h"

#include <atomic>

namespace kv::platform::forwarding {

extern std::atomic<void *(*)(uint32_t, const ForwardedCall &)> before;
extern std::atomic<void (*)(uint32_t, const ForwardedCall &)> after;

// The number of stubs each convention's assembly lays out, 16 bytes apart.
constexpr uint32_t kStubCount = 4096;

// The handlers' view of a convention's frame (the assembly's layout, with `Integers` argument
// registers and `Vectors` vector registers saved): what the caller passed, the results after the
// call and the handlers' scratch space.
template <int Integers, int Vectors, class Frame>
ForwardedCall view(Frame &f, uint64_t (&floats)[8]) {
    static_assert(Vectors <= 8, "the floats buffer holds eight vector registers");
    for (int i = 0; i < Vectors; ++i)
        floats[i] = f.vectors[i][0];
    ForwardedCall call{};
    call.integerArguments = f.integers;
    call.integerCount = Integers;
    call.floatArguments = floats;
    call.floatCount = Vectors;
    call.stackArguments = f.stackCopy;
    call.stackCount = kForwardedStackWords;
    call.integerResult = f.results[0];
    call.floatResult = f.vectorResults[0][0];
    call.scratch = f.scratch;
    return call;
}

// The common body's calls into C++: where to go (null: the stub has no target), and what to do
// once the call has returned.
template <int Integers, int Vectors, class Frame>
void *runBefore(uint64_t stub, Frame &frame) {
    auto handler = before.load(std::memory_order_acquire);
    if (!handler) return nullptr;
    uint64_t floats[8];
    return handler(static_cast<uint32_t>(stub), view<Integers, Vectors>(frame, floats));
}

template <int Integers, int Vectors, class Frame>
void runAfter(uint64_t stub, Frame &frame) {
    auto handler = after.load(std::memory_order_acquire);
    if (!handler) return;
    uint64_t floats[8];
    handler(static_cast<uint32_t>(stub), view<Integers, Vectors>(frame, floats));
}

} // namespace kv::platform::forwarding
