// Exclusive acquisition through AbstractQueuedSynchronizer, and the queue inspection around it,
// driven through the reentrant TestMutex.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TestMutex.h"
#include "TestSupport.h"
#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mwtest::TestMutex;
using mwtest::WorkerThread;

const long long MS = 1000000LL;
const long long LONG_WAIT = 30000 * MS;

class BareSynchronizer : public mw::AbstractQueuedSynchronizer {};

typedef std::function<void(TestMutex&)> AcquireForm;

// what() of the E that action throws, or a marker that fails any suffix test.
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

TEST(Synchronizer, BaseClassOperationsAreUnsupportedAndQueueNothing) {
    BareSynchronizer s;
    const std::function<void()> operations[] = {
        [&] { s.acquire(1); },
        [&] { s.acquireInterruptibly(1); },
        [&] { s.tryAcquireNanos(1, MS); },
        [&] { s.release(1); },
    };
    for (const std::function<void()>& operation : operations) {
        EXPECT_TRUE(endsWith(whatOf<mw::UnsupportedOperationException>(operation),
                             "Description: Operation not supported in base implementation"));
    }
    EXPECT_FALSE(s.hasContended());
    EXPECT_EQ(0u, s.getQueueLength());
}

TEST(Synchronizer, NeverContendedSynchronizerHasNoQueue) {
    TestMutex m;
    EXPECT_FALSE(m.hasQueuedThreads());
    EXPECT_FALSE(m.hasContended());
    EXPECT_EQ(nullptr, m.getFirstQueuedThread());
    EXPECT_EQ(0u, m.getQueueLength());
    EXPECT_FALSE(m.isQueued(me()));
    EXPECT_THROW(m.isQueued(nullptr), mw::NullPointerException);

    m.lock();
    m.lock();
    EXPECT_EQ(2, m.state());
    EXPECT_FALSE(m.release(1));
    EXPECT_TRUE(m.release(1));
    EXPECT_EQ(0, m.state());
    EXPECT_FALSE(m.hasContended());
    EXPECT_THROW(m.release(1), mw::IllegalMonitorStateException);
    EXPECT_EQ(0, m.state());
}

TEST(Synchronizer, ContendedAcquisitionIsMutuallyExclusive) {
    const int THREADS = 4;
    const int ROUNDS = 3000;
    TestMutex m;
    long counter = 0;  // guarded by m alone: a lost update shows a broken exclusion
    std::atomic<int> inside(0);
    std::atomic<int> overlaps(0);
    mwtest::Latch start(THREADS);
    {
        std::vector<std::unique_ptr<WorkerThread>> workers;
        for (int i = 0; i < THREADS; ++i) {
            workers.emplace_back(new WorkerThread([&] {
                start.arriveAndWait();
                for (int r = 0; r < ROUNDS; ++r) {
                    m.lock();
                    if (inside.fetch_add(1) != 0) overlaps.fetch_add(1);
                    long seen = counter;
                    if (r % 16 == 0)
                        std::this_thread::yield();  // holds long enough to queue others
                    counter = seen + 1;
                    inside.fetch_sub(1);
                    m.unlock();
                }
            }));
        }
        for (auto& w : workers) EXPECT_TRUE(w->awaitFinished());
    }
    EXPECT_EQ(THREADS * ROUNDS, counter);
    EXPECT_EQ(0, overlaps.load());
    EXPECT_TRUE(m.hasContended());
    EXPECT_EQ(0, m.state());
    EXPECT_FALSE(m.hasQueuedThreads());
    EXPECT_EQ(0u, m.getQueueLength());
}

TEST(Synchronizer, QueuedThreadsAcquireInArrivalOrderAndAreInspectable) {
    const int WAITERS = 4;
    TestMutex m;
    std::vector<int> order;  // appended under m, read after the waiters finished
    m.lock();
    std::vector<std::unique_ptr<WorkerThread>> waiters;
    for (int i = 0; i < WAITERS; ++i) {
        waiters.emplace_back(new WorkerThread([&m, &order, i] {
            m.lock();
            order.push_back(i);
            m.unlock();
        }));
        const mw::Thread* waiter = waiters.back()->self();
        EXPECT_TRUE(mwtest::eventually([&] { return m.isQueued(waiter); }));
        EXPECT_EQ(static_cast<unsigned long long>(i + 1), m.getQueueLength());
    }
    EXPECT_TRUE(waiters.front()->awaitParked());
    EXPECT_TRUE(m.hasQueuedThreads());
    EXPECT_EQ(waiters.front()->self(), m.getFirstQueuedThread());
    EXPECT_FALSE(m.isQueued(me()));

    m.unlock();
    for (auto& w : waiters) EXPECT_TRUE(w->awaitFinished());
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3}), order);
    EXPECT_FALSE(m.hasQueuedThreads());
    EXPECT_TRUE(m.hasContended());
    EXPECT_EQ(nullptr, m.getFirstQueuedThread());
    EXPECT_EQ(0u, m.getQueueLength());
    for (auto& w : waiters) EXPECT_FALSE(m.isQueued(w->self()));
}

