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

namespace {

using Hook = std::function<void()>;

class TrackedThread : public mw::Thread {
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
        const mw::Thread* self = mw::Thread::currentThread();
        mw::detail::ThreadInfo* record = mw::detail::readThreadInfoSlot();
        bool sameThreadWhileCleaned = true;
        lister.set(new Hook([&] {
            for (auto& pointer : listed) pointer.set(new Hook([&] { ++listedCleaned; }));
            sameThreadWhileCleaned = mw::Thread::currentThread() == self;
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

}  // namespace
