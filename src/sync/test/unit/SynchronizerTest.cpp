// AbstractQueuedSynchronizer itself: exclusive acquisition through the reentrant TestMutex, shared
// acquisition through Gate, whose attempts are counted per waiter, so a test sees exactly who was
// woken to try again, and the life of the queue (made only by a thread that queues; copies never
// share it).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <stdexcept>
#include <vector>

#include "TestMutex.h"

namespace {

using mwtest::finishes;
using mwtest::me;
using mwtest::TestMutex;
using mwtest::Workers;
using mwtest::WorkerThread;

const long long MS = 1000000LL;
const long long LONG_WAIT = 30000 * MS;
typedef std::function<void(TestMutex&)> AcquireForm;

// A woken waiter calls tryAcquire at once; none beyond the seen ones comes within a generous
// window.
template <typename Attempts>
bool noFurtherAttempt(Attempts attempts, long seen) {
    return !mwtest::eventually([&] { return attempts() != seen; }, std::chrono::milliseconds(100));
}

class BareSynchronizer : public mw::AbstractQueuedSynchronizer {};

TEST(Synchronizer, BaseClassOperationsAreUnsupportedAndQueueNothing) {
    BareSynchronizer s;
    const std::function<void()> operations[] = {[&] { s.acquire(1); },
                                                [&] { s.acquireInterruptibly(1); },
                                                [&] { s.tryAcquireNanos(1, MS); },
                                                [&] { s.release(1); },
                                                [&] { s.acquireShared(1); },
                                                [&] { s.acquireSharedInterruptibly(1); },
                                                [&] { s.tryAcquireSharedNanos(1, MS); },
                                                [&] { s.releaseShared(1); }};
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
    EXPECT_FALSE(m.hasQueuedThreads() || m.hasContended() || m.isQueued(me()));
    EXPECT_EQ(nullptr, m.getFirstQueuedThread());
    EXPECT_EQ(0u, m.getQueueLength());
    EXPECT_THROW(m.isQueued(nullptr), mw::NullPointerException);

    std::vector<int> order;  // appended under m, with the interrupt flag found on return
    me()->interrupt();
    m.lock();
    EXPECT_TRUE(mw::Thread::interrupted());
    m.lock();
    Workers waiters;
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(waiters.startParked([&m, &order, i] {
            m.lock();
            order.push_back(mw::Thread::interrupted() ? -i : i);
            m.unlock();
        }));
        EXPECT_EQ(static_cast<unsigned long long>(i + 1), m.getQueueLength());
    }
    const mw::Thread* t = waiters[1].self();
    t->interrupt();
    // Only the woken waiter clears the flag, and it then parks again in its place.
    EXPECT_TRUE(mwtest::eventually(
        [&] { return !t->isInterrupted() && t->getState() == mw::Thread::PARKED; }));
    EXPECT_TRUE(m.hasQueuedThreads() && m.isQueued(t) && !m.isQueued(me()));
    EXPECT_EQ(waiters[0].self(), m.getFirstQueuedThread());

    const long attempts = m.attempts();
    EXPECT_FALSE(m.release(1));
    EXPECT_TRUE(noFurtherAttempt([&] { return m.attempts(); }, attempts));
    EXPECT_TRUE(m.release(1));
    EXPECT_TRUE(waiters.finish());
    EXPECT_EQ((std::vector<int>{0, -1, 2}), order);
    EXPECT_FALSE(m.hasQueuedThreads() || m.isQueued(t));
    EXPECT_TRUE(m.hasContended());
    EXPECT_EQ(nullptr, m.getFirstQueuedThread());
    EXPECT_EQ(0u, m.getQueueLength());
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
            EXPECT_TRUE(finishes(first) && finishes(last));
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

// ---- shared acquisition -------------------------------------------------------------------------

const int SLOTS = 8;
thread_local int t_slot = 0;  // which waiter the calling thread is, for Gate's counts

struct SharedFailure {};  // what an armed tryAcquireShared throws

// Permits for shared waiters (tryAcquireShared returns what is left, as a semaphore does) and,
// beside them, one exclusive hold in the top bit, independent of the permits. grant and dropHold
// change the state without a release, so a test can let a waiter in with no release running.
class Gate : public mw::AbstractQueuedSynchronizer {
public:
    static const int HELD = 1 << 30;

    Gate() {
        for (auto& a : m_attempts) a.store(0);
    }

