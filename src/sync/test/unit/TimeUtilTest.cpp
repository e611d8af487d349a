#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include "concurrent/Concurrent.h"

namespace {

using mw::TimeUtil;

TEST(TimeUtil, NanoTimeIsMonotoneAndMicroTimeIsItRounded) {
    long long previous = TimeUtil::nanoTime();
    for (int i = 0; i < 20000; ++i) {
        long long before = TimeUtil::nanoTime(), micros = TimeUtil::microTime();
        long long after = TimeUtil::nanoTime();
        ASSERT_LE(previous, before);
        ASSERT_LE(before / 1000, micros);
        ASSERT_LE(micros, after / 1000 + 1);
        previous = after;
    }
    // Read as n0, s0 ... s1, n1 so that the nanoTime interval encloses the steady one; 1 us of
    // slack covers the rounding of the conversion.
    long long n0 = TimeUtil::nanoTime();
    auto s0 = std::chrono::steady_clock::now(), s1 = s0;
    while (s1 - s0 < std::chrono::milliseconds(20)) s1 = std::chrono::steady_clock::now();
    long long n1 = TimeUtil::nanoTime();
    EXPECT_GE(n1 - n0, std::chrono::nanoseconds(s1 - s0).count() - 1000);
    EXPECT_LT(n1 - n0, 10LL * 1000 * 1000 * 1000);
}

TEST(TimeUtil, MilliTimeIsTheWallClockAndTimeOfDayAgrees) {
    for (int i = 0; i < 1000; ++i) {
        long long system = std::chrono::duration_cast<std::chrono::milliseconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count();
        long long milli = TimeUtil::milliTime(), day = TimeUtil::timeOfDay();
        ASSERT_LE(std::llabs(milli - system), 1000);
        ASSERT_LE(milli, day);
        ASSERT_LE(day, TimeUtil::milliTime());
    }
}

}  // namespace
