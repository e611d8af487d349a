#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mwtest::WorkerThread;
typedef std::vector<std::unique_ptr<WorkerThread>> Workers;

// A bounded buffer's monitor on a ReentrantLock with a condition for each side. One signal per
// item, not a broadcast, so that interrupts race with signals in flight.
template <typename Policy>
struct LockChannel {
    typedef std::lock_guard<mw::ReentrantLock<Policy>> Scope;
    mw::ReentrantLock<Policy> lock;
    std::unique_ptr<mw::Condition> notFull{lock.newCondition()}, notEmpty{lock.newCondition()};
    void await(bool forSpace) { (forSpace ? notFull : notEmpty)->await(); }
    void signal(bool space, bool all) {
        mw::Condition& c = space ? *notFull : *notEmpty;
        all ? c.broadcast() : c.signal();
    }
    unsigned long long waiters() {
        Scope scope(lock);
        return lock.getWaitQueueLength(notFull.get()) + lock.getWaitQueueLength(notEmpty.get());
    }
};

// The same on an Object: one condition for both sides, so every change wakes every waiter.
struct MonitorChannel {
    typedef mw::Guard Scope;
    mw::Object lock;
    void await(bool) { lock.wait(0, 0); }
    void signal(bool, bool) { lock.notifyAll(); }
    unsigned long long waiters() { return 0; }
};

// Producers put the numbers 1..total through a ring of four, consumers take them; the main thread
// interrupts random workers as the items move. A waiter that gets InterruptedException holds the
// monitor again and simply tests its condition anew. Each worker also starts with an interrupt
// pending, so that interrupts are met even when the main thread gets no turn before the run
// ends. Every item must arrive exactly once, and the monitor must be left free with nobody
// waiting.
template <typename Channel>
void runBoundedBuffer(int producers, int consumers) {
    const int capacity = 4, perProducer = 10000 * mwtest::stressScale();
    const long long total = static_cast<long long>(producers) * perProducer;
    Channel channel;
    long long ring[capacity], taken = 0;  // ring, head, count and taken: guarded by the channel
    int head = 0, count = 0;
    std::atomic<long long> takenSum(0), moves(0), interrupts(0);
    std::atomic<int> finished(0);
    auto await = [&](bool forSpace) {
        try {
            channel.await(forSpace);
        } catch (const mw::InterruptedException&) {
            interrupts.fetch_add(1);
        }
    };
    Workers workers;
    for (int p = 0; p < producers; ++p) {
        workers.emplace_back(new WorkerThread([&, p] {
            mw::Thread::currentThread()->interrupt();
            for (long long i = 1; i <= perProducer; ++i, moves.fetch_add(1)) {
                typename Channel::Scope scope(channel.lock);
                while (count == capacity) await(true);
                ring[(head + count++) % capacity] = p * static_cast<long long>(perProducer) + i;
                channel.signal(false, false);
            }
            finished.fetch_add(1);
        }));
    }
    for (int c = 0; c < consumers; ++c) {
        workers.emplace_back(new WorkerThread([&] {
            mw::Thread::currentThread()->interrupt();
            for (;; moves.fetch_add(1)) {
                typename Channel::Scope scope(channel.lock);
                while (count == 0 && taken < total) await(false);
                if (count == 0) break;
                takenSum.fetch_add(ring[head]);
                head = (head + 1) % capacity;
                --count;
                if (++taken == total) channel.signal(false, true);  // consumers that wait in vain
                channel.signal(true, false);
            }
            finished.fetch_add(1);
        }));
    }
    const int all = producers + consumers;
    auto deadline =
        std::chrono::steady_clock::now() + std::chrono::minutes(2) * mwtest::stressScale();
    std::mt19937 random(12345u);
    while (finished.load() < all && std::chrono::steady_clock::now() < deadline) {
        workers[random() % all]->self()->interrupt();
        // Let the items move on between interrupts, so that the run makes progress.
        long long until = moves.load() + 1 + static_cast<long long>(random() % 16);
        while (moves.load() < until && finished.load() < all) std::this_thread::yield();
    }
    workers.clear();  // joining a worker that is still blocked ends the process
    EXPECT_EQ(total, taken);
    EXPECT_EQ(total * (total + 1) / 2, takenSum.load());
    EXPECT_GT(interrupts.load(), 0);
    WorkerThread entrant([&] { typename Channel::Scope scope(channel.lock); });
    EXPECT_TRUE(entrant.awaitFinished());
    EXPECT_EQ(0u, channel.waiters());
}

TEST(LockStress, BoundedBufferOnNonFairLockWithInterrupts) {
    runBoundedBuffer<LockChannel<mw::NonFairLockPolicy>>(2, 2);
}

TEST(LockStress, BoundedBufferOnFairLockWithInterrupts) {
    runBoundedBuffer<LockChannel<mw::FairLockPolicy>>(2, 2);
}

TEST(LockStress, BoundedBufferOnObjectMonitorWithInterrupts) {
    runBoundedBuffer<MonitorChannel>(2, 2);
}

// Threads increment a plain counter under the lock, entering by each of its ways in turn, and
// now and then a second time over. A lost increment (or, under TSan, a data race) is a failure.
template <typename Policy>
void runMutualExclusion(int threads) {
    const int rounds = 30000 * mwtest::stressScale();
    mw::ReentrantLock<Policy> lock;
    long long counter = 0;  // plain: only the lock protects it
    mwtest::Latch start(threads);
    Workers workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back(new WorkerThread([&] {
            start.arriveAndWait();
            for (int r = 0; r < rounds; ++r) {
                if (r % 3 == 0) {
                    lock.lock();
                } else if (r % 3 == 1) {
                    lock.lockInterruptibly();
                } else {
                    while (!lock.tryLock(10, mw::TimeUnit::SECONDS())) {
                    }
                }
                ++counter;
                if (r % 5 == 0 && lock.tryLock()) {
                    ++counter;
                    lock.unlock();
                }
                lock.unlock();
            }
        }));
    }
    workers.clear();
    EXPECT_EQ(static_cast<long long>(threads) * (rounds + (rounds + 4) / 5), counter);
    EXPECT_FALSE(lock.isLocked());
}

TEST(LockStress, MutualExclusionOnNonFairLock) { runMutualExclusion<mw::NonFairLockPolicy>(4); }

TEST(LockStress, MutualExclusionOnFairLock) { runMutualExclusion<mw::FairLockPolicy>(4); }

}  // namespace
