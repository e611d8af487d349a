// The thread attach and detach routines as the platform delivers them: on Windows the loader
// notifies every new thread before its entry function and every thread at its end; on Linux a
// thread is adopted at its first use and its end is armed then. Either way a thread's record,
// its Thread and its thread-local values die with the thread, on the thread.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <thread>

#include "ThreadInfo.h"
#include "ThreadInfoSlot.h"
#include "concurrent/Thread.h"
#include "concurrent/TlsPtr.h"
#include "platform.h"

namespace {

using mw::Thread;
using mw::detail::ThreadInfo;
using mw::detail::readThreadInfoSlot;
using mw::detail::s_threadInfo;

// Set by the build: whether the OS announces new threads (Windows) or not (Linux).
const bool ATTACH_NOTIFIED = MW_TEST_THREAD_ATTACH_NOTIFIED != 0;

// What a probe saw when its cleaner ran. The cleaner may run from the loader's notification, so it
// names threads by their OS id rather than through the C++ thread library.
struct CleaningSeen {
    std::atomic<int> count{0};
    std::atomic<bool> onOwnThread{false};
    std::atomic<bool> recordWithdrawn{false};
};

struct Probe {
    CleaningSeen* seen;
    std::uint32_t owner;
};

struct ProbePolicy {
    static void deallocate(Probe* probe) {
        probe->seen->onOwnThread.store(probe->owner == mw::platform::currentThreadId());
        probe->seen->recordWithdrawn.store(readThreadInfoSlot() == nullptr);
        probe->seen->count.fetch_add(1);
        delete probe;
    }
};

typedef mw::TlsPtr<Probe, ProbePolicy> ProbePtr;

void setProbe(ProbePtr& pointer, CleaningSeen& seen) {
    pointer.set(new Probe{&seen, mw::platform::currentThreadId()});
}

void expectCleanedAtThreadEnd(const CleaningSeen& seen) {
    EXPECT_EQ(1, seen.count.load()) << "the thread-local value was not cleaned once";
    EXPECT_TRUE(seen.onOwnThread.load()) << "cleaned on another thread";
    EXPECT_TRUE(seen.recordWithdrawn.load()) << "cleaned while the record was still in the slot";
}

class TrackedThread : public Thread {
public:
    explicit TrackedThread(std::atomic<bool>* dead) : Thread(false, "tracked"), m_dead(dead) {}
    ~TrackedThread() override { m_dead->store(true); }

private:
    std::atomic<bool>* m_dead;
};

TEST(ThreadHooks, NewThreadHasItsRecordBeforeItsFirstCall) {
    if (!ATTACH_NOTIFIED) {
        GTEST_SKIP() << "Linux has no thread attach notification: a thread gets its record at "
                        "its first Thread::currentThread";
    }
    std::atomic<bool> hadRecord(false), recordIsCurrent(false), adoptedName(false);
    std::thread([&] {
        ThreadInfo* record = readThreadInfoSlot();
        hadRecord.store(record != nullptr);
        if (record == nullptr) return;
        recordIsCurrent.store(record->getThread() == Thread::currentThread());
        adoptedName.store(std::strcmp("linux thread", record->getThread()->getName()) == 0);
    }).join();
    EXPECT_TRUE(hadRecord.load());
    EXPECT_TRUE(recordIsCurrent.load());
    EXPECT_TRUE(adoptedName.load());
}

// The record in the slot at the thread's end is the one destroyed, whoever put it there; its
// owned Thread dies after the values are cleaned.
TEST(ThreadHooks, ThreadEndDestroysTheRecordItsThreadAndItsValues) {
    ProbePtr pointer;
    CleaningSeen seen;
    std::atomic<bool> dead(false);
    std::thread([&] {
        Thread::currentThread();  // on Linux this arms the thread's end
        s_threadInfo.reset(new ThreadInfo(new TrackedThread(&dead), true));
        setProbe(pointer, seen);
    }).join();
    expectCleanedAtThreadEnd(seen);
    EXPECT_TRUE(dead.load()) << "the record or its Thread outlived the thread";
}

// Without a record (as a thread older than the load on Windows, or any thread on Linux) the
// first currentThread adopts the thread, and the record it makes dies at the thread's end.
TEST(ThreadHooks, ThreadWithoutRecordIsAdoptedOnFirstUseAndFreedAtItsEnd) {
    ProbePtr pointer;
    CleaningSeen seen;
    std::atomic<bool> hadNoRecord(false), adopted(false);
    std::thread([&] {
        s_threadInfo.reset(nullptr);
        hadNoRecord.store(readThreadInfoSlot() == nullptr);
        const Thread* self = Thread::currentThread();
        ThreadInfo* record = readThreadInfoSlot();
        adopted.store(record != nullptr && record->getThread() == self &&
                      Thread::currentThread() == self &&
                      std::strcmp("linux thread", self->getName()) == 0 &&
                      self->getId() == mw::platform::currentThreadId());
        setProbe(pointer, seen);
    }).join();
    EXPECT_TRUE(hadNoRecord.load());
    EXPECT_TRUE(adopted.load());
    expectCleanedAtThreadEnd(seen);
}

}  // namespace
