// OS threads on KERNEL32. A thread handle is the HANDLE from CreateThread; the calling thread's
// handle is the pseudo-handle of GetCurrentThread, which needs no closing.
#include "../platform.h"

#include <type_traits>

#include <windows.h>

#include "Timeout.h"

namespace mw {
namespace platform {

static_assert(sizeof(Handle) == sizeof(HANDLE), "a thread handle travels as a Handle");
static_assert(sizeof(DWORD) == sizeof(std::uint32_t), "thread ids and exit codes are 32 bits");
static_assert(STILL_ACTIVE_CODE == STILL_ACTIVE, "a running thread's exit code is the OS's");
static_assert(PRIORITY_ERROR == THREAD_PRIORITY_ERROR_RETURN, "a failed priority read is the OS's");
// On x64 the WINAPI calling convention is the default one, so the entry is handed to the OS as it
// is, with no adapter and no allocation.
static_assert(std::is_same<ThreadEntry, LPTHREAD_START_ROUTINE>::value,
              "a ThreadEntry is an OS thread start routine");

Handle createThread(ThreadEntry entry, void* argument, std::uint32_t* id) {
    DWORD threadId = 0;
    HANDLE thread = CreateThread(nullptr, 0, entry, argument, 0, &threadId);
    if (id != nullptr) *id = thread != nullptr ? threadId : 0;
    return thread;
}

bool getExitCodeThread(Handle thread, std::uint32_t* code) {
    DWORD value = 0;
    if (!GetExitCodeThread(thread, &value)) return false;
    *code = value;
    return true;
}

std::uint32_t waitThread(Handle thread, std::uint32_t milliseconds) {
    return waitNoEarlier(thread, milliseconds);
}

Handle duplicateThreadHandle(Handle thread) {
    if (thread == GetCurrentThread()) return thread;
    HANDLE copy = nullptr;
    if (!DuplicateHandle(GetCurrentProcess(), thread, GetCurrentProcess(), &copy, 0, FALSE,
                         DUPLICATE_SAME_ACCESS)) {
        return nullptr;
    }
    return copy;
}

bool threadsCanBeTerminated() { return true; }

// TerminateThread only starts the kill; the wait makes sure that the thread runs no further
// instruction once this returns.
bool terminateThread(Handle thread) {
    if (!TerminateThread(thread, 0)) return false;
    if (thread != GetCurrentThread()) WaitForSingleObject(thread, INFINITE);
    return true;
}

bool setThreadPriority(Handle thread, int priority) {
    return SetThreadPriority(thread, priority) != FALSE;
}

int getThreadPriority(Handle thread) { return GetThreadPriority(thread); }

void closeThreadHandle(Handle thread) {
    if (thread != nullptr && thread != GetCurrentThread()) CloseHandle(thread);
}

std::uint32_t currentThreadId() { return GetCurrentThreadId(); }

Handle currentThreadHandle() { return GetCurrentThread(); }

}  // namespace platform
}  // namespace mw
