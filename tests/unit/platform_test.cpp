// The platform layer: guarded reads of application memory, thread-local slots with their clean-up,
// and the forwarding stubs. (The recursive record lock: its count and owner through a nested record
// in roundtrip_test.cpp, its exclusion by the two recording threads of threads_program.)
#include "platform/platform.h"
#include "tests/unit/test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace kv {
namespace {

using test::GuardedPages;

// A copy that runs into an unreadable page stops there and says how much it copied; the process
// goes on, on the main thread as on any other.
TEST(GuardedCopy, StopsAtAnUnreadablePageOnAnyThread) {
    GuardedPages pages;
    uint8_t *lastBytes = pages.unreadable() - 100;
    for (int i = 0; i < 100; ++i)
        lastBytes[i] = static_cast<uint8_t>(i + 1);

    auto copyAcross = [&](size_t *copied, std::vector<uint8_t> *dst) {
        dst->assign(300, 0xEE);
        *copied = platform::guardedCopy(dst->data(), lastBytes, dst->size());
    };
    size_t onMain = 0, onOther = 0;
    std::vector<uint8_t> mainDst, otherDst;
    copyAcross(&onMain, &mainDst);
    std::thread other([&] { copyAcross(&onOther, &otherDst); });
    other.join();

    for (auto [copied, dst] : {std::make_pair(onMain, &mainDst), std::make_pair(onOther, &otherDst)}) {
        EXPECT_EQ(copied, 100u);
        EXPECT_EQ(std::memcmp(dst->data(), lastBytes, 100), 0);
    }
    std::vector<uint8_t> dst(16);
    EXPECT_EQ(platform::guardedCopy(dst.data(), pages.unreadable(), dst.size()), 0u);
    // Nothing to copy, or nothing to copy from: nothing copied. (Readable memory is copied whole
    // in every trace of tests/integration, whose client arrays are checked byte for byte.)
    EXPECT_EQ(platform::guardedCopy(dst.data(), lastBytes, 0), 0u);
    EXPECT_EQ(platform::guardedCopy(dst.data(), nullptr, 4), 0u);
}

void applicationFaultHandler(int) {
    std::abort();
}

// The guard does not depend on the handlers the application installs afterwards: a fault of ours
// never reaches them, and a handler reset to the default action does not take the guard away.
TEST(GuardedCopy, KeepsWorkingWhateverTheApplicationDoesWithItsHandlers) {
    GuardedPages pages;
    std::vector<uint8_t> dst(64);
    for (auto handler : {&applicationFaultHandler, static_cast<void (*)(int)>(SIG_DFL)}) {
        auto previous = std::signal(SIGSEGV, handler);
        EXPECT_EQ(platform::guardedCopy(dst.data(), pages.unreadable(), dst.size()), 0u);
        EXPECT_FALSE(platform::guardedReadable(pages.unreadable() - 10, 20));
        std::signal(SIGSEGV, previous);
    }
}

// Memory read once is read again without a system call while the frame lasts; memory taken away
// since then is still noticed (a fault into the library's handler, then the kernel's word) by
// every guarded read, and after the frame ends nothing is assumed, whatever handler the
// application has installed by then.
TEST(GuardedCopy, NoticesMemoryTakenAwayAfterItWasRead) {
    platform::installEndingHandlers();
    for (bool frameEnded : {false, true}) {
        GuardedPages pages;
        uint8_t *page = pages.readable();
        for (size_t i = 0; i < pages.pageSize(); ++i)
            page[i] = static_cast<uint8_t>(i * 5);
        std::vector<uint8_t> dst(pages.pageSize(), 0xEE);
        ASSERT_EQ(platform::guardedCopy(dst.data(), page, dst.size()), dst.size());
        ASSERT_EQ(platform::guardedCopy(dst.data(), page + 64, 256), 256u);
        EXPECT_EQ(std::memcmp(dst.data(), page + 64, 256), 0);
        EXPECT_TRUE(platform::guardedReadable(page + 1, 100));
        EXPECT_EQ(platform::guardedGather(dst.data(), page, 64, 12, 32), 64u);
        EXPECT_EQ(std::memcmp(dst.data() + 12 * 63, page + 32 * 63, 12), 0);

        pages.revokeReadable();
        if (frameEnded) {
            platform::forgetReadable();
            std::signal(SIGSEGV, applicationFaultHandler);
        }
        EXPECT_EQ(platform::guardedCopy(dst.data(), page + 64, 256), 0u) << frameEnded;
        EXPECT_FALSE(platform::guardedReadable(page + 1, 100)) << frameEnded;
        EXPECT_EQ(platform::guardedGather(dst.data(), page, 64, 12, 32), 0u) << frameEnded;
        if (frameEnded) {
            // Back to the default action, with the library's handler in front of it.
            std::signal(SIGSEGV, SIG_DFL);
            platform::installEndingHandlers();
        }
    }
}

// Strided pieces are gathered whole up to the first that cannot be read; readability is told page
// by page.
TEST(GuardedCopy, GathersStridedPiecesAndTellsReadablePages) {
    GuardedPages pages;
    uint8_t *base = pages.unreadable() - 4096;
    for (int i = 0; i < 4096; ++i)
        base[i] = static_cast<uint8_t>(i);
    std::vector<uint8_t> dst(12 * 300, 0xEE);
    // 16 bytes apart, 12 each: piece 256 is the first that runs into the unreadable page.
    EXPECT_EQ(platform::guardedGather(dst.data(), base, 300, 12, 16), 256u);
    for (int piece : {0, 1, 255})
        EXPECT_EQ(std::memcmp(dst.data() + piece * 12, base + piece * 16, 12), 0) << piece;
    EXPECT_EQ(platform::guardedGather(dst.data(), base, 100, 12, 16), 100u);
    EXPECT_TRUE(platform::guardedReadable(base, 4096));
    EXPECT_FALSE(platform::guardedReadable(base, 4097));
    EXPECT_FALSE(platform::guardedReadable(base + 5000, 1));
    EXPECT_TRUE(platform::guardedReadable(nullptr, 0));
}

TEST(GuardedStrlen, MeasuresReadableTextAndStopsAtAnUnreadablePage) {
    GuardedPages pages;
    size_t length = 99;

    char *text = reinterpret_cast<char *>(pages.readable());
    std::strcpy(text, "kalvoren");
    EXPECT_TRUE(platform::guardedStrlen(text, 1000, &length));
    EXPECT_EQ(length, 8u);

    // At most `limit` bytes are read.
    EXPECT_TRUE(platform::guardedStrlen(text, 4, &length));
    EXPECT_EQ(length, 4u);

    // A terminator in the last readable byte is found; without one the read stops at the page.
    char *tail = reinterpret_cast<char *>(pages.unreadable()) - 40;
    std::memset(tail, 'x', 40);
    tail[39] = '\0';
    EXPECT_TRUE(platform::guardedStrlen(tail, 1u << 20, &length));
    EXPECT_EQ(length, 39u);
    tail[39] = 'x';
    EXPECT_FALSE(platform::guardedStrlen(tail, 1u << 20, &length));
    EXPECT_EQ(length, 40u);

    EXPECT_FALSE(platform::guardedStrlen(nullptr, 10, &length));
    EXPECT_EQ(length, 0u);
}

std::atomic<int> g_cleanups{0};
std::atomic<intptr_t> g_cleanedValue{0};

void countCleanup(void *value) {
    g_cleanups.fetch_add(1);
    g_cleanedValue = reinterpret_cast<intptr_t>(value);
}

// The slot's clean-up sees each ending thread's own value, once; a thread that left its slot empty
// causes no clean-up. (Windows has no destructor for slots: the library's entry routine runs the
// clean-ups at thread detach, which a thread of a test program does itself.)
TEST(TlsSlot, CleanupRunsWithTheValueOfTheEndingThread) {
    platform::TlsSlot slot(&countCleanup);
    ASSERT_TRUE(slot.valid());
    int mainValue = 0, threadValue = 0;
    slot.set(&mainValue);
    g_cleanups = 0;

    void *seenByThread = &mainValue;
    std::thread t([&] {
        seenByThread = slot.get();
        slot.set(&threadValue);
        platform::runThreadCleanups();
    });
    t.join();
    EXPECT_EQ(seenByThread, nullptr);
    EXPECT_EQ(g_cleanups.load(), 1);
    EXPECT_EQ(g_cleanedValue.load(), reinterpret_cast<intptr_t>(&threadValue));
    EXPECT_EQ(slot.get(), &mainValue);

    std::thread idle([] { platform::runThreadCleanups(); });
    idle.join();
    EXPECT_EQ(g_cleanups.load(), 1);
    slot.set(nullptr);
}

// ---- Forwarding stubs --------------------------------------------------------------------------

// Functions of signatures a stub knows nothing about: more integer and floating-point arguments
// than either calling convention has registers for, mixed, and results of several kinds.
double manyArguments(int64_t a, int64_t b, int64_t c, int64_t d, int64_t e, int64_t f, int64_t g, int64_t h,
                     double x0, double x1, double x2, double x3, double x4, double x5, double x6, double x7,
                     double x8, float y, int32_t i) {
    return double(a) + 2.0 * double(b) + 3.0 * double(c) + 4.0 * double(d) + 5.0 * double(e) +
           6.0 * double(f) + 7.0 * double(g) + 8.0 * double(h) + 0.5 * x0 + 0.25 * x1 + x2 + x3 * 10 +
           x4 * 100 + x5 * 1000 + x6 * 1e4 + x7 * 1e5 + x8 * 1e6 + double(y) * 1e7 + double(i) * 1e8;
}

struct Pair {
    int64_t first;
    int64_t second;
};
Pair pairOf(int64_t a, int64_t b) {
    return Pair{a * 3, b - 1};
}

float scaled(float value, int32_t times, double offset) {
    return value * static_cast<float>(times) + static_cast<float>(offset);
}

struct Forwarded {
    void *target = nullptr;
    std::vector<uint64_t> integers;
    std::vector<uint64_t> floats;
    std::vector<uint64_t> stack;
    uint64_t integerResult = 0;
    uint64_t floatResult = 0;
    uint32_t scratchMark = 0;
    bool scratchKept = false;
};
Forwarded g_forwarded[4];

void *beforeForward(uint32_t stub, const platform::ForwardedCall &call) {
    Forwarded &f = g_forwarded[stub];
    f.integers.assign(call.integerArguments, call.integerArguments + call.integerCount);
    f.floats.assign(call.floatArguments, call.floatArguments + call.floatCount);
    f.stack.assign(call.stackArguments, call.stackArguments + call.stackCount);
    std::memcpy(call.scratch, &stub, sizeof(stub));
    return f.target;
}

void afterForward(uint32_t stub, const platform::ForwardedCall &call) {
    Forwarded &f = g_forwarded[stub];
    f.integerResult = call.integerResult;
    f.floatResult = call.floatResult;
    uint32_t mark = 0;
    std::memcpy(&mark, call.scratch, sizeof(mark));
    f.scratchKept = mark == stub;
}

uint64_t bitsOf(double v) {
    uint64_t bits;
    std::memcpy(&bits, &v, 8);
    return bits;
}

TEST(ForwardingStubs, PassAnySignatureThroughUntouched) {
    if (platform::forwardingStubCount() == 0) GTEST_SKIP() << "no forwarding stubs on this processor";
    platform::setForwardingHandlers({&beforeForward, &afterForward});
    g_forwarded[0].target = reinterpret_cast<void *>(&manyArguments);
    g_forwarded[1].target = reinterpret_cast<void *>(&pairOf);
    g_forwarded[2].target = reinterpret_cast<void *>(&scaled);
    g_forwarded[3].target = nullptr; // skipped: answers 0

    auto many = reinterpret_cast<decltype(&manyArguments)>(platform::forwardingStub(0));
    const double direct =
        manyArguments(1, -2, 3, -4, 5, -6, 7, -8, 0.5, 1.5, 2.5, 3.5, 4.5, 5.5, 6.5, 7.5, 8.5, 9.25f, -11);
    EXPECT_EQ(many(1, -2, 3, -4, 5, -6, 7, -8, 0.5, 1.5, 2.5, 3.5, 4.5, 5.5, 6.5, 7.5, 8.5, 9.25f, -11),
              direct);
    const Forwarded &f = g_forwarded[0];
    ASSERT_GE(f.integers.size(), 4u);
    ASSERT_GE(f.floats.size(), 4u);
    // The first integer and floating-point arguments as the registers carried them (Windows x64
    // gives the first four arguments a register each, whatever their kind).
    EXPECT_EQ(f.integers[0], 1u);
    EXPECT_EQ(static_cast<int64_t>(f.integers[1]), -2);
    if (f.integers.size() == 6) {
        EXPECT_EQ(static_cast<int64_t>(f.integers[5]), -6);
        EXPECT_EQ(f.floats[0], bitsOf(0.5));
        EXPECT_EQ(f.floats[7], bitsOf(7.5));
        EXPECT_EQ(f.stack[0], 7u); // the first argument beyond the registers
    } else {
        EXPECT_EQ(f.stack[0], 5u); // the fifth argument, the first beyond the registers
    }
    EXPECT_EQ(f.floatResult, bitsOf(direct));
    EXPECT_TRUE(f.scratchKept);

    auto pair = reinterpret_cast<decltype(&pairOf)>(platform::forwardingStub(1));
    Pair p = pair(14, -7);
    EXPECT_EQ(p.first, 42);
    EXPECT_EQ(p.second, -8);

    auto scale = reinterpret_cast<decltype(&scaled)>(platform::forwardingStub(2));
    EXPECT_EQ(scale(1.5f, 4, 0.25), 6.25f);

    auto skipped = reinterpret_cast<int64_t (*)(int64_t)>(platform::forwardingStub(3));
    EXPECT_EQ(skipped(99), 0);
    EXPECT_EQ(g_forwarded[3].integers.at(0), 99u);
    platform::setForwardingHandlers({nullptr, nullptr});
}

} // namespace
} // namespace kv
