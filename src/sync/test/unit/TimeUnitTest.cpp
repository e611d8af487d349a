#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "concurrent/TimeUnit.h"

namespace {

typedef const mw::TimeUnit& (*Accessor)();
const Accessor UNITS[4] = {&mw::TimeUnit::NANOSECONDS, &mw::TimeUnit::MICROSECONDS,
                           &mw::TimeUnit::MILLISECONDS, &mw::TimeUnit::SECONDS};
const char* const NAMES[4] = {"NANOSECONDS", "MICROSECONDS", "MILLISECONDS", "SECONDS"};
typedef long long (mw::TimeUnit::*Conversion)(long long) const;
const Conversion TO[4] = {&mw::TimeUnit::toNanos, &mw::TimeUnit::toMicros, &mw::TimeUnit::toMillis,
                          &mw::TimeUnit::toSeconds};

long long power(int steps) { return steps == 0 ? 1 : 1000 * power(steps - 1); }

// Every pair of units, in both directions and by both entry points, at and around every overflow
// bound and at the extremes, against the exact result in 128 bits, saturated. Literal rows first,
// so that this oracle is not the only witness.
TEST(TimeUnit, ConvertsEveryPairAtAndAroundEachBound) {
    EXPECT_EQ(9223372036000000000LL, mw::TimeUnit::SECONDS().toNanos(9223372036LL));
    EXPECT_EQ(LLONG_MAX, mw::TimeUnit::SECONDS().toNanos(9223372037LL));
    EXPECT_EQ(LLONG_MIN, mw::TimeUnit::MICROSECONDS().toNanos(-9223372036854776LL));
    EXPECT_EQ(-1, mw::TimeUnit::MILLISECONDS().toSeconds(-1999));
    EXPECT_EQ(0, mw::TimeUnit::NANOSECONDS().toMillis(999999));
    std::vector<long long> values = {0,     1,         -1,        999,           -999,         1999,
                                     -1999, LLONG_MAX, LLONG_MIN, LLONG_MAX - 1, LLONG_MIN + 1};
    for (int steps = 1; steps < 4; ++steps) {
        for (long long v : {LLONG_MAX / power(steps) - 1, LLONG_MAX / power(steps)}) {
            values.insert(values.end(), {v, v + 1, -v, -v - 1});
        }
    }
    for (int from = 0; from < 4; ++from) {
        for (int to = 0; to < 4; ++to) {
            for (long long v : values) {
                __int128 exact =
                    from >= to ? static_cast<__int128>(v) * power(from - to) : v / power(to - from);
                long long expected = exact > LLONG_MAX   ? LLONG_MAX
                                     : exact < LLONG_MIN ? LLONG_MIN
                                                         : static_cast<long long>(exact);
                EXPECT_EQ(expected, UNITS[to]().convert(v, UNITS[from]()))
                    << NAMES[from] << " -> " << NAMES[to] << " " << v;
                EXPECT_EQ(expected, (UNITS[from]().*TO[to])(v)) << NAMES[from] << " " << v;
            }
        }
    }
}

TEST(TimeUnit, NamesAndEquality) {
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(NAMES[i], UNITS[i]().getName());
        for (int j = 0; j < 4; ++j) {
            EXPECT_EQ(i == j, UNITS[i]() == UNITS[j]()) << i << " == " << j;
            EXPECT_EQ(i != j, UNITS[i]() != UNITS[j]()) << i << " != " << j;
        }
    }
}

// CTest runs each case in a process of its own, where this is the first use of every constant.
TEST(TimeUnit, ThreadsRacingOnFirstUseGetTheSameObject) {
    const int threads = 6;
    mwtest::Latch start(threads);
    std::vector<std::atomic<const mw::TimeUnit*>> seen(threads * 4);
    std::vector<std::thread> racers;
    for (int t = 0; t < threads; ++t) {
        racers.emplace_back([&, t] {
            start.arriveAndWait();
            for (int u = 0; u < 4; ++u) seen[t * 4 + u].store(&UNITS[u]());
        });
    }
    for (std::thread& racer : racers) racer.join();
    for (int i = 0; i < threads * 4; ++i)
        EXPECT_EQ(&UNITS[i % 4](), seen[i].load()) << NAMES[i % 4];
}

}  // namespace
