// Bounded stress of the queued synchronizer and its conditions under random interrupts and
// time-outs. Counts scale with MW_STRESS_SCALE; every run has a deadline after which the process
// aborts with a message instead of hanging on a lost wake-up.
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
#include "TestSupport.h"
#include "concurrent/Concurrent.h"

namespace {

using mwtest::TestMutex;
typedef TestMutex::ConditionObject ConditionObject;
// A worker's share of a run; loud tells whether the interrupter is at work during it.
typedef std::function<void(int worker, std::mt19937& rng, bool loud)> WorkerBody;

std::chrono::seconds deadline() { return std::chrono::seconds(120 * mwtest::stressScale()); }

// Polls without taking a core from the threads under test.
bool finishesInTime(const std::function<bool()>& done) {
    auto end = std::chrono::steady_clock::now() + deadline();
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

unsigned freshSeed(const char* what) {
    unsigned seed = std::random_device()();
    std::printf("%s: seed %u\n", what, seed);
    return seed;
}

// Runs each worker's body twice on its own thread. The loud round runs beside an interrupter that
// interrupts workers at random. The quiet round starts when every worker is through the loud one,
// the interrupter has stopped and leftover flags are cleared: only time-outs end waits then, so a
// lost wake-up shows as a hang instead of being covered by the next interrupt, and the deadline
// turns the hang into an abort. A thread's object is freed when the thread ends, so no worker
// ends before the interrupter has stopped.
void runWithInterrupts(int workers, unsigned seed, const WorkerBody& body, const char* what) {
    std::vector<std::atomic<const mw::Thread*>> selves(workers);
    std::atomic<int> loudDone(0);
    std::atomic<int> quietDone(0);
    std::atomic<bool> interrupterDone(false);
    std::atomic<int> leftoverFlags(0);
    mwtest::Latch ready(workers);
    std::vector<std::thread> threads;
    for (int i = 0; i < workers; ++i) {
        threads.emplace_back([&, i] {
            selves[i].store(mw::Thread::currentThread());
            ready.countDown();
            std::mt19937 rng(seed + static_cast<unsigned>(i));
            body(i, rng, true);
            loudDone.fetch_add(1);
            while (!interrupterDone.load()) std::this_thread::yield();
            if (mw::Thread::interrupted()) leftoverFlags.fetch_add(1);
            body(i, rng, false);
            quietDone.fetch_add(1);
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
    if (!finishesInTime([&] { return quietDone.load() == workers; })) {
        std::fprintf(stderr, "%s: workers still blocked after %lld s; aborting\n", what,
                     static_cast<long long>(deadline().count()));
        std::abort();
    }
    interrupter.join();
    for (std::thread& t : threads) t.join();
    std::printf("%s: %d leftover interrupt flags cleared\n", what, leftoverFlags.load());
}

// Every acquire form at random, some reentrant, against random interrupts: exclusion holds, the
// count of critical sections matches, and the synchronizer ends free with an empty queue.
void stressExclusiveAcquisition(int threads, int iterations) {
    TestMutex m;
    long counter = 0;  // guarded by m alone
    std::atomic<long> acquired(0);
    std::atomic<long> interrupted(0);
    std::atomic<long> timedOut(0);
    std::atomic<int> inside(0);
    std::atomic<int> overlaps(0);
    std::atomic<int> wrongState(0);
    const char* what = "exclusive acquisition";
    auto body = [&](int, std::mt19937& rng, bool) {
        for (int i = 0; i < iterations / 2; ++i) {
            bool got = false;
            try {
                switch (rng() % 3) {
                    case 0:
                        m.acquire(1);
                        got = true;
                        break;
                    case 1:
                        m.acquireInterruptibly(1);
                        got = true;
                        break;
                    default:
                        got = m.tryAcquireNanos(
                            1, rng() % 4 == 0 ? 0 : static_cast<long long>(rng() % 200000));
                        if (!got) timedOut.fetch_add(1);
                }
            } catch (const mw::InterruptedException&) {
                interrupted.fetch_add(1);
            }
            if (!got) continue;
            if (inside.fetch_add(1) != 0) overlaps.fetch_add(1);
            long seen = counter;
            if (rng() % 4 == 0) {
                m.acquire(1);
                if (m.state() != 2) wrongState.fetch_add(1);
                std::this_thread::yield();
                m.release(1);
            }
            counter = seen + 1;
            inside.fetch_sub(1);
            acquired.fetch_add(1);
            m.release(1);
        }
    };
    runWithInterrupts(threads, freshSeed(what), body, what);
    std::printf("%s: %ld acquired, %ld interrupted, %ld timed out\n", what, acquired.load(),
                interrupted.load(), timedOut.load());
    EXPECT_EQ(acquired.load(), counter);
    EXPECT_EQ(0, overlaps.load());
    EXPECT_EQ(0, wrongState.load());
    EXPECT_EQ(0, m.state());
    EXPECT_EQ(nullptr, m.owner());
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
// (true) exactly when a signal moved its node, and signal and report both happen under the hold,
// so at every report the reports so far may not outnumber the signals so far. Afterwards the list
// must still be sound: every one of a fresh set of waiters is woken by exactly one signal.
TEST(ConditionStress, SignalRacesTimeoutsAndInterrupts) {
    const int WAITERS = 4;
    const int ROUNDS = 3000 * mwtest::stressScale();
    TestMutex m;
    ConditionObject c = m.newCondition();
    long signals = 0;   // guarded by m: signals given while a waiter was counted
    long reported = 0;  // guarded by m: waits that reported a signal
    long excess = 0;    // guarded by m: reports that found no signal to account for them
    std::atomic<long> timedOut(0);
    std::atomic<long> interrupted(0);
    std::atomic<int> notHeld(0);
    std::atomic<int> waitersDone(0);
    const char* what = "signal against cancel";
    unsigned seed = freshSeed(what);

    std::thread signaller([&] {
        std::mt19937 rng(seed + 1000);
        while (waitersDone.load() < WAITERS) {
            m.lock();
            if (m.hasWaiters(&c)) {
                c.signal();
                ++signals;
            }
            m.unlock();
            if (rng() % 4 == 0) std::this_thread::yield();
        }
    });
    auto body = [&](int, std::mt19937& rng, bool loud) {
        for (int i = 0; i < ROUNDS / 2; ++i) {
            m.lock();
            try {
                bool signalled;
                switch (rng() % 3) {
                    case 0:
                        signalled = c.await(rng() % 200000, mw::TimeUnit::NANOSECONDS());
                        break;
                    case 1:
                        signalled = c.await(rng() % 200, mw::TimeUnit::MICROSECONDS());
                        break;
                    default:
                        signalled = c.awaitUntil(mw::TimeUtil::milliTime() + rng() % 2);
                }
                if (signalled) {
                    if (++reported > signals) ++excess;
                } else {
                    timedOut.fetch_add(1);
                }
            } catch (const mw::InterruptedException&) {
                interrupted.fetch_add(1);
            }
            if (!m.heldByCurrentThread() || m.state() != 1) notHeld.fetch_add(1);
            m.unlock();
        }
        if (!loud) waitersDone.fetch_add(1);
    };
    runWithInterrupts(WAITERS, seed, body, what);
    signaller.join();
    std::printf("%s: %ld signals, %ld reported, %ld timed out, %ld interrupted\n", what, signals,
                reported, timedOut.load(), interrupted.load());
    EXPECT_EQ(0, excess);
    EXPECT_LE(reported, signals);
    EXPECT_GT(reported, 0);
    EXPECT_EQ(0, notHeld.load());
    EXPECT_EQ(0, m.state());
    EXPECT_FALSE(m.hasQueuedThreads());

    std::atomic<int> woken(0);
    std::vector<std::thread> fresh;
    for (int i = 0; i < WAITERS; ++i) {
        fresh.emplace_back([&] {
            m.lock();
            c.await();
            woken.fetch_add(1);
            m.unlock();
        });
    }
    auto waiting = [&] {
        m.lock();
        unsigned long long n = m.getWaitQueueLength(&c);
        m.unlock();
        return n;
    };
    bool allWoken = mwtest::eventually([&] { return waiting() == WAITERS; }, deadline());
    for (int k = WAITERS; allWoken && k > 0; --k) {
        m.lock();
        EXPECT_EQ(static_cast<unsigned long long>(k), m.getWaitQueueLength(&c));
        c.signal();
        m.unlock();
        allWoken = mwtest::eventually([&] { return woken.load() == WAITERS - k + 1; }, deadline());
    }
    if (!allWoken) {
        std::fprintf(stderr, "%s: fresh waiters not all woken; aborting\n", what);
        std::abort();
    }
    for (std::thread& t : fresh) t.join();
    EXPECT_EQ(0u, waiting());
}

// A bounded buffer on one mutex with two conditions; producers and consumers wait with random
// time-outs and are interrupted at random. Each item must come out exactly once.
TEST(ConditionStress, BoundedBufferUnderTimeoutsAndInterrupts) {
    const int PRODUCERS = 2;
    const int CONSUMERS = 2;
    const int CAPACITY = 4;
    const int ITEMS = 20000 * mwtest::stressScale();  // per producer
    const long total = static_cast<long>(PRODUCERS) * ITEMS;
    TestMutex m;
    ConditionObject notFull = m.newCondition();
    ConditionObject notEmpty = m.newCondition();
    // All guarded by m.
    int buffer[CAPACITY] = {};
    int first = 0;
    int count = 0;
    long taken = 0;
    long long sum = 0;
    long duplicates = 0;
    std::vector<char> seen(total, 0);
    std::atomic<long> waitsEnded(0);

    auto waitOn = [&](const ConditionObject& condition, std::mt19937& rng) {
        try {
            condition.awaitNanos(static_cast<long long>(rng() % 500) * 1000);
        } catch (const mw::InterruptedException&) {
        }
        waitsEnded.fetch_add(1);
    };
    const char* what = "bounded buffer";
    auto body = [&](int id, std::mt19937& rng, bool loud) {
        if (!loud) return;
        if (id < PRODUCERS) {
            for (int i = 0; i < ITEMS; ++i) {
                m.lock();
                while (count == CAPACITY) waitOn(notFull, rng);
                buffer[(first + count) % CAPACITY] = id * ITEMS + i;
                ++count;
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
            sum += item;
            if (++taken == total) notEmpty.broadcast();
            notFull.signal();
            m.unlock();
        }
    };
    runWithInterrupts(PRODUCERS + CONSUMERS, freshSeed(what), body, what);
    std::printf("%s: %ld items, %ld waits\n", what, taken, waitsEnded.load());
    EXPECT_EQ(total, taken);
    EXPECT_EQ(0, duplicates);
    EXPECT_EQ(total * (total - 1) / 2, sum);
    EXPECT_EQ(0, count);
    EXPECT_EQ(0, m.state());
    EXPECT_FALSE(m.hasQueuedThreads());
    m.lock();
    EXPECT_FALSE(m.hasWaiters(&notFull));
    EXPECT_FALSE(m.hasWaiters(&notEmpty));
    m.unlock();
}

}  // namespace
