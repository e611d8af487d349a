#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <vector>

#include "TestSupport.h"
#include "ThreadInfo.h"
#include "concurrent/Concurrent.h"

namespace {

using Hook = std::function<void()>;

class TrackedThread : public mw::Thread {
public:
    explicit TrackedThread(std::atomic<bool>* dead) : Thread(false, "tracked"), m_dead(dead) {}
    ~TrackedThread() override { m_dead->store(true); }
    std::atomic<bool>* m_dead;
};

// Records built by hand on a thread of their own; setting a value adopts that thread, so its own
// record lists the pointers as well and finds them null at its end. A pointer entered twice would
// be visited twice, and the second visit would clean the value that a later cleaner gave it.
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

}  // namespace
