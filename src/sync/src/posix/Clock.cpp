// Clocks and giving up the processor. The wall clock is CLOCK_REALTIME rebased to 1601 in 100 ns
// ticks; the performance counter is CLOCK_MONOTONIC in nanoseconds, so its frequency is 1e9.
#include "../platform.h"

#include <cerrno>
#include <ctime>

#include <sched.h>
#include <unistd.h>

namespace mw {
namespace platform {
namespace {

const std::int64_t TICKS_1601_TO_1970 = 116444736000000000LL;

}  // namespace

std::int64_t systemTimeAsFileTime() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 10000000LL + now.tv_nsec / 100 +
           TICKS_1601_TO_1970;
}

bool queryPerformanceFrequency(std::int64_t* frequency) {
    timespec resolution;
    if (clock_getres(CLOCK_MONOTONIC, &resolution) != 0) {
        *frequency = 0;
        return false;
    }
    *frequency = 1000000000LL;
    return true;
}

std::int64_t queryPerformanceCounter() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

void yieldThread() { sched_yield(); }

void sleepMilliseconds(std::uint32_t milliseconds) {
    if (milliseconds == INFINITE_WAIT) {
        for (;;) pause();
    }
    timespec rest;
    rest.tv_sec = milliseconds / 1000;
    rest.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
    while (nanosleep(&rest, &rest) == -1 && errno == EINTR) {
    }
}

}  // namespace platform
}  // namespace mw
