// Exclusive acquisition through AbstractQueuedSynchronizer, and the queue inspection around it,
// driven through the reentrant TestMutex.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <memory>
#include <vector>

#include "TestMutex.h"

namespace {

using mwtest::finishes;
using mwtest::TestMutex;
using mwtest::WorkerThread;

const long long MS = 1000000LL;
const long long LONG_WAIT = 30000 * MS;
typedef std::function<void(TestMutex&)> AcquireForm;

const mw::Thread* me() { return mw::Thread::currentThread(); }

class BareSynchronizer : public mw::AbstractQueuedSynchronizer {};

TEST(Synchronizer, BaseClassOperationsAreUnsupportedAndQueueNothing) {
    BareSynchronizer s;
    const std::function<void()> operations[] = {
        [&] { s.acquire(1); }, [&] { s.acquireInterruptibly(1); },
        [&] { s.tryAcquireNanos(1, MS); }, [&] { s.release(1); }};
    for (const std::function<void()>& operation : operations) {
        EXPECT_TRUE(mwtest::throwsWith<mw::UnsupportedOperationException>(
            operation, "Operation not supported in base implementation"));
    }
    EXPECT_FALSE(s.hasContended());
}

// The loop takes exactly its steps, whatever the subclass: a lone waiter tries on arrival, once as
// the first queued thread, once more after it marked its predecessor, and parks; woken, it tries
// once and has the hold. A spin in the synchronizer would show as many more calls.
TEST(Synchronizer, AFirstWaiterCallsTryAcquireOnlyAtTheLoopsSteps) {
    TestMutex m;
    m.lock();
    const long before = m.attempts();
    WorkerThread waiter([&m] {
        m.lock();
        m.unlock();
    });
    ASSERT_TRUE(waiter.awaitParked());
    EXPECT_EQ(3, m.attempts() - before);
    m.unlock();
    waiter.join();
    EXPECT_EQ(4, m.attempts() - before);
}

// A fresh, a busy and a drained queue. Waiters acquire in arrival order, a release that leaves
// the synchronizer held wakes none of them, and acquire keeps its place through an interrupt and
// reasserts it on return; a flag set on entry is left alone when no park is needed.
TEST(Synchronizer, QueuedThreadsAcquireInArrivalOrderAndAreInspectable) {
    TestMutex m;
    EXPECT_FALSE(m.hasQueuedThreads());
    EXPECT_FALSE(m.hasContended());
    EXPECT_EQ(nullptr, m.getFirstQueuedThread());
    EXPECT_EQ(0u, m.getQueueLength());
    EXPECT_FALSE(m.isQueued(me()));
    EXPECT_THROW(m.isQueued(nullptr), mw::NullPointerException);

    std::vector<int> order;  // appended under m, with the interrupt flag found on return
    me()->interrupt();
    m.lock();
    EXPECT_TRUE(mw::Thread::interrupted());
    m.lock();
    std::vector<std::unique_ptr<WorkerThread>> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back(new WorkerThread([&m, &order, i] {
            m.lock();
            order.push_back(mw::Thread::interrupted() ? -i : i);
            m.unlock();
        }));
        EXPECT_TRUE(waiters.back()->awaitParked());
        EXPECT_EQ(static_cast<unsigned long long>(i + 1), m.getQueueLength());
    }
    const mw::Thread* t = waiters[1]->self();
    t->interrupt();
    // Only the woken waiter clears the flag, and it then parks again in its place.
    EXPECT_TRUE(mwtest::eventually(
        [&] { return !t->isInterrupted() && t->getState() == mw::Thread::PARKED; }));
    EXPECT_TRUE(m.hasQueuedThreads());
    EXPECT_EQ(waiters.front()->self(), m.getFirstQueuedThread());
    EXPECT_TRUE(m.isQueued(t));
    EXPECT_FALSE(m.isQueued(me()));

    long attempts = m.attempts();
    EXPECT_FALSE(m.release(1));
    // A woken waiter would call tryAcquire at once; none comes within a generous window.
    EXPECT_FALSE(mwtest::eventually([&] { return m.attempts() != attempts; },
                                    std::chrono::milliseconds(100)));
    EXPECT_TRUE(m.release(1));
    for (auto& w : waiters) EXPECT_TRUE(w->awaitFinished());
    EXPECT_EQ((std::vector<int>{0, -1, 2}), order);
    EXPECT_FALSE(m.hasQueuedThreads());
    EXPECT_TRUE(m.hasContended());
    EXPECT_EQ(nullptr, m.getFirstQueuedThread());
    EXPECT_EQ(0u, m.getQueueLength());
    EXPECT_FALSE(m.isQueued(t));
}

