// Conditions of AbstractQueuedSynchronizer, driven through the reentrant TestMutex: signalling,
// the full release and re-acquire of a wait, time-outs, interrupts and misuse.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "TestMutex.h"
#include "TestSupport.h"
#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mwtest::TestMutex;
using mwtest::WorkerThread;
typedef TestMutex::ConditionObject ConditionObject;

const long long MS = 1000000LL;
const long long LONG_WAIT = 30000 * MS;
const char* const EMPTY_DESCRIPTION = ", Description: ";

template <typename E, typename Action>
std::string whatOf(Action action) {
    try {
        action();
    } catch (const E& e) {
        return e.what();
    } catch (...) {
        return "<another exception>";
    }
    return "<nothing thrown>";
}

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

const mw::Thread* me() { return mw::Thread::currentThread(); }

unsigned long long waitersOn(TestMutex& m, const ConditionObject& c) {
    m.lock();
    unsigned long long n = m.getWaitQueueLength(&c);
    m.unlock();
    return n;
}

bool awaitWaiters(TestMutex& m, const ConditionObject& c, unsigned long long n) {
    return mwtest::eventually([&] { return waitersOn(m, c) == n; });
}

// Waits for a worker's body. A worker left blocked in an interruptible wait is interrupted out of
// it, so that a lost signal fails the test instead of hanging it in the join.
void expectFinishes(const WorkerThread& worker) {
    if (worker.awaitFinished()) return;
    ADD_FAILURE() << "worker still blocked";
    worker.self()->interrupt();
}

// A wait form and its verdict: true when it reports that a signal came first.
struct WaitForm {
    const char* name;
    std::function<bool(const ConditionObject&)> wait;
};

const std::vector<WaitForm>& interruptibleForms() {
    static const std::vector<WaitForm> forms = {
        {"await()",
         [](const ConditionObject& c) {
             c.await();
             return true;
         }},
        {"await(time, unit)",
         [](const ConditionObject& c) { return c.await(30, mw::TimeUnit::SECONDS()); }},
        {"awaitNanos", [](const ConditionObject& c) { return c.awaitNanos(LONG_WAIT) > 0; }},
        {"awaitUntil",
         [](const ConditionObject& c) { return c.awaitUntil(mw::TimeUtil::milliTime() + 30000); }},
    };
    return forms;
}

TEST(Condition, SignallingNeedsTheHoldEvenOnAnEmptyList) {
    TestMutex m;
    ConditionObject c = m.newCondition();
    EXPECT_TRUE(
        endsWith(whatOf<mw::IllegalMonitorStateException>([&] { c.signal(); }), EMPTY_DESCRIPTION));
    EXPECT_TRUE(endsWith(whatOf<mw::IllegalMonitorStateException>([&] { c.broadcast(); }),
                         EMPTY_DESCRIPTION));
    m.lock();
    c.signal();
    c.broadcast();
    EXPECT_EQ(1, m.state());
    EXPECT_FALSE(m.hasWaiters(&c));
    EXPECT_EQ(0u, m.getWaitQueueLength(&c));
    m.unlock();
    EXPECT_FALSE(m.hasContended());
}

