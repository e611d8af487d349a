#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "TestSupport.h"
#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mwtest::WorkerThread;
typedef std::chrono::steady_clock Clock;
typedef mw::ReentrantLock<mw::FairLockPolicy> FairLock;
typedef mw::ReentrantLock<mw::NonFairLockPolicy> NonFairLock;

template <typename E, typename Operation>
std::string thrownText(Operation operation) {
    try {
        operation();
    } catch (const E& e) {
        return e.what();
    }
    return "nothing thrown";
}

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

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

// Takes the lock `holds` times on a thread of its own and keeps it until release(); checks on
// the way out that nobody else's operations changed its hold count.
template <typename L>
class Holder {
public:
    Holder(L& lock, int holds)
        : m_letGo(1), m_held(false), m_worker([&lock, holds, this] {
              for (int i = 0; i < holds; ++i) lock.lock();
              m_held.store(true);
              m_letGo.wait();
              EXPECT_EQ(static_cast<unsigned long long>(holds), lock.getHoldCount());
              for (int i = 0; i < holds; ++i) lock.unlock();
          }) {
        while (!m_held.load()) std::this_thread::yield();
    }
    ~Holder() { m_letGo.countDown(); }

    const mw::Thread* thread() const { return m_worker.self(); }
    void release() {
        m_letGo.countDown();
        EXPECT_TRUE(m_worker.awaitFinished());
    }

private:
    mwtest::Latch m_letGo;
    std::atomic<bool> m_held;
    WorkerThread m_worker;
};

template <typename L>
class ReentrantLockTest : public testing::Test {
protected:
    L m_lock;
};

struct LockNames {
    template <typename L>
    static std::string GetName(int) {
        return std::is_same<L, FairLock>::value ? "Fair" : "NonFair";
    }
};

typedef testing::Types<NonFairLock, FairLock> Locks;
TYPED_TEST_SUITE(ReentrantLockTest, Locks, LockNames);

TYPED_TEST(ReentrantLockTest, HoldCountFollowsNestedLocksAndUnlocks) {
    auto& lock = this->m_lock;
    EXPECT_FALSE(lock.isLocked());
    EXPECT_EQ(nullptr, lock.getOwner());
    EXPECT_FALSE(lock.isHeldByCurrentThread());
    for (unsigned long long holds = 1; holds <= 3; ++holds) {
        lock.lock();
        EXPECT_EQ(holds, lock.getHoldCount());
    }
    EXPECT_EQ(mw::Thread::currentThread(), lock.getOwner());
    EXPECT_TRUE(lock.isHeldByCurrentThread());
    // The owner's attempts, timed or not, just add a hold.
    EXPECT_TRUE(lock.tryLock());
    EXPECT_TRUE(lock.tryLock(0, mw::TimeUnit::NANOSECONDS()));
    EXPECT_EQ(5u, lock.getHoldCount());
    lock.unlock();
    lock.unlock();
    for (unsigned long long holds = 3; holds >= 1; --holds) {
        EXPECT_TRUE(lock.isLocked());
        lock.unlock();
        EXPECT_EQ(holds - 1, lock.getHoldCount());
    }
    EXPECT_FALSE(lock.isLocked());
    EXPECT_EQ(nullptr, lock.getOwner());
    EXPECT_FALSE(lock.isHeldByCurrentThread());
}

TYPED_TEST(ReentrantLockTest, UnlockWithoutTheHoldThrowsAndChangesNothing) {
    auto& lock = this->m_lock;
    EXPECT_TRUE(endsWith(thrownText<mw::IllegalMonitorStateException>([&] { lock.unlock(); }),
                         ", Description: "));
    EXPECT_FALSE(lock.isLocked());
    EXPECT_EQ(nullptr, lock.getOwner());
    EXPECT_EQ(0u, lock.getHoldCount());

    Holder<TypeParam> holder(lock, 2);
    EXPECT_THROW(lock.unlock(), mw::IllegalMonitorStateException);
    // Seen from a thread that does not own it.
    EXPECT_TRUE(lock.isLocked());
    EXPECT_EQ(holder.thread(), lock.getOwner());
    EXPECT_EQ(0u, lock.getHoldCount());
    EXPECT_FALSE(lock.isHeldByCurrentThread());
    holder.release();  // the holder still finds both of its holds
    EXPECT_FALSE(lock.isLocked());
}

