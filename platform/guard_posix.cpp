// POSIX (Linux) side of what keeps the recorder harmless when things go wrong: the guarded reads
// of application memory, the trace file's mapped window, and the signal handlers that leave the
// trace file exact when a signal ends the process.
#include "platform/platform.h"

#if !defined(_WIN32)

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

namespace kv::platform {

// ---- Guarded reads ---------------------------------------------------------------------------

// Two ways to read memory that may not be readable. The kernel's cross-process copy, pointed at
// this process, reports a bad address as an error: no signal is raised, so nothing the
// application does with its own handlers matters. Where it is refused (a sandbox that filters it),
// a leaf copy routine whose only instruction that touches application memory is `rep movsb`, and a
// fault handler that moves the instruction pointer to the routine's exit.
extern "C" size_t kv_guarded_copy_impl(void *dst, const void *src, size_t n);
extern "C" char kv_guarded_copy_fault_at[];
extern "C" char kv_guarded_copy_fault_exit[];

__asm__(".text\n"
        ".p2align 4\n"
        ".globl kv_guarded_copy_impl\n"
        ".hidden kv_guarded_copy_impl\n"
        ".type kv_guarded_copy_impl,@function\n"
        "kv_guarded_copy_impl:\n"
        "  mov %rdx, %rcx\n"
        "  mov %rdx, %rax\n"
        ".globl kv_guarded_copy_fault_at\n"
        ".hidden kv_guarded_copy_fault_at\n"
        "kv_guarded_copy_fault_at:\n"
        "  rep movsb\n"
        "  ret\n"
        ".globl kv_guarded_copy_fault_exit\n"
        ".hidden kv_guarded_copy_fault_exit\n"
        "kv_guarded_copy_fault_exit:\n"
        "  sub %rcx, %rax\n"
        "  ret\n"
        ".size kv_guarded_copy_impl, .-kv_guarded_copy_impl\n");

enum CopyMode { kUnknown, kKernelCopy, kFaultHandler };
static std::atomic<int> g_copyMode{kUnknown};

// pieces per system call (the kernel takes at most 1024 on each side)
constexpr size_t kBatch = 512;

static ssize_t kernelCopy(const iovec *local, size_t nLocal, const iovec *remote, size_t nRemote) {
    return process_vm_readv(static_cast<pid_t>(processId()), local, nLocal, remote, nRemote, 0);
}

void installFaultGuard() {
    if (g_copyMode.load(std::memory_order_acquire) != kUnknown) return;
    uint64_t probe = 0x6b76, copy = 0;
    iovec local{&copy, sizeof(copy)}, remote{&probe, sizeof(probe)};
    bool kernel = kernelCopy(&local, 1, &remote, 1) == static_cast<ssize_t>(sizeof(copy)) && copy == probe;
    // Without the kernel's copy the fault handler must be in place (the ending handlers carry it).
    if (!kernel) installEndingHandlers();
    g_copyMode.store(kernel ? kKernelCopy : kFaultHandler, std::memory_order_release);
}

static bool useKernel() {
    int mode = g_copyMode.load(std::memory_order_acquire);
    if (KV_UNLIKELY(mode == kUnknown)) {
        installFaultGuard();
        mode = g_copyMode.load(std::memory_order_acquire);
    }
    return mode == kKernelCopy;
}

// The kernel refused the call for a reason that will not go away: fall back for good.
static bool refused(int error) {
    if (error != EPERM && error != ENOSYS) return false;
    installEndingHandlers();
    g_copyMode.store(kFaultHandler, std::memory_order_release);
    return true;
}

// ---- Spans known readable --------------------------------------------------------------------

// A system call can cost microseconds (several on a virtual machine), far more than copying a
// draw's vertices. So a span the kernel has just read whole is remembered, per thread, as
// readable until the frame ends; reads inside it copy with the fault-guarded routine and no
// system call. That routine's fault handler is the ending handler for SIGSEGV and SIGBUS, so the
// shortcut is taken only while those are ours: memory unmapped since it was checked then faults
// into our handler and is read again through the kernel. The handlers are put back at most every
// 100 ms at a frame's end; an application that replaces ours and, before then, unmaps memory a
// draw still names is the one case left to its own handler.
constexpr unsigned kKnownSpans = 16;
static std::atomic<uint64_t> g_readableEpoch{1};
static std::atomic<bool> g_faultHandlerOurs{false};

namespace {
struct KnownSpans {
    uint64_t epoch;
    unsigned next;
    unsigned used;
    uintptr_t first[kKnownSpans];
    uintptr_t end[kKnownSpans];
};
thread_local KnownSpans t_known;
} // namespace

static bool knownReadable(const void *p, size_t n) {
    if (!g_faultHandlerOurs.load(std::memory_order_relaxed)) return false;
    KnownSpans &k = t_known;
    const uint64_t epoch = g_readableEpoch.load(std::memory_order_relaxed);
    if (KV_UNLIKELY(k.epoch != epoch)) {
        k.epoch = epoch;
        k.used = 0;
        return false;
    }
    const uintptr_t a = reinterpret_cast<uintptr_t>(p);
    for (unsigned i = 0; i < k.used; ++i)
        if (a >= k.first[i] && n <= k.end[i] - a && a < k.end[i]) return true;
    return false;
}

// Memory is protected page by page: the whole pages of a span read without fault are readable.
static void rememberReadable(const void *p, size_t n) {
    if (n == 0 || !g_faultHandlerOurs.load(std::memory_order_relaxed)) return;
    KnownSpans &k = t_known;
    const uint64_t epoch = g_readableEpoch.load(std::memory_order_relaxed);
    if (k.epoch != epoch) {
        k.epoch = epoch;
        k.used = 0;
    }
    const uintptr_t a = reinterpret_cast<uintptr_t>(p);
    if (a + n < a) return;
    const unsigned slot = k.used < kKnownSpans ? k.used++ : (k.next++ % kKnownSpans);
    k.first[slot] = a & ~uintptr_t(4095);
    k.end[slot] = (a + n + 4095) & ~uintptr_t(4095);
    if (k.end[slot] == 0) k.end[slot] = ~uintptr_t(4095);
}

void forgetReadable() {
    g_readableEpoch.fetch_add(1, std::memory_order_relaxed);
}

size_t guardedCopy(void *dst, const void *src, size_t n) {
    if (n == 0 || !src) return 0;
    if (knownReadable(src, n)) {
        const size_t got = kv_guarded_copy_impl(dst, src, n);
        if (KV_LIKELY(got == n)) return n;
        // The memory changed since it was checked: ask the kernel, and forget what we knew.
        forgetReadable();
    }
    if (KV_LIKELY(useKernel())) {
        iovec local{dst, n}, remote{const_cast<void *>(src), n};
        ssize_t got = kernelCopy(&local, 1, &remote, 1);
        if (got >= 0) {
            if (static_cast<size_t>(got) == n) rememberReadable(src, n);
            return static_cast<size_t>(got);
        }
        if (!refused(errno)) return 0;
    }
    return kv_guarded_copy_impl(dst, src, n);
}

namespace {

// Pieces of a fixed size gathered from a span already copied: a loop the compiler unrolls, with
// no call per piece.
template <size_t Size>
void gatherFixed(uint8_t *out, const uint8_t *in, uint64_t count, size_t stride) {
    for (uint64_t i = 0; i < count; ++i)
        std::memcpy(out + i * Size, in + i * stride, Size);
}

void gatherPieces(uint8_t *out, const uint8_t *in, uint64_t count, size_t size, size_t stride) {
    switch (size) {
    case 4:
        return gatherFixed<4>(out, in, count, stride);
    case 8:
        return gatherFixed<8>(out, in, count, stride);
    case 12:
        return gatherFixed<12>(out, in, count, stride);
    case 16:
        return gatherFixed<16>(out, in, count, stride);
    default:
        for (uint64_t i = 0; i < count; ++i)
            std::memcpy(out + i * size, in + i * stride, size);
    }
}

} // namespace

uint64_t guardedGather(void *dst, const void *src, uint64_t count, size_t size, size_t stride) {
    if (count == 0 || size == 0 || !src) return 0;
    auto *out = static_cast<uint8_t *>(dst);
    const auto *in = static_cast<const uint8_t *>(src);
    uint64_t done = 0;
    if (stride <= 8 * size && size <= 4096) {
        // Dense pieces: the span they lie in is read a chunk at a time (one guarded read per
        // chunk) and gathered from there; a read per piece would cost far more.
        alignas(16) uint8_t chunk[16384];
        while (done < count) {
            uint64_t k = std::min<uint64_t>(count - done, (sizeof(chunk) - size) / stride + 1);
            size_t span = static_cast<size_t>((k - 1) * stride + size);
            size_t got = guardedCopy(chunk, in + done * stride, span);
            uint64_t whole = got >= span ? k : got < size ? 0 : (got - size) / stride + 1;
            gatherPieces(out + done * size, chunk, whole, size, stride);
            done += whole;
            if (whole < k) return done;
        }
        return done;
    }
    if (useKernel() && !knownReadable(in, static_cast<size_t>((count - 1) * stride + size))) {
        iovec remote[kBatch];
        bool refusedNow = false;
        while (done < count) {
            size_t n = static_cast<size_t>(std::min<uint64_t>(kBatch, count - done));
            for (size_t i = 0; i < n; ++i)
                remote[i] = iovec{const_cast<uint8_t *>(in + (done + i) * stride), size};
            iovec local{out + done * size, n * size};
            ssize_t got = kernelCopy(&local, 1, remote, n);
            if (got < 0) {
                if (refused(errno)) {
                    refusedNow = true;
                    break;
                }
                return done;
            }
            done += static_cast<uint64_t>(got) / size;
            if (static_cast<size_t>(got) < n * size) return done;
        }
        if (!refusedNow) return done;
    }
    for (; done < count; ++done)
        if (kv_guarded_copy_impl(out + done * size, in + done * stride, size) != size) break;
    return done;
}

bool guardedReadable(const void *p, uint64_t n) {
    if (n == 0) return true;
    if (!p) return false;
    if (knownReadable(p, static_cast<size_t>(n))) return true;
    const uintptr_t first = reinterpret_cast<uintptr_t>(p) & ~uintptr_t(4095);
    const uintptr_t last = (reinterpret_cast<uintptr_t>(p) + n - 1) & ~uintptr_t(4095);
    const uint64_t pages = (last - first) / 4096 + 1;
    // One byte of every page: the first byte of the range, then each page's first byte.
    auto pageByte = [&](uint64_t i) {
        return i == 0 ? static_cast<const uint8_t *>(p) : reinterpret_cast<const uint8_t *>(first + i * 4096);
    };
    uint8_t sink[kBatch];
    if (useKernel()) {
        iovec remote[kBatch];
        bool fellBack = false;
        for (uint64_t done = 0; done < pages && !fellBack;) {
            size_t k = static_cast<size_t>(std::min<uint64_t>(kBatch, pages - done));
            for (size_t i = 0; i < k; ++i)
                remote[i] = iovec{const_cast<uint8_t *>(pageByte(done + i)), 1};
            iovec local{sink, k};
            ssize_t got = kernelCopy(&local, 1, remote, k);
            if (got < 0 && refused(errno)) {
                fellBack = true;
                break;
            }
            if (got != static_cast<ssize_t>(k)) return false;
            done += k;
        }
        if (!fellBack) {
            rememberReadable(p, static_cast<size_t>(n));
            return true;
        }
    }
    for (uint64_t i = 0; i < pages; ++i)
        if (kv_guarded_copy_impl(sink, pageByte(i), 1) != 1) return false;
    return true;
}

// ---- The trace file as the signal handlers see it -------------------------------------------

namespace {

// What a handler needs to cut the trace file, in lock-free words. Only one trace file is open.
struct ActiveTrace {
    std::atomic<int> fd{-1};
    std::atomic<uint64_t> owner{0}; // process that opened it (a forked child must not cut it)
    std::atomic<uint64_t> committed{0};
    std::atomic<uint64_t> capacity{0};
    std::atomic<uintptr_t> windowStart{0};
    std::atomic<uintptr_t> windowEnd{0};
    std::atomic<int> cutDepth{0};         // handlers between cutting the file and growing it back
    std::atomic<uint64_t> cutter{0};      // the thread that cut it
    std::atomic<bool> mappingLost{false}; // the file shrank under the mapping, not by us
    std::atomic<uint64_t> cuts{0};        // see MappedFile::cuts
};
ActiveTrace g_trace;

uint64_t selfKey() {
    return static_cast<uint64_t>(pthread_self());
}

bool ownTrace() {
    int fd = g_trace.fd.load(std::memory_order_acquire);
    return fd >= 0 && g_trace.owner.load(std::memory_order_relaxed) == static_cast<uint64_t>(getpid());
}

void regrow(int fd) {
    off_t capacity = static_cast<off_t>(g_trace.capacity.load(std::memory_order_relaxed));
    off_t committed = static_cast<off_t>(g_trace.committed.load(std::memory_order_relaxed));
    // The blocks given back by the cut are taken again so that a full disk stays an error of the
    // next growth and never becomes a fault in the mapping.
    if (syscall(SYS_fallocate, fd, 0, committed, capacity - committed) != 0 && ftruncate(fd, capacity) != 0) {
    }
}

// Cuts the file to its complete records; true when this call cut it (and must grow it back if
// the process lives on).
bool cutTrace() {
    if (!ownTrace()) return false;
    int fd = g_trace.fd.load(std::memory_order_acquire);
    if (g_trace.cutDepth.fetch_add(1) == 0) {
        g_trace.cutter.store(selfKey());
        g_trace.cuts.fetch_add(1);
        if (ftruncate(fd, static_cast<off_t>(g_trace.committed.load())) != 0) {
        }
    }
    return true;
}

void uncutTrace() {
    int fd = g_trace.fd.load(std::memory_order_acquire);
    if (g_trace.cutDepth.fetch_sub(1) == 1 && fd >= 0) regrow(fd);
}

// A fault in the trace file's window. Our own cut (another thread is in an ending handler): wait
// for it to end, or grow the file back if this thread cut it and never came back. Anyone else's
// (the file was truncated by another program): the window is swapped for anonymous memory so that
// the interrupted write completes harmlessly, and the writer stops at its next step.
bool traceWindowFault(void *address) {
    uintptr_t a = reinterpret_cast<uintptr_t>(address);
    uintptr_t start = g_trace.windowStart.load(), end = g_trace.windowEnd.load();
    if (!ownTrace() || a < start || a >= end) return false;
    if (g_trace.cutDepth.load() > 0) {
        if (g_trace.cutter.load() == selfKey()) {
            g_trace.cutDepth.store(0);
            regrow(g_trace.fd.load());
            return true;
        }
        // Bounded: an application handler that never returns must not hang this thread for ever.
        for (int i = 0; i < 100000 && g_trace.cutDepth.load() > 0; ++i) {
            struct timespec ts = {0, 100000};
            nanosleep(&ts, nullptr);
        }
        if (g_trace.cutDepth.load() > 0) {
            g_trace.cutDepth.store(0);
            regrow(g_trace.fd.load());
        }
        return true;
    }
    g_trace.mappingLost.store(true);
    if (mmap(reinterpret_cast<void *>(start), end - start, PROT_READ | PROT_WRITE,
             MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == MAP_FAILED)
        return false;
    return true;
}

// ---- Ending handlers -------------------------------------------------------------------------

// Signals whose default action ends the process.
constexpr int kEndingSignals[] = {SIGHUP,  SIGINT,  SIGQUIT, SIGILL,  SIGTRAP, SIGABRT,
                                  SIGBUS,  SIGFPE,  SIGUSR1, SIGSEGV, SIGUSR2, SIGPIPE,
                                  SIGALRM, SIGTERM, SIGXCPU, SIGXFSZ, SIGSYS};
struct sigaction g_previous[NSIG];

bool synchronous(int sig) {
    return sig == SIGSEGV || sig == SIGBUS || sig == SIGILL || sig == SIGFPE || sig == SIGTRAP ||
           sig == SIGSYS;
}

void endingHandler(int sig, siginfo_t *info, void *context) {
    const int savedErrno = errno;
    if (sig == SIGSEGV || sig == SIGBUS) {
        greg_t &rip = static_cast<ucontext_t *>(context)->uc_mcontext.gregs[REG_RIP];
        if (rip == reinterpret_cast<greg_t>(kv_guarded_copy_fault_at)) {
            rip = reinterpret_cast<greg_t>(kv_guarded_copy_fault_exit);
            errno = savedErrno;
            return;
        }
        if (sig == SIGBUS && info && traceWindowFault(info->si_addr)) {
            errno = savedErrno;
            return;
        }
    }
    const bool cut = cutTrace();
    const struct sigaction &previous = g_previous[sig];
    const bool withInfo = (previous.sa_flags & SA_SIGINFO) != 0;
    if (withInfo ? previous.sa_sigaction != nullptr
                 : previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
        // The application's handler runs as it would have; if the process lives on, so does the
        // trace.
        if (withInfo)
            previous.sa_sigaction(sig, info, context);
        else
            previous.sa_handler(sig);
        if (cut) uncutTrace();
        errno = savedErrno;
        return;
    }
    // The default action: a fault raised by an instruction happens again when we return; any
    // other signal is raised again and delivered when the handler ends.
    struct sigaction dfl;
    std::memset(&dfl, 0, sizeof(dfl));
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(sig, &dfl, nullptr);
    if (!(synchronous(sig) && info && info->si_code > 0)) raise(sig);
    errno = savedErrno;
}

bool isOurs(const struct sigaction &action) {
    return (action.sa_flags & SA_SIGINFO) && action.sa_sigaction == endingHandler;
}

Mutex &handlerLock() {
    static Mutex lock;
    return lock;
}

// Installs the handler for one signal unless it is ours already or ignored; whether ours is in
// place now.
bool claim(int sig) {
    struct sigaction current;
    if (sigaction(sig, nullptr, &current) != 0) return false;
    if (isOurs(current)) return true;
    if (!(current.sa_flags & SA_SIGINFO) && current.sa_handler == SIG_IGN) return false;
    // Ours is not installed: no handler of ours reads g_previous[sig] while it changes.
    g_previous[sig] = current;
    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sa_sigaction = endingHandler;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
    // A guarded copy or the trace window may fault inside an application handler.
    if (sig == SIGSEGV || sig == SIGBUS) sa.sa_flags |= SA_NODEFER;
    sigemptyset(&sa.sa_mask);
    return sigaction(sig, &sa, nullptr) == 0;
}

} // namespace

void installEndingHandlers() {
    LockGuard<Mutex> guard(handlerLock());
    bool faultsOurs = true;
    for (int sig : kEndingSignals)
        if (!claim(sig) && (sig == SIGSEGV || sig == SIGBUS)) faultsOurs = false;
    g_faultHandlerOurs.store(faultsOurs, std::memory_order_relaxed);
}

void refreshEndingHandlers() {
    static std::atomic<uint64_t> last{0};
    uint64_t now = tickCountMs();
    if (now - last.load(std::memory_order_relaxed) < 100) return;
    last.store(now, std::memory_order_relaxed);
    installEndingHandlers();
}

// ---- Files -----------------------------------------------------------------------------------

uint64_t fileSizeLimit() {
    struct rlimit limit;
    if (getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return UINT64_MAX;
    return static_cast<uint64_t>(limit.rlim_cur);
}

// Opens a regular file for this process alone: an advisory lock tells recorders apart, and the
// file is emptied only once the lock is ours. Returns the descriptor, -1 when it cannot be opened
// (or -2 when another recorder holds it); `regular` says whether it is a regular file.
static int openTaken(const char *path, bool *regular) {
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0644);
    if (fd < 0) return -1;
    struct stat st;
    *regular = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    if (!*regular) return fd;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        int error = errno;
        ::close(fd);
        return error == EWOULDBLOCK ? -2 : -1;
    }
    if (ftruncate(fd, 0) != 0) {
        ::close(fd);
        return -1;
    }
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    return fd;
}

std::FILE *openExclusive(const char *path, bool *inUse) {
    *inUse = false;
    bool regular = false;
    int fd = openTaken(path, &regular);
    if (fd == -2) *inUse = true;
    if (fd < 0) return nullptr;
    if (!regular) {
        // A pipe or a device: opened as any program would (a FIFO without a reader waits).
        ::close(fd);
        return std::fopen(path, "wb+");
    }
    std::FILE *file = fdopen(fd, "w+b");
    if (!file) ::close(fd);
    return file;
}

MappedFile::~MappedFile() {
    if (isOpen()) close(committed_);
}

MappedFile::Open MappedFile::create(const char *path) {
    bool regular = false;
    int fd = openTaken(path, &regular);
    if (fd == -2) return Open::InUse;
    if (fd < 0) return Open::Failed;
    // Only regular files can be mapped and grown; anything else is left to the buffered writer.
    if (!regular) {
        ::close(fd);
        return Open::Failed;
    }
    fd_ = fd;
    capacity_ = committed_ = 0;
    failure_ = Failure::None;
    g_trace.mappingLost.store(false);
    g_trace.cutDepth.store(0);
    g_trace.committed.store(0);
    g_trace.capacity.store(0);
    g_trace.owner.store(static_cast<uint64_t>(getpid()));
    cutCount_ = &g_trace.cuts;
    g_trace.fd.store(fd, std::memory_order_release);
    installEndingHandlers();
    if (!grow(1) || !mapWindow(0)) {
        g_trace.fd.store(-1);
        ::close(fd);
        fd_ = -1;
        return Open::Failed;
    }
    return Open::Ok;
}

bool MappedFile::grow(uint64_t need) {
    if (need <= capacity_) return true;
    // Steps of a quarter of the file, 4 to 32 MiB: few system calls, and a short tail of zeros
    // after a death that runs none of our code.
    uint64_t step = std::min<uint64_t>(std::max<uint64_t>(capacity_ / 4, 4ull << 20), 32ull << 20);
    // Whole 64 KiB steps keep the file's end, and so the pages mapped in ahead, on page bounds.
    uint64_t target = (std::max(need, capacity_ + step) + 0xFFFF) & ~uint64_t(0xFFFF);
    const uint64_t limit = fileSizeLimit();
    if (need > limit) {
        failure_ = Failure::SizeLimit;
        fastEnd_ = 0;
        return false;
    }
    target = std::min(target, limit);
    // The blocks are allocated now so that a full disk is an error here, never a fault when a page
    // of the mapping is first written.
    int rc = posix_fallocate(static_cast<int>(fd_), static_cast<off_t>(capacity_),
                             static_cast<off_t>(target - capacity_));
    // Short of room for a whole step, what is needed may still fit.
    const uint64_t least = std::min(limit, (need + 0xFFFF) & ~uint64_t(0xFFFF));
    if (rc == ENOSPC && least < target) {
        target = least;
        rc = posix_fallocate(static_cast<int>(fd_), static_cast<off_t>(capacity_),
                             static_cast<off_t>(target - capacity_));
    }
    if (rc != 0) {
        failure_ = rc == ENOSPC ? Failure::DiskFull : rc == EFBIG ? Failure::SizeLimit : Failure::Other;
        fastEnd_ = 0;
        return false;
    }
    capacity_ = target;
    g_trace.capacity.store(target);
    return true;
}

bool MappedFile::mapWindow(uint64_t offset) {
    fastEnd_ = 0;
    if (window_) {
        g_trace.windowStart.store(0);
        g_trace.windowEnd.store(0);
        munmap(window_, windowSize_);
        window_ = nullptr;
    }
    const uint64_t start = offset & ~(kWindow / 2 - 1);
    void *mapped = mmap(nullptr, kWindow, PROT_READ | PROT_WRITE, MAP_SHARED, static_cast<int>(fd_),
                        static_cast<off_t>(start));
    if (mapped == MAP_FAILED) {
        failure_ = Failure::Other;
        return false;
    }
    window_ = static_cast<uint8_t *>(mapped);
    windowStart_ = start;
    windowSize_ = kWindow;
    prefaulted_ = start;
    g_trace.windowStart.store(reinterpret_cast<uintptr_t>(window_));
    g_trace.windowEnd.store(reinterpret_cast<uintptr_t>(window_) + kWindow);
    return true;
}

uint8_t *MappedFile::span(uint64_t offset, size_t *available) {
    if (KV_UNLIKELY(failure_ != Failure::None)) return nullptr;
    if (KV_UNLIKELY(g_trace.mappingLost.load(std::memory_order_relaxed))) {
        failure_ = Failure::CutShort;
        fastEnd_ = 0;
        return nullptr;
    }
    if (KV_UNLIKELY(!window_ || offset < windowStart_ || offset >= windowStart_ + windowSize_)) {
        if (!mapWindow(offset)) return nullptr;
    }
    if (KV_UNLIKELY(offset >= capacity_) && !grow(offset + 1)) return nullptr;
    const uint64_t end = std::min(windowStart_ + windowSize_, capacity_);
    // Pages are mapped in ahead of the writes, a megabyte at a time (much cheaper than a fault
    // per page).
    if (KV_UNLIKELY(offset >= prefaulted_)) {
#ifndef MADV_POPULATE_WRITE
        constexpr int MADV_POPULATE_WRITE = 23; // Linux 5.14; older kernels refuse it
#endif
        // The system maps in from a page's start only: a range that starts inside a page is refused.
        uint64_t from = std::max(prefaulted_, offset) & ~uint64_t(4095);
        uint64_t to = std::min<uint64_t>(end, from + (1ull << 20));
        madvise(window_ + (from - windowStart_), static_cast<size_t>(to - from), MADV_POPULATE_WRITE);
        prefaulted_ = to;
    }
    fastEnd_ = std::min(end, prefaulted_);
    *available = static_cast<size_t>(end - offset);
    return window_ + (offset - windowStart_);
}

bool MappedFile::writeDirect(uint64_t offset, const void *src, size_t n, size_t *taken) {
    *taken = 0;
    if (KV_UNLIKELY(failure_ != Failure::None)) return false;
    if (KV_UNLIKELY(g_trace.mappingLost.load(std::memory_order_relaxed))) {
        failure_ = Failure::CutShort;
        fastEnd_ = 0;
        return false;
    }
    // The blocks are allocated before the write, as for the window: the file never grows past
    // what the ending handlers know of.
    if (!grow(offset + n)) return false;
    const uint8_t *from = static_cast<const uint8_t *>(src);
    while (*taken < n) {
        ssize_t wrote =
            pwrite(static_cast<int>(fd_), from + *taken, n - *taken, static_cast<off_t>(offset + *taken));
        if (wrote > 0) {
            *taken += static_cast<size_t>(wrote);
            continue;
        }
        if (wrote < 0 && errno == EINTR) continue;
        // An unreadable source: what follows is the caller's to write as zeros.
        if (wrote < 0 && errno == EFAULT) return true;
        failure_ = wrote < 0 && errno == ENOSPC  ? Failure::DiskFull
                   : wrote < 0 && errno == EFBIG ? Failure::SizeLimit
                                                 : Failure::Other;
        fastEnd_ = 0;
        return false;
    }
    return true;
}

bool MappedFile::cutShort() {
    struct stat st;
    // Our own ending handlers cut the file for a moment and grow it back.
    if (failure_ != Failure::None || g_trace.cutDepth.load() > 0 || fstat(static_cast<int>(fd_), &st) != 0 ||
        static_cast<uint64_t>(st.st_size) >= capacity_)
        return failure_ == Failure::CutShort;
    g_trace.mappingLost.store(true);
    failure_ = Failure::CutShort;
    fastEnd_ = 0;
    return true;
}

void MappedFile::commit(uint64_t end) {
    committed_ = end;
    g_trace.committed.store(end, std::memory_order_release);
}

MappedFile::Failure MappedFile::failure() const {
    if (failure_ == Failure::None && g_trace.mappingLost.load(std::memory_order_relaxed))
        return Failure::CutShort;
    return failure_;
}

void MappedFile::close(uint64_t finalSize) {
    int fd = static_cast<int>(fd_);
    if (fd < 0) return;
    g_trace.fd.store(-1, std::memory_order_release);
    g_trace.windowStart.store(0);
    g_trace.windowEnd.store(0);
    fastEnd_ = 0;
    if (window_) munmap(window_, windowSize_);
    window_ = nullptr;
    // A file that another program cut short is not lengthened again with zeros.
    struct stat st;
    if (failure() == Failure::CutShort && fstat(fd, &st) == 0)
        finalSize = std::min<uint64_t>(finalSize, static_cast<uint64_t>(st.st_size));
    if (ftruncate(fd, static_cast<off_t>(finalSize)) != 0) {
    }
    ::close(fd);
    fd_ = -1;
    capacity_ = 0;
}

} // namespace kv::platform

#endif
