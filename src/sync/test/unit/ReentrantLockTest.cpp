// ReentrantLock over both policies: holds, queueing and leaving the queue, the order of the
// refusals of its condition questions, and the fair policy's barging rules.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mwtest::throwsWith;
using mwtest::WorkerThread;
typedef mw::ReentrantLock<mw::FairLockPolicy> FairLock;

// A Condition that is not the library's: a lock must refuse it by its type.
class ForeignCondition : public mw::Condition {
public:
    bool await(long long, const mw::TimeUnit&) const override { return false; }
    void await() const override {}
    void awaitUninterruptibly() const override {}
    long long awaitNanos(long long) const override { return 0; }
    bool awaitUntil(long long) const override { return false; }
    void signal() const override {}
    void broadcast() const override {}
};

template <typename L>
struct ReentrantLockTest : testing::Test {};

typedef testing::Types<mw::ReentrantLock<mw::NonFairLockPolicy>, FairLock> Locks;
TYPED_TEST_SUITE(ReentrantLockTest, Locks);

TYPED_TEST(ReentrantLockTest, HoldCountFollowsNestedLocksAndUnlockNeedsAHold) {
    TypeParam lock;
    EXPECT_TRUE(throwsWith<mw::IllegalMonitorStateException>([&] { lock.unlock(); }, ""));
    EXPECT_FALSE(lock.isLocked());
    lock.lock();
    lock.lock();
    EXPECT_TRUE(lock.tryLock());  // the owner's attempts, timed or not, just add a hold
    EXPECT_TRUE(lock.tryLock(0, mw::TimeUnit::NANOSECONDS()));
    EXPECT_EQ(mw::Thread::currentThread(), lock.getOwner());
    EXPECT_TRUE(lock.isHeldByCurrentThread());
    for (unsigned long long holds = 4; holds > 0; --holds) {
        EXPECT_TRUE(lock.isLocked());
        EXPECT_EQ(holds, lock.getHoldCount());
        lock.unlock();
    }
    EXPECT_EQ(nullptr, lock.getOwner());
    EXPECT_FALSE(lock.isHeldByCurrentThread());
    EXPECT_EQ(0u, lock.getHoldCount());
}

// Another thread holds the lock twice, so this thread's untimed attempt fails (the synchronizer's
// tests show timed ones failing in time); then five waiters queue in index order; 1 and 3 are
// interrupted out of the queue, and the release must hand the lock to 0, 2 and 4 in that order.
TYPED_TEST(ReentrantLockTest, ContendersQueueInOrderAndInterruptedOnesLeaveTheQueue) {
    TypeParam lock;
    std::atomic<unsigned long long> holdsAtRelease(0);
    std::atomic<int> next(0), order[3], cleanInterrupts(0);
    mwtest::Latch release(1);
    WorkerThread holder([&] {
        lock.lock();
        lock.lock();
        release.wait();
        holdsAtRelease.store(lock.getHoldCount());
        lock.unlock();
        lock.unlock();
    });
    ASSERT_TRUE(mwtest::eventually([&] { return lock.isLocked(); }));
    EXPECT_TRUE(throwsWith<mw::IllegalMonitorStateException>([&] { lock.unlock(); }, ""));
    EXPECT_EQ(holder.self(), lock.getOwner());
    EXPECT_EQ(0u, lock.getHoldCount());
    EXPECT_FALSE(lock.isHeldByCurrentThread());
    EXPECT_FALSE(lock.tryLock());
    mwtest::Workers waiters;
    const int forms[5] = {0, 1, 2, 2, 1};  // lock(), lockInterruptibly(), tryLock(60 s)
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(waiters.startParked([&, i] {
            bool threw = mwtest::interruptedOut([&] {
                if (forms[i] == 0) lock.lock();
                if (forms[i] == 1) lock.lockInterruptibly();
                if (forms[i] == 2 && !lock.tryLock(60, mw::TimeUnit::SECONDS())) return;
                if (lock.getHoldCount() == 1) order[next.fetch_add(1)].store(i);
                lock.unlock();
            });
            cleanInterrupts += threw && !lock.isHeldByCurrentThread() &&
                               !mw::Thread::currentThread()->isInterrupted();
        }));
    }
    for (int i : {1, 3}) waiters[i].self()->interrupt();
    bool interruptsEnded = waiters[1].awaitFinished() && waiters[3].awaitFinished();
    release.countDown();
    ASSERT_TRUE(interruptsEnded);
    ASSERT_TRUE(waiters.finish());
    EXPECT_EQ(2, cleanInterrupts.load());
    EXPECT_EQ(2u, holdsAtRelease.load());
    ASSERT_EQ(3, next.load());
    for (int k = 0; k < 3; ++k) EXPECT_EQ(2 * k, order[k].load());
}

// The checks come in this order: null, then the type, then the owner, then the hold.
TYPED_TEST(ReentrantLockTest, ConditionQuestionsCheckNullTypeOwnerThenHold) {
    TypeParam lock, other;
    std::unique_ptr<mw::Condition> own(lock.newCondition()), others(other.newCondition());
    ForeignCondition foreign;
    for (bool holding : {false, true}) {
        if (holding) lock.lock();
        for (bool length : {false, true}) {
            SCOPED_TRACE(testing::Message() << "holding " << holding << ", length " << length);
            const std::string name = length ? "::getWaitQueueLength" : "::hasWaiters";
            const std::string aqs = "AbstractQueuedSynchronizer" + name;
            auto ask = [&](const mw::Condition* c) {
                return length ? lock.getWaitQueueLength(c) : lock.hasWaiters(c);
            };
            EXPECT_TRUE(throwsWith<mw::NullPointerException>([&] { ask(nullptr); }, "",
                                                             "ReentrantLock" + name));
            EXPECT_TRUE(throwsWith<mw::IllegalArgumentException>(
                [&] { ask(&foreign); }, "not owner", "ReentrantLock" + name));
            EXPECT_TRUE(throwsWith<mw::IllegalArgumentException>([&] { ask(others.get()); },
                                                                 "Not owner", aqs));
            // Its own condition: refused without the hold, no waiters with it.
            EXPECT_EQ(!holding, throwsWith<mw::IllegalMonitorStateException>(
                                    [&] { EXPECT_EQ(0u, ask(own.get())); }, "", aqs));
        }
        if (holding) lock.unlock();
    }
}

// "Free, with another thread first in the queue" lasts only from a release until the woken
// thread takes the lock, so each round makes it anew. A round in which the woken thread wins
// shows no barging and the next round tries again; the timed attempt must fail in every round.
TEST(FairReentrantLock, UntimedTryLockBargesWhileTimedTryLockGivesWayToTheQueue) {
    FairLock lock;
    int barges = 0;
    for (int round = 0; round < 200 && barges < 10; ++round) {
        lock.lock();
        std::atomic<bool> acquired(false);
        mwtest::Latch letGo(1);
        WorkerThread queued([&] {
            lock.lock();
            acquired.store(true);
            letGo.wait();
            lock.unlock();
        });
        bool parked = queued.awaitParked();
        lock.unlock();
        if (lock.tryLock()) {
            ++barges;
            EXPECT_FALSE(acquired.load());
            lock.unlock();
        }
        bool timed = lock.tryLock(0, mw::TimeUnit::NANOSECONDS());
        if (timed) lock.unlock();
        letGo.countDown();
        ASSERT_TRUE(parked);
        ASSERT_FALSE(timed);
    }
    EXPECT_GT(barges, 0) << "the owner never took the lock back ahead of the woken thread";
}

}  // namespace
