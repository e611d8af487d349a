// The platform contract, run against whichever backend is built, so that every backend is held to
// the same semantics. The clocks are held to theirs through TimeUtil, their only user.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include "TestSupport.h"
#include "concurrent/Concurrent.h"
#include "platform.h"

namespace {

namespace platform = mw::platform;
using std::chrono::milliseconds;

// Auto-reset: two sets give one permit, a wait (polling or timed) consumes it, reset drops it;
// an unlimited wait ends only when another thread sets the event.
TEST(PlatformContract, EventHoldsOnePermitAndAWaitConsumesIt) {
    platform::Handle event = platform::createEvent();
    ASSERT_NE(nullptr, event);
    EXPECT_EQ(platform::WAIT_TIMEOUT_EXPIRED, platform::waitEvent(event, 0)) << "starts set";
    EXPECT_TRUE(platform::setEvent(event));
    EXPECT_TRUE(platform::setEvent(event));
    EXPECT_EQ(platform::WAIT_SIGNALED, platform::waitEvent(event, 0));
    EXPECT_EQ(platform::WAIT_TIMEOUT_EXPIRED, platform::waitEvent(event, 0)) << "two permits";
    platform::setEvent(event);
    EXPECT_EQ(platform::WAIT_SIGNALED, platform::waitEvent(event, 5000));
    platform::setEvent(event);
    EXPECT_TRUE(platform::resetEvent(event));
    EXPECT_EQ(platform::WAIT_TIMEOUT_EXPIRED, platform::waitEvent(event, 0)) << "reset kept it";

    std::atomic<std::uint32_t> result(1);
    mwtest::Latch waiting(1);
    std::thread waiter([&] {
        waiting.countDown();
        result.store(platform::waitEvent(event, platform::INFINITE_WAIT));
    });
    waiting.wait();
    EXPECT_FALSE(mwtest::eventually([&] { return result.load() != 1; }, milliseconds(100)))
        << "an unset event ended an unlimited wait";
    platform::setEvent(event);
    waiter.join();
    EXPECT_EQ(platform::WAIT_SIGNALED, result.load());
    platform::closeEvent(event);
}

// Short lengths, and lengths around the default clock tick of Windows, where rounding would show.
TEST(PlatformContract, TimedWaitsNeverEndEarly) {
    platform::Handle event = platform::createEvent();
    for (std::uint32_t ms : {1u, 2u, 15u, 16u, 17u, 40u}) {
        std::uint32_t result = 0;
        auto waited = mwtest::elapsed([&] { result = platform::waitEvent(event, ms); });
        EXPECT_EQ(platform::WAIT_TIMEOUT_EXPIRED, result);
        EXPECT_GE(waited, milliseconds(ms)) << "wait of " << ms << " ms";
        EXPECT_LT(waited, std::chrono::seconds(10));
    }
    platform::closeEvent(event);
}

struct NoCleaning {
    static void deallocate(int*) {}
};

// A new pointer's slot starts null. The OS's slot read may clear the last-error code (Windows does
// on success); the library's reads keep the caller's code. The pointer is used only on a thread
// that ends before it dies, as thread-local pointers require.
TEST(PlatformContract, TlsSlotStartsNullAndReadsKeepTheLastError) {
    mw::TlsPtr<int, NoCleaning> pointer;
    mwtest::onFreshThread([&pointer] {
        int value = 7;
        platform::setLastError(1234);
        EXPECT_EQ(nullptr, pointer.get());
        EXPECT_EQ(1234u, platform::getLastError()) << "get of a null value";
        pointer.set(&value);
        platform::setLastError(4321);
        EXPECT_EQ(&value, pointer.get());
        EXPECT_EQ(4321u, platform::getLastError()) << "get of a value";
        pointer.set(nullptr);
    });
}

}  // namespace
