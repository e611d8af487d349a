// The thread attach and detach routines: Windows' loader announces every thread's start and end;
// on Linux a thread is adopted at its first use, which arms its end.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>

#include "TestSupport.h"
#include "ThreadInfoSlot.h"
#include "concurrent/Concurrent.h"
#include "platform.h"

namespace {

using mw::Thread;
using mw::detail::readThreadInfoSlot;
using Hook = std::function<void()>;

// Runs a hook that the test owns: a value dropped at the thread's end leaks nothing.
struct RunOnly {
    static void deallocate(Hook* hook) { (*hook)(); }
};

// Set by the build: whether the OS announces new threads (Windows) or not (Linux).
const bool ATTACH_NOTIFIED = MW_TEST_THREAD_ATTACH_NOTIFIED != 0;

TEST(ThreadHooks, NewThreadHasItsRecordBeforeItsFirstCall) {
    if (!ATTACH_NOTIFIED) GTEST_SKIP() << "Linux has no thread attach notification";
    mwtest::onFreshThread([] {
        mw::detail::ThreadInfo* record = readThreadInfoSlot();
        ASSERT_NE(nullptr, record);
        EXPECT_EQ(record->getThread(), Thread::currentThread());
        EXPECT_STREQ("linux thread", record->getThread()->getName());
    });
}

// A thread without a record is adopted at first use. At its end values are cleaned with the record
// withdrawn (by OS id: cleaners may run in the loader); re-adoption stops at CLEANING_PASSES.
TEST(ThreadHooks, ThreadWithoutRecordIsAdoptedOnFirstUseAndCleanedAtItsEnd) {
    mw::TlsPtr<Hook, RunOnly> first, second;
    std::atomic<int> cleaned{0}, cleanedOutsideTheRules{0};
    Hook renewFirst, renewSecond;
    mwtest::onFreshThread([&] {
        mw::detail::s_threadInfo.reset(nullptr);
        ASSERT_EQ(nullptr, readThreadInfoSlot());
        const Thread* self = Thread::currentThread();
        ASSERT_NE(nullptr, readThreadInfoSlot());
        EXPECT_EQ(self, readThreadInfoSlot()->getThread());
        EXPECT_EQ(mw::platform::currentThreadId(), self->getId());
        auto check = [&cleaned, &cleanedOutsideTheRules, id = self->getId()] {
            cleanedOutsideTheRules += readThreadInfoSlot() != nullptr ||
                                      mw::platform::cachedThreadRecord() != nullptr ||
                                      mw::platform::currentThreadId() != id;
            cleaned.fetch_add(1);
        };
        // The cleaners stop by themselves after 100 rounds, so an unbounded end fails the count
        // instead of hanging the thread.
        renewFirst = [&, check] {
            check();
            if (cleaned.load() < 100) second.set(&renewSecond);
        };
        renewSecond = [&, check] {
            check();
            Thread::currentThread();
            if (cleaned.load() < 100) first.set(&renewFirst);
        };
        first.set(&renewFirst);
    });
    EXPECT_EQ(mw::detail::ThreadInfo::CLEANING_PASSES, cleaned.load());
    EXPECT_EQ(0, cleanedOutsideTheRules.load());
}

}  // namespace
