// Adopted objects, thread-local values and a thread's end: a thread the library did not start keeps
// its Thread object through its thread_local destructors; one that Thread::start started loses it
// right after run(), and its destructors adopt afresh.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mw::Thread;
using Hook = std::function<void()>;

// Cases that interrupt or set thread-local values run on a fresh thread: the runner's thread keeps
// its record and its flag until the process ends.
TEST(Thread, AdoptedObjectIsOnePerThreadAndCarriesTheInterruptFlag) {
    const Thread* main = Thread::currentThread();
    mwtest::onFreshThread([main] {
        const Thread* self = Thread::currentThread();
        EXPECT_EQ(self, Thread::currentThread());
        EXPECT_NE(main->getId(), self->getId());
        EXPECT_STREQ("linux thread", self->getName());
        EXPECT_TRUE(self->isAlive());
        EXPECT_FALSE(Thread::interrupted());
        self->interrupt();
        EXPECT_TRUE(self->isInterrupted());
        EXPECT_TRUE(Thread::interrupted());
        EXPECT_FALSE(Thread::interrupted());
        EXPECT_FALSE(self->isInterrupted());
    });
    Thread idle;
    idle.interrupt();
    EXPECT_FALSE(idle.isInterrupted()) << "an interrupt before the start is not remembered";
}

// Publishing a ParkEvent is the owner's own business. The refusal is thrown inside the library
// and caught here by type.
TEST(Thread, AnotherThreadsObjectRefusesSetEvent) {
    mwtest::WorkerThread other([] {});
    EXPECT_TRUE(mwtest::throwsWith<mw::ThreadStateException>(
        [&] { other.self()->setEvent(nullptr); },
        "This operation is only allowed for the thread istself!"));
    EXPECT_EQ(Thread::RUNNING, other.self()->getState());
}

// The thread's end cleans what is left in each pointer once, in the order in which the pointers
// were first set on it (not their creation order), past a cleaner that throws; a pointer left
// null is not cleaned. reset cleans the value it replaces, unless it is the same.
TEST(ThreadLocal, ThreadEndCleansValuesInOrderOfFirstSet) {
    std::vector<int> log;
    auto logs = [&log](int tag, bool throws = false) {
        return new Hook([&log, tag, throws] {
            log.push_back(tag);
            if (throws) throw std::runtime_error("cleaner failed");
        });
    };
    mw::TlsPtr<Hook, mwtest::RunWhenCleaned> first, second, third, nulled;
    mwtest::onFreshThread([&] {
        third.set(logs(3, true));
        for (int tag = 10; tag <= 14; ++tag) delete first.set(logs(tag));
        nulled.set(logs(99));
        Hook* kept = logs(2);
        second.reset(kept);
        second.reset(kept);
        delete nulled.set(nullptr);
        EXPECT_TRUE(log.empty());
        first.reset(logs(15));
        EXPECT_EQ(std::vector<int>{14}, log);
    });
    EXPECT_EQ((std::vector<int>{14, 3, 15, 2}), log);
}

// Run by a thread_local's destructor at the end of the thread that armed it; kept outside the
// object, since MinGW's emulated thread_local storage can be freed before its destructors run.
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

// Armed before the first library call, so its destructor runs after anything that call registers.
// A new object could reuse the address, but not the serial number and the name.
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
