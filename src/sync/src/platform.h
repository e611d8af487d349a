// The platform contract: every operating-system facility that the portable code needs, in neutral
// form. Declarations only; no OS header is included here. CMake compiles exactly one backend
// (posix/ or win32/) that defines these functions. Handles cross the contract as opaque
// pointer-sized values; each backend pins the sizes it relies on with static_assert.
//
// Semantics are those of the Win32 calls they are named after, so that both backends behave alike:
//  - an event is auto-reset: a successful wait consumes the one permit; setting a set event changes
//    nothing; waitEvent(h, 0) only polls; INFINITE_WAIT means no limit; a timed wait never ends
//    before its time has passed.
//  - a TLS slot starts as null on every thread, also a slot freed and allocated again; tlsGetValue
//    may disturb the last-error code, which callers save and restore around it. tlsSetValue of a
//    non-null value may fail for lack of memory (Linux grows the thread's table on demand).
#ifndef MW_SYNC_PLATFORM_H
#define MW_SYNC_PLATFORM_H

#include <cstdint>

namespace mw {
namespace platform {

typedef void* Handle;

const std::uint32_t INFINITE_WAIT = 0xFFFFFFFFu;
const std::uint32_t WAIT_SIGNALED = 0;
const std::uint32_t WAIT_TIMEOUT_EXPIRED = 258;
const std::uint32_t TLS_OUT_OF_SLOTS = 0xFFFFFFFFu;
const std::uint32_t STILL_ACTIVE_CODE = 259;

// Auto-reset event, initially unset, unnamed. createEvent gives null on failure; every operation
// on a null handle fails at once (waits return a non-zero code, sets do nothing).
Handle createEvent();
bool setEvent(Handle event);
bool resetEvent(Handle event);
std::uint32_t waitEvent(Handle event, std::uint32_t milliseconds);
void closeEvent(Handle event);

// Thread-local slots.
std::uint32_t tlsAlloc();
void* tlsGetValue(std::uint32_t slot);
bool tlsSetValue(std::uint32_t slot, void* value);
void tlsFree(std::uint32_t slot);
std::uint32_t getLastError();
void setLastError(std::uint32_t code);

// Threads. The entry's result becomes the exit code. createThread gives null on failure; on success
// *id is the new thread's OS id (on Linux its kernel thread id). getExitCodeThread gives
// STILL_ACTIVE_CODE until the thread's whole exit is over (its thread-local cleaning included),
// then the entry's result; it fails for a null handle. waitThread returns WAIT_SIGNALED once that
// exit is over, or WAIT_TIMEOUT_EXPIRED when the time has passed first (never earlier);
// INFINITE_WAIT means no limit. The calling thread's pseudo-handle never ends for these two.
typedef unsigned long (*ThreadEntry)(void* argument);
Handle createThread(ThreadEntry entry, void* argument, std::uint32_t* id);
bool getExitCodeThread(Handle thread, std::uint32_t* code);
std::uint32_t waitThread(Handle thread, std::uint32_t milliseconds);
// A second handle to the same thread, to be closed on its own; null on failure.
Handle duplicateThreadHandle(Handle thread);
// Whether terminateThread can kill a thread at all on this platform.
bool threadsCanBeTerminated();
// Kills the thread wherever it stands and returns once it is gone; false on failure.
bool terminateThread(Handle thread);
// The OS's own priority numbers. setThreadPriority fails for a value outside the OS's range, for
// a thread that has ended and when the OS refuses. getThreadPriority gives PRIORITY_ERROR when it
// cannot read the priority.
const int PRIORITY_ERROR = 0x7FFFFFFF;
bool setThreadPriority(Handle thread, int priority);
int getThreadPriority(Handle thread);
// Releases a handle from createThread, duplicateThreadHandle or currentThreadHandle; null and the
// pseudo-handle are harmless.
void closeThreadHandle(Handle thread);
std::uint32_t currentThreadId();
// A constant that means "the calling thread" wherever a thread handle is taken. Never null.
Handle currentThreadHandle();

// Thread attach and detach notifications. The portable code installs its two routines once at
// load. On Windows the loader's notifications call them (attach before the entry function of
// every thread created after the load; detach on every thread's way out). Where the OS has no
// attach notification, armThreadDetach, called on a thread that has just got its record, makes
// sure that the detach routine runs on that thread's way out; elsewhere it does nothing.
typedef void (*ThreadHook)();
void installThreadHooks(ThreadHook attach, ThreadHook detach);
void removeThreadHooks();
void armThreadDetach();

// Clocks: UTC wall clock as 100 ns ticks since 1601-01-01, and a monotonic high-resolution
// counter with its frequency (queryPerformanceFrequency gives false if there is none).
std::int64_t systemTimeAsFileTime();
bool queryPerformanceFrequency(std::int64_t* frequency);
std::int64_t queryPerformanceCounter();

// Gives up the processor (the rest of the time slice), and sleeps; INFINITE_WAIT sleeps for ever.
void yieldThread();
void sleepMilliseconds(std::uint32_t milliseconds);

// A process-wide memory barrier: when processBarrier returns, every other thread of the process
// has executed a full memory barrier at some moment since the call began (or was not running, and
// its stores were made visible by the switch). It lets one side of a Dekker-style handshake keep a
// plain store while the other, rare side pays for the ordering of both. processBarrierAvailable
// is decided once, on the first call (made at load), and never changes; where it is false,
// processBarrier must not be relied on.
bool processBarrierAvailable();
void processBarrier();

// Tells the processor that the caller is spinning (x86 pause), on every supported target.
inline void cpuRelax() { __builtin_ia32_pause(); }

// A per-thread cache of the calling thread's record, where the platform has thread-local storage
// that is cheaper than a slot read. The slot stays the source of truth; the portable code writes
// the cache in step with it. Where there is no cache, cachedThreadRecord gives null and callers
// read the slot.
#if defined(_WIN32)
// Windows: thread_local in a DLL is emulated and freed before DLL_THREAD_DETACH, which still
// writes the record; so there is no cache and the slot is read.
inline void* cachedThreadRecord() { return nullptr; }
inline void cacheThreadRecord(void*) {}
#else
// ELF: an initial-exec TLS word in the shared library costs what a plain thread_local read costs
// in an executable.
extern __thread void* t_threadRecord __attribute__((tls_model("initial-exec")));
inline void* cachedThreadRecord() { return t_threadRecord; }
inline void cacheThreadRecord(void* record) { t_threadRecord = record; }
#endif

}  // namespace platform
}  // namespace mw

#endif