// A signal transfers the longest live waiter only. A waiter that gave up stays on the list until it
// has the hold back to unlink itself; a signal in that moment passes over it.
TEST(Condition, SignalTransfersTheLongestLiveWaiterOnly) {
    TestMutex m;
    ConditionObject c = m.newCondition();
    std::atomic<int> interrupted(0);
    std::atomic<int> firstBack(-1);
    auto waiter = [&](int id) {
        return [&, id] {
            m.lock();
            try {
                c.await();
                int none = -1;
                firstBack.compare_exchange_strong(none, id);
            } catch (const mw::InterruptedException&) {
                interrupted.fetch_add(1);
            }
            m.unlock();
        };
    };
    WorkerThread gaveUp(waiter(0));
    EXPECT_TRUE(awaitWaiters(m, c, 1));
    WorkerThread a(waiter(1));
    EXPECT_TRUE(awaitWaiters(m, c, 2));
    WorkerThread b(waiter(2));
    EXPECT_TRUE(awaitWaiters(m, c, 3));

    m.lock();
    gaveUp.self()->interrupt();
    EXPECT_TRUE(mwtest::eventually([&] { return m.isQueued(gaveUp.self()); }));
    EXPECT_EQ(2u, m.getWaitQueueLength(&c));
    c.signal();
    // The signalled waiter now queues for the hold that this thread still has.
    EXPECT_TRUE(m.isQueued(a.self()));
    EXPECT_FALSE(m.isQueued(b.self()));
    EXPECT_EQ(1u, m.getWaitQueueLength(&c));
    m.unlock();
    expectFinishes(gaveUp);
    expectFinishes(a);
    EXPECT_EQ(1, interrupted.load());
    EXPECT_EQ(1, firstBack.load());
    EXPECT_FALSE(b.finished());

    m.lock();
    EXPECT_EQ(1u, m.getWaitQueueLength(&c));
    c.broadcast();
    EXPECT_EQ(0u, m.getWaitQueueLength(&c));
    m.unlock();
    expectFinishes(b);
}

TEST(Condition, AwaitGivesUpAMultipleHoldAndGetsItAllBack) {
    TestMutex m;
    ConditionObject c = m.newCondition();
    std::atomic<bool> waiting(false);
    std::atomic<int> stateOnReturn(0);
    std::atomic<bool> heldOnReturn(false);
    WorkerThread waiter([&] {
        m.lock();
        m.lock();
        m.lock();
        waiting = true;
        c.await();
        stateOnReturn = m.state();
        heldOnReturn = m.heldByCurrentThread();
        for (int i = 0; i < 3; ++i) m.unlock();
    });
    EXPECT_TRUE(mwtest::eventually([&] { return waiting && m.state() == 0; }));
    m.lock();
    EXPECT_EQ(1, m.state());
    EXPECT_EQ(me(), m.owner());
    EXPECT_EQ(1u, m.getWaitQueueLength(&c));
    c.signal();
    m.unlock();
    EXPECT_TRUE(waiter.awaitFinished());
    EXPECT_EQ(3, stateOnReturn.load());
    EXPECT_TRUE(heldOnReturn);
    EXPECT_EQ(0, m.state());
}

// Each expired wait still gives the hold up (a queued contender gets it in between) and takes
// the whole of it back, and leaves no waiter counted.
TEST(Condition, TimedWaitsWithNoTimeLeftReleaseAndReacquire) {
    const std::vector<WaitForm> expired = {
        {"await(0)",
         [](const ConditionObject& c) { return c.await(0, mw::TimeUnit::MILLISECONDS()); }},
        {"await(-5 s)",
         [](const ConditionObject& c) { return c.await(-5, mw::TimeUnit::SECONDS()); }},
        {"awaitNanos(0)", [](const ConditionObject& c) { return c.awaitNanos(0) > 0; }},
        {"awaitNanos(-1 ms)", [](const ConditionObject& c) { return c.awaitNanos(-MS) > 0; }},
        {"awaitUntil(past)",
         [](const ConditionObject& c) { return c.awaitUntil(mw::TimeUtil::milliTime() - 1000); }},
        {"awaitUntil(0)", [](const ConditionObject& c) { return c.awaitUntil(0); }},
    };
    TestMutex m;
    ConditionObject c = m.newCondition();
    for (const WaitForm& form : expired) {
        SCOPED_TRACE(form.name);
        m.lock();
        m.lock();
        std::atomic<bool> contenderGot(false);
        WorkerThread contender([&] {
            m.lock();
            contenderGot = true;
            m.unlock();
        });
        EXPECT_TRUE(contender.awaitParked());
        EXPECT_FALSE(form.wait(c));
        EXPECT_TRUE(contenderGot);
        EXPECT_EQ(2, m.state());
        EXPECT_TRUE(m.heldByCurrentThread());
        EXPECT_FALSE(m.hasWaiters(&c));
        EXPECT_EQ(0u, m.getWaitQueueLength(&c));
        m.unlock();
        m.unlock();
    }
}

