// Conditions of AbstractQueuedSynchronizer, driven through the reentrant TestMutex: signalling,
// the full release and re-acquire of a wait, time-outs, interrupts and misuse.
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "TestMutex.h"

namespace {

using mwtest::finishes;
using mwtest::interruptedOut;
using mwtest::me;
using mwtest::TestMutex;
using mwtest::throwsWith;
using mwtest::WorkerThread;
typedef TestMutex::ConditionObject ConditionObject;
typedef std::function<bool(const ConditionObject&)> WaitForm;  // true: a signal came first

const long long MS = 1000000LL;

// Every wait form, under the operation that a refusal's report names; all but the first give up
// on an interrupt.
const std::pair<const char*, WaitForm> WAITS[] = {
    {"ConditionObject::awaitUninterruptibly",
     [](const ConditionObject& c) { return c.awaitUninterruptibly(), true; }},
    {"ConditionObject::await", [](const ConditionObject& c) { return c.await(), true; }},
    {"ConditionObject::await",
     [](const ConditionObject& c) { return c.await(30, mw::TimeUnit::SECONDS()); }},
    {"ConditionObject::awaitNanos",
     [](const ConditionObject& c) { return c.awaitNanos(30000 * MS) > 0; }},
    {"ConditionObject::awaitUntil",
     [](const ConditionObject& c) { return c.awaitUntil(mw::TimeUtil::milliTime() + 30000); }}};

bool awaitWaiters(TestMutex& m, const ConditionObject& c, unsigned long long n) {
    return mwtest::eventually([&] {
        m.lock();
        bool reached = m.getWaitQueueLength(&c) == n;
        m.unlock();
        return reached;
    });
}

// A signal transfers the longest live waiter only, and a broadcast every one, in list order; each
// wait gives a double hold up and takes all of it back. An interrupted waiter stays on the list
// until it has the hold back: it is counted no more and a signal passes over it.
TEST(Condition, SignalTransfersTheLongestLiveWaiterOnly) {
    TestMutex m;
    ConditionObject c = m.newCondition();
    std::vector<int> back;  // under m: ids of ended waits, negative for interrupted ones
    std::atomic<int> unsound(0);
    mwtest::Workers w;
    for (int id = 1; id <= 4; ++id) {
        w.start([&, id] {
            m.acquire(2);
            back.push_back(interruptedOut([&] { c.await(); }) ? -id : id);
            if (m.state() != 2 || me()->isInterrupted()) unsound += 1;
            m.release(2);
        });
        EXPECT_TRUE(awaitWaiters(m, c, id));
    }
    m.lock();
    EXPECT_EQ(1, m.state());
    w[0].self()->interrupt();
    EXPECT_TRUE(mwtest::eventually([&] { return m.isQueued(w[0].self()); }));
    EXPECT_EQ(3u, m.getWaitQueueLength(&c));
    c.signal();
    EXPECT_TRUE(m.isQueued(w[1].self()));
    EXPECT_FALSE(m.isQueued(w[2].self()));
    EXPECT_EQ(2u, m.getWaitQueueLength(&c));
    c.broadcast();
    EXPECT_TRUE(m.isQueued(w[2].self()) && m.isQueued(w[3].self()));
    EXPECT_FALSE(m.hasWaiters(&c));
    EXPECT_TRUE(back.empty());
    m.unlock();
    EXPECT_TRUE(w.finish());
    EXPECT_EQ((std::vector<int>{-1, 2, 3, 4}), back);
    EXPECT_EQ(0, unsound.load());
}

// With no time left each timed form still gives the whole hold up (a queued contender gets it in
// between), takes all of it back and reports the time-out. Given time, a wait without a signal
// never ends early, and every form reports a signal that comes in time.
TEST(Condition, TimedWaitsReportTimeOutsAndSignals) {
    const WaitForm expired[] = {
        [](const ConditionObject& c) { return c.await(0, mw::TimeUnit::MILLISECONDS()); },
        [](const ConditionObject& c) { return c.await(-5, mw::TimeUnit::SECONDS()); },
        [](const ConditionObject& c) { return c.awaitNanos(0) > 0; },
        [](const ConditionObject& c) { return c.awaitNanos(-MS) > 0; },
        // The remainder saturates instead of wrapping round to a large positive time.
        [](const ConditionObject& c) { return c.awaitNanos(LLONG_MIN) > 0; },
        [](const ConditionObject& c) { return c.awaitNanos(LLONG_MIN + 1) > 0; },
        [](const ConditionObject& c) { return c.await(LLONG_MIN, mw::TimeUnit::NANOSECONDS()); },
        [](const ConditionObject& c) { return c.awaitUntil(mw::TimeUtil::milliTime() - 1000); },
        [](const ConditionObject& c) { return c.awaitUntil(0); }};
    TestMutex m;
    ConditionObject c = m.newCondition();
    for (const WaitForm& wait : expired) {
        std::atomic<bool> contenderGot(false);
        m.acquire(2);
        WorkerThread contender([&] {
            m.lock();
            contenderGot = true;
            m.unlock();
        });
        EXPECT_TRUE(contender.awaitParked());
        EXPECT_FALSE(wait(c));
        EXPECT_TRUE(contenderGot);
        EXPECT_EQ(2, m.state());
        EXPECT_FALSE(m.hasWaiters(&c));
        m.release(2);
    }

    const long long WAIT_MS = 30;
    m.lock();
    long long start = mw::TimeUtil::nanoTime();
    EXPECT_FALSE(c.await(WAIT_MS, mw::TimeUnit::MILLISECONDS()));
    long long afterAwait = mw::TimeUtil::nanoTime();
    EXPECT_LE(c.awaitNanos(WAIT_MS * MS), 0);
    long long afterNanos = mw::TimeUtil::nanoTime();
    EXPECT_GE(afterAwait - start, WAIT_MS * MS);
    EXPECT_GE(afterNanos - afterAwait, WAIT_MS * MS);
    EXPECT_LT(afterNanos - start, 20000 * MS);
    long long deadline = mw::TimeUtil::milliTime() + WAIT_MS;
    EXPECT_FALSE(c.awaitUntil(deadline));
    EXPECT_GT(mw::TimeUtil::milliTime(), deadline);

    WorkerThread signaller([&] {
        for (size_t i = 0; i < std::size(WAITS); ++i) {
            EXPECT_TRUE(mwtest::eventually([&] {
                m.lock();
                bool waiting = m.hasWaiters(&c);
                if (waiting) c.signal();
                m.unlock();
                return waiting;
            }));
        }
    });
    for (const auto& wait : WAITS) EXPECT_TRUE(wait.second(c));
    EXPECT_EQ(1, m.state());
    m.unlock();
    EXPECT_TRUE(signaller.awaitFinished());
}

// A flag set on entry throws at once and keeps the hold. An interrupt before the signal throws,
// but only with the whole hold back and the flag clear; one after the signal ends the wait
// normally with the flag set. An uninterruptible wait keeps waiting for its signal.
TEST(Condition, InterruptBeforeOrAfterTheSignal) {
    for (const auto& form : WAITS) {
        const WaitForm& wait = form.second;
        const bool interruptible = &form != &WAITS[0];
        TestMutex m;
        ConditionObject c = m.newCondition();
        m.lock();
        if (interruptible) {
            me()->interrupt();
            EXPECT_THROW(wait(c), mw::InterruptedException);
            EXPECT_FALSE(me()->isInterrupted());
            EXPECT_EQ(1, m.state());
            EXPECT_FALSE(m.hasWaiters(&c));
        }
        m.unlock();
        EXPECT_FALSE(m.hasContended());
        for (bool signalFirst : {false, true}) {
            const bool signalled = signalFirst || !interruptible;
            std::atomic<int> outcome(0);  // 1: reported a signal, 2: a time-out, -1: threw
            std::atomic<bool> sound(false);
            WorkerThread waiter([&] {
                m.acquire(2);
                if (interruptedOut([&] { outcome = wait(c) ? 1 : 2; })) outcome = -1;
                sound = m.state() == 2 && mw::Thread::interrupted() == signalled;
                m.release(2);
            });
            EXPECT_TRUE(waiter.awaitParked());
            const mw::Thread* t = waiter.self();
            m.lock();
            if (signalFirst) c.signal();
            t->interrupt();
            if (!signalFirst && !interruptible) {
                // The woken waiter clears the flag to be able to park again, and stays listed.
                EXPECT_TRUE(mwtest::eventually(
                    [&] { return !t->isInterrupted() && t->getState() == mw::Thread::PARKED; }));
                EXPECT_TRUE(m.hasWaiters(&c));
                c.signal();
            }
            // Either way the waiter ends up queued for the hold that this thread has.
            EXPECT_TRUE(mwtest::eventually([&] { return m.isQueued(t); }));
            EXPECT_EQ(0, outcome.load());
            EXPECT_FALSE(m.hasWaiters(&c));
            m.unlock();
            EXPECT_TRUE(finishes(waiter));
            EXPECT_EQ(signalled ? 1 : -1, outcome.load());
            EXPECT_TRUE(sound);
        }
    }
}

// A thread that does not hold the synchronizer may not signal, wait or inspect, also on an empty
// list; holding another synchronizer does not count. Its wait touches neither the list nor the
// state and asks nothing to be released. Null and foreign conditions are refused before anything
// asks who holds the synchronizer.
TEST(Condition, MisuseIsRefusedAndChangesNothing) {
    TestMutex m, other;
    ConditionObject c = m.newCondition(), foreign = other.newCondition();
    const std::string aqs = "AbstractQueuedSynchronizer::";
    EXPECT_TRUE(throwsWith<mw::NullPointerException>([&] { m.owns(nullptr); }, "", aqs + "owns"));
    EXPECT_TRUE(throwsWith<mw::NullPointerException>([&] { m.hasWaiters(nullptr); }, "",
                                                     aqs + "hasWaiters"));
    EXPECT_TRUE(throwsWith<mw::NullPointerException>([&] { m.getWaitQueueLength(nullptr); }, "",
                                                     aqs + "getWaitQueueLength"));
    EXPECT_TRUE(m.owns(&c));
    EXPECT_FALSE(m.owns(&foreign));

    std::vector<std::pair<std::string, std::function<void()>>> refused = {
        {"ConditionObject::signal", [&] { c.signal(); }},
        {"ConditionObject::broadcast", [&] { c.broadcast(); }},
        {aqs + "hasWaiters", [&] { m.hasWaiters(&c); }},
        {aqs + "getWaitQueueLength", [&] { m.getWaitQueueLength(&c); }}};
    for (const auto& form : WAITS) refused.emplace_back(form.first, [&] { form.second(c); });
    auto strangerIsRefused = [&] {
        long releaseCalls = m.releaseCalls();
        WorkerThread stranger([&] {
            other.lock();
            for (const auto& action : refused) {
                EXPECT_TRUE(
                    throwsWith<mw::IllegalMonitorStateException>(action.second, "", action.first))
                    << action.first;
            }
            other.unlock();
        });
        EXPECT_TRUE(stranger.awaitFinished());
        EXPECT_EQ(releaseCalls, m.releaseCalls());
        EXPECT_TRUE(throwsWith<mw::IllegalArgumentException>([&] { m.hasWaiters(&foreign); },
                                                             "Not owner", aqs + "hasWaiters"));
        EXPECT_TRUE(throwsWith<mw::IllegalArgumentException>(
            [&] { m.getWaitQueueLength(&foreign); }, "Not owner", aqs + "getWaitQueueLength"));
    };
    strangerIsRefused();
    EXPECT_FALSE(m.hasContended());  // no wait has queued anything

    WorkerThread waiter([&] {
        m.lock();
        c.await();
        m.unlock();
    });
    EXPECT_TRUE(awaitWaiters(m, c, 1));
    strangerIsRefused();  // while the synchronizer is free
    m.acquire(2);
    strangerIsRefused();  // while this thread holds it twice
    EXPECT_EQ(2, m.state());
    EXPECT_EQ(1u, m.getWaitQueueLength(&c));
    c.broadcast();
    m.release(2);
    EXPECT_TRUE(finishes(waiter));
}

}  // namespace
