#include "concurrent/TimeUtil.h"

#include <atomic>

#include "platform.h"

namespace mw {
namespace {

const long long TICKS_1601_TO_1970 = 116444736000000000LL;

// The choice of clock, made at the first nanoTime. Two first callers may both make it; they
// store the same values. [C1] s_initialised is released after the other two and acquired before
// they are read, so a thread that sees it set sees the finished choice.
std::atomic<bool> s_initialised(false);
std::atomic<int> s_useCounter(0);
std::atomic<long long> s_frequency(0);

void chooseClock() {
    std::int64_t frequency = 0;
    if (platform::queryPerformanceFrequency(&frequency) && frequency != 0) {
        s_frequency.store(frequency, std::memory_order_relaxed);
        s_useCounter.store(1, std::memory_order_relaxed);
    } else {
        s_useCounter.store(0, std::memory_order_relaxed);
    }
    s_initialised.store(true, std::memory_order_release);  // [C1]
}

}  // namespace

long long TimeUtil::milliTime() {
    return (platform::systemTimeAsFileTime() - TICKS_1601_TO_1970) / 10000;
}

long long TimeUtil::timeOfDay() { return milliTime(); }

// The whole counter reading, converted in double precision: seconds first, then nanoseconds.
long long TimeUtil::nanoTime() {
    if (!s_initialised.load(std::memory_order_acquire)) chooseClock();  // [C1]
    if (s_useCounter.load(std::memory_order_relaxed) != 0) {
        double counter = static_cast<double>(platform::queryPerformanceCounter());
        double frequency = static_cast<double>(s_frequency.load(std::memory_order_relaxed));
        return static_cast<long long>(counter / frequency * 1000000000.0);
    }
    return milliTime() * 1000000;
}

long long TimeUtil::microTime() { return (nanoTime() + 500) / 1000; }

TimeUtil& TimeUtil::operator=(const TimeUtil&) { return *this; }

}  // namespace mw
