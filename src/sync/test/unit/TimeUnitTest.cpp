// Time: unit conversions and constants, the clocks, and the timed operations of TimeUnit.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mw::TimeUtil;

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
// so that this oracle is not the only witness. Each unit has its name and equals only itself.
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
        EXPECT_EQ(NAMES[from], UNITS[from]().getName());
        for (int to = 0; to < 4; ++to) {
            EXPECT_EQ(from == to, UNITS[from]() == UNITS[to]()) << from << " == " << to;
            EXPECT_EQ(from != to, UNITS[from]() != UNITS[to]()) << from << " != " << to;
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
    for (int i = 0; i < threads * 4; ++i) EXPECT_EQ(&UNITS[i % 4](), seen[i].load()) << i;
}

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

// ---- timed operations -----------------------------------------------------------------------

using std::chrono::milliseconds;

enum Operation { WAIT, JOIN, SLEEP };
const char* const OPERATIONS[] = {"timedWait", "timedJoin", "sleep"};

// ms: the whole milliseconds that the operation takes at least; 0: it does not block. A wait
// passes the rest as nanoseconds, which stay under a million at the extremes too; rows above
// BOUNDED wait without a practical limit, but still as a timed wait. A join of positive time
// lasts at least a millisecond, and a sleep runs its whole milliseconds despite an interrupt.
struct Row {
    Operation operation;
    int unit;
    long long timeout;
    long long ms;
};
const long long BOUNDED = 1000;
// clang-format off
const Row ROWS[] = {
    {WAIT, 0, 1, 0}, {WAIT, 0, 500, 0}, {WAIT, 0, 999999, 0}, {WAIT, 1, 1, 0}, {WAIT, 1, 999, 0},
    {WAIT, 0, 1500000, 1}, {WAIT, 1, 1500, 1}, {WAIT, 0, 2999999, 2}, {WAIT, 1, 2999, 2},
    {WAIT, 2, 3, 3}, {WAIT, 0, LLONG_MAX, 9223372036854LL},
    {WAIT, 1, LLONG_MAX, 9223372036854775LL}, {WAIT, 2, LLONG_MAX, LLONG_MAX},
    {WAIT, 3, 9223372036LL, 9223372036000LL}, {WAIT, 3, LLONG_MAX, LLONG_MAX},
    {JOIN, 0, 1, 1}, {JOIN, 0, 999999, 1}, {JOIN, 1, 1, 1}, {JOIN, 1, 999, 1},
    {JOIN, 0, 2999999, 2}, {JOIN, 1, 20999, 20}, {JOIN, 2, 20, 20},
    {SLEEP, 0, 999999, 0}, {SLEEP, 1, 20999, 20}, {SLEEP, 2, 20, 20}};
// clang-format on

std::string describe(const Row& row) {
    return std::string(OPERATIONS[row.operation]) + " " + NAMES[row.unit] + " " +
           std::to_string(row.timeout);
}

// Runs the row's operation, on object's monitor (held only if there is time left) or joining
// joined; false if it threw.
bool perform(const Row& row, const mw::Object& object, const mw::Thread& joined) {
    const mw::TimeUnit& unit = UNITS[row.unit]();
    try {
        if (row.operation == JOIN) unit.timedJoin(joined, row.timeout);
        if (row.operation == SLEEP) unit.sleep(row.timeout);
        if (row.operation == WAIT && row.timeout <= 0) unit.timedWait(object, row.timeout);
        if (row.operation == WAIT && row.timeout > 0) {
            mw::Guard guard(object);
            unit.timedWait(object, row.timeout);
        }
        return true;
    } catch (...) {
        return false;
    }
}

// Releases a thread blocked in a wait on object, and waits for the end of its body.
bool notifyUntilFinished(const mw::Object& object, const mwtest::WorkerThread& worker) {
    return mwtest::eventually([&] {
        mw::Guard guard(object);
        object.notifyAll();
        return worker.finished();
    });
}

// A started thread that runs until released.
class HeldThread : public mw::Runnable {
public:
    HeldThread() : m_release(1), m_thread(this, "held") { m_thread.start(); }
    ~HeldThread() {
        release();
        m_thread.join();
    }
    void run() override { m_release.wait(); }
    void release() { m_release.countDown(); }
    const mw::Thread& thread() const { return m_thread; }

private:
    mwtest::Latch m_release;
    mw::Thread m_thread;
};

// No time left: every operation returns at once, touching nothing, so a wait needs no monitor
// and a pending interrupt stays pending. Any time left reaches Object::wait: entered interrupted,
// it throws InterruptedException, never IllegalArgumentException. Each row runs on a thread of its
// own, freed by a notification or by held's end if it blocks; a join returns while held lives.
TEST(TimeUnit, TimedOperationsTakeTheirWholeMillisecondsAndNoTimeTouchesNothing) {
    mw::Object object;
    HeldThread held;
    for (const Row& row : ROWS) {
        if (row.operation != WAIT) continue;
        mw::Guard guard(object);
        mw::Thread::currentThread()->interrupt();
        EXPECT_THROW(UNITS[row.unit]().timedWait(object, row.timeout), mw::InterruptedException)
            << describe(row);
        EXPECT_FALSE(mw::Thread::interrupted()) << describe(row);
    }
    auto check = [&](const Row& row) {
        const bool withInterrupt = row.timeout <= 0 || row.operation == SLEEP;
        std::atomic<bool> threw{false}, kept{false};
        std::chrono::steady_clock::duration took{};
        mwtest::WorkerThread worker([&] {
            if (withInterrupt) mw::Thread::currentThread()->interrupt();
            took = mwtest::elapsed([&] { threw = !perform(row, object, held.thread()); });
            kept = mw::Thread::interrupted();
        });
        if (row.ms > BOUNDED) {
            EXPECT_TRUE(worker.awaitParked()) << describe(row);
            EXPECT_EQ(mw::Thread::TIMED_PARKED, worker.self()->getState()) << describe(row);
        } else {
            EXPECT_TRUE(worker.awaitFinished()) << describe(row) << " blocked";
        }
        const bool alive = held.thread().isAlive();
        if (!worker.finished() && row.operation == JOIN) held.release();
        ASSERT_TRUE(notifyUntilFinished(object, worker)) << describe(row);
        EXPECT_FALSE(threw.load()) << describe(row);
        EXPECT_EQ(withInterrupt, kept.load()) << describe(row);
        EXPECT_TRUE(alive || row.operation != JOIN) << describe(row) << " outlived the thread";
        EXPECT_TRUE(row.ms > BOUNDED || took >= milliseconds(row.ms)) << describe(row) << " early";
    };
    for (Operation operation : {WAIT, JOIN, SLEEP}) {
        for (int u = 0; u < 4; ++u) {
            for (long long timeout : {0LL, -1LL, LLONG_MIN}) check({operation, u, timeout, 0});
        }
    }
    for (const Row& row : ROWS) check(row);
    held.release();
    EXPECT_LT(mwtest::elapsed([&] { mw::TimeUnit::SECONDS().timedJoin(held.thread(), 3000); }),
              milliseconds(20000));
    EXPECT_FALSE(held.thread().isAlive());
    mw::TimeUnit::SECONDS().timedJoin(held.thread(), LLONG_MAX);  // an ended thread: at once
}

}  // namespace