TEST(Condition, TimedWaitsWithoutASignalNeverEndEarly) {
    const long long WAIT_MS = 30;
    TestMutex m;
    ConditionObject c = m.newCondition();
    m.lock();
    long long start = mw::TimeUtil::nanoTime();
    EXPECT_FALSE(c.await(WAIT_MS, mw::TimeUnit::MILLISECONDS()));
    long long elapsed = mw::TimeUtil::nanoTime() - start;
    EXPECT_GE(elapsed, WAIT_MS * MS);
    EXPECT_LT(elapsed, 10000 * MS);

    start = mw::TimeUtil::nanoTime();
    EXPECT_FALSE(c.await(WAIT_MS * 1000, mw::TimeUnit::MICROSECONDS()));
    EXPECT_GE(mw::TimeUtil::nanoTime() - start, WAIT_MS * MS);

    start = mw::TimeUtil::nanoTime();
    EXPECT_LE(c.awaitNanos(WAIT_MS * MS), 0);
    elapsed = mw::TimeUtil::nanoTime() - start;
    EXPECT_GE(elapsed, WAIT_MS * MS);
    EXPECT_LT(elapsed, 10000 * MS);

    long long deadline = mw::TimeUtil::milliTime() + WAIT_MS;
    EXPECT_FALSE(c.awaitUntil(deadline));
    EXPECT_GT(mw::TimeUtil::milliTime(), deadline);

    EXPECT_EQ(1, m.state());
    EXPECT_TRUE(m.heldByCurrentThread());
    EXPECT_FALSE(m.hasWaiters(&c));
    m.unlock();
}

TEST(Condition, TimedWaitsSignalledInTimeReportTheSignal) {
    TestMutex m;
    ConditionObject c = m.newCondition();
    const int WAITS = 3;
    WorkerThread signaller([&] {
        for (int i = 0; i < WAITS; ++i) {
            EXPECT_TRUE(mwtest::eventually([&] {
                m.lock();
                bool waiting = m.hasWaiters(&c);
                if (waiting) c.signal();
                m.unlock();
                return waiting;
            }));
        }
    });
    m.lock();
    EXPECT_TRUE(c.await(30, mw::TimeUnit::SECONDS()));
    EXPECT_GT(c.awaitNanos(LONG_WAIT), 0);
    EXPECT_TRUE(c.awaitUntil(mw::TimeUtil::milliTime() + 30000));
    EXPECT_EQ(1, m.state());
    m.unlock();
    EXPECT_TRUE(signaller.awaitFinished());
}

// An interrupt that comes first throws, but only once the waiter has the hold back.
TEST(Condition, InterruptBeforeSignalThrowsWithTheHoldBack) {
    for (const WaitForm& form : interruptibleForms()) {
        SCOPED_TRACE(form.name);
        TestMutex m;
        ConditionObject c = m.newCondition();
        std::atomic<bool> threw(false);
        std::atomic<bool> heldOnThrow(false);
        std::atomic<bool> flagAfter(true);
        WorkerThread waiter([&] {
            m.lock();
            try {
                form.wait(c);
            } catch (const mw::InterruptedException&) {
                threw = true;
                heldOnThrow = m.heldByCurrentThread() && m.state() == 1;
                flagAfter = me()->isInterrupted();
            }
            m.unlock();
        });
        EXPECT_TRUE(waiter.awaitParked());
        m.lock();
        waiter.self()->interrupt();
        EXPECT_TRUE(mwtest::eventually([&] { return m.isQueued(waiter.self()); }));
        EXPECT_FALSE(threw);
        EXPECT_FALSE(m.hasWaiters(&c));
        m.unlock();
        EXPECT_TRUE(waiter.awaitFinished());
        EXPECT_TRUE(threw);
        EXPECT_TRUE(heldOnThrow);
        EXPECT_FALSE(flagAfter);
    }
}

