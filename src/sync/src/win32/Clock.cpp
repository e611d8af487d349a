// Clocks and giving up the processor. The wall clock is the system time as a FILETIME (100 ns
// ticks since 1601, UTC); the high-resolution clock is the performance counter.
#include "../platform.h"

#include <atomic>

#include <windows.h>

#include "Timeout.h"

namespace mw {
namespace platform {
namespace {

static_assert(sizeof(OSVERSIONINFOA) == 148, "the version record has its documented size");

// The process-wide version record that yieldThread consults: only the two fields it needs. The
// size field is the mark that the record has been fetched. [V1] The platform id is stored before
// the mark is released, so a thread that sees the mark sees the id. Concurrent first callers
// fetch the same values twice, which is harmless. A failed fetch leaves the id 0, which takes the
// SleepEx branch for good.
std::atomic<std::uint32_t> s_versionInfoSize(0);
std::atomic<std::uint32_t> s_platformId(0);

std::uint32_t platformId() {
    if (s_versionInfoSize.load(std::memory_order_acquire) == 0) {  // [V1]
        OSVERSIONINFOA info = {};
        info.dwOSVersionInfoSize = sizeof(OSVERSIONINFOA);
        if (!GetVersionExA(&info)) info.dwPlatformId = 0;
        s_platformId.store(info.dwPlatformId, std::memory_order_relaxed);
        s_versionInfoSize.store(info.dwOSVersionInfoSize, std::memory_order_release);  // [V1]
    }
    return s_platformId.load(std::memory_order_relaxed);
}

}  // namespace

std::int64_t systemTimeAsFileTime() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return static_cast<std::int64_t>((static_cast<std::uint64_t>(now.dwHighDateTime) << 32) |
                                     now.dwLowDateTime);
}

bool queryPerformanceFrequency(std::int64_t* frequency) {
    LARGE_INTEGER value;
    if (!QueryPerformanceFrequency(&value)) {
        *frequency = 0;
        return false;
    }
    *frequency = value.QuadPart;
    return true;
}

std::int64_t queryPerformanceCounter() {
    LARGE_INTEGER value;
    QueryPerformanceCounter(&value);
    return value.QuadPart;
}

void yieldThread() {
    if (platformId() == VER_PLATFORM_WIN32_NT) {
        SwitchToThread();
    } else {
        SleepEx(0, FALSE);
    }
}

void sleepMilliseconds(std::uint32_t milliseconds) {
    if (milliseconds == 0 || milliseconds == INFINITE_WAIT) {
        Sleep(milliseconds);
        return;
    }
    Timeout timeout(milliseconds);
    for (std::uint32_t rest = milliseconds; rest != 0; rest = timeout.remaining()) Sleep(rest);
}

}  // namespace platform
}  // namespace mw
