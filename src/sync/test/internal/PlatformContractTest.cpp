// The platform contract, run against whichever backend is built, so that every backend is held to
// the same semantics: auto-reset events with timed waits that never end early, TLS slots that
// start null on every thread and keep the last-error code where the library promises it, the
// clocks, and OS threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <thread>

#include "TestSupport.h"
#include "concurrent/TlsPtr.h"
#include "platform.h"

namespace {

namespace platform = mw::platform;
using std::chrono::steady_clock;

class EventHolder {
public:
    EventHolder() : m_event(platform::createEvent()) {}
    ~EventHolder() { platform::closeEvent(m_event); }
    platform::Handle get() const { return m_event; }

private:
    platform::Handle m_event;
};

TEST(PlatformContract, EventHoldsAtMostOnePermitAndAWaitConsumesIt) {
    EventHolder event;
    ASSERT_NE(nullptr, event.get());
    EXPECT_EQ(platform::WAIT_TIMEOUT_EXPIRED, platform::waitEvent(event.get(), 0)) << "starts set";

    EXPECT_TRUE(platform::setEvent(event.get()));
    EXPECT_TRUE(platform::setEvent(event.get()));
    EXPECT_EQ(platform::WAIT_SIGNALED, platform::waitEvent(event.get(), 0));
    EXPECT_EQ(platform::WAIT_TIMEOUT_EXPIRED, platform::waitEvent(event.get(), 0))
        << "two sets gave two permits";

    platform::setEvent(event.get());
    EXPECT_EQ(platform::WAIT_SIGNALED, platform::waitEvent(event.get(), 5000));
    EXPECT_EQ(platform::WAIT_TIMEOUT_EXPIRED, platform::waitEvent(event.get(), 0))
        << "a timed wait did not consume the permit";

    platform::setEvent(event.get());
    EXPECT_TRUE(platform::resetEvent(event.get()));
    EXPECT_EQ(platform::WAIT_TIMEOUT_EXPIRED, platform::waitEvent(event.get(), 0))
        << "reset left the permit";

    EXPECT_FALSE(platform::setEvent(nullptr));
    EXPECT_NE(platform::WAIT_SIGNALED, platform::waitEvent(nullptr, 0));
}

// Short lengths, and lengths around the default clock tick of Windows, where rounding would show.
TEST(PlatformContract, TimedEventWaitNeverEndsEarly) {
    EventHolder event;
    for (std::uint32_t ms : {1u, 2u, 15u, 16u, 17u, 40u}) {
        steady_clock::time_point start = steady_clock::now();
        EXPECT_EQ(platform::WAIT_TIMEOUT_EXPIRED, platform::waitEvent(event.get(), ms));
        steady_clock::duration elapsed = steady_clock::now() - start;
        EXPECT_GE(elapsed, std::chrono::milliseconds(ms)) << "wait of " << ms << " ms";
        EXPECT_LT(elapsed, std::chrono::milliseconds(ms) + std::chrono::seconds(10));
    }
}

TEST(PlatformContract, SleepNeverEndsEarly) {
    for (std::uint32_t ms : {1u, 15u, 16u, 30u}) {
        steady_clock::time_point start = steady_clock::now();
        platform::sleepMilliseconds(ms);
        EXPECT_GE(steady_clock::now() - start, std::chrono::milliseconds(ms)) << ms << " ms";
    }
}

// The waiter announces itself and blocks without limit; only the set from this thread can end
// its wait, and until then it has not returned.
TEST(PlatformContract, UnlimitedEventWaitEndsOnlyWhenSetFromAnotherThread) {
    EventHolder event;
    mwtest::Latch waiting(1);
    std::atomic<bool> returned(false);
    std::atomic<std::uint32_t> result(1);
    std::thread waiter([&] {
        waiting.countDown();
        result.store(platform::waitEvent(event.get(), platform::INFINITE_WAIT));
        returned.store(true);
    });
    waiting.wait();
    EXPECT_FALSE(returned.load()) << "an unset event ended an unlimited wait";
    platform::setEvent(event.get());
    waiter.join();
    EXPECT_EQ(platform::WAIT_SIGNALED, result.load());
    EXPECT_EQ(platform::WAIT_TIMEOUT_EXPIRED, platform::waitEvent(event.get(), 0));
}

TEST(PlatformContract, TlsSlotStartsNullOnEveryThreadAndHoldsOneValuePerThread) {
    std::uint32_t slot = platform::tlsAlloc();
    ASSERT_NE(platform::TLS_OUT_OF_SLOTS, slot);
    int mine = 0;
    int theirs = 0;
    EXPECT_EQ(nullptr, platform::tlsGetValue(slot));
    ASSERT_TRUE(platform::tlsSetValue(slot, &mine));
    std::atomic<void*> seenFirst(&mine), seenAfterSet(nullptr);
    std::thread([&] {
        seenFirst.store(platform::tlsGetValue(slot));
        platform::tlsSetValue(slot, &theirs);
        seenAfterSet.store(platform::tlsGetValue(slot));
    }).join();
    EXPECT_EQ(nullptr, seenFirst.load());
    EXPECT_EQ(&theirs, seenAfterSet.load());
    EXPECT_EQ(&mine, platform::tlsGetValue(slot));
    platform::tlsFree(slot);

    std::uint32_t again = platform::tlsAlloc();
    ASSERT_NE(platform::TLS_OUT_OF_SLOTS, again);
    EXPECT_EQ(nullptr, platform::tlsGetValue(again)) << "a recycled slot kept an old value";
    platform::tlsFree(again);
}

struct NoCleaning {
    static void deallocate(int*) {}
};

// The OS's slot read may clear the last-error code (Windows does on success); a caller's code
// survives the library's reads of its thread-local pointers, null or not. The pointer is used on a
// thread that ends before it dies, as thread-local pointers require.
TEST(PlatformContract, ThreadLocalPointerReadKeepsTheLastErrorCode) {
    mw::TlsPtr<int, NoCleaning> pointer;
    std::thread([&pointer] {
        int value = 7;
        platform::setLastError(1234);
        EXPECT_EQ(1234u, platform::getLastError());
        EXPECT_EQ(nullptr, pointer.get());
        EXPECT_EQ(1234u, platform::getLastError()) << "get of a null value";
        pointer.set(&value);
        platform::setLastError(4321);
        EXPECT_EQ(&value, pointer.get());
        EXPECT_EQ(4321u, platform::getLastError()) << "get of a value";
        pointer.set(nullptr);
    }).join();
}

TEST(PlatformContract, ClocksAgreeWithTheStandardClocks) {
    const std::int64_t ticks1601To1970 = 116444736000000000LL;
    std::int64_t fileTime = platform::systemTimeAsFileTime();
    std::int64_t standard = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                std::chrono::system_clock::now().time_since_epoch())
                                    .count() / 100 + ticks1601To1970;
    EXPECT_LT(std::llabs(fileTime - standard), 10000000LL) << "more than a second apart";

