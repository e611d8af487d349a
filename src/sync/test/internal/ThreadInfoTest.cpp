// A thread's record: what it cleans and deletes, and the attach and detach routines that make and
// clean it. Windows' loader announces every thread's start and end; on Linux a thread is adopted at
// its first use, which arms its end.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <stdexcept>
#include <vector>

#include "TestSupport.h"
#include "ThreadInfo.h"
#include "ThreadInfoSlot.h"
#include "concurrent/Concurrent.h"
#include "platform.h"

namespace {

using mw::Thread;
using mw::detail::readThreadInfoSlot;
using Hook = std::function<void()>;

class TrackedThread : public Thread {
public:
    explicit TrackedThread(std::atomic<bool>* dead) : Thread(false, "tracked"), m_dead(dead) {}
    ~TrackedThread() override { m_dead->store(true); }
    std::atomic<bool>* m_dead;
};

// Hand-built records (the thread's own one lists the pointers too, and finds them null at its end).
// A pointer listed twice must be cleaned once: a second visit would clean the value set later.
TEST(ThreadInfo, RecordCleansEachSlotOnceThenDeletesOnlyAThreadItOwns) {
    std::vector<int> log;
    mw::TlsPtr<Hook, mwtest::RunWhenCleaned> once, other;
    mwtest::onFreshThread([&] {
        std::atomic<bool> dead{false}, aliveWhileCleaned{false};
        Hook* late = new Hook([&] {
            log.push_back(3);
            aliveWhileCleaned.store(!dead.load());
        });
        TrackedThread* borrowed = new TrackedThread(&dead);
        {
            mw::detail::ThreadInfo record(borrowed, false);
            once.set(new Hook([&] { log.push_back(1); }));
            other.set(new Hook([&] {
                log.push_back(2);
                once.set(late);
            }));
            for (auto* pointer : {&once, &other, &once, &other}) record.addSlot(pointer);
        }
        EXPECT_EQ((std::vector<int>{1, 2}), log);
        EXPECT_EQ(late, once.get());
        EXPECT_FALSE(dead.load()) << "a record that does not own its thread deleted it";
        delete borrowed;
        dead.store(false);
        { mw::detail::ThreadInfo(new TrackedThread(&dead), true).addSlot(&once); }
        EXPECT_EQ((std::vector<int>{1, 2, 3}), log);
        EXPECT_TRUE(aliveWhileCleaned.load())
            << "the owned thread died before its slots were cleaned";
        EXPECT_TRUE(dead.load());
    });
}

// The unloading thread's record, cleaned in place: pointers listed during the walk are cleaned in
// that pass, values set again in later ones; the last pass's value stays; a thrower is not rerun.
TEST(ThreadInfo, RecordCleanedInPlaceCleansWhatItsCleanersSetInFurtherPasses) {
    using mw::detail::s_threadInfo;
    mw::TlsPtr<Hook, mwtest::RunWhenCleaned> lister, renewing, thrower;
    std::array<mw::TlsPtr<Hook, mwtest::RunWhenCleaned>, 16> listed;
    int listedCleaned = 0, renewals = 0, throws = 0;
    Hook renew;
    renew = [&] {
        ++renewals;
        renewing.set(new Hook(renew));
    };
    mwtest::onFreshThread([&] {
        const Thread* self = Thread::currentThread();
        mw::detail::ThreadInfo* record = readThreadInfoSlot();
        bool sameThreadWhileCleaned = true;
        lister.set(new Hook([&] {
            for (auto& pointer : listed) pointer.set(new Hook([&] { ++listedCleaned; }));
            sameThreadWhileCleaned = Thread::currentThread() == self;
        }));
        thrower.set(new Hook([&] {
            ++throws;
            throw std::runtime_error("cleaner failed");
        }));
        renewing.set(new Hook(renew));
        mw::detail::ThreadInfoDeallocator::deallocate(record);
        s_threadInfo.set(nullptr);
        EXPECT_TRUE(sameThreadWhileCleaned);
        EXPECT_EQ(16, listedCleaned);
        EXPECT_EQ(1, throws);
        EXPECT_EQ(mw::detail::ThreadInfo::CLEANING_PASSES, renewals);
        Hook* left = renewing.set(nullptr);
        EXPECT_NE(nullptr, left) << "the value set after the last pass was cleaned";
        delete left;
        for (auto& pointer : listed) EXPECT_EQ(nullptr, pointer.get());
        thrower.set(nullptr);
    });
}

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
