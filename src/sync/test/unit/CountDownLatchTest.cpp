#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <vector>

#include "TestMutex.h"
#include "concurrent/Concurrent.h"

namespace {

using mwtest::finishes;
using mwtest::WorkerThread;
typedef std::unique_ptr<WorkerThread> Worker;

const mw::Thread* me() { return mw::Thread::currentThread(); }
const mw::TimeUnit& NS() { return mw::TimeUnit::NANOSECONDS(); }
const mw::TimeUnit& SECONDS() { return mw::TimeUnit::SECONDS(); }

TEST(CountDownLatch, RefusesANegativeCountAndOneMadeWithZeroIsOpen) {
    EXPECT_TRUE(mwtest::throwsWith<mw::IllegalArgumentException>(
        [] { mw::CountDownLatch latch(-1); }, "count must not be negative",
        "CountDownLatch::CountDownLatch"));
    mw::CountDownLatch open(0);
    open.await();
    EXPECT_TRUE(open.await(0, NS()));
    open.countDown();
    EXPECT_EQ(0, open.getCount());
}

// Waiters of both forms queue; the first count-down frees none of them, the second frees all.
// Counting down at zero changes nothing, and later waits pass at once.
TEST(CountDownLatch, TheCountDownThatReachesZeroReleasesEveryWaiter) {
    mw::CountDownLatch latch(2);
    std::atomic<int> passed(0);
    std::vector<Worker> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.emplace_back(new WorkerThread([&latch, &passed, i] {
            if (i % 2 == 0 ? (latch.await(), true) : latch.await(60, SECONDS()))
                passed.fetch_add(1);
        }));
        EXPECT_TRUE(waiters.back()->awaitParked());
    }
    EXPECT_EQ(4u, latch.getQueueLength());
    latch.countDown();
    EXPECT_EQ(1, latch.getCount());
    EXPECT_EQ(0, passed.load());
    latch.countDown();
    for (const Worker& waiter : waiters) EXPECT_TRUE(finishes(*waiter));
    EXPECT_EQ(4, passed.load());
    latch.countDown();
    EXPECT_EQ(0, latch.getCount());
    EXPECT_FALSE(latch.hasQueuedThreads());
    latch.await();
    EXPECT_TRUE(latch.await(-1, SECONDS()));
}

TEST(CountDownLatch, TimedAwaitReportsWhetherTheCountReachedZero) {
    mw::CountDownLatch latch(1);
    EXPECT_FALSE(latch.await(0, NS()));
    EXPECT_FALSE(latch.await(-5, SECONDS()));
    EXPECT_GE(mwtest::elapsed([&] { EXPECT_FALSE(latch.await(20, mw::TimeUnit::MILLISECONDS())); }),
              std::chrono::milliseconds(20));
    EXPECT_FALSE(latch.hasQueuedThreads());
    std::atomic<bool> reached(false);
    Worker waiter(new WorkerThread([&] { reached.store(latch.await(60, SECONDS())); }));
    EXPECT_TRUE(waiter->awaitParked());
    latch.countDown();
    EXPECT_TRUE(finishes(*waiter));
    EXPECT_TRUE(reached.load());
    EXPECT_TRUE(latch.await(0, NS()));
}

// Both forms end on an interrupt with the flag cleared and the count and queue as they were; an
// interrupt pending on entry is reported even by an open latch.
TEST(CountDownLatch, AnInterruptEndsAwaitWithTheFlagCleared) {
    mw::CountDownLatch latch(1);
    std::atomic<int> clean(0);
    for (bool timed : {false, true}) {
        Worker waiter(new WorkerThread([&latch, &clean, timed] {
            try {
                timed ? (void)latch.await(60, SECONDS()) : latch.await();
            } catch (const mw::InterruptedException&) {
                if (!me()->isInterrupted()) clean.fetch_add(1);
            }
        }));
        EXPECT_TRUE(waiter->awaitParked());
        waiter->self()->interrupt();
        EXPECT_TRUE(finishes(*waiter));
    }
    EXPECT_EQ(2, clean.load());
    EXPECT_EQ(1, latch.getCount());
    EXPECT_FALSE(latch.hasQueuedThreads());
    latch.countDown();
    me()->interrupt();
    EXPECT_THROW(latch.await(), mw::InterruptedException);
    EXPECT_FALSE(me()->isInterrupted());
}

}  // namespace
