#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mwtest::WorkerThread;
typedef std::chrono::steady_clock Clock;

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

class ObjectMonitor : public testing::Test {
protected:
    // Whether the calling thread holds the monitor: notify needs it. Only used while no thread
    // waits, so the notification itself changes nothing.
    bool holdsMonitor() const {
        try {
            m_monitor.notify();
            return true;
        } catch (const mw::IllegalMonitorStateException&) {
            return false;
        }
    }

    // Declared after a waiter, lets it go even when a failed assertion returns early.
    auto wakeWaitersOnExit() const {
        return mwtest::OnExit([this] {
            mw::Guard guard(m_monitor);
            m_monitor.notifyAll();
        });
    }

    // Starts `count` threads one at a time, each in an untimed wait under a Guard, so that they
    // stand on the condition in index order. Each records its index in m_order when it is back.
    void startWaiters(int count) {
        for (int i = 0; i < count; ++i) {
            m_waiters.emplace_back(new WorkerThread([this, i] {
                mw::Guard guard(m_monitor);
                m_monitor.wait(0, 0);
                m_order[m_woken.fetch_add(1)].store(i);
            }));
            ASSERT_TRUE(m_waiters.back()->awaitParked());
        }
    }

    // Notifies by `how` under the monitor and queues an observer for the monitor before letting
    // go. A notification moves waiters to the lock's queue without waking them, and that queue is
    // first in, first out, so the observer enters after every waiter that was moved; it reports
    // how many waiters had come back by then.
    int wokenBeforeObserver(void (mw::Object::*how)() const) {
        std::atomic<int> seen(-1);
        std::unique_ptr<WorkerThread> observer;
        {
            mw::Guard guard(m_monitor);
            (m_monitor.*how)();
            observer.reset(new WorkerThread([&] {
                mw::Guard inner(m_monitor);
                seen.store(m_woken.load());
            }));
            EXPECT_TRUE(observer->awaitParked());
        }
        EXPECT_TRUE(observer->awaitFinished());
        return seen.load();
    }

    // Lets any waiter that a failed test left behind go, so that its thread can be joined.
    void TearDown() override {
        {
            mw::Guard guard(m_monitor);
            m_monitor.notifyAll();
        }
        m_waiters.clear();
    }

    // Constant: every monitor operation must work on a constant object.
    const mw::Object m_monitor;
    std::vector<std::unique_ptr<WorkerThread>> m_waiters;
    std::atomic<int> m_woken{0};
    std::atomic<int> m_order[3]{};
};

TEST_F(ObjectMonitor, GuardWithoutAnObjectThrows) {
    const mw::Object* none = nullptr;
    EXPECT_TRUE(endsWith(thrownText<mw::NullPointerException>([&] { mw::Guard guard(none); }),
                         "Description: Can't create synchronization guard without an object"));
}

TEST_F(ObjectMonitor, NanosecondsOutOfRangeAreRefusedBeforeAnythingElse) {
    const long long rows[][2] = {{0, -1},        {0, 1000000},   {10, -1},       {-5, 1000000},
                                 {0, LLONG_MIN}, {0, LLONG_MAX}, {LLONG_MAX, -1}};
    const mw::Thread* me = mw::Thread::currentThread();
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "wait(" << row[0] << ", " << row[1] << ")");
        // Neither a missing monitor nor a pending interrupt is looked at first.
        me->interrupt();
        EXPECT_TRUE(endsWith(
            thrownText<mw::IllegalArgumentException>([&] { m_monitor.wait(row[0], row[1]); }),
            "Description: Parameter ns out of range > 999999"));
        EXPECT_TRUE(mw::Thread::interrupted());
        mw::Guard guard(m_monitor);
        EXPECT_THROW(m_monitor.wait(row[0], row[1]), mw::IllegalArgumentException);
        EXPECT_TRUE(holdsMonitor());
    }
    EXPECT_FALSE(holdsMonitor());
}

TEST_F(ObjectMonitor, EveryOperationNeedsTheMonitor) {
    EXPECT_THROW(m_monitor.wait(0, 0), mw::IllegalMonitorStateException);
    EXPECT_THROW(m_monitor.wait(10, 0), mw::IllegalMonitorStateException);
    EXPECT_THROW(m_monitor.wait(0, 1), mw::IllegalMonitorStateException);
    EXPECT_THROW(m_monitor.notify(), mw::IllegalMonitorStateException);
    EXPECT_THROW(m_monitor.notifyAll(), mw::IllegalMonitorStateException);
}

TEST_F(ObjectMonitor, UntimedWaitBlocksUntilNotified) {
    std::atomic<bool> returned(false);
    WorkerThread waiter([&] {
        mw::Guard guard(m_monitor);
        m_monitor.wait(0, 0);
        returned.store(true);
    });
    auto wake = wakeWaitersOnExit();
    ASSERT_TRUE(waiter.awaitParked());
    {
        mw::Guard guard(m_monitor);
        m_monitor.notify();
        EXPECT_FALSE(returned.load()) << "the waiter returned without the monitor";
    }
    ASSERT_TRUE(waiter.awaitFinished());
    EXPECT_TRUE(returned.load());
}

