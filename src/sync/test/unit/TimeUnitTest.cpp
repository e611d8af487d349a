#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

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

// ---- timed operations -----------------------------------------------------------------------

using std::chrono::milliseconds;

const long long NO_TIME[] = {0, -1, LLONG_MIN};

// How timedWait splits a timeout: ms is the whole milliseconds that Object::wait gets. Rows with
// ms 0 pass the rest as nanoseconds, which makes a wait that does not block; rows above BOUNDED
// wait without a practical limit, but still as a timed wait.
struct WaitRow {
    int unit;
    long long timeout;
    long long ms;
};
const long long BOUNDED = 1000;
const WaitRow WAIT_ROWS[] = {
    {0, 1, 0},
    {0, 500, 0},
    {0, 999999, 0},
    {1, 1, 0},
    {1, 999, 0},
    {0, 1500000, 1},
    {1, 1500, 1},
    {0, 2999999, 2},
    {1, 2999, 2},
    {2, 3, 3},
    {0, LLONG_MAX, 9223372036854LL},
    {1, LLONG_MAX, 9223372036854775LL},
    {2, LLONG_MAX, LLONG_MAX},
    {3, 9223372036LL, 9223372036000LL},
    {3, LLONG_MAX, LLONG_MAX},
};

std::string describe(const WaitRow& row) {
    return std::string(NAMES[row.unit]) + " " + std::to_string(row.timeout);
}

