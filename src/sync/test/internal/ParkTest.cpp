#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

#include "Park.h"
#include "TestSupport.h"
#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mw::Thread;
using mwtest::elapsed;
using std::chrono::milliseconds;

// A park that should return at once is given a long limit, so that blocking shows plainly; a park
// that must block for want of a permit is short, and its lower bound is the proof that it did.
const long long LONG_PARK_NANOS = 30LL * 1000 * 1000 * 1000;
const std::chrono::seconds AT_ONCE(10);

void expectNoPermit(const char* why) {
    EXPECT_GE(elapsed([] { mw::parkCurrentNanos(20 * 1000 * 1000); }), milliseconds(20)) << why;
}

TEST(Park, PermitIsOneBitAndTimedParksNeverEndEarly) {
    mwtest::onFreshThread([] {
        const Thread* self = Thread::currentThread();
        mw::unparkThread(nullptr);
        EXPECT_GE(elapsed([] { mw::parkCurrentNanos(1); }), milliseconds(1));
        EXPECT_GE(elapsed([] { mw::parkCurrentNanos(1999999); }), milliseconds(1));
        long long deadline = mw::TimeUtil::milliTime() + 30;
        mw::parkCurrentUntil(deadline);
        EXPECT_GE(mw::TimeUtil::milliTime(), deadline);

        // Times that have run out return before the permit is looked at; the last park takes it.
        for (int i = 0; i < 100; ++i) mw::unparkThread(self);
        EXPECT_LT(elapsed([] {
                      mw::parkCurrentNanos(0);
                      mw::parkCurrentNanos(-1);
                      mw::parkCurrentUntil(-1);
                      mw::parkCurrentUntil(mw::TimeUtil::milliTime() - 1000);
                      mw::parkCurrentNanos(LONG_PARK_NANOS);
                  }),
                  AT_ONCE);
        EXPECT_EQ(Thread::RUNNING, self->getState());
        expectNoPermit("unparks accumulated into more than one permit");

        // A park that sees the flag returns at once, leaves the flag and drops the permit.
        self->interrupt();
        mw::unparkThread(self);
        EXPECT_LT(elapsed([] { mw::parkCurrentNanos(LONG_PARK_NANOS); }), AT_ONCE);
        EXPECT_LT(elapsed([] { mw::parkCurrentNanos(LONG_PARK_NANOS); }), AT_ONCE);
        EXPECT_TRUE(Thread::interrupted()) << "parking cleared the flag";
        expectNoPermit("the permit outlived the park that the flag ended");
    });
}

// A blocked thread shows PARKED without a limit and TIMED_PARKED with one, stays blocked until an
// unpark or an interrupt, and is RUNNING afterwards. An interrupt leaves the flag set.
TEST(Park, BlockedThreadShowsItsStateUntilWoken) {
    void (*const parks[])() = {
        [] { mw::parkCurrent(); },
        [] { mw::parkCurrentUntil(0); },
        [] { mw::parkCurrentNanos(2 * LONG_PARK_NANOS); },
        [] { mw::parkCurrentUntil(mw::TimeUtil::milliTime() + 60000); },
    };
    for (int i = 0; i < 4; ++i) {
        const Thread::State shown = i < 2 ? Thread::PARKED : Thread::TIMED_PARKED;
        for (bool byInterrupt : {false, true}) {
            SCOPED_TRACE(testing::Message()
                         << "park " << i << (byInterrupt ? ", interrupted" : ""));
            std::atomic<bool> flagAfter{false};
            mwtest::WorkerThread worker([&] {
                parks[i]();
                flagAfter.store(Thread::interrupted());
            });
            EXPECT_TRUE(mwtest::eventually([&] { return worker.self()->getState() == shown; }));
            EXPECT_FALSE(worker.finished());
            byInterrupt ? worker.self()->interrupt() : mw::unparkThread(worker.self());
            ASSERT_TRUE(worker.awaitFinished());
            EXPECT_EQ(byInterrupt, flagAfter.load());
            EXPECT_EQ(Thread::RUNNING, worker.self()->getState());
        }
    }
}

// A park that a pending permit ends publishes nothing: an observer that samples the state all
// along never sees a parked state.
TEST(Park, ParkEndedByAPendingPermitNeverShowsParked) {
    const int wanted = 20000;
    std::atomic<int> samples{0};
    mwtest::WorkerThread worker([&] {
        for (int i = 0; i < 10000000 && samples.load() < wanted; ++i) {
            mw::unparkThread(Thread::currentThread());
            mw::parkCurrentNanos(LONG_PARK_NANOS);
        }
    });
    bool parkedShown = false;
    while (!worker.finished()) {
        parkedShown = parkedShown || worker.self()->getState() != Thread::RUNNING;
        samples.fetch_add(1);
    }
    EXPECT_FALSE(parkedShown);
    EXPECT_GE(samples.load(), wanted);
}

}  // namespace