TYPED_TEST(ReentrantLockTest, FailedAttemptsAgainstAnotherOwnerLeaveNothingQueued) {
    auto& lock = this->m_lock;
    {
        Holder<TypeParam> holder(lock, 1);
        EXPECT_FALSE(lock.tryLock());
        EXPECT_FALSE(lock.tryLock(0, mw::TimeUnit::NANOSECONDS()));
        EXPECT_FALSE(lock.tryLock(-1, mw::TimeUnit::SECONDS()));
        EXPECT_EQ(0u, lock.getHoldCount());
        holder.release();
    }
    // Nobody stood in line to be handed the lock, and a fair newcomer's timed attempt, which
    // gives way to any thread standing first, finds no such thread.
    EXPECT_FALSE(lock.isLocked());
    std::atomic<bool> got(false);
    WorkerThread newcomer([&] {
        got.store(lock.tryLock(0, mw::TimeUnit::NANOSECONDS()));
        if (got.load()) lock.unlock();
    });
    ASSERT_TRUE(newcomer.awaitFinished());
    EXPECT_TRUE(got.load());
}

TYPED_TEST(ReentrantLockTest, TimedTryLockWaitsItsTimeOrSucceedsOnRelease) {
    auto& lock = this->m_lock;
    {
        Holder<TypeParam> holder(lock, 1);
        Clock::time_point start = Clock::now();
        EXPECT_FALSE(lock.tryLock(50, mw::TimeUnit::MILLISECONDS()));
        Clock::duration elapsed = Clock::now() - start;
        EXPECT_GE(elapsed, std::chrono::milliseconds(50));
        EXPECT_LT(elapsed, std::chrono::seconds(20));
        EXPECT_EQ(holder.thread(), lock.getOwner());

        std::atomic<int> result(-1);
        WorkerThread waiter([&] {
            bool got = lock.tryLock(60, mw::TimeUnit::SECONDS());
            result.store(got ? 1 : 0);
            if (got) {
                EXPECT_EQ(1u, lock.getHoldCount());
                lock.unlock();
            }
        });
        ASSERT_TRUE(waiter.awaitParked());
        holder.release();
        ASSERT_TRUE(waiter.awaitFinished());
        EXPECT_EQ(1, result.load());
    }
    EXPECT_FALSE(lock.isLocked());
}

TYPED_TEST(ReentrantLockTest, InterruptEndsOnlyTheInterruptibleWaits) {
    auto& lock = this->m_lock;
    const mw::Thread* me = mw::Thread::currentThread();
    lock.lock();
    std::atomic<bool> caught(false), flagCleared(false), holdsNothing(false);
    WorkerThread waiter([&] {
        try {
            lock.lockInterruptibly();
            lock.unlock();
        } catch (const mw::InterruptedException&) {
            caught.store(true);
            flagCleared.store(!mw::Thread::currentThread()->isInterrupted());
            holdsNothing.store(lock.getHoldCount() == 0 && !lock.isHeldByCurrentThread());
        }
    });
    bool parked = waiter.awaitParked();
    waiter.self()->interrupt();
    bool ended = waiter.awaitFinished();
    EXPECT_EQ(me, lock.getOwner());
    EXPECT_EQ(1u, lock.getHoldCount());
    lock.unlock();  // before any assertion can return: a waiter still queued then gets through
    ASSERT_TRUE(parked);
    ASSERT_TRUE(ended);
    EXPECT_TRUE(caught.load());
    EXPECT_TRUE(flagCleared.load());
    EXPECT_TRUE(holdsNothing.load());
    EXPECT_FALSE(lock.isLocked());

    // A pending interrupt fails the interruptible forms even on a free lock, clearing the flag;
    // lock() takes the lock and keeps the interrupt pending.
    me->interrupt();
    EXPECT_THROW(lock.lockInterruptibly(), mw::InterruptedException);
    EXPECT_FALSE(me->isInterrupted());
    me->interrupt();
    EXPECT_THROW(lock.tryLock(1, mw::TimeUnit::SECONDS()), mw::InterruptedException);
    EXPECT_FALSE(me->isInterrupted());
    EXPECT_FALSE(lock.isLocked());
    me->interrupt();
    lock.lock();
    EXPECT_TRUE(mw::Thread::interrupted());
    lock.unlock();
}

// Holds for both policies: only newcomers may barge, and here every contender is queued first.
TYPED_TEST(ReentrantLockTest, QueuedThreadsAcquireInQueueOrder) {
    auto& lock = this->m_lock;
    const int count = 4;
    std::atomic<int> next(0);
    std::atomic<int> order[count];
    std::vector<std::unique_ptr<WorkerThread>> waiters;
    lock.lock();
    bool queued = true;
    for (int i = 0; i < count && queued; ++i) {
        waiters.emplace_back(new WorkerThread([&, i] {
            lock.lock();
            order[next.fetch_add(1)].store(i);
            lock.unlock();
        }));
        queued = waiters.back()->awaitParked();
    }
    lock.unlock();
    ASSERT_TRUE(queued);
    for (auto& waiter : waiters) ASSERT_TRUE(waiter->awaitFinished());
    ASSERT_EQ(count, next.load());
    for (int i = 0; i < count; ++i) EXPECT_EQ(i, order[i].load());
}