// Waits on object as the row says, with the monitor held; false if the wait threw.
bool waitHolding(const mw::Object& object, const WaitRow& row) {
    try {
        mw::Guard guard(object);
        UNITS[row.unit]().timedWait(object, row.timeout);
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

// No time left: returns at once, touching nothing, so it needs no monitor and leaves a pending
// interrupt pending. Any time left reaches Object::wait, which requires the monitor and, entered
// with the flag set, throws InterruptedException: never IllegalArgumentException, so the left-over
// nanoseconds lie within a millisecond at the extremes too.
TEST(TimeUnitTimedWait, ReachesTheWaitOnlyWithTimeLeftAndWithNanosInRange) {
    mw::Object object;
    const mw::Thread* self = mw::Thread::currentThread();
    for (int u = 0; u < 4; ++u) {
        for (long long timeout : NO_TIME) {
            self->interrupt();
            EXPECT_NO_THROW(UNITS[u]().timedWait(object, timeout)) << NAMES[u] << " " << timeout;
            EXPECT_TRUE(mw::Thread::interrupted()) << NAMES[u] << " " << timeout;
        }
    }
    for (const WaitRow& row : WAIT_ROWS) {
        EXPECT_THROW(UNITS[row.unit]().timedWait(object, row.timeout),
                     mw::IllegalMonitorStateException)
            << describe(row);
        mw::Guard guard(object);
        self->interrupt();
        EXPECT_THROW(UNITS[row.unit]().timedWait(object, row.timeout), mw::InterruptedException)
            << describe(row);
        EXPECT_FALSE(self->isInterrupted()) << describe(row);
    }
}

// Under a millisecond: a wait that does not block. Whole milliseconds: a wait of at least that
// long. Beyond any practical limit: still a timed park, which a notification ends.
TEST(TimeUnitTimedWait, WaitsForTheWholeMillisecondsAndNeverWithoutLimit) {
    mw::Object object;
    std::atomic<int> threw(0);
    mwtest::WorkerThread quick([&] {
        for (const WaitRow& row : WAIT_ROWS) {
            if (row.ms == 0 && !waitHolding(object, row)) threw += 1;
        }
    });
    bool returnedByItself = quick.awaitFinished(milliseconds(30000));
    EXPECT_TRUE(returnedByItself) << "a wait under a millisecond blocked";
    if (!returnedByItself) {
        EXPECT_TRUE(notifyUntilFinished(object, quick));
    }

    for (const WaitRow& row : WAIT_ROWS) {
        if (row.ms == 0 || row.ms > BOUNDED) continue;
        EXPECT_GE(mwtest::elapsed([&] { EXPECT_TRUE(waitHolding(object, row)); }),
                  milliseconds(row.ms))
            << describe(row);
    }

    for (const WaitRow& row : WAIT_ROWS) {
        if (row.ms <= BOUNDED) continue;
        mwtest::WorkerThread waiter([&] {
            if (!waitHolding(object, row)) threw += 1;
        });
        EXPECT_TRUE(waiter.awaitParked()) << describe(row);
        EXPECT_EQ(mw::Thread::TIMED_PARKED, waiter.self()->getState()) << describe(row);
        EXPECT_TRUE(notifyUntilFinished(object, waiter)) << describe(row);
    }
    EXPECT_EQ(0, threw.load());
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

// Runs body, which joins held, on a thread of its own: true if it returned by itself while held
// was still alive. A body stuck in a join without limit is freed by letting held end.
template <typename Body>
bool returnsWhileAlive(HeldThread& held, Body body) {
    mwtest::WorkerThread joiner(body);
    bool returned = joiner.awaitFinished(milliseconds(30000));
    bool alive = held.thread().isAlive();
    if (!returned) held.release();
    return returned && alive;
}

// No time left returns at once. Any positive time joins for its whole milliseconds, and for one
// millisecond when it comes to less: never for the thread's end without limit. A thread that ends
// within the time ends the join.
TEST(TimeUnitTimedJoin, JoinsForTheWholeMillisecondsAndAtLeastOne) {
    HeldThread held;
    EXPECT_TRUE(returnsWhileAlive(held, [&] {
        for (int u = 0; u < 4; ++u) {
            for (long long timeout : NO_TIME) UNITS[u]().timedJoin(held.thread(), timeout);
        }
    }));
    const WaitRow rows[] = {{0, 1, 1},       {0, 999999, 1}, {1, 1, 1},  {1, 999, 1},
                            {0, 2999999, 2}, {1, 20999, 20}, {2, 20, 20}};
    for (const WaitRow& row : rows) {
        std::chrono::steady_clock::duration took{};
        EXPECT_TRUE(returnsWhileAlive(held, [&] {
            took =
                mwtest::elapsed([&] { UNITS[row.unit]().timedJoin(held.thread(), row.timeout); });
        })) << describe(row);
        EXPECT_GE(took, milliseconds(row.ms)) << describe(row);
    }
    held.release();
    EXPECT_LT(mwtest::elapsed([&] { mw::TimeUnit::SECONDS().timedJoin(held.thread(), 3000); }),
              milliseconds(20000));
    EXPECT_FALSE(held.thread().isAlive());
    mw::TimeUnit::SECONDS().timedJoin(held.thread(), LLONG_MAX);  // an ended thread: at once
}

// No time left returns at once; otherwise the whole milliseconds are slept, and an interrupt
// neither ends the sleep nor is consumed by it.
TEST(TimeUnitSleep, SleepsForTheWholeMillisecondsRegardlessOfInterrupts) {
    for (int u = 0; u < 4; ++u) {
        for (long long timeout : NO_TIME) {
            EXPECT_LT(mwtest::elapsed([&] { UNITS[u]().sleep(timeout); }), milliseconds(20000));
        }
    }
    EXPECT_LT(mwtest::elapsed([] { mw::TimeUnit::NANOSECONDS().sleep(999999); }),
              milliseconds(20000));
    EXPECT_GE(mwtest::elapsed([] { mw::TimeUnit::MICROSECONDS().sleep(20999); }), milliseconds(20));
    mw::Thread::currentThread()->interrupt();
    EXPECT_GE(mwtest::elapsed([] { mw::TimeUnit::MILLISECONDS().sleep(20); }), milliseconds(20));
    EXPECT_TRUE(mw::Thread::interrupted());
}

}  // namespace
