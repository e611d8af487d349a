// The counting primitives on the synchronizer's shared mode, Semaphore and CountDownLatch: their
// arithmetic and refusals, which waiters a release lets through, fairness, and which forms an
// interrupt ends. A time-out in the queue is the synchronizer's (SharedAcquisition.*); the
// std::chrono forms are in StdInteropTest.
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <functional>
#include <string>
#include <vector>

#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mwtest::finishes;
using mwtest::me;
using mwtest::throwsWith;
using mwtest::Workers;
typedef mw::IllegalArgumentException IAE;

const mw::TimeUnit& NS() { return mw::TimeUnit::NANOSECONDS(); }
const mw::TimeUnit& SECONDS() { return mw::TimeUnit::SECONDS(); }

// A negative count is refused by every operation, before a pending interrupt is looked at; a
// release past INT_MAX is refused with the permits as they were.
TEST(Semaphore, RefusalsNameTheOperationAndChangeNothing) {
    EXPECT_TRUE(throwsWith<IAE>([] { mw::Semaphore s(-1); }, "initial permits must not be negative",
                                "Semaphore::Semaphore"));
    mw::Semaphore s(2);
    const std::pair<const char*, std::function<void()>> negative[] = {
        {"Semaphore::acquire", [&] { s.acquire(-1); }},
        {"Semaphore::acquireInterruptibly", [&] { s.acquireInterruptibly(-2); }},
        {"Semaphore::tryAcquire", [&] { s.tryAcquire(-1); }},
        {"Semaphore::tryAcquire", [&] { s.tryAcquire(-1, 1, SECONDS()); }},
        {"Semaphore::release", [&] { s.release(-1); }}};
    me()->interrupt();
    for (const auto& form : negative) {
        EXPECT_TRUE(
            throwsWith<IAE>(form.second, "number of permits must not be negative", form.first))
            << form.first;
    }
    EXPECT_TRUE(mw::Thread::interrupted());
    EXPECT_EQ(2, s.availablePermits());

    const std::string overflow = "release would raise the permits above 2147483647";
    mw::Semaphore full(INT_MAX - 1);
    EXPECT_TRUE(throwsWith<IAE>([&] { full.release(2); }, overflow, "Semaphore::release"));
    EXPECT_EQ(INT_MAX - 1, full.availablePermits());
    full.release(1);
    full.release(0);
    EXPECT_TRUE(throwsWith<IAE>([&] { full.release(INT_MAX); }, overflow, "Semaphore::release"));
    EXPECT_EQ(INT_MAX, full.availablePermits());
    EXPECT_FALSE(full.hasQueuedThreads());
}

class SemaphoreTest : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Fairness, SemaphoreTest, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& p) {
                             return std::string(p.param ? "Fair" : "NonFair");
                         });

// Uncontended arithmetic, 0 permits in every form, and how each form treats a pending interrupt:
// the interruptible and timed ones throw with the flag cleared and no permit taken, even when they
// could succeed; the plain and the barging ones keep the flag.
TEST_P(SemaphoreTest, PermitsAreCountedAndZeroPermitsNeverWait) {
    mw::Semaphore s(3, GetParam());
    EXPECT_EQ(GetParam(), s.isFair());
    EXPECT_TRUE(s.tryAcquire(2));
    EXPECT_FALSE(s.tryAcquire(2));
    EXPECT_FALSE(s.tryAcquire(2, 0, NS()));
    EXPECT_FALSE(s.tryAcquire(2, -1, SECONDS()));
    s.acquire();
    EXPECT_EQ(0, s.availablePermits());
    s.acquire(0);
    s.acquireInterruptibly(0);
    EXPECT_TRUE(s.tryAcquire(0));
    EXPECT_TRUE(s.tryAcquire(0, 0, NS()));
    s.release(5);  // above where it started
    EXPECT_EQ(5, s.availablePermits());
    s.acquireInterruptibly(2);
    EXPECT_TRUE(s.tryAcquire(2, 1, SECONDS()));
    EXPECT_EQ(1, s.availablePermits());

    me()->interrupt();
    s.acquire(0);
    EXPECT_TRUE(s.tryAcquire(1));
    EXPECT_THROW(s.acquireInterruptibly(0), mw::InterruptedException);
    EXPECT_FALSE(me()->isInterrupted());
    s.release();
    me()->interrupt();
    EXPECT_THROW(s.tryAcquire(1, 1, SECONDS()), mw::InterruptedException);
    EXPECT_FALSE(me()->isInterrupted());
    EXPECT_EQ(1, s.availablePermits());
    EXPECT_FALSE(s.hasQueuedThreads());
}

