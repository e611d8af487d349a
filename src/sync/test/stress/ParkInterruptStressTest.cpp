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
#include "concurrent/AbstractQueuedSynchronizer.h"
#include "concurrent/InterruptedException.h"
#include "concurrent/Thread.h"

namespace {

using mw::Thread;

// Never grants: acquireInterruptibly can end only by an interrupt.
class Wall : public mw::AbstractQueuedSynchronizer {
protected:
    bool tryAcquire(int) override { return false; }
};

// A binary permit: release opens, one acquire passes and closes.
class Gate : public mw::AbstractQueuedSynchronizer {
protected:
    bool tryAcquire(int) override { return compareAndSetState(1, 0); }
    bool tryRelease(int) override {
        setState(1);
        return true;
    }
};

// A round that a wake-up has not ended after this long has lost it.
const std::chrono::seconds LOST_AFTER(20);

// Like mwtest::eventually, but spins between tests and yields only now and then: the waker must
// see a round begin within the few hundred nanoseconds that the worker takes to reach its park.
template <typename Predicate>
bool spinUntil(Predicate predicate, std::chrono::steady_clock::duration deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    for (unsigned i = 1; !predicate(); ++i) {
        if (i % 1024 == 0) {
            if (std::chrono::steady_clock::now() > end) return false;
            std::this_thread::yield();
        }
    }
    return true;
}

// The worker runs rounds of `block` until the count or its time budget is spent; for each round
// the waker (this thread) waits until the round has begun, lets a random moment pass and calls
// `wake`. A round that does not end is recorded as a failure, and the worker is then woken by
// every means until it stops, so that a lost wake-up fails the test instead of hanging it.
// Returns the number of rounds that ended.
int runWakeRounds(int rounds, const std::function<void()>& block,
                  const std::function<void(const Thread*)>& wake) {
    std::atomic<const Thread*> worker{nullptr};
    std::atomic<int> started{0}, finished{0};
    std::atomic<bool> stop{false}, workerDone{false};
    mwtest::Latch release(1);
    const auto budget = std::chrono::seconds(30) * mwtest::stressScale();
    std::thread thread([&] {
        worker.store(Thread::currentThread());
        const auto end = std::chrono::steady_clock::now() + budget;
        for (int r = 1; r <= rounds && !stop.load() && std::chrono::steady_clock::now() < end;
             ++r) {
            started.store(r);
            block();
            finished.store(r);
        }
        workerDone.store(true);
        release.wait();  // the waker may still use this thread's object
    });

    unsigned seed = std::random_device()();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::minstd_rand random(seed);
    volatile unsigned sink = 0;
    // The delay drifts toward the moment at which the worker publishes its park: shorter after a
    // wake-up that found it parked, longer after one that came before. The jitter spreads the
    // wake-ups over that moment, where the window lies.
    int delay = 0;
    int ended = 0;
    auto rescue = [&] {
        stop.store(true);
        while (!workerDone.load()) {
            wake(worker.load());
            worker.load()->interrupt();
            std::this_thread::yield();
        }
    };
    for (;;) {
        int round = ended;
        if (!spinUntil([&] { return (round = started.load()) != ended || workerDone.load(); },
                       LOST_AFTER)) {
            ADD_FAILURE() << "round " << ended + 1 << " never began";
            rescue();
            break;
        }
        if (round == ended) break;
        int spins = delay + static_cast<int>(random() % 256) - 128;
        for (int i = 0; i < spins; ++i) sink = sink + 1;
        bool parked = worker.load()->getState() != Thread::RUNNING;
        wake(worker.load());
        delay = std::max(0, std::min(1 << 20, delay + (parked ? -16 : 16)));
        if (!spinUntil([&] { return finished.load() == round; }, LOST_AFTER)) {
            ADD_FAILURE() << "round " << round << " did not end: its wake-up was lost";
            rescue();
            break;
        }
        ended = round;
    }
    release.countDown();
    thread.join();
    return ended;
}

const int ROUNDS = 20000;

TEST(ParkInterruptStress, EveryInterruptEndsAnUnlimitedPark) {
    Wall wall;
    int interruptsSeen = 0;
    int ended = runWakeRounds(
        ROUNDS * mwtest::stressScale(),
        [&] {
            try {
                wall.acquireInterruptibly(1);
                ADD_FAILURE() << "the wall was acquired";
            } catch (const mw::InterruptedException&) {
                ++interruptsSeen;
            }
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
        ROUNDS * mwtest::stressScale(),
        [&] {
            gate.acquire(1);
            EXPECT_FALSE(Thread::interrupted()) << "the round ended by the watchdog's interrupt";
        },
        [&](const Thread*) { gate.release(1); });
    EXPECT_GT(ended, 0);
    EXPECT_FALSE(gate.hasQueuedThreads());
}

}  // namespace