TEST(Condition, InterruptAfterSignalEndsTheWaitNormallyWithTheFlagSet) {
    for (const WaitForm& form : interruptibleForms()) {
        SCOPED_TRACE(form.name);
        TestMutex m;
        ConditionObject c = m.newCondition();
        std::atomic<bool> signalled(false);
        std::atomic<bool> flagAfter(false);
        WorkerThread waiter([&] {
            m.lock();
            try {
                signalled = form.wait(c);
                flagAfter = mw::Thread::interrupted();
            } catch (...) {
            }
            m.unlock();
        });
        EXPECT_TRUE(waiter.awaitParked());
        m.lock();
        c.signal();
        waiter.self()->interrupt();
        m.unlock();
        EXPECT_TRUE(waiter.awaitFinished());
        EXPECT_TRUE(signalled);
        EXPECT_TRUE(flagAfter);
    }
}

TEST(Condition, InterruptedOnEntryThrowsAtOnceAndKeepsTheHold) {
    TestMutex m;
    ConditionObject c = m.newCondition();
    m.lock();
    for (const WaitForm& form : interruptibleForms()) {
        SCOPED_TRACE(form.name);
        me()->interrupt();
        EXPECT_THROW(form.wait(c), mw::InterruptedException);
        EXPECT_FALSE(mw::Thread::interrupted());
        EXPECT_EQ(1, m.state());
        EXPECT_TRUE(m.heldByCurrentThread());
        EXPECT_EQ(0u, m.getWaitQueueLength(&c));
    }
    m.unlock();
    EXPECT_FALSE(m.hasContended());
}

TEST(Condition, AwaitUninterruptiblyWaitsForItsSignalAndKeepsTheInterrupt) {
    TestMutex m;
    ConditionObject c = m.newCondition();
    std::atomic<bool> flagOnReturn(false);
    std::atomic<bool> heldOnReturn(false);
    WorkerThread waiter([&] {
        m.lock();
        c.awaitUninterruptibly();
        heldOnReturn = m.heldByCurrentThread();
        flagOnReturn = mw::Thread::interrupted();
        m.unlock();
    });
    EXPECT_TRUE(waiter.awaitParked());
    const mw::Thread* t = waiter.self();
    t->interrupt();
    // The woken waiter clears the flag to be able to park again, and stays on the list.
    EXPECT_TRUE(mwtest::eventually(
        [&] { return !t->isInterrupted() && t->getState() == mw::Thread::PARKED; }));
    m.lock();
    EXPECT_TRUE(m.hasWaiters(&c));
    EXPECT_FALSE(waiter.finished());
    c.signal();
    m.unlock();
    EXPECT_TRUE(waiter.awaitFinished());
    EXPECT_TRUE(heldOnReturn);
    EXPECT_TRUE(flagOnReturn);
}

TEST(Condition, InterruptedWaitersAreNoLongerCounted) {
    TestMutex m;
    ConditionObject c = m.newCondition();
    std::atomic<int> interrupted(0);
    auto interruptible = [&] {
        m.lock();
        try {
            c.await();
        } catch (const mw::InterruptedException&) {
            interrupted.fetch_add(1);
        }
        m.unlock();
    };
    WorkerThread a(interruptible);
    EXPECT_TRUE(awaitWaiters(m, c, 1));
    WorkerThread b(interruptible);
    EXPECT_TRUE(awaitWaiters(m, c, 2));

    // a has b behind it: it takes itself off the list on its way out.
    a.self()->interrupt();
    EXPECT_TRUE(a.awaitFinished());
    m.lock();
    EXPECT_TRUE(m.hasWaiters(&c));
    EXPECT_EQ(1u, m.getWaitQueueLength(&c));
    m.unlock();

    // b is the last node: it stays linked, but no longer counts as a waiter.
    b.self()->interrupt();
    EXPECT_TRUE(b.awaitFinished());
    EXPECT_EQ(2, interrupted.load());
    m.lock();
    EXPECT_FALSE(m.hasWaiters(&c));
    EXPECT_EQ(0u, m.getWaitQueueLength(&c));
    // A signal over given-up nodes transfers none of them.
    c.signal();
    EXPECT_FALSE(m.hasQueuedThreads());
    m.unlock();

    std::atomic<bool> signalled(false);
    WorkerThread d([&] {
        m.lock();
        c.await();
        signalled = true;
        m.unlock();
    });
    EXPECT_TRUE(awaitWaiters(m, c, 1));
    m.lock();
    c.signal();
    m.unlock();
    EXPECT_TRUE(d.awaitFinished());
    EXPECT_TRUE(signalled);
}