TEST(Synchronizer, AcquireKeepsItsPlaceThroughAnInterruptAndReassertsIt) {
    TestMutex m;
    std::atomic<bool> held(false);
    std::atomic<bool> flagOnReturn(false);
    m.lock();
    WorkerThread waiter([&] {
        m.lock();
        held = m.heldByCurrentThread();
        flagOnReturn = mw::Thread::interrupted();
        m.unlock();
    });
    EXPECT_TRUE(waiter.awaitParked());
    const mw::Thread* t = waiter.self();
    t->interrupt();
    // The flag is cleared only by the woken waiter, which then parks again in its place.
    EXPECT_TRUE(mwtest::eventually(
        [&] { return !t->isInterrupted() && t->getState() == mw::Thread::PARKED; }));
    EXPECT_TRUE(m.isQueued(t));
    EXPECT_FALSE(waiter.finished());
    m.unlock();
    EXPECT_TRUE(waiter.awaitFinished());
    EXPECT_TRUE(held);
    EXPECT_TRUE(flagOnReturn);
}

// Waits for a worker's body. A worker left blocked in an interruptible wait is interrupted out of
// it, so that a lost wake-up fails the test instead of hanging it in the join.
void expectFinishes(const WorkerThread& worker) {
    if (worker.awaitFinished()) return;
    ADD_FAILURE() << "worker still blocked";
    worker.self()->interrupt();
}

// Interrupted waiters in an interruptible form give their places up. A middle one is skipped
// without waking anybody: it stays linked, uncounted, behind a first waiter that takes over its
// duty to wake the last. A first one hands the wake-up on, and the last waiter still acquires.
void expectInterruptCancelsTheWait(const AcquireForm& interruptible) {
    TestMutex m;
    std::atomic<int> threw(0);
    std::atomic<int> flagAfter(0);
    std::atomic<int> heldAfter(0);
    std::atomic<bool> lastHeld(false);
    auto interruptedWaiter = [&] {
        try {
            interruptible(m);
            m.unlock();
        } catch (const mw::InterruptedException&) {
            threw.fetch_add(1);
            if (me()->isInterrupted()) flagAfter.fetch_add(1);
            if (m.heldByCurrentThread()) heldAfter.fetch_add(1);
        }
    };
    m.lock();
    WorkerThread first(interruptedWaiter);
    EXPECT_TRUE(first.awaitParked());
    WorkerThread middle(interruptedWaiter);
    EXPECT_TRUE(middle.awaitParked());
    WorkerThread last([&] {
        try {
            m.acquireInterruptibly(1);
            lastHeld = m.heldByCurrentThread();
            m.unlock();
        } catch (const mw::InterruptedException&) {
        }
    });
    EXPECT_TRUE(last.awaitParked());
    EXPECT_EQ(3u, m.getQueueLength());

    middle.self()->interrupt();
    expectFinishes(middle);
    EXPECT_EQ(1, threw.load());
    EXPECT_EQ(2u, m.getQueueLength());
    EXPECT_FALSE(m.isQueued(middle.self()));
    EXPECT_TRUE(m.isQueued(last.self()));
    EXPECT_EQ(first.self(), m.getFirstQueuedThread());

    first.self()->interrupt();
    expectFinishes(first);
    EXPECT_EQ(2, threw.load());
    EXPECT_EQ(0, flagAfter.load());
    EXPECT_EQ(0, heldAfter.load());
    EXPECT_EQ(1u, m.getQueueLength());
    EXPECT_FALSE(m.isQueued(first.self()));
    EXPECT_EQ(last.self(), m.getFirstQueuedThread());

    m.unlock();
    expectFinishes(last);
    EXPECT_TRUE(lastHeld);
    EXPECT_FALSE(m.hasQueuedThreads());
    EXPECT_EQ(0, m.state());
}

TEST(Synchronizer, InterruptCancelsAcquireInterruptibly) {
    expectInterruptCancelsTheWait([](TestMutex& m) { m.acquireInterruptibly(1); });
}

