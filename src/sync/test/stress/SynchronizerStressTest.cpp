// Bounded stress of the queued synchronizer and its conditions under random interrupts and
// time-outs. Counts scale with MW_STRESS_SCALE; a run that does not end in time aborts the process
// with a message instead of hanging on a lost wake-up.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "TestMutex.h"

namespace {

using mwtest::TestMutex;
typedef TestMutex::ConditionObject ConditionObject;
// A worker's share of a run; loud tells whether the interrupter is at work during it.
typedef std::function<void(int worker, std::mt19937& rng, bool loud)> WorkerBody;

// Polls without taking a core from the threads under test.
void awaitOrAbort(const std::function<bool()>& done, const char* what) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(120 * mwtest::stressScale());
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            std::fprintf(stderr, "%s: threads still blocked; aborting\n", what);
            std::abort();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Runs each worker's body twice on its own thread. The loud round runs beside an interrupter that
// interrupts workers at random. The quiet round starts when the interrupter has stopped and each
// worker has cleared its flag: only time-outs end waits then, so a lost wake-up shows as a hang.
// No worker ends before the interrupter has stopped, for a thread's object dies with the thread.
void runWithInterrupts(int workers, const WorkerBody& body, const char* what) {
    unsigned seed = std::random_device()();
    std::printf("%s: seed %u\n", what, seed);
    std::vector<std::atomic<const mw::Thread*>> selves(workers);
    std::atomic<int> loudDone(0);
    std::atomic<int> quietDone(0);
    std::atomic<bool> interrupterDone(false);
    mwtest::Latch ready(workers);
    std::vector<std::thread> threads;
    for (int i = 0; i < workers; ++i) {
        threads.emplace_back([&, i] {
            selves[i].store(mw::Thread::currentThread());
            ready.countDown();
            std::mt19937 rng(seed + static_cast<unsigned>(i));
            body(i, rng, true);
            loudDone += 1;
            while (!interrupterDone.load()) std::this_thread::yield();
            mw::Thread::interrupted();
            body(i, rng, false);
            quietDone += 1;
        });
    }
    std::thread interrupter([&] {
        ready.wait();
        std::mt19937 rng(seed - 1);
        while (loudDone.load() < workers) {
            selves[rng() % workers].load()->interrupt();
            std::this_thread::sleep_for(std::chrono::microseconds(rng() % 300));  // pacing only
        }
        interrupterDone = true;
    });
    awaitOrAbort([&] { return quietDone.load() == workers; }, what);
    interrupter.join();
    for (std::thread& t : threads) t.join();
}

// Timed, interruptible and plain acquisition at random: the critical sections counted outside
// match a counter kept under the synchronizer alone, which ends free with an empty queue.
void stressExclusiveAcquisition(int threads, int iterations) {
    TestMutex m;
    long counter = 0;  // guarded by m alone
    std::atomic<long> acquired(0);
    auto body = [&](int, std::mt19937& rng, bool) {
        for (int i = 0; i < iterations / 2; ++i) {
            try {
                switch (rng() % 3) {
                    case 0:
                        m.acquire(1);
                        break;
                    case 1:
                        m.acquireInterruptibly(1);
                        break;
                    default:
                        if (!m.tryAcquireNanos(1, rng() % 4 == 0 ? 0 : rng() % 200000)) continue;
                }
            } catch (const mw::InterruptedException&) {
                continue;
            }
            long seen = counter;
            if (rng() % 8 == 0) std::this_thread::yield();
            counter = seen + 1;
            acquired += 1;
            m.release(1);
        }
    };
    runWithInterrupts(threads, body, "exclusive acquisition");
    EXPECT_EQ(acquired.load(), counter);
    EXPECT_EQ(0, m.state());
    EXPECT_FALSE(m.hasQueuedThreads());
    EXPECT_EQ(0u, m.getQueueLength());
}

TEST(SynchronizerStress, TwoThreadsManyRounds) {
    stressExclusiveAcquisition(2, 60000 * mwtest::stressScale());
}

TEST(SynchronizerStress, EightThreads) {
    stressExclusiveAcquisition(8, 15000 * mwtest::stressScale());
}

// Timed waits with tiny time-outs race a signaller and the interrupter. A wait reports a signal
// exactly when a signal moved its node, and signal and report both happen under the hold, so the
// reports may never outnumber the signals given so far. The quiet round waits without a time-out,
// so a node that the races have lost from the list shows as a hang.
TEST(ConditionStress, SignalRacesTimeoutsAndInterrupts) {
    const int WAITERS = 4;
    const int ROUNDS = 1500 * mwtest::stressScale();
    TestMutex m;
    ConditionObject c = m.newCondition();
    long signals = 0;   // guarded by m
    long reported = 0;  // guarded by m
    long excess = 0;    // guarded by m
    std::atomic<int> notHeld(0);
    std::atomic<int> waitersDone(0);
    std::thread signaller([&] {
        while (waitersDone.load() < WAITERS) {
            m.lock();
            if (m.hasWaiters(&c)) {
                c.signal();
                ++signals;
            }
            m.unlock();
            std::this_thread::yield();
        }
    });
    auto body = [&](int, std::mt19937& rng, bool loud) {
        for (int i = 0; i < (loud ? ROUNDS : ROUNDS / 10); ++i) {
            m.lock();
            try {
                bool signalled = true;
                if (!loud) {
                    c.await();
                } else if (rng() % 2 == 0) {
                    signalled = c.await(rng() % 200, mw::TimeUnit::MICROSECONDS());
                } else {
                    signalled = c.awaitUntil(mw::TimeUtil::milliTime() + rng() % 2);
                }
                if (signalled && ++reported > signals) ++excess;
            } catch (const mw::InterruptedException&) {
            }
            if (!m.heldByCurrentThread() || m.state() != 1) notHeld += 1;
            m.unlock();
        }
        if (!loud) waitersDone += 1;
    };
    runWithInterrupts(WAITERS, body, "signal against cancel");
    signaller.join();
    EXPECT_EQ(0, excess);
    EXPECT_EQ(0, notHeld.load());
    EXPECT_FALSE(m.hasQueuedThreads());
}

// A bounded buffer on one synchronizer with two conditions; producers and consumers wait with
// random time-outs and are interrupted at random. Each item must come out exactly once.
TEST(ConditionStress, BoundedBufferUnderTimeoutsAndInterrupts) {
    const int PRODUCERS = 2;
    const int CAPACITY = 4;
    const int ITEMS = 20000 * mwtest::stressScale();  // per producer
    const long total = static_cast<long>(PRODUCERS) * ITEMS;
    TestMutex m;
    ConditionObject notFull = m.newCondition();
    ConditionObject notEmpty = m.newCondition();
    int buffer[CAPACITY] = {};  // this and the counts below guarded by m
    int first = 0;
    int count = 0;
    long taken = 0;
    long duplicates = 0;
    std::vector<char> seen(total, 0);
    auto waitOn = [](const ConditionObject& condition, std::mt19937& rng) {
        try {
            condition.awaitNanos(static_cast<long long>(rng() % 500) * 1000);
        } catch (const mw::InterruptedException&) {
        }
    };
    auto body = [&](int id, std::mt19937& rng, bool loud) {
        if (!loud) return;
        if (id < PRODUCERS) {
            for (int i = 0; i < ITEMS; ++i) {
                m.lock();
                while (count == CAPACITY) waitOn(notFull, rng);
                buffer[(first + count++) % CAPACITY] = id * ITEMS + i;
                notEmpty.signal();
                m.unlock();
            }
            return;
        }
        for (;;) {
            m.lock();
            while (count == 0 && taken < total) waitOn(notEmpty, rng);
            if (taken == total) {
                m.unlock();
                return;
            }
            int item = buffer[first];
            first = (first + 1) % CAPACITY;
            --count;
            if (seen[item]++ != 0) ++duplicates;
            if (++taken == total) notEmpty.broadcast();
            notFull.signal();
            m.unlock();
        }
    };
    runWithInterrupts(2 * PRODUCERS, body, "bounded buffer");
    EXPECT_EQ(total, taken);
    EXPECT_EQ(0, duplicates);
    EXPECT_FALSE(m.hasQueuedThreads());
    m.lock();
    EXPECT_FALSE(m.hasWaiters(&notFull));
    EXPECT_FALSE(m.hasWaiters(&notEmpty));
    m.unlock();
}

}  // namespace