TEST_F(ObjectMonitor, TimedWaitLastsAtLeastItsMilliseconds) {
    mw::Guard guard(m_monitor);
    for (long long ns : {0LL, 999999LL}) {
        Clock::time_point start = Clock::now();
        m_monitor.wait(10, ns);
        Clock::duration elapsed = Clock::now() - start;
        EXPECT_GE(elapsed, std::chrono::milliseconds(10)) << "ns " << ns;
        EXPECT_LT(elapsed, std::chrono::seconds(10)) << "ns " << ns;
        EXPECT_TRUE(holdsMonitor());
    }
}

// The timed form with no milliseconds left gives up the monitor and takes it back at once; all
// the holds of nested guards come back.
TEST_F(ObjectMonitor, WaitWithoutPositiveMillisecondsReturnsAtOnceHoldingTheMonitor) {
    const long long rows[][2] = {{0, 1}, {0, 999999}, {-1, 0}, {-1, 999999}, {LLONG_MIN, 0}};
    {
        mw::Guard outer(m_monitor);
        {
            mw::Guard inner(m_monitor);
            for (const auto& row : rows) {
                m_monitor.wait(row[0], row[1]);
                EXPECT_TRUE(holdsMonitor()) << "wait(" << row[0] << ", " << row[1] << ")";
            }
        }
        EXPECT_TRUE(holdsMonitor());
    }
    EXPECT_FALSE(holdsMonitor());
}

// A notification with nobody waiting leaves nothing behind that could end a later wait early.
TEST_F(ObjectMonitor, NotifyWithoutWaiterIsLost) {
    mw::Guard guard(m_monitor);
    m_monitor.notify();
    m_monitor.notifyAll();
    Clock::time_point start = Clock::now();
    m_monitor.wait(20, 0);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(20));
}

TEST_F(ObjectMonitor, NotifyWakesOneWaiterInQueueOrder) {
    startWaiters(3);
    for (int k = 0; k < 3; ++k) EXPECT_EQ(k + 1, wokenBeforeObserver(&mw::Object::notify));
    for (auto& waiter : m_waiters) ASSERT_TRUE(waiter->awaitFinished());
    for (int i = 0; i < 3; ++i) EXPECT_EQ(i, m_order[i].load());
}

TEST_F(ObjectMonitor, NotifyAllWakesEveryWaiter) {
    startWaiters(3);
    EXPECT_EQ(3, wokenBeforeObserver(&mw::Object::notifyAll));
    for (auto& waiter : m_waiters) ASSERT_TRUE(waiter->awaitFinished());
}

TEST_F(ObjectMonitor, WaitUnderNestedGuardsFreesTheMonitorAndRestoresBothHolds) {
    std::atomic<bool> stillHeld(false), freeAfter(false);
    WorkerThread waiter([&] {
        {
            mw::Guard outer(m_monitor);
            {
                mw::Guard inner(m_monitor);
                m_monitor.wait(0, 0);
            }
            stillHeld.store(holdsMonitor());
        }
        freeAfter.store(!holdsMonitor());
    });
    auto wake = wakeWaitersOnExit();
    ASSERT_TRUE(waiter.awaitParked());
    {
        mw::Guard guard(m_monitor);  // entered while the waiter has two holds given up
        m_monitor.notify();
    }
    ASSERT_TRUE(waiter.awaitFinished());
    EXPECT_TRUE(stillHeld.load());
    EXPECT_TRUE(freeAfter.load());
    mw::Guard guard(m_monitor);
}

TEST_F(ObjectMonitor, GuardUnwoundByAnExceptionLeavesTheMonitorFree) {
    try {
        mw::Guard guard(m_monitor);
        throw std::runtime_error("unwind");
    } catch (const std::runtime_error&) {
        EXPECT_FALSE(holdsMonitor());
    }
    std::atomic<bool> entered(false);
    WorkerThread other([&] {
        mw::Guard guard(m_monitor);
        entered.store(true);
    });
    ASSERT_TRUE(other.awaitFinished());
    EXPECT_TRUE(entered.load());
}

TEST_F(ObjectMonitor, InterruptEndsAWaitWithTheMonitorHeld) {
    for (long long ms : {0LL, 60000LL}) {
        SCOPED_TRACE(testing::Message() << "wait(" << ms << ", 0)");
        std::atomic<bool> caught(false), held(false), flagCleared(false);
        WorkerThread waiter([&] {
            mw::Guard guard(m_monitor);
            try {
                m_monitor.wait(ms, 0);
            } catch (const mw::InterruptedException&) {
                caught.store(true);
                held.store(holdsMonitor());
                flagCleared.store(!mw::Thread::currentThread()->isInterrupted());
            }
        });
        auto wake = wakeWaitersOnExit();
        ASSERT_TRUE(waiter.awaitParked());
        waiter.self()->interrupt();
        ASSERT_TRUE(waiter.awaitFinished());
        EXPECT_TRUE(caught.load());
        EXPECT_TRUE(held.load());
        EXPECT_TRUE(flagCleared.load());
    }
    // An interrupt pending on entry to a wait ends it at once; entering a Guard ignores it.
    const mw::Thread* me = mw::Thread::currentThread();
    me->interrupt();
    {
        mw::Guard guard(m_monitor);
        EXPECT_TRUE(me->isInterrupted());
        EXPECT_THROW(m_monitor.wait(0, 0), mw::InterruptedException);
        EXPECT_FALSE(me->isInterrupted());
        EXPECT_TRUE(holdsMonitor());
    }
}

}  // namespace