TEST(Synchronizer, InterruptCancelsTimedAcquire) {
    expectInterruptCancelsTheWait(
        [](TestMutex& m) { EXPECT_TRUE(m.tryAcquireNanos(1, LONG_WAIT)); });
}

TEST(Synchronizer, InterruptibleFormsRefuseAPendingInterruptEvenWhenFree) {
    TestMutex m;
    me()->interrupt();
    EXPECT_THROW(m.acquireInterruptibly(1), mw::InterruptedException);
    EXPECT_FALSE(me()->isInterrupted());
    me()->interrupt();
    EXPECT_THROW(m.tryAcquireNanos(1, 0), mw::InterruptedException);
    EXPECT_FALSE(me()->isInterrupted());
    EXPECT_EQ(0, m.state());
    EXPECT_EQ(0, m.attempts());

    // The plain form ignores the flag and leaves it set.
    me()->interrupt();
    m.lock();
    EXPECT_TRUE(me()->isInterrupted());
    m.unlock();
    EXPECT_TRUE(mw::Thread::interrupted());
    EXPECT_FALSE(m.hasContended());
}

TEST(Synchronizer, TimedAcquireWithNoTimeLeftTriesOnceMoreWhenFirstThenGivesUp) {
    TestMutex m;
    EXPECT_TRUE(m.tryAcquireNanos(1, 0));  // free: taken without queuing
    EXPECT_FALSE(m.hasContended());
    const long long timeouts[] = {0, -1, -5000 * MS, std::numeric_limits<long long>::min()};
    std::atomic<int> refusals(0);
    std::atomic<bool> threw(false);
    long attemptsBefore = m.attempts();
    {
        WorkerThread w([&] {
            for (long long timeout : timeouts) {
                try {
                    if (!m.tryAcquireNanos(1, timeout)) refusals.fetch_add(1);
                } catch (...) {
                    threw = true;
                }
            }
        });
        EXPECT_TRUE(w.awaitFinished());
    }
    EXPECT_EQ(4, refusals.load());
    EXPECT_FALSE(threw);
    // One try before queuing and one as the first queued node, for each call.
    EXPECT_EQ(2 * 4, m.attempts() - attemptsBefore);
    EXPECT_TRUE(m.hasContended());
    EXPECT_FALSE(m.hasQueuedThreads());
    EXPECT_EQ(0u, m.getQueueLength());
    EXPECT_EQ(me(), m.owner());
    m.unlock();
}

TEST(Synchronizer, TimedAcquireGetsAReleaseInTimeAndOtherwiseWaitsItsFullTime) {
    const long long TIMEOUT = 50 * MS;
    TestMutex m;
    m.lock();
    std::atomic<bool> result(true);
    std::atomic<long long> elapsed(0);
    {
        WorkerThread w([&] {
            long long start = mw::TimeUtil::nanoTime();
            result = m.tryAcquireNanos(1, TIMEOUT);
            elapsed = mw::TimeUtil::nanoTime() - start;
        });
        EXPECT_TRUE(w.awaitFinished());
    }
    EXPECT_FALSE(result);
    EXPECT_GE(elapsed.load(), TIMEOUT);
    EXPECT_LT(elapsed.load(), 10000 * MS);
    EXPECT_FALSE(m.hasQueuedThreads());

    std::atomic<bool> held(false);
    WorkerThread w([&] {
        held = m.tryAcquireNanos(1, LONG_WAIT) && m.heldByCurrentThread();
        if (held) m.unlock();
    });
    EXPECT_TRUE(w.awaitParked());
    m.unlock();
    EXPECT_TRUE(w.awaitFinished());
    EXPECT_TRUE(held);
    EXPECT_EQ(0, m.state());
}

// A tryAcquire that throws while its thread is first gives that node up; the waiter behind it
// still gets the synchronizer. Each queued loop has its own guard, so each form is run.
TEST(Synchronizer, FailingTryAcquireOfAQueuedThreadCancelsOnlyItsNode) {
    const AcquireForm forms[] = {
        [](TestMutex& m) { m.acquire(1); },
        [](TestMutex& m) { m.acquireInterruptibly(1); },
        [](TestMutex& m) { m.tryAcquireNanos(1, LONG_WAIT); },
    };
    for (const AcquireForm& form : forms) {
        TestMutex m;
        std::atomic<bool> failed(false);
        std::atomic<bool> heldAfterFailure(true);
        std::atomic<bool> nextHeld(false);
        m.lock();
        WorkerThread first([&] {
            try {
                form(m);
                m.unlock();
            } catch (const mwtest::AcquireFailure&) {
                failed = true;
                heldAfterFailure = m.heldByCurrentThread();
            }
        });
        EXPECT_TRUE(first.awaitParked());
        WorkerThread second([&] {
            try {
                m.acquireInterruptibly(1);
                nextHeld = m.heldByCurrentThread();
                m.unlock();
            } catch (const mw::InterruptedException&) {
            }
        });
        EXPECT_TRUE(second.awaitParked());
        m.failNextAcquireOf(first.self());
        m.unlock();
        EXPECT_TRUE(first.awaitFinished());
        expectFinishes(second);
        EXPECT_TRUE(failed);
        EXPECT_FALSE(heldAfterFailure);
        EXPECT_TRUE(nextHeld);
        EXPECT_FALSE(m.hasQueuedThreads());
        EXPECT_EQ(0u, m.getQueueLength());
        EXPECT_EQ(0, m.state());
    }
}

