// A started thread that fails before run(): start must not hang, must throw ThreadStateException
// "Couldn't start thread", and must leave the object as it was (no OS thread, id 0, state NEW
// inside), so that it can be started again.
//
// The failure is made real by replacing the program's operator new: while a mode is set,
// allocations made on any thread but the main one are refused. Two places are hit:
//  - the new thread's first thread-local store, which makes the thread's table of values with the
//    nothrow operator new (every allocation refused);
//  - the new thread's entry into the object's monitor, which queues it behind the starter and so
//    allocates a queue node with the plain operator new (only plain allocations refused, and the
//    starter held inside the monitor until the new thread has been refused).
// A Windows DLL allocates through its own run-time library, which the program's operator new does
// not replace, so the check is Linux only.
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
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <thread>

#include "concurrent/Concurrent.h"

namespace {

enum Mode {
    ALLOCATE = 0,
    // Every allocation on another thread than the main one is refused.
    REFUSE_ALL = 1,
    // Plain allocations on other threads are refused, nothrow ones are served; and the main
    // thread, once another thread exists, waits inside its next plain allocation until another
    // thread has been refused. In start that allocation is the node of the starter's wait, made
    // while it still holds the object's monitor, so the new thread meets a busy monitor and must
    // queue.
    REFUSE_PLAIN_HOLDING_MONITOR = 2,
};

std::atomic<int> g_mode(ALLOCATE);
std::atomic<int> g_refused(0);
std::atomic<int> g_refusedAtArm(0);
std::atomic<int> g_idleThreads(0);
thread_local bool t_isMainThread = false;

// The kernel's count of this process's threads, read without allocating.
int threadCount() {
    char text[1024];
    int file = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
    if (file < 0) return -1;
    ssize_t length = read(file, text, sizeof text - 1);
    close(file);
    if (length <= 0) return -1;
    text[length] = '\0';
    const char* field = std::strrchr(text, ')');
    // num_threads is the 20th field; the first after the name in parentheses is the 3rd.
    for (int n = 2; field != nullptr && n < 20; ++n) field = std::strchr(field + 1, ' ');
    return field != nullptr ? std::atoi(field + 1) : -1;
}

void holdUntilAnotherThreadIsRefused() {
    if (threadCount() <= g_idleThreads.load()) return;
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (g_refused.load() == g_refusedAtArm.load() && std::chrono::steady_clock::now() < end) {
        sched_yield();
    }
}

void* allocate(std::size_t size, std::size_t alignment, bool nothrow) {
    int mode = g_mode.load();
    if (mode != ALLOCATE) {
        if (!t_isMainThread && (mode == REFUSE_ALL || !nothrow)) {
            g_refused.fetch_add(1);
            return nullptr;
        }
        if (t_isMainThread && mode == REFUSE_PLAIN_HOLDING_MONITOR && !nothrow) {
            holdUntilAnotherThreadIsRefused();
        }
    }
    if (size == 0) size = 1;
    if (alignment <= alignof(std::max_align_t)) return std::malloc(size);
    void* memory = nullptr;
    return posix_memalign(&memory, alignment, size) == 0 ? memory : nullptr;
}

void* allocateOrThrow(std::size_t size, std::size_t alignment) {
    void* memory = allocate(size, alignment, false);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

}  // namespace

void* operator new(std::size_t size) { return allocateOrThrow(size, 0); }
void* operator new[](std::size_t size) { return allocateOrThrow(size, 0); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size, 0, true);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size, 0, true);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return allocate(size, static_cast<std::size_t>(alignment), true);
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return allocate(size, static_cast<std::size_t>(alignment), true);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
    std::free(memory);
}

namespace {

using mw::Thread;

int g_failures = 0;

#define CHECK(condition)                                                                     \
    do {                                                                                     \
        if (!(condition)) {                                                                  \
            std::printf("FAILED: %s (line %d, %s)\n", #condition, __LINE__, g_phase.load()); \
            ++g_failures;                                                                    \
        }                                                                                    \
    } while (false)

std::atomic<const char*> g_phase("");

void fail(const char* what) {
    std::printf("FAILED: %s (%s)\n", what, g_phase.load());
    ++g_failures;
}

// Ends the process with a failure if the checks are not over in time: a start that never returns
// is the fault under test, and it must fail the check rather than stall until the test's timeout.
class Watchdog {
public:
    Watchdog() : m_done(false), m_thread([this] { watch(); }) {}
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> hold(m_mutex);
            m_done = true;
        }
        m_changed.notify_all();
        m_thread.join();
    }

private:
    void watch() {
        std::unique_lock<std::mutex> hold(m_mutex);
        if (!m_changed.wait_for(hold, std::chrono::seconds(90), [this] { return m_done; })) {
            std::printf("FAILED: still running after 90 s (%s)\n", g_phase.load());
            std::fflush(stdout);
            _exit(1);
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_done;
    std::thread m_thread;
};

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

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// Waits for the kernel to have reaped every thread of earlier attempts, so that a new thread shows
// in threadCount.
void awaitIdleThreadCount() {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (threadCount() != g_idleThreads.load() && std::chrono::steady_clock::now() < end) {
        sched_yield();
    }
}

// One start under the mode: true when it failed as it must. A start that succeeded (the new thread
// got through without asking for memory where the mode refuses it) is not a fault; it is reported
// as false, after its thread has been joined unless the object frees itself.
bool startFails(Thread& thread, Mode mode, bool selfDeleting) {
    awaitIdleThreadCount();
    int refusedBefore = g_refused.load();
    g_refusedAtArm.store(refusedBefore);
    g_mode.store(mode);
    bool failed = false;
    try {
        thread.start();
    } catch (const mw::ThreadStateException& e) {
        failed = true;
        g_mode.store(ALLOCATE);
        CHECK(endsWith(e.what(), ", Description: Couldn't start thread"));
    } catch (...) {
        g_mode.store(ALLOCATE);
        fail("start threw something else than ThreadStateException");
    }
    g_mode.store(ALLOCATE);
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

// The object of a failed start is started again, also after several failures in a row; an
// interrupt given to it in between is forgotten as on any object that was never started.
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
        CHECK(thread.getState() == Thread::TERMINATED);
    }
    CHECK(failures == 3);
}

// With autoDelete, a failed start leaves the object to its caller, undeleted; started again, it
// runs and frees itself.
void selfDeletingObjectSurvivesAFailedStart(Mode mode, const char* phase) {
    g_phase.store(phase);
    std::atomic<int> runs(0), destroyed(0);
    bool failedOnce = false;
    for (int attempt = 0; attempt < 5 && !failedOnce; ++attempt) {
        SelfDeleting* thread = new SelfDeleting(runs, destroyed);
        failedOnce = startFails(*thread, mode, true);
        int expected = attempt + 1;
        if (failedOnce) {
            CHECK(destroyed.load() == attempt);
            thread->start();
        }
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (destroyed.load() != expected && std::chrono::steady_clock::now() < end) {
            sched_yield();
        }
        CHECK(runs.load() == expected);
        CHECK(destroyed.load() == expected);
    }
    CHECK(failedOnce);
}

}  // namespace

int main() {
    t_isMainThread = true;
    Watchdog watchdog;
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
    selfDeletingObjectSurvivesAFailedStart(REFUSE_ALL, "self-deleting, thread-local store refused");
    selfDeletingObjectSurvivesAFailedStart(REFUSE_PLAIN_HOLDING_MONITOR,
                                           "self-deleting, monitor node refused");
    if (g_failures != 0) return 1;
    std::puts("start failure checks passed");
    return 0;
}

#endif
