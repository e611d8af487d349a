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

// The largest durations that still fit in nanoseconds from 1, 2 and 3 units coarser.
const long long BOUNDS[4] = {0, 9223372036854775LL, 9223372036854LL, 9223372036LL};

// The independent oracle: exact product or quotient in 128 bits, then saturation.
long long expected(int from, int to, long long duration) {
    __int128 factor = 1;
    for (int i = 0; i < (from > to ? from - to : to - from); ++i) factor *= 1000;
    __int128 exact = from >= to ? duration * factor : duration / factor;
    if (exact > LLONG_MAX) return LLONG_MAX;
    if (exact < LLONG_MIN) return LLONG_MIN;
    return static_cast<long long>(exact);
}

typedef long long (mw::TimeUnit::*Conversion)(long long) const;
const Conversion TO[4] = {&mw::TimeUnit::toNanos, &mw::TimeUnit::toMicros, &mw::TimeUnit::toMillis,
                          &mw::TimeUnit::toSeconds};

long long viaNamedOperation(const mw::TimeUnit& unit, int to, long long duration) {
    return (unit.*TO[to])(duration);
}

// Every pair of units, in both directions, with both entry points, on each side of every bound.
TEST(TimeUnit, ConvertsEveryPairAtAndAroundEachBound) {
    std::vector<long long> values = {0,       1,         -1,        999,           -999,
                                     1000,    -1000,     1999,      -1999,         999999,
                                     -999999, LLONG_MAX, LLONG_MIN, LLONG_MAX - 1, LLONG_MIN + 1};
    for (int d = 1; d < 4; ++d) {
        for (long long v : {BOUNDS[d], BOUNDS[d] + 1, BOUNDS[d] - 1}) {
            values.push_back(v);
            values.push_back(-v);
        }
    }
    for (int from = 0; from < 4; ++from) {
        for (int to = 0; to < 4; ++to) {
            const mw::TimeUnit& source = UNITS[from]();
            const mw::TimeUnit& target = UNITS[to]();
            for (long long v : values) {
                SCOPED_TRACE(testing::Message() << NAMES[from] << " -> " << NAMES[to] << " " << v);
                EXPECT_EQ(expected(from, to, v), target.convert(v, source));
                EXPECT_EQ(expected(from, to, v), viaNamedOperation(source, to, v));
            }
        }
    }
}

struct Case {
    int from;
    int to;
    long long duration;
    long long result;
};

// Literal rows, written out so that the oracle above is not the only witness.
TEST(TimeUnit, KnownConversions) {
    const Case cases[] = {
        {3, 0, 9223372036LL, 9223372036000000000LL},
        {3, 0, 9223372037LL, LLONG_MAX},
        {3, 0, -9223372036LL, -9223372036000000000LL},
        {3, 0, -9223372037LL, LLONG_MIN},
        {1, 0, 9223372036854775LL, 9223372036854775000LL},
        {1, 0, 9223372036854776LL, LLONG_MAX},
        {1, 0, -9223372036854775LL, -9223372036854775000LL},
        {1, 0, -9223372036854776LL, LLONG_MIN},
        {2, 0, 9223372036854LL, 9223372036854000000LL},
        {2, 0, 9223372036855LL, LLONG_MAX},
        {2, 1, 9223372036854775LL, 9223372036854775000LL},
        {2, 1, -9223372036854776LL, LLONG_MIN},
        {3, 2, 9223372036854775LL, 9223372036854775000LL},
        {3, 2, 9223372036854776LL, LLONG_MAX},
        {3, 1, 9223372036854LL, 9223372036854000000LL},
        {3, 1, -9223372036855LL, LLONG_MIN},
        {2, 3, -1999, -1},
        {2, 3, 1999, 1},
        {0, 2, 999999, 0},
        {0, 2, -999999, 0},
        {0, 3, LLONG_MIN, -9223372036LL},
        {1, 2, LLONG_MAX, 9223372036854775LL},
        {3, 2, 5, 5000},
        {2, 3, 5000, 5},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << NAMES[c.from] << " -> " << NAMES[c.to] << " " << c.duration);
        EXPECT_EQ(c.result, UNITS[c.to]().convert(c.duration, UNITS[c.from]()));
        EXPECT_EQ(c.result, viaNamedOperation(UNITS[c.from](), c.to, c.duration));
    }
}

TEST(TimeUnit, NamesAndEquality) {
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(NAMES[i], UNITS[i]().getName());
        EXPECT_EQ(&UNITS[i](), &UNITS[i]()) << "a constant is one object";
        for (int j = 0; j < 4; ++j) {
            EXPECT_EQ(i == j, UNITS[i]() == UNITS[j]()) << i << " == " << j;
            EXPECT_EQ(i != j, UNITS[i]() != UNITS[j]()) << i << " != " << j;
        }
    }
}

// Another test may have built the constant already; either way every thread must see one object.
TEST(TimeUnit, ThreadsRacingOnFirstUseGetTheSameObject) {
    for (int u = 0; u < 4; ++u) {
        const int threads = 6;
        mwtest::Latch start(threads);
        std::vector<std::atomic<const mw::TimeUnit*>> seen(threads);
        std::vector<std::thread> racers;
        for (int t = 0; t < threads; ++t) {
            racers.emplace_back([&, t] {
                start.arriveAndWait();
                seen[t].store(&UNITS[u]());
            });
        }
        for (std::thread& racer : racers) racer.join();
        for (int t = 0; t < threads; ++t) EXPECT_EQ(&UNITS[u](), seen[t].load()) << NAMES[u];
    }
}

}  // namespace