    void lock() { acquire(1); }
    void unlock() { release(1); }
    void grant(int n) { change(n); }
    void dropHold() { change(-HELD); }
    int permits() const { return getState() & ~HELD; }
    int attemptsOf(int slot) const { return m_attempts[slot].load(); }
    void failNextSharedAttemptOf(int slot) { m_failSlot.store(slot); }
    void refuseNextRelease() { m_refuseRelease.store(true); }

protected:
    int tryAcquireShared(int n) override {
        m_attempts[t_slot].fetch_add(1);
        int armed = t_slot;
        if (m_failSlot.compare_exchange_strong(armed, -1)) throw SharedFailure();
        for (;;) {
            int s = getState();
            int left = (s & ~HELD) - n;
            if (left < 0) return -1;
            if (compareAndSetState(s, s - n)) return left;
        }
    }
    bool tryReleaseShared(int n) override {
        if (m_refuseRelease.exchange(false)) return false;
        change(n);
        return true;
    }
    bool tryAcquire(int) override {
        m_attempts[t_slot].fetch_add(1);
        int s = getState();
        return (s & HELD) == 0 && compareAndSetState(s, s | HELD);
    }
    bool tryRelease(int) override {
        change(-HELD);
        return true;
    }
    bool isHeldExclusively() const override { return (getState() & HELD) != 0; }

private:
    void change(int delta) {
        for (;;) {
            int s = getState();
            if (compareAndSetState(s, s + delta)) return;
        }
    }

