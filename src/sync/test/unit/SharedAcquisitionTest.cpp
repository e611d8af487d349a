// Shared acquisition through AbstractQueuedSynchronizer: the passing-on of wake-ups from one
// shared waiter to the next, exclusive and shared waiters in one queue, and every shared form
// under interrupt, time-out and a throwing subclass. Driven through Gate, whose attempts are
// counted per waiter, so a test sees exactly who was woken to try again.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mwtest::WorkerThread;

const long long MS = 1000000LL;
const long long LONG_WAIT = 30000 * MS;
const int SLOTS = 8;

thread_local int t_slot = 0;  // which waiter the calling thread is, for Gate's counts

struct SharedFailure {};  // what an armed tryAcquireShared throws

// Permits for shared waiters (tryAcquireShared returns what is left, as a semaphore does) and,
// beside them, one exclusive hold in the top bit, independent of the permits. grant and dropHold
// change the state without a release, so a test can let a waiter in with no release running.
class Gate : public mw::AbstractQueuedSynchronizer {
public:
    static const int HELD = 1 << 30;

    explicit Gate(int permits = 0) {
        setState(permits);
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

// A waiter in slot `slot` that runs body and stays until the test joins it.
std::unique_ptr<WorkerThread> waiterIn(int slot, std::function<void()> body) {
    return std::unique_ptr<WorkerThread>(new WorkerThread([slot, body] {
        t_slot = slot;
        body();
    }));
}

// A woken waiter calls tryAcquireShared at once; none comes within a generous window.
bool noFurtherAttempt(const Gate& g, int slot, int seen) {
    return !mwtest::eventually([&] { return g.attemptsOf(slot) != seen; },
                               std::chrono::milliseconds(100));
}

class BareSynchronizer : public mw::AbstractQueuedSynchronizer {};

TEST(SharedAcquisition, BaseOperationsAreUnsupportedAndAReleaseBeforeAnyQueueIsHarmless) {
    BareSynchronizer s;
    const std::function<void()> operations[] = {
        [&] { s.acquireShared(1); }, [&] { s.acquireSharedInterruptibly(1); },
        [&] { s.tryAcquireSharedNanos(1, MS); }, [&] { s.releaseShared(1); }};
    for (const std::function<void()>& operation : operations) {
        EXPECT_TRUE(mwtest::throwsWith<mw::UnsupportedOperationException>(
            operation, "Operation not supported in base implementation"));
    }
    EXPECT_FALSE(s.hasContended());

    Gate g;
    EXPECT_TRUE(g.releaseShared(2));
    EXPECT_EQ(2, g.permits());
    EXPECT_FALSE(g.hasContended());
    g.acquireShared(2);  // no queue, no allocation: the entry attempt succeeds
    EXPECT_FALSE(g.hasContended());
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
    auto first = waiterIn(1, [&] {
        g.acquireShared(1);
        flagOnReturn.store(mw::Thread::interrupted());
    });
    ASSERT_TRUE(first->awaitParked());
    auto second = waiterIn(2, [&] { g.acquireShared(1); });
    ASSERT_TRUE(second->awaitParked());
    EXPECT_EQ(1, g.attemptsOf(2));  // the entry attempt only: it never stood first

    int firstAttempts = g.attemptsOf(1);
    g.refuseNextRelease();
    EXPECT_FALSE(g.releaseShared(1));
    EXPECT_TRUE(noFurtherAttempt(g, 1, firstAttempts));

    g.grant(1);
    nudge(*first);  // result 0: nothing left to pass on
    ASSERT_TRUE(first->awaitFinished());
    EXPECT_TRUE(flagOnReturn.load());  // the plain form reasserts the interrupt it kept
    EXPECT_TRUE(noFurtherAttempt(g, 2, 1));
    EXPECT_TRUE(g.releaseShared(1));
    EXPECT_TRUE(second->awaitFinished());
    EXPECT_EQ(2, g.attemptsOf(2));

    Gate x;
    x.lock();
    auto reader = waiterIn(3, [&] { x.acquireShared(1); });
    ASSERT_TRUE(reader->awaitParked());
    auto writer = waiterIn(4, [&] {
        x.lock();
        x.unlock();
    });
    ASSERT_TRUE(writer->awaitParked());
    x.dropHold();
    x.grant(2);
    nudge(*reader);  // result 1, but the next waiter is exclusive
    ASSERT_TRUE(reader->awaitFinished());
    EXPECT_TRUE(noFurtherAttempt(x, 4, 1));
    EXPECT_TRUE(x.releaseShared(0));  // the next release finds the mark and wakes the writer
    EXPECT_TRUE(writer->awaitFinished());
    EXPECT_FALSE(x.hasQueuedThreads());
}

// A release of several permits wakes the shared waiters one after another, each waking the next.
// A shared waiter behind an exclusive one makes no attempt, whatever it would get, until that one
// has been served; an entry attempt that throws reaches the caller with nothing queued.
TEST(SharedAcquisition, SharedWaitersWakeEachOtherAndWaitBehindAnExclusiveOne) {
    Gate g;
    std::vector<std::unique_ptr<WorkerThread>> readers;
    for (int slot = 1; slot <= 3; ++slot) {
        readers.push_back(waiterIn(slot, [&] { g.acquireShared(1); }));
        ASSERT_TRUE(readers.back()->awaitParked());
    }
    EXPECT_TRUE(g.releaseShared(3));
    for (auto& r : readers) EXPECT_TRUE(r->awaitFinished());
    EXPECT_EQ(0, g.permits());
    EXPECT_FALSE(g.hasQueuedThreads());

    Gate m;
    m.lock();
    auto writer = waiterIn(4, [&] {
        m.lock();
        m.unlock();
    });
    ASSERT_TRUE(writer->awaitParked());
    auto reader = waiterIn(5, [&] { m.acquireShared(1); });
    ASSERT_TRUE(reader->awaitParked());
    m.grant(1);
    EXPECT_TRUE(m.releaseShared(1));  // wakes the writer, which finds the hold taken
    EXPECT_TRUE(noFurtherAttempt(m, 5, 1));
    m.failNextSharedAttemptOf(0);
    EXPECT_THROW(m.acquireShared(1), SharedFailure);
    EXPECT_EQ(2u, m.getQueueLength());
    m.unlock();
    EXPECT_TRUE(writer->awaitFinished());
    EXPECT_TRUE(reader->awaitFinished());
    EXPECT_EQ(2, m.attemptsOf(5));
    EXPECT_EQ(1, m.permits());
}

// Each shared form: an interrupt on entry refuses before any attempt; an interrupt or a time-out
// while queued cancels the node and leaves the queue to the waiters behind, which a later release
// reaches across the cancelled node.
TEST(SharedAcquisition, InterruptsAndTimeOutsCancelTheNodeAsEachFormPromises) {
    Gate g;
    t_slot = 0;
    mw::Thread::currentThread()->interrupt();
    EXPECT_THROW(g.acquireSharedInterruptibly(1), mw::InterruptedException);
    mw::Thread::currentThread()->interrupt();
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
        auto front = waiterIn(1, [&] {
            try {
                form();
            } catch (const mw::InterruptedException&) {
                threwWithFlagClear.store(!mw::Thread::currentThread()->isInterrupted());
            }
        });
        ASSERT_TRUE(front->awaitParked());
        auto behind = waiterIn(2, [&] { g.acquireShared(1); });
        ASSERT_TRUE(behind->awaitParked());
        front->self()->interrupt();
        ASSERT_TRUE(front->awaitFinished());
        EXPECT_TRUE(threwWithFlagClear.load());
        EXPECT_EQ(1u, g.getQueueLength());
        g.releaseShared(1);
        EXPECT_TRUE(behind->awaitFinished());
        EXPECT_FALSE(g.hasQueuedThreads());
    }

    auto front = waiterIn(1, [&] { g.acquireShared(1); });
    ASSERT_TRUE(front->awaitParked());
    std::atomic<bool> timedOut(false);
    auto middle = waiterIn(2, [&] { timedOut.store(!g.tryAcquireSharedNanos(1, 20 * MS)); });
    ASSERT_TRUE(middle->awaitParked());
    auto last = waiterIn(3, [&] { g.acquireShared(1); });
    ASSERT_TRUE(last->awaitParked());
    ASSERT_TRUE(middle->awaitFinished());
    EXPECT_TRUE(timedOut.load());
    EXPECT_EQ(2u, g.getQueueLength());
    g.releaseShared(2);
    EXPECT_TRUE(front->awaitFinished());
    EXPECT_TRUE(last->awaitFinished());
    EXPECT_FALSE(g.hasQueuedThreads());
    EXPECT_EQ(0, g.permits());
}

// A tryAcquireShared that throws at the front cancels the node and reaches the caller; the waiter
// behind is handed the wake-up and acquires, and the interrupt it kept is set on its return.
TEST(SharedAcquisition, AThrowingAttemptCancelsTheNodeAndHandsTheWakeUpOn) {
    Gate g;
    std::atomic<bool> failed(false), interruptedOnReturn(false);
    auto front = waiterIn(1, [&] {
        try {
            g.acquireShared(1);
        } catch (const SharedFailure&) {
            failed.store(true);
        }
    });
    ASSERT_TRUE(front->awaitParked());
    auto behind = waiterIn(2, [&] {
        g.acquireShared(1);
        interruptedOnReturn.store(mw::Thread::interrupted());
    });
    ASSERT_TRUE(behind->awaitParked());
    behind->self()->interrupt();
    EXPECT_TRUE(mwtest::eventually([&] {
        return !behind->self()->isInterrupted() &&
               behind->self()->getState() == mw::Thread::PARKED;
    }));
    g.failNextSharedAttemptOf(1);
    g.releaseShared(1);
    ASSERT_TRUE(front->awaitFinished());
    EXPECT_TRUE(failed.load());
    EXPECT_TRUE(behind->awaitFinished());
    EXPECT_TRUE(interruptedOnReturn.load());
    EXPECT_EQ(0, g.permits());
    EXPECT_FALSE(g.hasQueuedThreads());
}

}  // namespace
