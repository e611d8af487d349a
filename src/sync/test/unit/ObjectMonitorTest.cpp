// The Object monitor and its Guard: refusals, waits under nested guards, notification order.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <stdexcept>

#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mwtest::throwsWith;

// Whether the calling thread holds the monitor: a wait that does not block needs it. It has no
// effect on other waiters, unlike notify.
bool holds(const mw::Object& monitor) {
    try {
        monitor.wait(0, 1);
        return true;
    } catch (const mw::IllegalMonitorStateException&) {
        return false;
    }
}

TEST(ObjectMonitor, RefusalsComeBeforeAnythingElse) {
    const mw::Object monitor;  // constant: every monitor operation works on a constant object
    const mw::Object* none = nullptr;
    EXPECT_TRUE(throwsWith<mw::NullPointerException>(
        [&] { mw::Guard guard(none); }, "Can't create synchronization guard without an object"));
    // ns out of range: neither a missing monitor nor a pending interrupt is looked at first.
    const long long badNs[][2] = {{0, -1},        {0, 1000000},   {10, -1},       {-5, 1000000},
                                  {0, LLONG_MIN}, {0, LLONG_MAX}, {LLONG_MAX, -1}};
    for (const auto& row : badNs) {
        mw::Thread::currentThread()->interrupt();
        EXPECT_TRUE(throwsWith<mw::IllegalArgumentException>([&] { monitor.wait(row[0], row[1]); },
                                                             "Parameter ns out of range > 999999"))
            << "wait(" << row[0] << ", " << row[1] << ")";
        EXPECT_TRUE(mw::Thread::interrupted());
    }
    for (long long ms : {0LL, 10LL, -1LL}) {
        EXPECT_THROW(monitor.wait(ms, 0), mw::IllegalMonitorStateException);
    }
    EXPECT_THROW(monitor.notify(), mw::IllegalMonitorStateException);
    EXPECT_THROW(monitor.notifyAll(), mw::IllegalMonitorStateException);
}

// Under two nested guards: waits that do not block, then waits that last their milliseconds (ns
// neither adds to the time nor rounds it up; a notification with nobody waiting is lost and does
// not end them early). Every row gives the monitor back with both holds, and so does a wait
// ended at once by an interrupt pending since before the guards, which entering them ignores.
TEST(ObjectMonitor, WaitsThatEndByThemselvesGiveBothHoldsBack) {
    const mw::Object monitor;
    const mw::Thread* me = mw::Thread::currentThread();
    me->interrupt();
    {
        mw::Guard outer(monitor);
        mw::Guard inner(&monitor);
        EXPECT_THROW(monitor.wait(10, 0), mw::InterruptedException);
        EXPECT_FALSE(me->isInterrupted());
        const long long rows[][2] = {{0, 1},         {0, 999999}, {-1, 0},     {-1, 999999},
                                     {LLONG_MIN, 0}, {10, 0},     {10, 999999}};
        for (const auto& row : rows) {
            monitor.notifyAll();
            auto elapsed = mwtest::elapsed([&] { monitor.wait(row[0], row[1]); });
            EXPECT_GE(elapsed, std::chrono::milliseconds(std::max(row[0], 0LL))) << row[0];
            EXPECT_LT(elapsed, std::chrono::seconds(10));
        }
        EXPECT_TRUE(holds(monitor));
    }
    EXPECT_FALSE(holds(monitor));
    try {
        mw::Guard guard(monitor);
        throw std::runtime_error("unwind");
    } catch (const std::runtime_error&) {
        EXPECT_FALSE(holds(monitor));
    }
}

// Four waiters under two nested guards, queued in index order; 1 and 3 (a timed wait) are
// interrupted, then notify must wake 0 alone and notifyAll the rest. An observer queued for the
// monitor right after each notification enters after every waiter it moved (the lock's queue is
// first in, first out) and counts the waiters back by then.
TEST(ObjectMonitor, WaitersUnderNestedGuardsAreNotifiedInOrderOrInterrupted) {
    const mw::Object monitor;
    std::atomic<int> back(0), order[2], interrupted(0);
    std::atomic<bool> holdsRight(true);
    mwtest::Workers waiters;
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(waiters.startParked([&, i] {
            {
                mw::Guard outer(monitor);
                {
                    mw::Guard inner(monitor);
                    if (!mwtest::interruptedOut([&] { monitor.wait(i == 3 ? 60000 : 0, 0); })) {
                        order[back.fetch_add(1)].store(i);
                    } else if (!mw::Thread::currentThread()->isInterrupted()) {
                        interrupted.fetch_add(1);
                    }
                }
                if (!holds(monitor)) holdsRight.store(false);
            }
            if (holds(monitor)) holdsRight.store(false);
        }));
    }
    for (int i : {1, 3}) waiters[i].self()->interrupt();
    ASSERT_TRUE(waiters[1].awaitFinished() && waiters[3].awaitFinished());
    auto backBeforeObserver = [&](void (mw::Object::*how)() const) {
        std::atomic<int> seen(-1);
        mwtest::Workers observer;
        {
            mw::Guard guard(monitor);  // entered while the waiters have given up both holds
            (monitor.*how)();
            EXPECT_TRUE(observer.startParked([&] {
                mw::Guard inner(monitor);
                seen.store(back.load());
            }));
        }
        EXPECT_TRUE(observer.finish());
        return seen.load();
    };
    EXPECT_EQ(1, backBeforeObserver(&mw::Object::notify));
    EXPECT_EQ(2, backBeforeObserver(&mw::Object::notifyAll));
    ASSERT_TRUE(waiters.finish());
    EXPECT_EQ(0, order[0].load());
    EXPECT_EQ(2, order[1].load());
    EXPECT_EQ(2, interrupted.load());
    EXPECT_TRUE(holdsRight.load());
}

}  // namespace