TEST(Synchronizer, ReleaseThatDoesNotFreeWakesNobody) {
    TestMutex m;
    m.lock();
    m.lock();
    std::atomic<bool> held(false);
    WorkerThread waiter([&] {
        m.lock();
        held = true;
        m.unlock();
    });
    EXPECT_TRUE(waiter.awaitParked());
    long before = m.attempts();
    EXPECT_FALSE(m.release(1));
    // A woken waiter would call tryAcquire again at once; none comes within a generous window.
    EXPECT_FALSE(
        mwtest::eventually([&] { return m.attempts() != before; }, std::chrono::milliseconds(100)));
    EXPECT_TRUE(m.isQueued(waiter.self()));
    EXPECT_TRUE(m.release(1));
    EXPECT_TRUE(waiter.awaitFinished());
    EXPECT_TRUE(held);
}

// The first queued thread is read while nodes are linked (next of the predecessor not yet set)
// and cancelled around it; these windows are open only for moments, so they are hit by repetition.
TEST(Synchronizer, FirstQueuedThreadStaysRightWhileNodesComeAndGo) {
    TestMutex m;
    m.lock();

    // A waiter that the walk from the tail has found is the first queued thread, also before its
    // predecessor's next is set. When it gives up with another waiter behind it, the answer is it
    // or the one behind, never nobody, also before the one behind has repaired its links.
    const int HANDOVERS = 100;
    int wrongWhileLinking = 0;
    int wrongWhileCancelling = 0;
    auto interruptible = [&m] {
        try {
            m.acquireInterruptibly(1);
            m.unlock();
        } catch (const mw::InterruptedException&) {
        }
    };
    for (int k = 0; k < HANDOVERS; ++k) {
        WorkerThread first(interruptible);
        const mw::Thread* f = first.self();
        while (f->getState() != mw::Thread::PARKED && !first.finished()) {
            bool queued = m.isQueued(f);
            if (queued && m.getFirstQueuedThread() != f) ++wrongWhileLinking;
        }
        WorkerThread behind(interruptible);
        EXPECT_TRUE(behind.awaitParked());
        const mw::Thread* b = behind.self();
        f->interrupt();
        EXPECT_TRUE(mwtest::eventually([&] {
            const mw::Thread* answer = m.getFirstQueuedThread();
            if (answer != f && answer != b) ++wrongWhileCancelling;
            return answer == b && first.finished();
        }));
        m.unlock();
        expectFinishes(behind);
        m.lock();
    }
    EXPECT_EQ(0, wrongWhileLinking);
    EXPECT_EQ(0, wrongWhileCancelling);

    // With a steady first waiter, the churn behind it never changes the answer.
    const int ROUNDS = 1000;
    std::atomic<bool> steadyHeld(false);
    WorkerThread steady([&] {
        m.lock();
        steadyHeld = true;
        m.unlock();
    });
    EXPECT_TRUE(steady.awaitParked());
    int wrongFirst = 0;
    int wrongLength = 0;
    {
        WorkerThread behind([&m] {
            for (int i = 0; i < ROUNDS; ++i) m.tryAcquireNanos(1, i % 10 == 0 ? 1 : 0);
        });
        behind.self();
        while (!behind.finished()) {
            if (m.getFirstQueuedThread() != steady.self() || !m.isQueued(steady.self())) {
                ++wrongFirst;
            }
            unsigned long long length = m.getQueueLength();
            if (length < 1 || length > 2) ++wrongLength;
        }
    }
    EXPECT_EQ(0, wrongFirst);
    EXPECT_EQ(0, wrongLength);
    m.unlock();
    EXPECT_TRUE(steady.awaitFinished());
    EXPECT_TRUE(steadyHeld);
    EXPECT_FALSE(m.hasQueuedThreads());
}

}  // namespace
