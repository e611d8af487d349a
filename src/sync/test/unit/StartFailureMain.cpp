// A started thread that fails before run(): start must not hang, must throw ThreadStateException
// "Couldn't start thread", and must leave the object as it was, so that it can be started again.
//
// The replaced operator new refuses, while a mode is set, allocations on any thread but the main
// one. Two failure points are hit: the new thread's first thread-local store (nothrow new, every
// allocation refused), and its queue node on the object's monitor, which the starter holds until
// the new thread has been refused (only plain allocations refused). A Windows DLL allocates
// through its own run-time library, so the check is Linux only.
#include <cstdio>

#ifdef _WIN32

int main() {
    std::puts("skipped: a DLL does not allocate through the program's operator new");
    return 0;
}

#else

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "ReplacedAllocation.h"
#include "TestSupport.h"
#include "concurrent/Concurrent.h"

namespace {

enum Mode {
    ALLOCATE,
    REFUSE_ALL,
    // Nothrow allocations are served; the main thread, once another thread exists, waits inside
    // its next plain allocation (in start: its wait's node, made while it holds the monitor) until
    // another thread has been refused, so the new thread must queue on the monitor.
    REFUSE_PLAIN_HOLDING_MONITOR,
};

std::atomic<int> g_mode(ALLOCATE);
std::atomic<int> g_refused(0);
std::atomic<int> g_refusedAtArm(0);
std::atomic<int> g_idleThreads(0);
thread_local bool t_isMainThread = false;

// The kernel's count of this process's threads (the 20th field), read without allocating.
int threadCount() {
    char text[1024];
    int file = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
    if (file < 0) return -1;
    ssize_t length = read(file, text, sizeof text - 1);
    close(file);
    if (length <= 0) return -1;
    text[length] = '\0';
    const char* field = std::strrchr(text, ')');
    for (int n = 2; field != nullptr && n < 20; ++n) field = std::strchr(field + 1, ' ');
    return field != nullptr ? std::atoi(field + 1) : -1;
}

template <typename Predicate>
void pollFor20Seconds(Predicate done) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done() && std::chrono::steady_clock::now() < end) sched_yield();
}

}  // namespace

void* mwtest::allocate(std::size_t size, std::size_t alignment, bool nothrow) noexcept {
    int mode = g_mode.load();
    if (mode != ALLOCATE && !t_isMainThread && (mode == REFUSE_ALL || !nothrow)) {
        g_refused.fetch_add(1);
        return nullptr;
    }
    if (mode == REFUSE_PLAIN_HOLDING_MONITOR && t_isMainThread && !nothrow &&
        threadCount() > g_idleThreads.load()) {
        pollFor20Seconds([] { return g_refused.load() != g_refusedAtArm.load(); });
    }
    return mallocAligned(size, alignment);
}

void mwtest::release(void* memory) noexcept { std::free(memory); }

namespace {

using mw::Thread;

int g_failures = 0;
std::atomic<const char*> g_phase("");
std::atomic<bool> g_done(false);

#define CHECK(condition)                                                                     \
    do {                                                                                     \
        if (!(condition)) {                                                                  \
            std::printf("FAILED: %s (line %d, %s)\n", #condition, __LINE__, g_phase.load()); \
            ++g_failures;                                                                    \
        }                                                                                    \
    } while (false)

struct Counter : mw::Runnable {
    std::atomic<int> runs{0};
    std::atomic<bool> interruptedOnEntry{false};
    void run() override {
        if (Thread::currentThread()->isInterrupted()) interruptedOnEntry.store(true);
        runs.fetch_add(1);
    }
};

struct SelfDeleting : Thread {
    SelfDeleting(std::atomic<int>& runs, std::atomic<int>& destroyed)
        : Thread(true, "self-deleting"), m_runs(runs), m_destroyed(destroyed) {}
    ~SelfDeleting() override { m_destroyed.fetch_add(1); }
    void run() override { m_runs.fetch_add(1); }

    std::atomic<int>& m_runs;
    std::atomic<int>& m_destroyed;
};

// One start under the mode: true when it failed as it must, leaving the object unstarted. A start
// that got through without asking for refused memory is no fault: false, after its thread has been
// joined unless the object frees itself. A wrong refusal counts as such a start, so it shows as
// too few failures.
bool startFails(Thread& thread, Mode mode, bool selfDeleting) {
    // The kernel must have reaped earlier attempts' threads, so that the new one shows.
    pollFor20Seconds([] { return threadCount() == g_idleThreads.load(); });
    int refusedBefore = g_refused.load();
    g_refusedAtArm.store(refusedBefore);
    bool failed = mwtest::throwsWith<mw::ThreadStateException>(
        [&] {
            g_mode.store(mode);
            try {
                thread.start();
            } catch (...) {
                g_mode.store(ALLOCATE);
                throw;
            }
            g_mode.store(ALLOCATE);
        },
        "Couldn't start thread");
    if (!failed) {
        if (!selfDeleting) thread.join();
        return false;
    }
    CHECK(g_refused.load() > refusedBefore);
    CHECK(!Thread::interrupted());
    CHECK(thread.getId() == 0);
    CHECK(thread.getState() == Thread::TERMINATED);
    CHECK(!thread.isAlive());
    CHECK(thread.getPriority() == 0x7FFFFFFF);
    thread.join();
    return true;
}

// An object whose start failed, three times in a row, starts again; an interrupt given to it in
// between is forgotten. A self-deleting one is left to its caller, and started again frees itself.
void failThenStart(Mode mode, const char* phase) {
    g_phase.store(phase);
    int failures = 0;
    for (int attempt = 0; attempt < 5 && failures < 3; ++attempt) {
        Counter counter;
        Thread thread(&counter, "probe");
        while (failures < 3 && startFails(thread, mode, false)) {
            ++failures;
            CHECK(counter.runs.load() == 0);
            thread.interrupt();
        }
        if (counter.runs.load() != 0) continue;
        thread.start();
        unsigned long id = thread.getId();
        thread.join();
        CHECK(id != 0);
        CHECK(counter.runs.load() == 1);
        CHECK(!counter.interruptedOnEntry.load());
    }
    CHECK(failures == 3);

    std::atomic<int> runs(0), destroyed(0);
    bool failedOnce = false;
    for (int attempt = 0; attempt < 5 && !failedOnce; ++attempt) {
        SelfDeleting* thread = new SelfDeleting(runs, destroyed);
        failedOnce = startFails(*thread, mode, true);
        if (failedOnce) {
            CHECK(destroyed.load() == attempt);
            thread->start();
        }
        pollFor20Seconds([&] { return destroyed.load() == attempt + 1; });
        CHECK(runs.load() == attempt + 1);
        CHECK(destroyed.load() == attempt + 1);
    }
    CHECK(failedOnce);
}

}  // namespace

int main() {
    t_isMainThread = true;
    mwtest::startProcessWatchdog(g_done, std::chrono::seconds(90));
    Thread::currentThread();
    // Threads that the runtime keeps for itself (a sanitizer's, for one) exist from here on.
    std::thread([] { Thread::currentThread(); }).join();
    g_idleThreads.store(threadCount());
    if (g_idleThreads.load() <= 0) {
        std::puts("FAILED: cannot read the thread count from /proc/self/stat");
        return 1;
    }
    failThenStart(REFUSE_ALL, "first thread-local store refused");
    failThenStart(REFUSE_PLAIN_HOLDING_MONITOR, "monitor node refused");
    g_done.store(true);
    if (g_failures != 0) return 1;
    std::puts("start failure checks passed");
    return 0;
}

#endif
