// The platform contract, run against whichever backend is built, so that every backend is held to
// the same semantics. The clocks are held to theirs through TimeUtil, their only user.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "concurrent/Concurrent.h"
#include "platform.h"

namespace {

// Makes the calling thread's nothrow allocations fail, and counts them meanwhile.
thread_local bool t_failNothrowNew = false;
thread_local int t_failedNothrowNews = 0;

}  // namespace

// Behaves as the standard one unless the calling thread asks for failures.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (t_failNothrowNew) {
        ++t_failedNothrowNews;
        return nullptr;
    }
    try {
        return ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}

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

// Slots run out at a fixed number, and then a thread-local pointer cannot be made. A freed slot is
// the next one given, and reads null on every thread, also on one that stored a value in it before
// and still runs; the highest slot holds a value like the others.
TEST(PlatformContract, TlsSlotsRunOutAndAFreedOneIsGivenAgainEmpty) {
    const std::size_t LIMIT = 100000;
    std::vector<std::uint32_t> slots;
    for (std::uint32_t slot = 0; slots.size() < LIMIT; slots.push_back(slot)) {
        slot = platform::tlsAlloc();
        if (slot == platform::TLS_OUT_OF_SLOTS) break;
    }
    ASSERT_LT(slots.size(), LIMIT) << "slots never ran out";
    EXPECT_GE(slots.size(), 1000u);
    try {
        mw::TlsPtr<int, NoCleaning> none;
        ADD_FAILURE() << "a pointer was made without a slot";
    } catch (const std::bad_alloc& e) {
        EXPECT_STREQ("bad allocation", e.what());
    }
    const std::uint32_t reused = *std::min_element(slots.begin(), slots.end());
    const std::uint32_t highest = *std::max_element(slots.begin(), slots.end());
    platform::tlsFree(reused);
    EXPECT_EQ(reused, platform::tlsAlloc());
    for (std::uint32_t slot : slots) {
        if (slot != highest && slot != reused) platform::tlsFree(slot);
    }
    int value = 1;
    ASSERT_TRUE(platform::tlsSetValue(reused, &value));
    std::atomic<int> step{0};
    std::atomic<bool> otherReadsNull{false};
    std::thread other([&] {
        EXPECT_EQ(nullptr, platform::tlsGetValue(highest));
        EXPECT_TRUE(platform::tlsSetValue(highest, &value));
        EXPECT_EQ(&value, platform::tlsGetValue(highest));
        platform::tlsSetValue(highest, nullptr);
        platform::tlsSetValue(reused, &value);
        step.store(1);
        mwtest::eventually([&] { return step.load() == 2; });
        otherReadsNull.store(platform::tlsGetValue(reused) == nullptr);
    });
    EXPECT_TRUE(mwtest::eventually([&] { return step.load() == 1; }));
    platform::tlsFree(reused);
    EXPECT_EQ(reused, platform::tlsAlloc()) << "the lowest free slot is given first";
    EXPECT_EQ(nullptr, platform::tlsGetValue(reused));
    step.store(2);
    other.join();
    EXPECT_TRUE(otherReadsNull.load());
    platform::tlsFree(highest);
    platform::tlsFree(reused);
}

// A store that needs memory the backend cannot get fails with ENOMEM and changes nothing, and a
// thread-local pointer reports it; a backend whose stores take no memory from the C++ allocator
// stores. Only the store itself runs while allocations fail: adopting the thread would allocate.
TEST(PlatformContract, TlsStoreWithoutMemoryFailsAndChangesNothing) {
    mw::TlsPtr<int, NoCleaning> pointer;
    std::uint32_t slot = static_cast<std::uint32_t>(pointer.getId());
    mwtest::onFreshThread([&pointer, slot] {
        int value = 4;
        t_failNothrowNew = true;
        bool stored = platform::tlsSetValue(slot, &value);
        std::uint32_t error = platform::getLastError();
        bool allocated = t_failedNothrowNews != 0;
        std::string thrown;
        if (allocated) {
            try {
                pointer.set(&value);
            } catch (const std::runtime_error& e) {
                thrown = e.what();
            }
        }
        t_failNothrowNew = false;
        if (allocated) {
            EXPECT_FALSE(stored);
            EXPECT_EQ(static_cast<std::uint32_t>(ENOMEM), error);
            EXPECT_EQ("could not set thread specific data", thrown);
            EXPECT_EQ(nullptr, pointer.get());
        } else {
            EXPECT_TRUE(stored);
            EXPECT_EQ(&value, pointer.get());
        }
        EXPECT_TRUE(platform::tlsSetValue(slot, &value));
        EXPECT_EQ(&value, pointer.get());
        pointer.set(nullptr);
    });
}

}  // namespace
