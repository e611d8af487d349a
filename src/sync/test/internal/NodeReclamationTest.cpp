// Queue nodes are recycled: the number of nodes made stays flat under contention, condition waits,
// time-outs and interrupts, however many waits queue. Sanitizer builds reuse nodes as early as the
// epochs allow and poison free ones, so the same runs there check that no node is touched after
// it was given up, and the leak check at exit that destroyed synchronizers gave their nodes back.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

#include "NodePool.h"
#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mw::detail::NodePool;

typedef mw::ReentrantLock<mw::NonFairLockPolicy> Lock;

// threads take turns by a counter under the lock, each waiting for its turn on the condition, so
// every turn queues a condition node and every wake-up a sync node; one turn in eight is waited
// for with a time-out that may expire, and an extra thread barges with timed tryLock calls, so
// that cancelled nodes are retired too. Returns the waits that queued.
unsigned long long takeTurns(Lock& lock, mw::Condition& turn, int threads, int rounds) {
    unsigned long long takenBefore = NodePool::nodesTaken();
    long next = 0;
    std::atomic<bool> done(false);
    std::vector<std::unique_ptr<mwtest::WorkerThread>> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back(new mwtest::WorkerThread([&, t] {
            for (int i = 0; i < rounds; ++i) {
                lock.lock();
                while (next % threads != t) {
                    if (i % 8 == 0) {
                        turn.await(1, mw::TimeUnit::MICROSECONDS());
                    } else {
                        turn.awaitUninterruptibly();
                    }
                }
                ++next;
                turn.broadcast();
                lock.unlock();
            }
        }));
    }
    mwtest::WorkerThread barger([&] {
        while (!done.load()) {
            if (lock.tryLock(1, mw::TimeUnit::MICROSECONDS())) lock.unlock();
        }
    });
    for (auto& w : workers) EXPECT_TRUE(w->awaitFinished());
    done.store(true);
    EXPECT_TRUE(barger.awaitFinished());
    EXPECT_EQ(static_cast<long>(threads) * rounds, next);
    workers.clear();
    return NodePool::nodesTaken() - takenBefore;
}

TEST(NodeReclamation, NodesAreRecycledSoThatTheirNumberStaysFlat) {
    Lock lock;
    std::unique_ptr<mw::Condition> turn(lock.newCondition());
    takeTurns(lock, *turn, 3, 2000);  // warm-up: the caches fill
    unsigned long long made = NodePool::nodesMade();
    unsigned long long queued = 0;
    for (int phase = 0; phase < 4; ++phase) queued += takeTurns(lock, *turn, 3, 5000);
    unsigned long long madeSince = NodePool::nodesMade() - made;
    EXPECT_GE(queued, 60000u);
    // Each record keeps up to a few hundred nodes (retired and free) before it hands them on, so
    // nodes are still made while the caches of the new threads' records fill: about 1% of the
    // waits here. One per queued wait would be all of them.
    EXPECT_LT(madeSince * 20, queued) << queued << " queued waits made " << madeSince << " nodes";
}

}  // namespace