// One release(3) lets three queued waiters of the three blocking forms through; a release(2)
// lets exactly two through.
TEST_P(SemaphoreTest, ReleaseWakesAsManyQueuedWaitersAsItsPermitsServe) {
    mw::Semaphore s(0, GetParam());
    std::atomic<int> through(0);
    for (int served : {3, 2}) {
        SCOPED_TRACE(testing::Message() << "first release " << served);
        through.store(0);
        Workers waiters;
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(waiters.startParked([&s, &through, i] {
                if (i == 0) s.acquire();
                if (i == 1) s.acquireInterruptibly();
                if (i == 2 && !s.tryAcquire(1, 60, SECONDS())) return;
                through.fetch_add(1);
            }));
        }
        EXPECT_EQ(3u, s.getQueueLength());
        s.release(served);
        EXPECT_TRUE(mwtest::eventually([&] { return through.load() == served; }));
        EXPECT_EQ(0, s.availablePermits());
        EXPECT_EQ(static_cast<unsigned long long>(3 - served), s.getQueueLength());
        if (served < 3) s.release(3 - served);
        EXPECT_TRUE(waiters.finish());
        EXPECT_EQ(3, through.load());
        EXPECT_EQ(0, s.availablePermits());
        EXPECT_FALSE(s.hasQueuedThreads());
    }
}

// A waiter for 3 with 2 available: a newcomer's timed attempt takes a permit ahead of it only
// when non-fair, the untimed one barges in both modes, and on a fair semaphore a newcomer's
// blocking acquire queues behind it.
TEST_P(SemaphoreTest, WaiterForSeveralPermitsTakesThemAllAtOnceAndFairOnesAreNotOvertaken) {
    const bool fair = GetParam();
    mw::Semaphore s(2, fair);
    Workers w;
    EXPECT_TRUE(w.startParked([&] { s.acquire(3); }));
    EXPECT_EQ(!fair, s.tryAcquire(1, 0, NS()));
    if (!fair) s.release();
    EXPECT_TRUE(s.tryAcquire(0, 0, NS()));  // taking nothing overtakes nobody
    EXPECT_TRUE(s.tryAcquire(1));
    EXPECT_EQ(1, s.availablePermits());
    s.release();
    std::atomic<bool> smallDone(false);
    if (fair) {
        EXPECT_TRUE(w.startParked([&] {
            s.acquire();
            smallDone.store(true);
        }));
        EXPECT_EQ(2, s.availablePermits());
    }
    EXPECT_EQ(fair ? 2u : 1u, s.getQueueLength());
    s.release();
    EXPECT_TRUE(finishes(w[0]));
    EXPECT_FALSE(smallDone.load());  // no permit is left for it
    EXPECT_EQ(0, s.availablePermits());
    if (fair) s.release();
    EXPECT_TRUE(w.finish());
    EXPECT_EQ(0, s.availablePermits());
    EXPECT_FALSE(s.hasQueuedThreads());
}

// Interruptible waiters, first in the queue, leave it cleanly; the plain waiter queued behind
// them (on a fair semaphore, behind their cancelled nodes) must still be served by the next
// release, then reports the interrupt it kept.
TEST_P(SemaphoreTest, InterruptsEndOnlyInterruptibleWaitsAndLeaveTheQueueIntact) {
    mw::Semaphore s(1, GetParam());
    std::atomic<int> clean(0);
    std::atomic<bool> plainSawFlag(false);
    Workers w;
    for (bool timed : {false, true}) {
        EXPECT_TRUE(w.startParked([&s, &clean, timed] {
            try {
                timed ? (void)s.tryAcquire(2, 60, SECONDS()) : s.acquireInterruptibly(2);
            } catch (const mw::InterruptedException&) {
                if (!me()->isInterrupted()) clean.fetch_add(1);
            }
        }));
    }
    EXPECT_TRUE(w.startParked([&] {
        s.acquire(2);
        plainSawFlag.store(me()->isInterrupted());
    }));
    const mw::Thread* t = w[2].self();
    t->interrupt();
    EXPECT_TRUE(mwtest::eventually(
        [&] { return !t->isInterrupted() && t->getState() == mw::Thread::PARKED; }));
    for (int i : {0, 1}) w[i].self()->interrupt();
    EXPECT_TRUE(finishes(w[0]) && finishes(w[1]));
    EXPECT_EQ(2, clean.load());
    EXPECT_EQ(1, s.availablePermits());
    EXPECT_EQ(1u, s.getQueueLength());
    s.release();
    EXPECT_TRUE(w.finish());
    EXPECT_TRUE(plainSawFlag.load());
    EXPECT_EQ(0, s.availablePermits());
    EXPECT_FALSE(s.hasQueuedThreads());
}

