// The stress tests' driver: workers run a body twice, first beside an interrupter, then alone, so
// that interrupts race with wake-ups and time-outs, and then a lost wake-up shows as a hang. A run
// that does not end in time aborts the process with a message instead of hanging.
#ifndef MW_SYNC_TEST_STRESS_DRIVER_H
#define MW_SYNC_TEST_STRESS_DRIVER_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "concurrent/Thread.h"

namespace mwtest {

// A worker's share of a round; loud tells whether the interrupter is at work during it.
typedef std::function<void(int worker, std::mt19937& rng, bool loud)> StressBody;

// Runs body on each of `workers` threads twice. The loud round, which each worker enters with its
// flag set, runs beside an interrupter that interrupts workers at random: after a pause of up to
// 300 us, or, given progress, once the workers have counted 1 to 16 more steps in it. The quiet
// round starts once every worker is through the loud one and the interrupter has stopped, with
// every flag clear: only wake-ups and time-outs end waits then. No worker ends before the
// interrupter has stopped, for a thread's object dies with the thread. The seed is printed at
// once, since a hang ends in an abort.
inline void runWithInterrupts(int workers, const StressBody& body,
                              const std::atomic<long long>* progress = nullptr) {
    const unsigned seed = std::random_device()();
    const char* what = testing::UnitTest::GetInstance()->current_test_info()->name();
    std::printf("%s: seed %u\n", what, seed);
    std::vector<std::atomic<const mw::Thread*>> selves(workers);
    std::atomic<int> loudDone(0), quietDone(0);
    std::atomic<bool> interrupterDone(false);
    Latch ready(workers);
    std::vector<std::thread> threads;
    for (int i = 0; i < workers; ++i) {
        threads.emplace_back([&, i] {
            const mw::Thread* self = mw::Thread::currentThread();
            selves[i].store(self);
            self->interrupt();
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
            if (progress == nullptr) {
                std::this_thread::sleep_for(std::chrono::microseconds(rng() % 300));  // pacing
                continue;
            }
            const long long until = progress->load() + 1 + static_cast<long long>(rng() % 16);
            while (progress->load() < until && loudDone.load() < workers) {
                std::this_thread::yield();
            }
        }
        interrupterDone = true;
    });
    // Polls without taking a core from the threads under test.
    auto end = std::chrono::steady_clock::now() + std::chrono::minutes(2) * stressScale();
    while (quietDone.load() < workers) {
        if (std::chrono::steady_clock::now() > end) {
            std::fprintf(stderr, "%s: threads still blocked; aborting\n", what);
            std::abort();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    interrupter.join();
    for (std::thread& t : threads) t.join();
}

}  // namespace mwtest

#endif
