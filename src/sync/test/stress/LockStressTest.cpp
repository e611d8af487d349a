#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mwtest::WorkerThread;
typedef std::chrono::steady_clock Clock;

// A run that misses this is taken for a lost wake-up or a leaked hold.
Clock::time_point deadlineFromNow() {
    return Clock::now() + std::chrono::seconds(120) * mwtest::stressScale();
}

// Threads stuck in a broken primitive can be neither freed nor joined, so a missed deadline
// fails the test and ends the process instead of hanging it.
void abortIfPast(Clock::time_point deadline, const char* what) {
    if (Clock::now() < deadline) return;
    ADD_FAILURE() << what << " missed its deadline";
    std::fflush(stdout);
    std::abort();
}

// Polls at a millisecond's pace, so that the workers keep both cores.
template <typename Predicate>
void awaitOrAbort(Predicate done, Clock::time_point deadline, const char* what) {
    while (!done()) {
        abortIfPast(deadline, what);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// The two monitors under test, behind the one interface that the bounded buffer needs.
template <typename Policy>
class LockChannel {
public:
    class Scope {
    public:
        explicit Scope(LockChannel& channel) : m_lock(channel.m_lock) { m_lock.lock(); }
        ~Scope() { m_lock.unlock(); }

    private:
        mw::ReentrantLock<Policy>& m_lock;
    };

    LockChannel() : m_notFull(m_lock.newCondition()), m_notEmpty(m_lock.newCondition()) {}

    void awaitNotFull() { m_notFull->await(); }
    void awaitNotEmpty() { m_notEmpty->await(); }
    // One signal per item, not a broadcast, so that interrupts race with signals in flight.
    void afterPut() { m_notEmpty->signal(); }
    void afterTake() { m_notFull->signal(); }
    void wakeAll() {
        m_notEmpty->broadcast();
        m_notFull->broadcast();
    }

    void expectQuiet(Clock::time_point) {
        EXPECT_FALSE(m_lock.isLocked());
        EXPECT_EQ(nullptr, m_lock.getOwner());
        m_lock.lock();
        EXPECT_EQ(0u, m_lock.getWaitQueueLength(m_notFull.get()));
        EXPECT_EQ(0u, m_lock.getWaitQueueLength(m_notEmpty.get()));
        m_lock.unlock();
    }

private:
    mw::ReentrantLock<Policy> m_lock;
    std::unique_ptr<mw::Condition> m_notFull;
    std::unique_ptr<mw::Condition> m_notEmpty;
};

class MonitorChannel {
public:
    class Scope {
    public:
        explicit Scope(MonitorChannel& channel) : m_guard(channel.m_monitor) {}

    private:
        mw::Guard m_guard;
    };

    void awaitNotFull() { m_monitor.wait(0, 0); }
    void awaitNotEmpty() { m_monitor.wait(0, 0); }
    void afterPut() { m_monitor.notifyAll(); }
    void afterTake() { m_monitor.notifyAll(); }
    void wakeAll() { m_monitor.notifyAll(); }

    // Free: a fresh thread enters at once.
    void expectQuiet(Clock::time_point deadline) {
        WorkerThread entrant([this] { mw::Guard guard(m_monitor); });
        awaitOrAbort([&] { return entrant.finished(); }, deadline, "entering the monitor");
    }

private:
    mw::Object m_monitor;
};

// Producers put the numbers 1..total through a small ring, consumers take them; the main thread
// interrupts random workers as the items move. A waiter that gets InterruptedException holds the
// monitor again and simply tests its condition anew. Every item must arrive exactly once.
template <typename Channel>
void runBoundedBuffer(int producers, int consumers, int itemsPerProducer) {
    const int capacity = 4;
    Channel channel;
    long long ring[capacity];  // these three are guarded by the channel alone
    int head = 0, count = 0;
    long long taken = 0;
    const long long total = static_cast<long long>(producers) * itemsPerProducer;
    std::atomic<long long> takenCount(0), takenSum(0), moves(0), interrupted(0);
    std::atomic<int> finished(0);
    Clock::time_point deadline = deadlineFromNow();

    auto retryAfterInterrupt = [&](void (Channel::*await)()) {
        try {
            (channel.*await)();
        } catch (const mw::InterruptedException&) {
            interrupted.fetch_add(1);
        }
    };
    auto put = [&](long long value) {
        typename Channel::Scope scope(channel);
        while (count == capacity) retryAfterInterrupt(&Channel::awaitNotFull);
        ring[(head + count) % capacity] = value;
        ++count;
        channel.afterPut();
    };
    auto take = [&](long long& value) {
        typename Channel::Scope scope(channel);
        while (count == 0 && taken < total) retryAfterInterrupt(&Channel::awaitNotEmpty);
        if (count == 0) return false;
        value = ring[head];
        head = (head + 1) % capacity;
        --count;
        if (++taken == total) channel.wakeAll();
        channel.afterTake();
        return true;
    };

    std::vector<std::unique_ptr<WorkerThread>> workers;
    for (int p = 0; p < producers; ++p) {
        workers.emplace_back(new WorkerThread([&, p] {
            for (long long i = 1; i <= itemsPerProducer; ++i) {
                put(p * static_cast<long long>(itemsPerProducer) + i);
                moves.fetch_add(1);
            }
            finished.fetch_add(1);
        }));
    }
    for (int c = 0; c < consumers; ++c) {
        workers.emplace_back(new WorkerThread([&] {
            long long value = 0, mine = 0, sum = 0;
            while (take(value)) {
                ++mine;
                sum += value;
                moves.fetch_add(1);
            }
            takenCount.fetch_add(mine);
            takenSum.fetch_add(sum);
            finished.fetch_add(1);
        }));
    }
    const int all = producers + consumers;
    std::mt19937 random(12345u);
    while (finished.load() < all) {
        workers[random() % all]->self()->interrupt();
        // Let the items move on between interrupts, so that the run makes progress.
        long long until = moves.load() + 1 + static_cast<long long>(random() % 16);
        while (moves.load() < until && finished.load() < all) {
            abortIfPast(deadline, "the bounded buffer");
            std::this_thread::yield();
        }
    }
    workers.clear();
    EXPECT_EQ(total, takenCount.load());
    EXPECT_EQ(total * (total + 1) / 2, takenSum.load());
    EXPECT_EQ(0, count);
    EXPECT_GT(interrupted.load(), 0);
    channel.expectQuiet(deadline);
}

const int ITEMS_PER_PRODUCER = 10000;

TEST(LockStress, BoundedBufferOnNonFairLockWithInterrupts) {
    runBoundedBuffer<LockChannel<mw::NonFairLockPolicy>>(
        2, 2, ITEMS_PER_PRODUCER * mwtest::stressScale());
}

TEST(LockStress, BoundedBufferOnFairLockWithInterrupts) {
    runBoundedBuffer<LockChannel<mw::FairLockPolicy>>(2, 2,
                                                      ITEMS_PER_PRODUCER * mwtest::stressScale());
}

TEST(LockStress, BoundedBufferOnObjectMonitorWithInterrupts) {
    runBoundedBuffer<MonitorChannel>(2, 2, ITEMS_PER_PRODUCER * mwtest::stressScale());
}

// Four threads increment a plain counter under the lock, entering by each of its ways in turn,
// sometimes twice over. A second thread inside, or a lost increment, is a failure.
template <typename Policy>
void runMutualExclusion() {
    const int threads = 4;
    const int rounds = 30000 * mwtest::stressScale();
    mw::ReentrantLock<Policy> lock;
    long long counter = 0;  // plain: only the lock protects it
    std::atomic<int> inside(0);
    std::atomic<bool> overlapped(false);
    mwtest::Latch start(threads);
    std::vector<std::unique_ptr<WorkerThread>> workers;
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
                if (inside.fetch_add(1) != 0) overlapped.store(true);
                ++counter;
                if (r % 5 == 0 && lock.tryLock()) {
                    ++counter;
                    lock.unlock();
                }
                inside.fetch_sub(1);
                lock.unlock();
            }
        }));
    }
    Clock::time_point deadline = deadlineFromNow();
    for (auto& worker : workers) {
        awaitOrAbort([&] { return worker->finished(); }, deadline, "mutual exclusion");
    }
    workers.clear();
    EXPECT_FALSE(overlapped.load());
    EXPECT_EQ(static_cast<long long>(threads) * (rounds + (rounds + 4) / 5), counter);
    EXPECT_FALSE(lock.isLocked());
    EXPECT_EQ(nullptr, lock.getOwner());
}

TEST(LockStress, MutualExclusionOnNonFairLock) { runMutualExclusion<mw::NonFairLockPolicy>(); }

TEST(LockStress, MutualExclusionOnFairLock) { runMutualExclusion<mw::FairLockPolicy>(); }

}  // namespace
