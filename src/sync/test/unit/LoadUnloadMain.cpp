// The order of the library's static objects, seen from a process of its own.
//
// At load: the number of the next thread pool is set before any program code runs, so the first
// DefaultThreadFactory of the process, made here during the program's own static initialisation,
// is pool 1.
//
// At unload: the thread that ends the process keeps its record through the program's exit
// handlers; the destruction of the library's thread-local slot then cleans that record (its
// thread-local values, then its adopted Thread object) while the mode markers of the wait queue,
// built before the slot, still exist. A thread-local value of this program observes the cleaning:
// its cleaner checks and prints. On ELF the program also sees the markers themselves and, through
// its replacement operator delete, the deletion of the adopted object, and prints the verdict from
// there. A Windows DLL exports no static of a nested class and frees with its own run-time
// library, so there the cleaner checks the order against the exit handlers and gives the verdict.
// Both run after the program's exit handlers and static destructors: stdout is still open, but
// nothing flushes it any more.
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

void noteDeletion(void* pointer) {
    if (pointer == nullptr || pointer != g_adopted.load()) return;
    g_adopted.store(nullptr);
    check(g_cleaned.load(), "the adopted object is deleted after the record's values are cleaned");
    check(modeMarkersExist(), "the mode markers still exist when the adopted object is deleted");
    verdict();
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
// Built in place and never destroyed: its destructor would clean this thread's value before the
// library does.
alignas(Probe) unsigned char g_probeStorage[sizeof(Probe)];

}  // namespace

#if !defined(_WIN32)
// Every form of the replaceable allocation functions (but the over-aligned ones, which nothing
// here uses), so that each allocation is paired with its own deallocation. Out of line, so that no
// inlined copy pairs a new expression with free in the compiler's eyes.
namespace {

__attribute__((noinline)) void* allocate(std::size_t size) noexcept {
    return std::malloc(size != 0 ? size : 1);
}

__attribute__((noinline)) void* allocateOrThrow(std::size_t size) {
    void* memory = allocate(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

__attribute__((noinline)) void release(void* pointer) noexcept {
    noteDeletion(pointer);
    std::free(pointer);
}

}  // namespace

void* operator new(std::size_t size) { return allocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* pointer) noexcept { release(pointer); }
void operator delete[](void* pointer) noexcept { release(pointer); }
void operator delete(void* pointer, std::size_t) noexcept { release(pointer); }
void operator delete[](void* pointer, std::size_t) noexcept { release(pointer); }
void operator delete(void* pointer, const std::nothrow_t&) noexcept { release(pointer); }
void operator delete[](void* pointer, const std::nothrow_t&) noexcept { release(pointer); }
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