    std::int64_t frequency = 0;
    ASSERT_TRUE(platform::queryPerformanceFrequency(&frequency));
    EXPECT_GT(frequency, 0);
    std::int64_t first = platform::queryPerformanceCounter();
    std::int64_t previous = first;
    for (int i = 0; i < 10000; ++i) {
        std::int64_t now = platform::queryPerformanceCounter();
        ASSERT_GE(now, previous);
        previous = now;
    }
    EXPECT_TRUE(mwtest::eventually([&] { return platform::queryPerformanceCounter() > first; }));
}

unsigned long exitWhenReleased(void* argument) {
    static_cast<mwtest::Latch*>(argument)->wait();
    return 42;
}

TEST(PlatformContract, ThreadReportsActivityAndItsEntryResultAsExitCode) {
    mwtest::Latch release(1);
    std::uint32_t id = 0;
    platform::Handle thread = platform::createThread(&exitWhenReleased, &release, &id);
    ASSERT_NE(nullptr, thread);
    EXPECT_NE(0u, id);
    EXPECT_NE(platform::currentThreadId(), id);

    std::uint32_t code = 0;
    ASSERT_TRUE(platform::getExitCodeThread(thread, &code));
    EXPECT_EQ(platform::STILL_ACTIVE_CODE, code);
    EXPECT_EQ(platform::WAIT_TIMEOUT_EXPIRED, platform::waitThread(thread, 0));

    release.countDown();
    EXPECT_EQ(platform::WAIT_SIGNALED, platform::waitThread(thread, platform::INFINITE_WAIT));
    ASSERT_TRUE(platform::getExitCodeThread(thread, &code));
    EXPECT_EQ(42u, code);
    platform::closeThreadHandle(thread);

    platform::Handle self = platform::currentThreadHandle();
    EXPECT_NE(nullptr, self);
    ASSERT_TRUE(platform::getExitCodeThread(self, &code));
    EXPECT_EQ(platform::STILL_ACTIVE_CODE, code);
    platform::closeThreadHandle(self);
    platform::yieldThread();
}

}  // namespace