TYPED_TEST(ReentrantLockTest, ConditionQuestionsCheckNullTypeOwnerThenHold) {
    auto& lock = this->m_lock;
    std::unique_ptr<mw::Condition> own(lock.newCondition());
    TypeParam other;
    std::unique_ptr<mw::Condition> othersCondition(other.newCondition());
    ForeignCondition foreign;
    for (bool holding : {false, true}) {
        SCOPED_TRACE(holding ? "holding" : "not holding");
        if (holding) lock.lock();
        EXPECT_THROW(lock.hasWaiters(nullptr), mw::NullPointerException);
        EXPECT_THROW(lock.getWaitQueueLength(nullptr), mw::NullPointerException);
        EXPECT_TRUE(
            endsWith(thrownText<mw::IllegalArgumentException>([&] { lock.hasWaiters(&foreign); }),
                     "Description: not owner"));
        EXPECT_TRUE(endsWith(
            thrownText<mw::IllegalArgumentException>([&] { lock.getWaitQueueLength(&foreign); }),
            "Description: not owner"));
        EXPECT_TRUE(endsWith(thrownText<mw::IllegalArgumentException>(
                                 [&] { lock.hasWaiters(othersCondition.get()); }),
                             "Description: Not owner"));
        EXPECT_TRUE(endsWith(thrownText<mw::IllegalArgumentException>(
                                 [&] { lock.getWaitQueueLength(othersCondition.get()); }),
                             "Description: Not owner"));
        if (holding) {
            EXPECT_FALSE(lock.hasWaiters(own.get()));
            EXPECT_EQ(0u, lock.getWaitQueueLength(own.get()));
            lock.unlock();
        } else {
            EXPECT_THROW(lock.hasWaiters(own.get()), mw::IllegalMonitorStateException);
            EXPECT_THROW(lock.getWaitQueueLength(own.get()), mw::IllegalMonitorStateException);
        }
    }
}

TYPED_TEST(ReentrantLockTest, ConditionWaitGivesUpEveryHoldAndTakesThemBack) {
    auto& lock = this->m_lock;
    std::unique_ptr<mw::Condition> condition(lock.newCondition());
    std::atomic<bool> ready(false);
    std::atomic<unsigned long long> holdsAfter(0);
    WorkerThread waiter([&] {
        lock.lock();
        lock.lock();
        while (!ready.load()) condition->await();
        holdsAfter.store(lock.getHoldCount());
        lock.unlock();
        lock.unlock();
    });
    mwtest::OnExit letGo([&] {
        ready.store(true);
        lock.lock();
        condition->signal();
        lock.unlock();
    });
    ASSERT_TRUE(waiter.awaitParked());
    lock.lock();  // free although the waiter held it twice
    EXPECT_TRUE(lock.hasWaiters(condition.get()));
    EXPECT_EQ(1u, lock.getWaitQueueLength(condition.get()));
    ready.store(true);
    condition->signal();
    // Signalled, the waiter stands in the lock's queue, no longer on the condition.
    EXPECT_FALSE(lock.hasWaiters(condition.get()));
    EXPECT_EQ(0u, lock.getWaitQueueLength(condition.get()));
    lock.unlock();
    ASSERT_TRUE(waiter.awaitFinished());
    EXPECT_EQ(2u, holdsAfter.load());
    EXPECT_FALSE(lock.isLocked());
}

// The state "free, with another thread first in the queue" lasts only from a release until the
// woken thread takes the lock, so each round makes it anew: the queued thread is parked, the
// owner releases and tries again at once. A round in which the woken thread wins shows nothing
// and the next round tries again; the timed attempt must fail in every round either way.
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
        mwtest::OnExit release([&] { letGo.countDown(); });
        bool parked = queued.awaitParked();
        lock.unlock();
        ASSERT_TRUE(parked);
        if (lock.tryLock()) {
            ++barges;
            EXPECT_FALSE(acquired.load());
            lock.unlock();
        }
        bool timed = lock.tryLock(0, mw::TimeUnit::NANOSECONDS());
        EXPECT_FALSE(timed);
        if (timed) lock.unlock();
        letGo.countDown();
        ASSERT_TRUE(queued.awaitFinished());
        EXPECT_TRUE(acquired.load());
    }
    EXPECT_GT(barges, 0) << "the owner never took the lock back ahead of the woken thread";
    EXPECT_FALSE(lock.isLocked());
}

}  // namespace