// The synchronizer behind a semaphore whose first queued waiter, once armed, releases one permit
// itself from inside its attempt: just before it, or just after it took its permit and so before
// it becomes the head.
class HookedSync : public mw::detail::SemaphoreSync {
public:
    explicit HookedSync(bool releaseAfter)
        : SemaphoreSync(0, false), armed(false), m_releaseAfter(releaseAfter) {}
    std::atomic<bool> armed;

protected:
    int tryAcquireShared(int permits) override {
        if (!m_releaseAfter && armed.exchange(false)) releaseShared(1);
        int r = SemaphoreSync::tryAcquireShared(permits);
        if (r >= 0 && m_releaseAfter && armed.exchange(false)) releaseShared(1);
        return r;
    }

private:
    const bool m_releaseAfter;
};

// Two waiters for one permit each; two releases of one. The second lands while the first waiter
// is in its attempt: before it, so that the attempt sees both permits, or after it took one and
// before it became the head, so that only the mark left on the old head tells it to pass a wake-up
// on. Either way the second waiter must get the second permit.
TEST(Semaphore, ASecondReleaseDuringTheFirstWaitersAttemptReachesTheSecondWaiter) {
    for (bool after : {false, true}) {
        SCOPED_TRACE(after ? "release after the attempt" : "release before the attempt");
        HookedSync sync(after);
        Workers waiters;
        for (int i = 0; i < 2; ++i)
            EXPECT_TRUE(waiters.startParked([&] { sync.acquireShared(1); }));
        sync.armed.store(true);
        sync.releaseShared(1);
        bool through = finishes(waiters[0]) && finishes(waiters[1]);
        EXPECT_TRUE(through) << "a waiter stayed queued with " << sync.getPermits() << " permit(s)";
        if (!through) sync.releaseShared(2);  // lets the stranded waiter end
        EXPECT_FALSE(sync.armed.load());
        EXPECT_EQ(0, sync.getPermits());
        EXPECT_FALSE(sync.hasQueuedThreads());
    }
}

// ---- CountDownLatch -----------------------------------------------------------------------------

TEST(CountDownLatch, RefusesANegativeCountAndOneMadeWithZeroIsOpen) {
    EXPECT_TRUE(throwsWith<IAE>([] { mw::CountDownLatch latch(-1); }, "count must not be negative",
                                "CountDownLatch::CountDownLatch"));
    mw::CountDownLatch open(0);
    open.await();
    EXPECT_TRUE(open.await(0, NS()));
    open.countDown();
    EXPECT_EQ(0, open.getCount());
    // Both forms are interruptible: a pending interrupt is reported even by an open latch.
    for (bool timed : {false, true}) {
        me()->interrupt();
        EXPECT_THROW(timed ? (void)open.await(60, SECONDS()) : open.await(),
                     mw::InterruptedException);
        EXPECT_FALSE(me()->isInterrupted());
    }
}

// A timed await with no time left only tests the count, one with time never ends early. Waiters
// of both forms queue; the first count-down frees none of them, the second frees all. Counting
// down at zero changes nothing, and later waits pass at once.
TEST(CountDownLatch, TheCountDownThatReachesZeroReleasesEveryWaiter) {
    mw::CountDownLatch latch(2);
    EXPECT_FALSE(latch.await(0, NS()));
    EXPECT_FALSE(latch.await(-5, SECONDS()));
    EXPECT_GE(mwtest::elapsed([&] { EXPECT_FALSE(latch.await(20, mw::TimeUnit::MILLISECONDS())); }),
              std::chrono::milliseconds(20));
    std::atomic<int> passed(0);
    Workers waiters;
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(waiters.startParked([&latch, &passed, i] {
            if (i % 2 == 0 ? (latch.await(), true) : latch.await(60, SECONDS())) passed += 1;
        }));
    }
    EXPECT_EQ(4u, latch.getQueueLength());
    latch.countDown();
    EXPECT_EQ(1, latch.getCount());
    EXPECT_EQ(0, passed.load());
    latch.countDown();
    EXPECT_TRUE(waiters.finish());
    EXPECT_EQ(4, passed.load());
    latch.countDown();
    EXPECT_EQ(0, latch.getCount());
    EXPECT_FALSE(latch.hasQueuedThreads());
    latch.await();
    EXPECT_TRUE(latch.await(-1, SECONDS()));
    EXPECT_TRUE(latch.await(0, NS()));
}

}  // namespace
