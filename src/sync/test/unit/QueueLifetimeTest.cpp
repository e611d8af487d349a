// The life of a synchronizer's queue as callers see it: the queue exists only once a thread has
// queued on it (a condition wait alone does not make one, nor does a wait that fails while giving
// up its hold), a copy takes the state and starts with a queue of its own, and a condition's copy
// starts with a list of its own.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

#include "TestMutex.h"

namespace {

using mwtest::TestMutex;
using mwtest::WorkerThread;

// A TestMutex whose release can be made to throw, so that a wait fails while giving up its hold.
class FailingRelease : public TestMutex {
public:
    void failReleases() { m_fail.store(true); }

protected:
    bool tryRelease(int releases) override {
        if (m_fail.load()) throw std::runtime_error("release refused");
        return TestMutex::tryRelease(releases);
    }

private:
    std::atomic<bool> m_fail{false};
};

TEST(QueueLifetime, TheQueueIsMadeByTheFirstThreadThatQueues) {
    FailingRelease m;
    TestMutex::ConditionObject c = m.newCondition();
    m.lock();
    m.failReleases();
    EXPECT_THROW(c.await(), std::runtime_error);  // the hold is kept, nothing queued
    EXPECT_FALSE(m.hasContended());

    TestMutex n;
    TestMutex::ConditionObject d = n.newCondition();
    std::atomic<bool> waiting(false);
    WorkerThread waiter([&] {
        n.lock();
        waiting.store(true);
        d.awaitUninterruptibly();
        n.unlock();
    });
    ASSERT_TRUE(mwtest::eventually([&] { return waiting.load() && waiter.awaitParked(); }));
    n.lock();
    EXPECT_FALSE(n.hasContended());  // the waiter is on the condition's list, not in the queue
    d.signal();
    n.unlock();
    EXPECT_TRUE(waiter.awaitFinished());
    EXPECT_TRUE(n.hasContended());
}

// A copyable mutex: the state is all it has.
class Flag : public mw::AbstractQueuedSynchronizer {
public:
    typedef mw::AbstractQueuedSynchronizer::ConditionObject ConditionObject;
    void lock() { acquire(1); }
    void unlock() { release(1); }
    int state() const { return getState(); }

protected:
    bool tryAcquire(int) override { return compareAndSetState(0, 1); }
    bool tryRelease(int) override {
        setState(0);
        return true;
    }
    bool isHeldExclusively() const override { return getState() != 0; }
};

TEST(QueueLifetime, CopiesTakeTheStateAndNeverShareNodes) {
    Flag m;
    m.lock();
    WorkerThread waiter([&] {
        m.lock();
        m.unlock();
    });
    ASSERT_TRUE(waiter.awaitParked());
    Flag copy(m);
    EXPECT_EQ(1, copy.state());
    EXPECT_FALSE(copy.hasContended());
    EXPECT_FALSE(copy.hasQueuedThreads());
    Flag assigned;
    assigned = m;
    EXPECT_EQ(1, assigned.state());
    EXPECT_FALSE(assigned.hasContended());
    m = Flag();  // takes the free state and keeps its own queue, with the waiter in it
    EXPECT_EQ(0, m.state());
    EXPECT_EQ(1u, m.getQueueLength());
    m.lock();
    m.unlock();
    EXPECT_TRUE(waiter.awaitFinished());

    Flag::ConditionObject c(&m);
    WorkerThread conditionWaiter([&] {
        m.lock();
        c.awaitUninterruptibly();
        m.unlock();
    });
    ASSERT_TRUE(conditionWaiter.awaitParked());
    m.lock();
    Flag::ConditionObject copyOfCondition(c);
    EXPECT_EQ(1u, m.getWaitQueueLength(&c));
    EXPECT_EQ(0u, m.getWaitQueueLength(&copyOfCondition));
    copyOfCondition.signal();  // an empty list: nobody is woken
    EXPECT_EQ(1u, m.getWaitQueueLength(&c));
    c.signal();
    m.unlock();
    EXPECT_TRUE(conditionWaiter.awaitFinished());
}

}  // namespace
