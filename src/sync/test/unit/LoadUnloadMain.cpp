// The order of the library's static objects, seen from a process of its own.
//
// At load: the next pool number is set before any program code runs, so the first
// DefaultThreadFactory, made during the program's static initialisation, is pool 1.
//
// At unload: the exiting thread keeps its record through the program's exit handlers; the
// destruction of the library's thread-local slot then cleans it (its thread-local values, then its
// adopted Thread object) while the wait queue's mode markers, built before the slot, still exist.
// A thread-local value's cleaner checks this. On ELF the program also sees the markers and, through
// its operator delete, the deletion of the adopted object; a Windows DLL exports no static of a
// nested class and frees with its own run-time library, so there the cleaner gives the verdict.
// Both run after the static destructors: stdout is still open, but nothing flushes it any more.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>

#include "concurrent/Concurrent.h"

namespace {

std::atomic<bool> g_exitHandlersRan(false);
std::atomic<bool> g_cleaned(false);
std::atomic<int> g_failures(0);

void check(bool holds, const char* what) {
    std::printf("%s: %s\n", holds ? "ok" : "FAILED", what);
    std::fflush(stdout);
    if (!holds) g_failures.fetch_add(1);
}

void verdict() {
    if (g_failures.load() == 0) std::puts("load and unload checks passed");
    std::fflush(stdout);
}

#if !defined(_WIN32)
const bool MARKERS_AND_DELETION_SEEN = true;

std::atomic<const void*> g_adopted(nullptr);

// Reads through both holders, which would fault once they are destroyed.
bool modeMarkersExist() {
    typedef mw::AbstractQueuedSynchronizer::Node Node;
    return Node::SHARED.get() != nullptr && Node::EXCLUSIVE.get() == nullptr;
}
#else
const bool MARKERS_AND_DELETION_SEEN = false;

bool modeMarkersExist() { return true; }  // not visible from outside the DLL
#endif

std::string firstThreadName() {
    mw::DefaultThreadFactory factory;
    std::unique_ptr<mw::Thread> thread(factory.createThread(nullptr));
    return thread->getName();
}

// The program's static initialisation runs after the library's.
const std::string g_firstThreadName = firstThreadName();

void markExitHandlersRan() { g_exitHandlersRan.store(true); }

struct CheckWhenCleaned {
    static void deallocate(int* value) {
        delete value;
        g_cleaned.store(true);
        check(g_exitHandlersRan.load(),
              "the exiting thread's record is cleaned after the program's exit handlers");
        if (MARKERS_AND_DELETION_SEEN) {
            check(modeMarkersExist(), "the mode markers still exist while the record is cleaned");
        } else {
            verdict();
        }
    }
};

typedef mw::TlsPtr<int, CheckWhenCleaned> Probe;
// Built in place and never destroyed: its destructor would clean this thread's value first.
alignas(Probe) unsigned char g_probeStorage[sizeof(Probe)];

}  // namespace

#if !defined(_WIN32)
#include "ReplacedAllocation.h"

// Out of line, so that no inlined copy pairs a new expression with free in the compiler's eyes.
__attribute__((noinline)) void* mwtest::allocate(std::size_t size, std::size_t alignment,
                                                 bool) noexcept {
    return mallocAligned(size, alignment);
}

__attribute__((noinline)) void mwtest::release(void* pointer) noexcept {
    if (pointer != nullptr && pointer == g_adopted.load()) {
        g_adopted.store(nullptr);
        check(g_cleaned.load(),
              "the adopted object is deleted after the record's values are cleaned");
        check(modeMarkersExist(),
              "the mode markers still exist when the adopted object is deleted");
        verdict();
    }
    std::free(pointer);
}
#endif

int main() {
    check(g_firstThreadName == "pool-1-thread-1", "the first factory of the process is pool 1");
    mw::DefaultThreadFactory second;
    std::unique_ptr<mw::Thread> thread(second.createThread(nullptr));
    check(std::string(thread->getName()) == "pool-2-thread-1", "the next factory is pool 2");

    std::atexit(&markExitHandlersRan);
    Probe* probe = new (g_probeStorage) Probe;
    probe->set(new int(1));  // adopts this thread
#if !defined(_WIN32)
    g_adopted.store(mw::Thread::currentThread());
#endif
    check(modeMarkersExist(), "the mode markers exist during the program");
    std::puts("the process ends");
    std::fflush(stdout);
    return 0;
}
