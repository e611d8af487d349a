// Bounded stress of Semaphore, fair and non-fair, and so of the synchronizer's shared mode. Counts
// scale with MW_STRESS_SCALE. A thread still blocked at a deadline is reported as a failure (the
// back-to-back releases then free it with spare permits) or ends the run (StressDriver.h).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "StressDriver.h"
#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mwtest::WorkerThread;
typedef std::vector<std::unique_ptr<WorkerThread>> Workers;
typedef std::chrono::steady_clock Clock;

// Busy-waits for a moment: a jitter that spreads where one thread's step meets another's, never
// a way to wait for a state.
void spinFor(std::chrono::microseconds jitter) {
    auto end = Clock::now() + jitter;
    while (Clock::now() < end) {
    }
}

// Takes n permits by a form chosen at random; false if a timed or untimed attempt failed. Most
// attempts are untimed: they never park, so attempts meet each other on the count far more often
// than parked threads would.
bool acquireAtRandom(mw::Semaphore& s, int n, std::mt19937& rng) {
    switch (rng() % 8) {
        case 0:
            s.acquire(n);
            return true;
        case 1:
            s.acquireInterruptibly(n);
            return true;
        case 2:
            return s.tryAcquire(n, rng() % 4 == 0 ? 0 : rng() % 200, mw::TimeUnit::MICROSECONDS());
        default:
            return s.tryAcquire(n);
    }
}

// Gives back n permits, at random in one release or in two.
void releaseAtRandom(mw::Semaphore& s, int n, std::mt19937& rng) {
    int first = 1 + static_cast<int>(rng() % static_cast<unsigned>(n));
    s.release(first);
    if (first < n) s.release(n - first);
}

// Threads take 1..most permits by every form and give them back, interrupted at random after
// every few acquisitions (StressDriver.h). The permits held at once never pass the total, and at
// the end every permit is back and nobody is queued.
void runRandomAcquisitions(bool fair, int permits, int threads, int most) {
    const int rounds = 20000 * mwtest::stressScale();
    mw::Semaphore s(permits, fair);
    std::atomic<int> inUse(0), overdrawn(0);
    std::atomic<long long> taken(0), interrupted(0);
    auto body = [&](int, std::mt19937& rng, bool loud) {
        for (int i = 0; i < (loud ? rounds : rounds / 10); ++i) {
            int n = 1 + static_cast<int>(rng() % static_cast<unsigned>(most));
            try {
                if (!acquireAtRandom(s, n, rng)) continue;
            } catch (const mw::InterruptedException&) {
                interrupted.fetch_add(1);
                continue;
            }
            if (inUse.fetch_add(n) + n > permits) overdrawn.fetch_add(1);
            if (rng() % 8 == 0) std::this_thread::yield();
            inUse.fetch_sub(n);
            taken.fetch_add(1);
            releaseAtRandom(s, n, rng);
        }
    };
    mwtest::runWithInterrupts(threads, body, &taken);
    std::printf("  %lld acquisitions, %lld interrupted waits\n", taken.load(), interrupted.load());
    EXPECT_EQ(0, overdrawn.load());
    EXPECT_GT(interrupted.load(), 0);
    EXPECT_EQ(permits, s.availablePermits());
    EXPECT_FALSE(s.hasQueuedThreads());
    EXPECT_EQ(0u, s.getQueueLength());
}

TEST(SemaphoreStress, RandomAcquisitionsWithInterruptsConservePermitsNonFair) {
    runRandomAcquisitions(false, 5, 6, 3);
}
TEST(SemaphoreStress, RandomAcquisitionsWithInterruptsConservePermitsFair) {
    runRandomAcquisitions(true, 5, 6, 3);
}

// Each round two waiters queue on an empty semaphore, then two threads, let go by one flag,
// release one permit each at the same moment. The first release's waiter may still be taking its
// permit when the second release comes; that release must reach the second waiter all the same.
// In every other round the releases wait until both waiters are parked, in the others only until
// both are linked, so that the releases meet the waiters at different points.
void runBackToBackReleases(bool fair) {
    const int rounds = 10000 * mwtest::stressScale();
    mw::Semaphore s(0, fair);
    std::atomic<int> round(0), go(0), passed(0);
    std::atomic<bool> stop(false);
    auto awaitTurn = [&](std::atomic<int>& flag, int r) {
        while (flag.load() < r && !stop.load()) std::this_thread::yield();
        return !stop.load();
    };
    Workers waiters, releasers;
    for (int w = 0; w < 2; ++w) {
        waiters.emplace_back(new WorkerThread([&] {
            for (int r = 1; awaitTurn(round, r); ++r) {
                s.acquire();
                passed.fetch_add(1);
            }
        }));
    }
    for (int w = 0; w < 2; ++w) {
        releasers.emplace_back(new WorkerThread([&, w] {
            std::mt19937 rng(static_cast<unsigned>(w));
            for (int r = 1; awaitTurn(go, r); ++r) {
                spinFor(std::chrono::microseconds(rng() % 64));
                s.release();
            }
        }));
    }
    auto parked = [](const std::unique_ptr<WorkerThread>& w) {
        return w->self()->getState() == mw::Thread::PARKED;
    };
    int r = 1;
    for (; r <= rounds; ++r) {
        round.store(r);
        bool ready = mwtest::eventually([&] {
            return s.getQueueLength() == 2 &&
                   (r % 2 == 1 || (parked(waiters[0]) && parked(waiters[1])));
        });
        if (!ready) {
            ADD_FAILURE() << "round " << r << ": the waiters did not queue";
            break;
        }
        go.store(r);
        bool through = mwtest::eventually([&] { return passed.load() == 2 * r; },
                                          std::chrono::seconds(10) * mwtest::stressScale());
        if (!through) {
            ADD_FAILURE() << "round " << r << ": " << 2 * r - passed.load()
                          << " waiter(s) stranded after both releases, with "
                          << s.availablePermits() << " permit(s) available";
            break;
        }
    }
    stop.store(true);
    if (r <= rounds) s.release(2);  // frees a stranded waiter so that the threads can end
    waiters.clear();
    releasers.clear();
    if (r > rounds) {
        EXPECT_EQ(0, s.availablePermits());
    }
    EXPECT_FALSE(s.hasQueuedThreads());
}

TEST(SemaphoreStress, BackToBackReleasesReachBothWaitersNonFair) { runBackToBackReleases(false); }
TEST(SemaphoreStress, BackToBackReleasesReachBothWaitersFair) { runBackToBackReleases(true); }

}  // namespace
