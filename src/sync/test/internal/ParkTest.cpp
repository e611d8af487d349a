#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "Park.h"
#include "TestSupport.h"
#include "concurrent/Thread.h"
#include "concurrent/TimeUtil.h"

namespace {

using mw::Thread;
using std::chrono::milliseconds;
using std::chrono::seconds;

// A park that should return at once is given a long limit, so that blocking shows plainly.
const long long LONG_PARK_NANOS = 30LL * 1000 * 1000 * 1000;
const seconds AT_ONCE(10);
const milliseconds SHORT_PARK(20);
const long long SHORT_PARK_NANOS = 20LL * 1000 * 1000;

template <typename Body>
std::chrono::steady_clock::duration timed(Body body) {
    auto start = std::chrono::steady_clock::now();
    body();
    return std::chrono::steady_clock::now() - start;
}

// Each case parks on a thread of its own: no permit or flag is left over from another test.
void onFreshThread(const std::function<void()>& body) { std::thread(body).join(); }

TEST(Park, PermitIsOneBitUsedByTheNextPark) {
    onFreshThread([] {
        const Thread* self = Thread::currentThread();
        mw::unparkThread(nullptr);
        EXPECT_GE(timed([] { mw::parkCurrentNanos(SHORT_PARK_NANOS); }), SHORT_PARK)
            << "unparking null gave this thread a permit";
        for (int i = 0; i < 100; ++i) mw::unparkThread(self);
        EXPECT_LT(timed([] { mw::parkCurrentNanos(LONG_PARK_NANOS); }), AT_ONCE);
        EXPECT_EQ(Thread::RUNNING, self->getState());
        EXPECT_GE(timed([] { mw::parkCurrentNanos(SHORT_PARK_NANOS); }), SHORT_PARK)
            << "unparks accumulated into more than one permit";
    });
}

TEST(Park, TimedParksNeverEndEarly) {
    onFreshThread([] {
        EXPECT_GE(timed([] { mw::parkCurrentNanos(1); }), milliseconds(1));
        EXPECT_GE(timed([] { mw::parkCurrentNanos(1999999); }), milliseconds(1));
        long long deadline = mw::TimeUtil::milliTime() + 30;
        mw::parkCurrentUntil(deadline);
        EXPECT_GE(mw::TimeUtil::milliTime(), deadline);
    });
}

// Times that have run out return before anything is looked at, so a pending permit survives.
TEST(Park, ExpiredTimesReturnAtOnceAndKeepThePermit) {
    onFreshThread([] {
        mw::unparkThread(Thread::currentThread());
        EXPECT_LT(timed([] {
                      mw::parkCurrentNanos(0);
                      mw::parkCurrentNanos(-1);
                      mw::parkCurrentUntil(-1);
                      mw::parkCurrentUntil(1);
                      mw::parkCurrentUntil(mw::TimeUtil::milliTime() - 1000);
                  }),
                  AT_ONCE);
        EXPECT_LT(timed([] { mw::parkCurrentNanos(LONG_PARK_NANOS); }), AT_ONCE)
            << "an expired park consumed the permit";
        EXPECT_GE(timed([] { mw::parkCurrentNanos(SHORT_PARK_NANOS); }), SHORT_PARK);
    });
}

struct BlockingCase {
    const char* name;
    std::function<void()> park;
    Thread::State shown;
};

// A blocked thread shows PARKED without a limit and TIMED_PARKED with one, stays blocked until an
// unpark or an interrupt, and is RUNNING afterwards. An interrupt leaves the flag set.
TEST(Park, BlockedThreadShowsItsStateUntilWoken) {
    const BlockingCase cases[] = {
        {"parkCurrent", [] { mw::parkCurrent(); }, Thread::PARKED},
        {"parkCurrentUntil(0)", [] { mw::parkCurrentUntil(0); }, Thread::PARKED},
        {"parkCurrentNanos(60 s)", [] { mw::parkCurrentNanos(2 * LONG_PARK_NANOS); },
         Thread::TIMED_PARKED},
        {"parkCurrentUntil(now + 60 s)",
         [] { mw::parkCurrentUntil(mw::TimeUtil::milliTime() + 60000); }, Thread::TIMED_PARKED},
    };
    for (const BlockingCase& c : cases) {
        for (bool byInterrupt : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (byInterrupt ? ", interrupted" : ", unparked"));
            std::atomic<const Thread*> parker{nullptr};
            std::atomic<bool> returned{false}, flagAfter{false};
            mwtest::Latch finish(1);
            std::thread thread([&] {
                parker.store(Thread::currentThread());
                c.park();
                flagAfter.store(Thread::interrupted());
                returned.store(true);
                finish.wait();
            });
            ASSERT_TRUE(mwtest::eventually([&] {
                return parker.load() != nullptr && parker.load()->getState() == c.shown;
            }));
            EXPECT_FALSE(returned.load());
            if (byInterrupt) {
                parker.load()->interrupt();
            } else {
                mw::unparkThread(parker.load());
            }
            ASSERT_TRUE(mwtest::eventually([&] { return returned.load(); }));
            EXPECT_EQ(byInterrupt, flagAfter.load());
            EXPECT_EQ(Thread::RUNNING, parker.load()->getState());
            finish.countDown();
            thread.join();
        }
    }
}

// A park that a pending permit ends takes the early path and publishes nothing; an observer that
// samples the state all along must never see a parked state.
TEST(Park, ParkEndedByAPendingPermitNeverShowsParked) {
    const int wantedSamples = 20000;
    std::atomic<const Thread*> parker{nullptr};
    std::atomic<int> samples{0};
    std::atomic<bool> done{false};
    mwtest::Latch finish(1);
    std::thread thread([&] {
        const Thread* self = Thread::currentThread();
        parker.store(self);
        for (int i = 0; i < 10000000 && samples.load() < wantedSamples; ++i) {
            mw::unparkThread(self);
            mw::parkCurrentNanos(LONG_PARK_NANOS);
        }
        done.store(true);
        finish.wait();
    });
    ASSERT_TRUE(mwtest::eventually([&] { return parker.load() != nullptr; }));
    while (!done.load()) {
        ASSERT_EQ(Thread::RUNNING, parker.load()->getState()) << "after " << samples << " samples";
        samples.fetch_add(1);
    }
    EXPECT_GE(samples.load(), wantedSamples);
    finish.countDown();
    thread.join();
}

TEST(Park, InterruptedThreadDoesNotBlockAndItsPermitIsDropped) {
    onFreshThread([] {
        const Thread* self = Thread::currentThread();
        self->interrupt();
        mw::unparkThread(self);
        EXPECT_LT(timed([] { mw::parkCurrentNanos(LONG_PARK_NANOS); }), AT_ONCE);
        EXPECT_LT(timed([] { mw::parkCurrentNanos(LONG_PARK_NANOS); }), AT_ONCE);
        EXPECT_TRUE(self->isInterrupted()) << "parking cleared the flag";
        EXPECT_EQ(Thread::RUNNING, self->getState());
        EXPECT_TRUE(Thread::interrupted());
        EXPECT_GE(timed([] { mw::parkCurrentNanos(SHORT_PARK_NANOS); }), SHORT_PARK)
            << "the permit outlived the park that the flag ended";
    });
}

}  // namespace
