#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include "concurrent/TimeUtil.h"

namespace {

using mw::TimeUtil;

long long systemMillis() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

TEST(TimeUtil, NanoTimeNeverGoesBackAndAdvancesWithTheSteadyClock) {
    long long previous = TimeUtil::nanoTime();
    for (int i = 0; i < 200000; ++i) {
        long long now = TimeUtil::nanoTime();
        ASSERT_LE(previous, now) << "at call " << i;
        previous = now;
    }
    // Read in the order n0, s0 ... s1, n1, so that the nanoTime interval encloses the steady one;
    // 1 us of slack covers the rounding of the double conversion.
    long long n0 = TimeUtil::nanoTime();
    auto s0 = std::chrono::steady_clock::now();
    auto s1 = s0;
    while (s1 - s0 < std::chrono::milliseconds(20)) s1 = std::chrono::steady_clock::now();
    long long n1 = TimeUtil::nanoTime();
    long long steadyNanos = std::chrono::duration_cast<std::chrono::nanoseconds>(s1 - s0).count();
    EXPECT_GE(n1 - n0, steadyNanos - 1000);
    EXPECT_LT(n1 - n0, 10LL * 1000 * 1000 * 1000);
}

TEST(TimeUtil, MicroTimeIsNanoTimeRoundedToMicroseconds) {
    for (int i = 0; i < 10000; ++i) {
        long long before = TimeUtil::nanoTime();
        long long micros = TimeUtil::microTime();
        long long after = TimeUtil::nanoTime();
        ASSERT_LE(before / 1000, micros);
        ASSERT_LE(micros, after / 1000 + 1);
    }
}

TEST(TimeUtil, MilliTimeIsTheWallClockAndTimeOfDayAgrees) {
    for (int i = 0; i < 1000; ++i) {
        long long system = systemMillis();
        long long milli = TimeUtil::milliTime();
        ASSERT_LE(std::llabs(milli - system), 1000) << "milliTime strays from the system clock";
        long long day = TimeUtil::timeOfDay();
        long long later = TimeUtil::milliTime();
        ASSERT_LE(milli, day);
        ASSERT_LE(day, later);
    }
}

}  // namespace
