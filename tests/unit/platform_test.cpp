// The platform layer: guarded reads of application memory, the recursive record lock and
// thread-local slots with their clean-up.
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

TEST(GuardedCopy, ReadableMemoryIsCopiedWhole) {
    std::vector<uint8_t> src(70000);
    for (size_t i = 0; i < src.size(); ++i)
        src[i] = static_cast<uint8_t>(i * 7 + 3);
    for (size_t n : {size_t(1), size_t(15), size_t(4096), src.size()}) {
        std::vector<uint8_t> dst(n, 0xEE);
        EXPECT_EQ(platform::guardedCopy(dst.data(), src.data(), n), n) << n << " bytes";
        EXPECT_EQ(std::memcmp(dst.data(), src.data(), n), 0) << n << " bytes";
    }
    uint8_t untouched = 0x5A;
    EXPECT_EQ(platform::guardedCopy(&untouched, src.data(), 0), 0u);
    EXPECT_EQ(platform::guardedCopy(&untouched, nullptr, 4), 0u);
    EXPECT_EQ(untouched, 0x5A);
}

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

TEST(RecursiveLock, KnowsItsOwnerAndCountAcrossThreads) {
    platform::RecursiveLock lock;
    EXPECT_EQ(lock.owner(), 0u);
    EXPECT_EQ(lock.count(), 0u);

    lock.lock();
    lock.lock();
    EXPECT_EQ(lock.owner(), platform::threadId());
    EXPECT_EQ(lock.count(), 2u);

    std::atomic<bool> asking{false}, acquired{false};
    uint64_t otherId = 0, ownerSeenByOther = 0;
    uint32_t countSeenByOther = 0;
    std::thread other([&] {
        otherId = platform::threadId();
        asking = true;
        lock.lock();
        acquired = true;
        ownerSeenByOther = lock.owner();
        countSeenByOther = lock.count();
        lock.unlock();
    });
    while (!asking)
        std::this_thread::yield();
    // Held twice here: one release is not enough to let the other thread in.
    lock.unlock();
    EXPECT_FALSE(acquired.load());
    EXPECT_EQ(lock.owner(), platform::threadId());
    EXPECT_EQ(lock.count(), 1u);
    lock.unlock();
    other.join();

    EXPECT_TRUE(acquired.load());
    EXPECT_NE(otherId, platform::threadId());
    EXPECT_EQ(ownerSeenByOther, otherId);
    EXPECT_EQ(countSeenByOther, 1u);
    EXPECT_EQ(lock.owner(), 0u);
    EXPECT_EQ(lock.count(), 0u);
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

} // namespace
} // namespace kv
