// The end of a thread's identity. A thread the library did not start keeps its one Thread object
// until its very last code has run: its thread_local destructors run as that thread, holding
// what it holds. A thread that Thread::start started loses its object right after run(), and
// what its thread_local destructors do is done by a thread adopted afresh.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "concurrent/Concurrent.h"

namespace {

using mw::Thread;
using Hook = std::function<void()>;

// The hook that a thread_local's destructor runs at the end of the one thread that armed it.
// The destructor reads nothing of its own object: MinGW's emulated thread_local storage can be
// freed before the destructors of the objects in it run.
std::atomic<Hook*> s_exitHook{nullptr};

struct ExitTrigger {
    ~ExitTrigger() {
        Hook* hook = s_exitHook.exchange(nullptr);
        if (hook != nullptr) (*hook)();
    }
};

thread_local ExitTrigger t_exitTrigger;

// Builds the calling thread's thread_local, which runs hook (owned by the caller) at its end.
void runAtThreadExit(Hook* hook) {
    s_exitHook.store(hook);
    static_cast<void>(&t_exitTrigger);
}

// What a thread_local destructor saw of the thread's identity.
struct Seen {
    std::atomic<bool> ran{false};
    std::atomic<const Thread*> thread{nullptr};
    std::atomic<unsigned long long> serial{0};
    std::string name;  // written before ran is set
    std::atomic<bool> interrupted{false};

    void record() {
        const Thread* self = Thread::currentThread();
        thread.store(self);
        serial.store(self->getSerial());
        name = self->getName();
        interrupted.store(self->isInterrupted());
        ran.store(true);
    }
};

// The thread_local is made before the thread's first call into the library, so its destructor
// comes after anything that the library's first call could register on the thread. The object's
// address alone could be reused by a new object; the serial number and the name could not.
TEST(ThreadExit, ThreadLocalDestructorRunsAsTheThreadAndReleasesItsLock) {
    mw::ReentrantLock<mw::NonFairLockPolicy> lock;
    Seen seen;
    std::atomic<const Thread*> self{nullptr};
    std::atomic<unsigned long long> serial{0};
    std::atomic<bool> released{false};
    std::string refusal;
    std::vector<int> order;
    mw::TlsPtr<Hook, mwtest::RunWhenCleaned> setLate;
    Hook atExit = [&] {
        seen.record();
        try {
            lock.unlock();
            released.store(true);
        } catch (const std::exception& e) {
            refusal = e.what();
        }
        order.push_back(1);
        setLate.set(new Hook([&] { order.push_back(2); }));
    };
    mwtest::onFreshThread([&] {
        runAtThreadExit(&atExit);
        lock.lock();
        Thread* thread = const_cast<Thread*>(Thread::currentThread());
        thread->setName("exiting");
        thread->interrupt();
        self.store(thread);
        serial.store(thread->getSerial());
    });
    ASSERT_TRUE(seen.ran.load());
    EXPECT_EQ(self.load(), seen.thread.load());
    EXPECT_EQ(serial.load(), seen.serial.load()) << "a new object was adopted";
    EXPECT_EQ("exiting", seen.name);
    EXPECT_TRUE(seen.interrupted.load()) << "the pending interrupt was lost";
    EXPECT_TRUE(released.load()) << refusal;
    EXPECT_TRUE(lock.tryLock()) << "the lock stayed held";
    lock.unlock();
    EXPECT_EQ((std::vector<int>{1, 2}), order) << "a value set by a thread_local destructor";
}

class RunOnceThread : public Thread {
public:
    RunOnceThread() : Thread(false, "started"), m_atExit([this] { m_seen.record(); }) {}
    void run() override { runAtThreadExit(&m_atExit); }
    Seen m_seen;
    Hook m_atExit;
};

TEST(ThreadExit, StartedThreadLosesItsObjectRightAfterRun) {
    RunOnceThread thread;
    thread.start();
    thread.join();
    ASSERT_TRUE(mwtest::eventually([&] { return thread.m_seen.ran.load(); }));
    EXPECT_NE(&thread, thread.m_seen.thread.load());
    EXPECT_NE(thread.getSerial(), thread.m_seen.serial.load());
    EXPECT_EQ("linux thread", thread.m_seen.name);
}

}  // namespace