// A waiter that gives up leaves the queue sound. A middle one stays linked behind the first but
// is counted and found no more. A first one, interrupted out of an interruptible form or failed by
// a throwing tryAcquire, leaves without the hold and with the flag clear, and hands the wake-up
// on: the one behind is first at every moment of the hand-over, and acquires. The windows in
// which a node is being linked or cancelled last moments, so the scenes are repeated.
TEST(Synchronizer, AWaiterThatGivesUpHandsItsPlaceOn) {
    struct Case {
        AcquireForm form;
        bool interrupt;  // else tryAcquire throws
    };
    const Case cases[] = {{[](TestMutex& m) { m.acquireInterruptibly(1); }, true},
                          {[](TestMutex& m) { m.tryAcquireNanos(1, LONG_WAIT); }, true},
                          {[](TestMutex& m) { m.acquire(1); }, false},
                          {[](TestMutex& m) { m.acquireInterruptibly(1); }, false},
                          {[](TestMutex& m) { m.tryAcquireNanos(1, LONG_WAIT); }, false}};
    for (int round = 0; round < 50; ++round) {
        for (const Case& c : cases) {
            TestMutex m;
            if (c.interrupt) {  // refused even when free, before any tryAcquire
                me()->interrupt();
                ASSERT_THROW(c.form(m), mw::InterruptedException);
                EXPECT_FALSE(me()->isInterrupted());
                EXPECT_EQ(0, m.attempts());
            }
            std::atomic<int> gaveUpCleanly(0);
            std::atomic<bool> lastHeld(false);
            auto waiter = [&](const AcquireForm& form) {
                return [&, form] {
                    try {
                        form(m);
                        lastHeld = m.heldByCurrentThread();
                        if (lastHeld) m.unlock();
                    } catch (const mw::InterruptedException&) {
                        if (!me()->isInterrupted() && !m.heldByCurrentThread()) gaveUpCleanly += 1;
                    } catch (const mwtest::AcquireFailure&) {
                        if (!m.heldByCurrentThread()) gaveUpCleanly += 1;
                    }
                };
            };
            int wrong = 0;
            m.lock();
            WorkerThread first(waiter(c.form));
            const mw::Thread* f = first.self();
            while (f->getState() == mw::Thread::RUNNING && !first.finished()) {
                if (m.isQueued(f) && m.getFirstQueuedThread() != f) ++wrong;
            }
            WorkerThread middle(waiter(cases[0].form));
            EXPECT_TRUE(middle.awaitParked());
            WorkerThread last(waiter(cases[0].form));
            EXPECT_TRUE(last.awaitParked());
            middle.self()->interrupt();
            EXPECT_TRUE(finishes(middle));
            EXPECT_EQ(2u, m.getQueueLength());
            EXPECT_FALSE(m.isQueued(middle.self()));
            EXPECT_EQ(f, m.getFirstQueuedThread());
            if (c.interrupt) {
                f->interrupt();
                EXPECT_TRUE(mwtest::eventually([&] {
                    const mw::Thread* answer = m.getFirstQueuedThread();
                    if (answer != f && answer != last.self()) ++wrong;
                    return answer == last.self() && first.finished();
                }));
                EXPECT_EQ(1u, m.getQueueLength());
            } else {
                m.failNextAcquireOf(f);
            }
            m.unlock();
            EXPECT_TRUE(finishes(first));
            EXPECT_TRUE(finishes(last));
            EXPECT_EQ(0, wrong);
            EXPECT_EQ(2, gaveUpCleanly.load());
            EXPECT_TRUE(lastHeld);
            EXPECT_FALSE(m.hasQueuedThreads());
            EXPECT_EQ(0, m.state());
        }
    }
}

// No time left still queues and gives a first waiter its one more try. A waiter that is not
// released in time waits its full time; one released in time gets the synchronizer.
TEST(Synchronizer, TimedAcquireTriesOnceWithNoTimeLeftAndNeverTimesOutEarly) {
    TestMutex m;
    EXPECT_TRUE(m.tryAcquireNanos(1, 0));  // free: taken without queuing
    EXPECT_FALSE(m.hasContended());
    long before = m.attempts();
    std::atomic<long> expiredAttempts(0);
    std::atomic<long long> elapsed(0);
    std::atomic<bool> held(false);
    WorkerThread w([&] {
        for (long long timeout : {0LL, -1LL, LLONG_MIN})
            EXPECT_FALSE(m.tryAcquireNanos(1, timeout));
        expiredAttempts = m.attempts() - before;
        long long start = mw::TimeUtil::nanoTime();
        if (!m.tryAcquireNanos(1, 50 * MS)) elapsed = mw::TimeUtil::nanoTime() - start;
        held = m.tryAcquireNanos(1, LONG_WAIT) && m.heldByCurrentThread();
        if (held) m.unlock();
    });
    EXPECT_TRUE(mwtest::eventually([&] { return elapsed.load() != 0 || w.finished(); }));
    EXPECT_TRUE(w.awaitParked());
    EXPECT_EQ(2 * 3, expiredAttempts.load());  // one try before queuing, one as first queued
    m.unlock();
    EXPECT_TRUE(finishes(w));
    EXPECT_GE(elapsed.load(), 50 * MS);
    EXPECT_LT(elapsed.load(), 10000 * MS);
    EXPECT_TRUE(held);
    EXPECT_FALSE(m.hasQueuedThreads());
}

}  // namespace