TEST(Condition, InspectionRefusesForeignConditionsAndNonHolders) {
    TestMutex m;
    TestMutex other;
    ConditionObject c = m.newCondition();
    ConditionObject foreign = other.newCondition();
    EXPECT_THROW(m.owns(nullptr), mw::NullPointerException);
    EXPECT_THROW(m.hasWaiters(nullptr), mw::NullPointerException);
    EXPECT_THROW(m.getWaitQueueLength(nullptr), mw::NullPointerException);
    EXPECT_TRUE(m.owns(&c));
    EXPECT_FALSE(m.owns(&foreign));

    // A foreign condition is refused before anything asks who holds the synchronizer.
    for (int holding = 0; holding < 2; ++holding) {
        if (holding) m.lock();
        EXPECT_TRUE(endsWith(whatOf<mw::IllegalArgumentException>([&] { m.hasWaiters(&foreign); }),
                             "Description: Not owner"));
        EXPECT_TRUE(
            endsWith(whatOf<mw::IllegalArgumentException>([&] { m.getWaitQueueLength(&foreign); }),
                     "Description: Not owner"));
    }
    m.unlock();

    other.lock();  // holding another synchronizer does not count
    EXPECT_TRUE(endsWith(whatOf<mw::IllegalMonitorStateException>([&] { m.hasWaiters(&c); }),
                         EMPTY_DESCRIPTION));
    EXPECT_TRUE(
        endsWith(whatOf<mw::IllegalMonitorStateException>([&] { m.getWaitQueueLength(&c); }),
                 EMPTY_DESCRIPTION));
    other.unlock();
}

// The hold is tested before anything else: a stranger's wait neither touches the list nor asks
// the synchronizer to release, whoever holds it.
TEST(Condition, WaitByANonHolderLeavesListAndStateAlone) {
    TestMutex m;
    ConditionObject c = m.newCondition();
    std::atomic<bool> signalled(false);
    WorkerThread waiter([&] {
        m.lock();
        c.await();
        signalled = m.heldByCurrentThread();
        m.unlock();
    });
    EXPECT_TRUE(awaitWaiters(m, c, 1));

    std::vector<WaitForm> forms = interruptibleForms();
    forms.push_back({"awaitUninterruptibly", [](const ConditionObject& cond) {
                         cond.awaitUninterruptibly();
                         return true;
                     }});
    auto strangerWaits = [&] {
        long releaseCalls = m.releaseCalls();
        WorkerThread stranger([&] {
            for (const WaitForm& form : forms) {
                SCOPED_TRACE(form.name);
                EXPECT_TRUE(
                    endsWith(whatOf<mw::IllegalMonitorStateException>([&] { form.wait(c); }),
                             EMPTY_DESCRIPTION));
            }
        });
        EXPECT_TRUE(stranger.awaitFinished());
        EXPECT_EQ(releaseCalls, m.releaseCalls());
    };
    strangerWaits();  // while the synchronizer is free
    EXPECT_EQ(0, m.state());

    m.lock();
    m.lock();
    strangerWaits();  // while this thread holds it twice
    EXPECT_EQ(2, m.state());
    EXPECT_TRUE(m.heldByCurrentThread());
    EXPECT_EQ(1u, m.getWaitQueueLength(&c));
    c.signal();
    EXPECT_EQ(0u, m.getWaitQueueLength(&c));
    m.unlock();
    m.unlock();
    EXPECT_TRUE(waiter.awaitFinished());
    EXPECT_TRUE(signalled);
}

}  // namespace
