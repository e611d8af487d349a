// Bounded stress of the synchronizer behind ReentrantLock (both policies), its conditions and the
// Object monitor, under random interrupts and time-outs (StressDriver.h). Counts scale with
// MW_STRESS_SCALE.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "StressDriver.h"
#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mwtest::runWithInterrupts;
typedef mw::AbstractQueuedSynchronizer::ConditionObject ConditionObject;

// Plain, interruptible, barging and timed acquisitions at random, now and then a reentrant one on
// top: the entries counted outside match a counter kept under the lock alone, and the lock ends
// free with an empty queue.
template <typename Policy>
void runMutualExclusion(int threads, int rounds) {
    Policy lock;
    long counter = 0;  // guarded by lock alone
    std::atomic<long> entered(0), badReentries(0);
    runWithInterrupts(threads, [&](int, std::mt19937& rng, bool) {
        for (int i = 0; i < rounds / 2; ++i) {
            bool held = true;
            const unsigned form = rng() % 4;
            auto take = [&] {
                if (form == 0) lock.lock();
                if (form == 1) lock.acquireInterruptibly(1);
                if (form == 2) held = lock.nonfairTryAcquire(1);
                if (form == 3) held = lock.tryAcquireNanos(1, rng() % 4 ? rng() % 200000 : 0);
            };
            if (mwtest::interruptedOut(take) || !held) continue;
            long seen = counter;
            if (rng() % 8 == 0) std::this_thread::yield();
            counter = seen + 1;
            entered += 1;
            if (rng() % 5 == 0) badReentries += !lock.nonfairTryAcquire(1) || lock.release(1);
            lock.release(1);
        }
    });
    EXPECT_EQ(entered.load(), counter);
    EXPECT_EQ(0, badReentries.load());
    EXPECT_FALSE(lock.isLocked());
    EXPECT_FALSE(lock.hasQueuedThreads());
    EXPECT_EQ(0u, lock.getQueueLength());
}

TEST(LockStress, NonFairTwoThreadsManyRounds) {
    runMutualExclusion<mw::NonFairLockPolicy>(2, 60000 * mwtest::stressScale());
}
TEST(LockStress, NonFairEightThreads) {
    runMutualExclusion<mw::NonFairLockPolicy>(8, 15000 * mwtest::stressScale());
}
TEST(LockStress, FairFourThreads) {
    runMutualExclusion<mw::FairLockPolicy>(4, 20000 * mwtest::stressScale());
}

// A bounded buffer's monitor on a lock with a condition for each side. One signal per item, not a
// broadcast, so that interrupts and time-outs race with signals in flight.
template <typename Policy, bool timed>
struct LockChannel {
    typedef std::lock_guard<LockChannel> Scope;
    Policy sync;
    std::unique_ptr<ConditionObject> notFull{sync.newCondition()}, notEmpty{sync.newCondition()};
    void lock() { sync.lock(); }
    void unlock() { sync.release(1); }
    void await(bool forSpace, std::mt19937& rng) {
        const ConditionObject& c = forSpace ? *notFull : *notEmpty;
        timed ? static_cast<void>(c.awaitNanos(static_cast<long long>(rng() % 500) * 1000))
              : c.await();
    }
    void signal(bool space, bool all) {
        const ConditionObject& c = space ? *notFull : *notEmpty;
        all ? c.broadcast() : c.signal();
    }
    void expectReset() {
        EXPECT_FALSE(sync.isLocked());
        EXPECT_FALSE(sync.hasQueuedThreads());
        Scope scope(*this);
        EXPECT_EQ(0u,
                  sync.getWaitQueueLength(notFull.get()) + sync.getWaitQueueLength(notEmpty.get()));
    }
};

// The same on an Object: one wait set for both sides, so every change wakes every waiter.
struct MonitorChannel {
    typedef mw::Guard Scope;
    mw::Object monitor;
    operator const mw::Object&() const { return monitor; }
    void await(bool, std::mt19937&) { monitor.wait(0, 0); }
    void signal(bool, bool) { monitor.notifyAll(); }
    void expectReset() {
        mwtest::WorkerThread entrant([this] { Scope scope(monitor); });
        EXPECT_TRUE(entrant.awaitFinished());
    }
};

// Producers put numbered items through a ring of four, consumers take them, in each round. A
// waiter that gets InterruptedException holds the monitor again and tests its condition anew.
// Every item must arrive exactly once, and the monitor must be left free with nobody waiting.
template <typename Channel>
void runBoundedBuffer() {
    const int producers = 2, consumers = 2, capacity = 4;
    const long long items = 10000 * mwtest::stressScale();  // per producer in the loud round
    Channel channel;
    long long ring[capacity], taken = 0;  // ring, head, count and taken: guarded by the channel
    int head = 0, count = 0;
    std::vector<char> seen(producers * (items + items / 10), 0);
    std::atomic<long> duplicates(0), interrupts(0);
    auto await = [&](bool forSpace, std::mt19937& rng) {
        interrupts += mwtest::interruptedOut([&] { channel.await(forSpace, rng); });
    };
    runWithInterrupts(producers + consumers, [&](int id, std::mt19937& rng, bool loud) {
        const long long n = loud ? items : items / 10, base = loud ? 0 : producers * items;
        const long long target = base + producers * n;
        for (long long i = 0; id < producers && i < n; ++i) {
            typename Channel::Scope scope(channel);
            while (count == capacity) await(true, rng);
            ring[(head + count++) % capacity] = base + id * n + i;
            channel.signal(false, false);
        }
        while (id >= producers) {
            typename Channel::Scope scope(channel);
            while (count == 0 && taken < target) await(false, rng);
            if (count == 0) return;
            duplicates += seen[ring[head]]++ != 0;
            head = (head + 1) % capacity;
            --count;
            if (++taken == target) channel.signal(false, true);  // consumers that wait in vain
            channel.signal(true, false);
        }
    });
    EXPECT_EQ(static_cast<long long>(seen.size()), taken);
    EXPECT_EQ(0, duplicates.load());
    EXPECT_GT(interrupts.load(), 0);
    channel.expectReset();
}

