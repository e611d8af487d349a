// Races a wake-up against a thread on its way into a park. The worker blocks through the public
// synchronizer, whose queued wait is a loop of parkCurrent() and a test of the interrupt flag (or
// of its own state), so the wake-up lands at random points of that loop: before the flag is read,
// between that read and the publication of the ParkEvent, and in the wait itself. Every wake-up
// must end its round; a lost one would leave the worker blocked for ever.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <random>
#include <thread>

#include "TestSupport.h"
#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mw::Thread;

// A binary permit: release opens, one acquire passes and closes. Never released, it is a wall
// that acquireInterruptibly leaves only by an interrupt.
class Gate : public mw::AbstractQueuedSynchronizer {
protected:
    bool tryAcquire(int) override { return compareAndSetState(1, 0); }
    bool tryRelease(int) override {
        setState(1);
        return true;
    }
};

// The worker runs rounds of `block` until the count or its time budget is spent; for each round
// the waker (this thread) waits until it has begun, lets a random moment pass and calls `wake`.
// A round that does not end is a failure, and the watchdog then wakes the worker by every means
// until it stops, so that a lost wake-up fails the test instead of hanging it. Returns the number
// of rounds that ended.
int runWakeRounds(const std::function<void()>& block,
                  const std::function<void(const Thread*)>& wake) {
    const int rounds = 20000 * mwtest::stressScale();
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::seconds(30) * mwtest::stressScale();
    // The waker must see a round begin within the few hundred nanoseconds that the worker takes
    // to reach its park, so it spins; a round that a wake-up has not ended after 20 s has lost it.
    auto spinUntil = [](auto done) {
        return mwtest::eventually(done, std::chrono::seconds(20), 1024);
    };
    std::atomic<int> started{0}, finished{0};
    std::atomic<bool> stop{false};
    mwtest::WorkerThread worker([&] {
        for (int r = 1; r <= rounds && !stop && std::chrono::steady_clock::now() < end; ++r) {
            started.store(r);
            block();
            finished.store(r);
        }
    });
    unsigned seed = std::random_device()();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::minstd_rand random(seed);
    volatile unsigned sink = 0;
    // The delay drifts toward the moment at which the worker publishes its park: shorter after a
    // wake-up that found it parked, longer after one that came before. The jitter spreads the
    // wake-ups over that moment, where the window lies.
    int delay = 0, ended = 0;
    for (;;) {
        int round = ended;
        bool begun = spinUntil([&] { return (round = started) != ended || worker.finished(); });
        if (begun && round == ended) return ended;
        if (begun) {
            int spins = delay + static_cast<int>(random() % 256) - 128;
            for (int i = 0; i < spins; ++i) sink = sink + 1;
            bool parked = worker.self()->getState() != Thread::RUNNING;
            wake(worker.self());
            delay = std::max(0, std::min(1 << 20, delay + (parked ? -16 : 16)));
            if (spinUntil([&] { return finished == round; })) {
                ended = round;
                continue;
            }
        }
        ADD_FAILURE() << "round " << ended + 1 << (begun ? " lost its wake-up" : " never began");
        stop.store(true);
        while (!worker.finished()) {
            wake(worker.self());
            worker.self()->interrupt();
            std::this_thread::yield();
        }
        return ended;
    }
}

TEST(ParkInterruptStress, EveryInterruptEndsAnUnlimitedPark) {
    Gate wall;
    int interruptsSeen = 0;
    int ended = runWakeRounds(
        [&] {
            interruptsSeen += mwtest::interruptedOut([&] { wall.acquireInterruptibly(1); });
            EXPECT_FALSE(Thread::currentThread()->isInterrupted());
        },
        [](const Thread* worker) { worker->interrupt(); });
    EXPECT_GT(ended, 0);
    EXPECT_EQ(ended, interruptsSeen);
    EXPECT_FALSE(wall.hasQueuedThreads());
}

TEST(ParkInterruptStress, EveryReleaseLetsTheParkedAcquirerThrough) {
    Gate gate;
    int ended = runWakeRounds(
        [&] {
            gate.acquire(1);
            EXPECT_FALSE(Thread::interrupted()) << "the round ended by the watchdog's interrupt";
        },
        [&](const Thread*) { gate.release(1); });
    EXPECT_GT(ended, 0);
    EXPECT_FALSE(gate.hasQueuedThreads());
}

}  // namespace