    std::atomic<int> m_attempts[SLOTS];
    std::atomic<int> m_failSlot{-1};
    std::atomic<bool> m_refuseRelease{false};
};

// A waiter in slot `slot` that runs body, started among workers; true once it is parked.
bool parkedIn(Workers& workers, int slot, std::function<void()> body) {
    return workers.startParked([slot, body] {
        t_slot = slot;
        body();
    });
}

bool noFurtherAttemptOf(const Gate& g, int slot, int seen) {
    return noFurtherAttempt([&] { return g.attemptsOf(slot); }, seen);
}

// Wakes a waiter parked in the plain form without any release running: it clears the flag, tries
// again and, if it fails, parks in its place.
void nudge(const WorkerThread& w) { w.self()->interrupt(); }

// The rows of the wake-up table that wake nobody, each met with no release running (grant and an
// interrupt let the first waiter in): a result of 0 leaves the shared waiter behind parked, and so
// does a positive result when the waiter behind is exclusive, whose mark then stays for the next
// release. A release that the subclass refuses wakes nobody whatever the queue holds.
TEST(SharedAcquisition, AWakeUpIsPassedOnOnlyWhenTheNextSharedWaiterMaySucceed) {
    Gate g;
    std::atomic<bool> flagOnReturn(false);
    Workers w;
    ASSERT_TRUE(parkedIn(w, 1, [&] {
        g.acquireShared(1);
        flagOnReturn.store(mw::Thread::interrupted());
    }));
    ASSERT_TRUE(parkedIn(w, 2, [&] { g.acquireShared(1); }));
    EXPECT_EQ(1, g.attemptsOf(2));  // the entry attempt only: it never stood first

    const int firstAttempts = g.attemptsOf(1);
    g.refuseNextRelease();
    EXPECT_FALSE(g.releaseShared(1));
    EXPECT_TRUE(noFurtherAttemptOf(g, 1, firstAttempts));

    g.grant(1);
    nudge(w[0]);  // result 0: nothing left to pass on
    ASSERT_TRUE(w[0].awaitFinished());
    EXPECT_TRUE(flagOnReturn.load());  // the plain form reasserts the interrupt it kept
    EXPECT_TRUE(noFurtherAttemptOf(g, 2, 1));
    EXPECT_TRUE(g.releaseShared(1));
    EXPECT_TRUE(w[1].awaitFinished());
    EXPECT_EQ(2, g.attemptsOf(2));

    Gate x;
    x.lock();
    ASSERT_TRUE(parkedIn(w, 3, [&] { x.acquireShared(1); }));
    ASSERT_TRUE(parkedIn(w, 4, [&] {
        x.lock();
        x.unlock();
    }));
    x.dropHold();
    x.grant(2);
    nudge(w[2]);  // result 1, but the next waiter is exclusive
    ASSERT_TRUE(w[2].awaitFinished());
    EXPECT_TRUE(noFurtherAttemptOf(x, 4, 1));
    EXPECT_TRUE(x.releaseShared(0));  // the next release finds the mark and wakes the writer
    EXPECT_TRUE(w[3].awaitFinished());
    EXPECT_FALSE(x.hasQueuedThreads());
}

// A release before any queue exists makes none. A release of several permits wakes the shared
// waiters one after another, each waking the next. A shared waiter behind an exclusive one makes
// no attempt, whatever it would get, until that one has been served; an entry attempt that throws
// reaches the caller with nothing queued.
TEST(SharedAcquisition, SharedWaitersWakeEachOtherAndWaitBehindAnExclusiveOne) {
    Gate g;
    EXPECT_TRUE(g.releaseShared(3));
    g.acquireShared(3);  // no queue, no allocation: the entry attempt succeeds
    EXPECT_FALSE(g.hasContended());
    Workers readers;
    for (int slot = 1; slot <= 3; ++slot)
        ASSERT_TRUE(parkedIn(readers, slot, [&] { g.acquireShared(1); }));
    EXPECT_TRUE(g.releaseShared(3));
    EXPECT_TRUE(readers.finish());
    EXPECT_EQ(0, g.permits());
    EXPECT_FALSE(g.hasQueuedThreads());

    Gate m;
    m.lock();
    Workers w;
    ASSERT_TRUE(parkedIn(w, 4, [&] {
        m.lock();
        m.unlock();
    }));
    ASSERT_TRUE(parkedIn(w, 5, [&] { m.acquireShared(1); }));
    m.grant(1);
    EXPECT_TRUE(m.releaseShared(1));  // wakes the writer, which finds the hold taken
    EXPECT_TRUE(noFurtherAttemptOf(m, 5, 1));
    m.failNextSharedAttemptOf(0);
    EXPECT_THROW(m.acquireShared(1), SharedFailure);
    EXPECT_EQ(2u, m.getQueueLength());
    m.unlock();
    EXPECT_TRUE(w.finish());
    EXPECT_EQ(2, m.attemptsOf(5));
    EXPECT_EQ(1, m.permits());
}

// Each shared form: an interrupt on entry refuses before any attempt; an interrupt or a time-out
// while queued cancels the node and leaves the queue to the waiters behind, which a later release
// reaches across the cancelled node.
TEST(SharedAcquisition, InterruptsAndTimeOutsCancelTheNodeAsEachFormPromises) {
    Gate g;
    t_slot = 0;
    me()->interrupt();
    EXPECT_THROW(g.acquireSharedInterruptibly(1), mw::InterruptedException);
    me()->interrupt();
    EXPECT_THROW(g.tryAcquireSharedNanos(1, LONG_WAIT), mw::InterruptedException);
    EXPECT_FALSE(mw::Thread::interrupted());
    EXPECT_EQ(0, g.attemptsOf(0));

    // No time left: the entry attempt, then one more at the front, then the node is cancelled.
    EXPECT_FALSE(g.tryAcquireSharedNanos(1, 0));
    EXPECT_FALSE(g.tryAcquireSharedNanos(1, -5));
    EXPECT_EQ(4, g.attemptsOf(0));
    EXPECT_FALSE(g.hasQueuedThreads());

    const std::function<void()> forms[] = {[&] { g.acquireSharedInterruptibly(1); },
                                           [&] { g.tryAcquireSharedNanos(1, LONG_WAIT); }};
    for (const auto& form : forms) {
        std::atomic<bool> threwWithFlagClear(false);
        Workers w;
        ASSERT_TRUE(parkedIn(w, 1, [&] {
            try {
                form();
            } catch (const mw::InterruptedException&) {
                threwWithFlagClear.store(!me()->isInterrupted());
            }
        }));
        ASSERT_TRUE(parkedIn(w, 2, [&] { g.acquireShared(1); }));
        w[0].self()->interrupt();
        ASSERT_TRUE(w[0].awaitFinished());
        EXPECT_TRUE(threwWithFlagClear.load());
        EXPECT_EQ(1u, g.getQueueLength());
        g.releaseShared(1);
        EXPECT_TRUE(w.finish());
        EXPECT_FALSE(g.hasQueuedThreads());
    }

    std::atomic<bool> timedOut(false);
    Workers w;
    ASSERT_TRUE(parkedIn(w, 1, [&] { g.acquireShared(1); }));
    ASSERT_TRUE(parkedIn(w, 2, [&] { timedOut.store(!g.tryAcquireSharedNanos(1, 20 * MS)); }));
    ASSERT_TRUE(parkedIn(w, 3, [&] { g.acquireShared(1); }));
    ASSERT_TRUE(w[1].awaitFinished());
    EXPECT_TRUE(timedOut.load());
    EXPECT_EQ(2u, g.getQueueLength());
    g.releaseShared(2);
    EXPECT_TRUE(w.finish());
    EXPECT_FALSE(g.hasQueuedThreads());
    EXPECT_EQ(0, g.permits());
}

// A tryAcquireShared that throws at the front cancels the node and reaches the caller; the waiter
// behind is handed the wake-up and acquires, and the interrupt it kept is set on its return.
TEST(SharedAcquisition, AThrowingAttemptCancelsTheNodeAndHandsTheWakeUpOn) {
    Gate g;
    std::atomic<bool> failed(false), interruptedOnReturn(false);
    Workers w;
    ASSERT_TRUE(parkedIn(w, 1, [&] {
        try {
            g.acquireShared(1);
        } catch (const SharedFailure&) {
            failed.store(true);
        }
    }));
    ASSERT_TRUE(parkedIn(w, 2, [&] {
        g.acquireShared(1);
        interruptedOnReturn.store(mw::Thread::interrupted());
    }));
    const mw::Thread* behind = w[1].self();
    behind->interrupt();
    EXPECT_TRUE(mwtest::eventually(
        [&] { return !behind->isInterrupted() && behind->getState() == mw::Thread::PARKED; }));
    g.failNextSharedAttemptOf(1);
    g.releaseShared(1);
    EXPECT_TRUE(w.finish());
    EXPECT_TRUE(failed.load());
    EXPECT_TRUE(interruptedOnReturn.load());
    EXPECT_EQ(0, g.permits());
    EXPECT_FALSE(g.hasQueuedThreads());
}

// ---- the queue's life ---------------------------------------------------------------------------

// A TestMutex whose release can be made to throw, so that a wait fails while giving up its hold.
class FailingRelease : public TestMutex {
public:
    void failReleases() { m_fail.store(true); }

protected:
    bool tryRelease(int releases) override {
        if (m_fail.load()) throw std::runtime_error("release refused");
        return TestMutex::tryRelease(releases);
    }

private:
    std::atomic<bool> m_fail{false};
};

// Neither a condition wait that fails while giving up its hold nor one that waits on the list
// makes the queue; the waiter's return to the hold through the queue does.
TEST(QueueLifetime, TheQueueIsMadeByTheFirstThreadThatQueues) {
    FailingRelease m;
    TestMutex::ConditionObject c = m.newCondition();
    m.lock();
    m.failReleases();
    EXPECT_THROW(c.await(), std::runtime_error);  // the hold is kept, nothing queued
    EXPECT_FALSE(m.hasContended());

    TestMutex n;
    TestMutex::ConditionObject d = n.newCondition();
    std::atomic<bool> waiting(false);
    WorkerThread waiter([&] {
        n.lock();
        waiting.store(true);
        d.awaitUninterruptibly();
        n.unlock();
    });
    ASSERT_TRUE(mwtest::eventually([&] { return waiting.load() && waiter.awaitParked(); }));
    n.lock();
    EXPECT_FALSE(n.hasContended());  // the waiter is on the condition's list, not in the queue
    d.signal();
    n.unlock();
    EXPECT_TRUE(waiter.awaitFinished());
    EXPECT_TRUE(n.hasContended());
}

// A copyable mutex: the state is all it has.
class Flag : public mw::AbstractQueuedSynchronizer {
public:
    typedef mw::AbstractQueuedSynchronizer::ConditionObject ConditionObject;
    void lock() { acquire(1); }
    void unlock() { release(1); }
    int state() const { return getState(); }

protected:
    bool tryAcquire(int) override { return compareAndSetState(0, 1); }
    bool tryRelease(int) override {
        setState(0);
        return true;
    }
    bool isHeldExclusively() const override { return getState() != 0; }
};

// A copy, by construction or assignment, takes the state and starts with a queue of its own; a
// condition's copy starts with a list of its own.
TEST(QueueLifetime, CopiesTakeTheStateAndNeverShareNodes) {
    Flag m;
    m.lock();
    WorkerThread waiter([&] {
        m.lock();
        m.unlock();
    });
    ASSERT_TRUE(waiter.awaitParked());
    Flag copy(m), assigned;
    assigned = m;
    for (const Flag* f : {&copy, &assigned}) {
        EXPECT_EQ(1, f->state());
        EXPECT_FALSE(f->hasContended() || f->hasQueuedThreads());
    }
    m = Flag();  // takes the free state and keeps its own queue, with the waiter in it
    EXPECT_EQ(0, m.state());
    EXPECT_EQ(1u, m.getQueueLength());
    m.lock();
    m.unlock();
    EXPECT_TRUE(waiter.awaitFinished());

    Flag::ConditionObject c(&m);
    WorkerThread conditionWaiter([&] {
        m.lock();
        c.awaitUninterruptibly();
        m.unlock();
    });
    ASSERT_TRUE(conditionWaiter.awaitParked());
    m.lock();
    Flag::ConditionObject copyOfCondition(c);
    EXPECT_EQ(1u, m.getWaitQueueLength(&c));
    EXPECT_EQ(0u, m.getWaitQueueLength(&copyOfCondition));
    copyOfCondition.signal();  // an empty list: nobody is woken
    EXPECT_EQ(1u, m.getWaitQueueLength(&c));
    c.signal();
    m.unlock();
    EXPECT_TRUE(conditionWaiter.awaitFinished());
}

}  // namespace