TEST(ConditionStress, BoundedBufferOnNonFairLock) {
    runBoundedBuffer<LockChannel<mw::NonFairLockPolicy, false>>();
}
TEST(ConditionStress, BoundedBufferOnFairLock) {
    runBoundedBuffer<LockChannel<mw::FairLockPolicy, false>>();
}
TEST(ConditionStress, BoundedBufferWithTimeoutsOnNonFairLock) {
    runBoundedBuffer<LockChannel<mw::NonFairLockPolicy, true>>();
}
TEST(ConditionStress, BoundedBufferWithTimeoutsOnFairLock) {
    runBoundedBuffer<LockChannel<mw::FairLockPolicy, true>>();
}
TEST(ConditionStress, BoundedBufferOnObjectMonitor) { runBoundedBuffer<MonitorChannel>(); }

// Timed waits with tiny time-outs race a signaller and the interrupter. A wait reports a signal
// exactly when a signal moved its node, and signal and report both happen under the hold, so the
// reports may never outnumber the signals given so far. The quiet round waits without a time-out,
// so a node that the races have lost from the list shows as a hang.
TEST(ConditionStress, SignalRacesTimeoutsAndInterrupts) {
    const int waiters = 4, rounds = 1500 * mwtest::stressScale();
    mw::NonFairLockPolicy lock;
    std::unique_ptr<ConditionObject> c(lock.newCondition());
    long signals = 0, reported = 0, excess = 0;  // guarded by lock
    std::atomic<int> notHeld(0), waitersDone(0);
    std::thread signaller([&] {
        while (waitersDone.load() < waiters) {
            lock.lock();
            if (lock.hasWaiters(c.get())) {
                c->signal();
                ++signals;
            }
            lock.release(1);
            std::this_thread::yield();
        }
    });
    runWithInterrupts(waiters, [&](int, std::mt19937& rng, bool loud) {
        for (int i = 0; i < (loud ? rounds : rounds / 10); ++i) {
            lock.lock();
            bool signalled = false;
            mwtest::interruptedOut([&] {
                if (!loud) {
                    c->await();
                    signalled = true;
                } else if (rng() % 2 == 0) {
                    signalled = c->await(rng() % 200, mw::TimeUnit::MICROSECONDS());
                } else {
                    signalled = c->awaitUntil(mw::TimeUtil::milliTime() + rng() % 2);
                }
            });
            if (signalled && ++reported > signals) ++excess;
            notHeld += lock.getHoldCount() != 1;
            lock.release(1);
        }
        if (!loud) waitersDone += 1;
    });
    signaller.join();
    EXPECT_EQ(0, excess);
    EXPECT_EQ(0, notHeld.load());
    EXPECT_FALSE(lock.hasQueuedThreads());
}

// The lock's synchronizer with its spin taken out, so that a waiter queues and marks the head while
// the holder runs: the moment at which a release that frees the lock without a fence (where the
// process-wide barrier allows it) could miss the mark.
class UnspunLock : public mw::detail::TLockSync {
public:
    UnspunLock() : TLockSync(true) {}
    virtual bool tryAcquire(int acquires) { return nonfairTryAcquire(acquires); }
    virtual void lock() { acquire(1); }
};

// Two threads take turns: after a pass, a thread waits until the other has had the lock, so that
// every pass is a hand-over to a thread that arrived while the lock was held, and the holder's
// stay varies so that its release meets every step of the other's queueing. A release that misses
// the waiter's mark leaves it parked with the lock free; nobody else will come to wake it, and
// the thread waiting for its turn aborts the run at its deadline.
TEST(LockStress, HandOversToArrivingWaitersLoseNoWakeUp) {
    const long PASSES = 100000L * mwtest::stressScale();
    UnspunLock lock;
    long inside = 0;
    std::atomic<int> lastHolder(-1);
    std::atomic<long> busy(0);
    std::atomic<int> finished(0);
    mwtest::Latch start(2);
    auto awaitTurnOver = [&](int me) {
        bool over =
            mwtest::eventually([&] { return lastHolder.load() != me || finished.load() != 0; },
                               std::chrono::seconds(60), 4096);
        if (!over) {
            std::fprintf(stderr,
                         "HandOversToArrivingWaitersLoseNoWakeUp: a waiter was not woken\n");
            std::abort();
        }
    };
    std::vector<std::thread> threads;
    for (int me = 0; me < 2; ++me) {
        threads.emplace_back([&, me] {
            start.arriveAndWait();
            for (long i = 0; i < PASSES; ++i) {
                lock.lock();
                ++inside;
                lastHolder.store(me);
                for (long k = 0; k < i % 64; ++k) busy.fetch_add(1, std::memory_order_relaxed);
                lock.release(1);
                awaitTurnOver(me);
            }
            finished += 1;
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(2 * PASSES, inside);
    EXPECT_FALSE(lock.hasQueuedThreads());
}

}  // namespace
