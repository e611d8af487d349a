#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "ThreadInfo.h"
#include "ThreadInfoSlot.h"
#include "concurrent/Thread.h"
#include "concurrent/TlsPtr.h"
#include "platform.h"

namespace {

using mw::Thread;
using mw::detail::ThreadInfo;
using mw::detail::readThreadInfoSlot;

// A thread-local value that logs its tag when it is cleaned, then runs its hook.
struct Value {
    int tag;
    std::vector<int>* log;
    std::function<void()> onClean;
};

struct LoggingPolicy {
    static void deallocate(Value* value) {
        value->log->push_back(value->tag);
        if (value->onClean) value->onClean();
        delete value;
    }
};

typedef mw::TlsPtr<Value, LoggingPolicy> ValuePtr;

class TrackedThread : public Thread {
public:
    explicit TrackedThread(std::atomic<bool>* dead) : Thread(false, "tracked"), m_dead(dead) {}
    ~TrackedThread() override { m_dead->store(true); }

private:
    std::atomic<bool>* m_dead;
};

// Records built by hand run on a thread of its own. Setting a value adopts that thread, so its own
// record lists the pointers as well; it finds them null when the thread ends.
void onFreshThread(const std::function<void()>& body) {
    std::thread([&body] {
        Thread::currentThread();
        body();
    }).join();
}

TEST(ThreadInfo, OwningRecordDeletesItsThreadAfterCleaningTheSlots) {
    std::vector<int> log;
    ValuePtr pointer;
    onFreshThread([&] {
        std::atomic<bool> dead{false};
        TrackedThread* borrowed = new TrackedThread(&dead);
        {
            ThreadInfo record(borrowed, false);
            EXPECT_EQ(borrowed, record.getThread());
            pointer.set(new Value{1, &log, nullptr});
            record.addSlot(&pointer);
        }
        EXPECT_EQ(std::vector<int>{1}, log);
        EXPECT_EQ(nullptr, pointer.get());
        EXPECT_FALSE(dead.load()) << "a record that does not own its thread deleted it";
        delete borrowed;

        dead.store(false);
        bool aliveWhileCleaned = false;
        {
            ThreadInfo record(new TrackedThread(&dead), true);
            pointer.set(new Value{2, &log, [&] { aliveWhileCleaned = !dead.load(); }});
            record.addSlot(&pointer);
        }
        EXPECT_EQ((std::vector<int>{1, 2}), log);
        EXPECT_TRUE(aliveWhileCleaned) << "the thread died before its slots were cleaned";
        EXPECT_TRUE(dead.load());
    });
}

// A pointer entered twice would be visited twice; the second visit would clean the value that a
// later cleaner gave it. With one entry that value stays where it was put.
TEST(ThreadInfo, AddSlotEntersEachPointerOnce) {
    std::vector<int> log;
    ValuePtr once, other;
    onFreshThread([&] {
        Value* late = new Value{3, &log, nullptr};
        Thread thread;
        {
            ThreadInfo record(&thread, false);
            once.set(new Value{1, &log, nullptr});
            other.set(new Value{2, &log, [&] { once.set(late); }});
            record.addSlot(&once);
            record.addSlot(&other);
            record.addSlot(&once);
            record.addSlot(&other);
        }
        EXPECT_EQ((std::vector<int>{1, 2}), log);
        EXPECT_EQ(late, once.get());
        EXPECT_EQ(nullptr, other.get());
        once.set(nullptr);
        delete late;
    });
}

// The adopted thread's record dies on its way out: every value is cleaned with the record already
// withdrawn from the slot and the cache, and a cleaner that adopts the thread once more gets a
// record that is freed as well.
TEST(ThreadInfo, AdoptedThreadLosesItsRecordAtItsEnd) {
    std::vector<int> log;
    ValuePtr pointer, readopted;
    std::atomic<void*> slotSeen{&log}, cacheSeen{&log};
    std::thread([&] {
        // Where the OS announces new threads, this one was adopted at its start: begin afresh.
        mw::detail::s_threadInfo.reset(nullptr);
        ASSERT_EQ(nullptr, readThreadInfoSlot());
        const Thread* self = Thread::currentThread();
        ThreadInfo* record = readThreadInfoSlot();
        ASSERT_NE(nullptr, record);
        EXPECT_EQ(self, record->getThread());
        // The fast cache exists only where thread-local storage survives the detach routine.
        if (MW_TEST_THREAD_ATTACH_NOTIFIED == 0) {
            EXPECT_EQ(record, mw::platform::cachedThreadRecord());
        }
        EXPECT_EQ(mw::platform::currentThreadId(), self->getId());
        pointer.set(new Value{1, &log, [&] {
                                  slotSeen.store(readThreadInfoSlot());
                                  cacheSeen.store(mw::platform::cachedThreadRecord());
                                  Thread::currentThread();
                                  readopted.set(new Value{2, &log, nullptr});
                              }});
    }).join();
    EXPECT_EQ((std::vector<int>{1, 2}), log);
    EXPECT_EQ(nullptr, slotSeen.load());
    EXPECT_EQ(nullptr, cacheSeen.load());
}

}  // namespace
