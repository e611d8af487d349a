// The life of a Thread object: start and its handshake, states, join, priority, terminate, a
// thread that frees its own object, and calls on an object whose thread is ending. Adopted objects,
// thread-local values and a thread's end: a thread the library did not start keeps its Thread
// object through its thread_local destructors; one that Thread::start started loses it right after
// run(), and its destructors adopt afresh. Cases that interrupt or set thread-local values run on a
// fresh thread: the runner's thread keeps its record and its flag until the process ends.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

#include "TestSupport.h"
#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mw::Thread;
using Hook = std::function<void()>;
using mwtest::Task;
using mwtest::throwsWith;
using std::chrono::milliseconds;
using std::chrono::seconds;

typedef mw::ReentrantLock<mw::NonFairLockPolicy> Lock;

const int PRIORITY_ERROR = 0x7FFFFFFF;

unsigned long osThreadId() {
#ifdef _WIN32
    return GetCurrentThreadId();
#else
    return static_cast<unsigned long>(syscall(SYS_gettid));
#endif
}

// Holds a thread running (polling, not parked) until opened; gives up after a minute so that a
// failed check cannot hang the run.
class Release {
public:
    void open() { m_open.store(true); }
    void await() const {
        mwtest::eventually([this] { return m_open.load(); }, seconds(60));
    }

private:
    std::atomic<bool> m_open{false};
};

bool alreadyStarted(Thread& thread) {
    return throwsWith<mw::ThreadStateException>([&] { thread.start(); }, "Thread already started");
}

void expectNoPriority(Thread& thread) {
    EXPECT_TRUE(throwsWith<mw::ThreadStateException>([&] { thread.setPriority(0); },
                                                     "could not set priority"));
    EXPECT_EQ(PRIORITY_ERROR, thread.getPriority());
}

// A thread that should end at once but still runs after a minute can be neither joined nor left.
void joinOrAbort(std::thread& thread, const std::atomic<bool>& done, const char* what) {
    if (!mwtest::eventually([&] { return done.load(); }, seconds(60))) {
        std::fprintf(stderr, "%s did not return; aborting\n", what);
        std::abort();
    }
    thread.join();
}

// Never started: TERMINATED, no id, nothing to wait for or prioritise. Started: RUNNING from the
// return of start, alive also while parked, currentThread inside is the object, with the OS's id;
// priorities are the OS's numbers (Linux: the nice value, -20 to 19). A join waits its full limit,
// of which only the low 32 bits count; join() returns after the end, a limited join by the end.
// Ended: TERMINATED for good, and on Linux no priority. Linux refuses terminate.
TEST(ThreadLifecycle, StateJoinAndPriorityFollowTheThreadFromNeverStartedToItsEnd) {
    Thread idle;
    EXPECT_EQ(Thread::TERMINATED, idle.getState());
    EXPECT_FALSE(idle.isAlive());
    EXPECT_EQ(0u, idle.getId());
    idle.interrupt();
    EXPECT_FALSE(idle.isInterrupted()) << "an interrupt before the start is not remembered";
    EXPECT_LT(mwtest::elapsed([&] { idle.join(); }), seconds(10));
    EXPECT_LT(mwtest::elapsed([&] { idle.join(60000); }), seconds(10));
    expectNoPriority(idle);

    Lock lock;
    Release toLock;
    std::atomic<const Thread*> current{nullptr};
    std::atomic<unsigned long> idInside{0};
    std::atomic<bool> ended{false};
    Task body([&] {
        idInside.store(osThreadId());
        current.store(Thread::currentThread());
        toLock.await();
        lock.lock();
        lock.unlock();
        ended.store(true);
    });
    Thread thread(&body, "lifecycle");
    lock.lock();
    thread.start();
    EXPECT_EQ(Thread::RUNNING, thread.getState());
    EXPECT_TRUE(thread.isAlive());
    ASSERT_TRUE(mwtest::eventually([&] { return current.load() != nullptr; }));
    EXPECT_EQ(&thread, current.load());
    EXPECT_EQ(idInside.load(), thread.getId());
    EXPECT_TRUE(alreadyStarted(thread));
#ifndef _WIN32
    EXPECT_THROW(idle.terminate(), mw::UnsupportedOperationException);
    EXPECT_THROW(thread.terminate(), mw::UnsupportedOperationException);
#endif
    EXPECT_GE(mwtest::elapsed([&] { thread.join(150); }), milliseconds(150));
    EXPECT_LT(mwtest::elapsed([&] { thread.join(4294967296LL); }), seconds(10));
    EXPECT_GE(mwtest::elapsed([&] { thread.join(4294967296LL + 120); }), milliseconds(120));
    EXPECT_EQ(Thread::RUNNING, thread.getState());
#ifdef _WIN32
    const int accepted[] = {THREAD_PRIORITY_LOWEST, THREAD_PRIORITY_NORMAL,
                            THREAD_PRIORITY_HIGHEST};
    const int refused[] = {100};
    auto osPriority = [&] { return thread.getPriority(); };
#else
    const int accepted[] = {5, geteuid() == 0 ? -3 : 6};
    const int refused[] = {20, -21, 100};
    auto osPriority = [&] {
        errno = 0;
        int value = getpriority(PRIO_PROCESS, static_cast<id_t>(thread.getId()));
        return errno == 0 ? value : PRIORITY_ERROR;
    };
#endif
    for (int priority : accepted) {
        thread.setPriority(priority);
        EXPECT_EQ(priority, thread.getPriority());
        EXPECT_EQ(priority, osPriority());
    }
    for (int priority : refused) {
        EXPECT_TRUE(throwsWith<mw::ThreadStateException>([&] { thread.setPriority(priority); },
                                                         "could not set priority"));
    }
    EXPECT_EQ(accepted[std::size(accepted) - 1], thread.getPriority());
    toLock.open();
    EXPECT_TRUE(mwtest::eventually([&] { return thread.getState() == Thread::PARKED; }));
    EXPECT_TRUE(thread.isAlive());
    lock.unlock();
    thread.join();
    EXPECT_TRUE(ended.load());
    EXPECT_EQ(Thread::TERMINATED, thread.getState());
    EXPECT_FALSE(thread.isAlive());
    EXPECT_LT(mwtest::elapsed([&] { thread.join(); }), seconds(10));
    EXPECT_TRUE(alreadyStarted(thread));
    EXPECT_EQ(Thread::TERMINATED, thread.getState());
#ifndef _WIN32
    expectNoPriority(thread);  // an ended Win32 thread keeps its handle, and takes a priority
#endif

    Release toEnd;
    Task shortBody([&] { toEnd.await(); });
    Thread early(&shortBody);
    early.start();
    toEnd.open();
    EXPECT_LT(mwtest::elapsed([&] { early.join(60000); }), seconds(30));
    EXPECT_FALSE(early.isAlive());
}

// Of two starts at once one makes the thread and the other is refused; start returns only once the
// new thread has stored RUNNING, so the winner never sees NEW.
TEST(ThreadLifecycle, ConcurrentStartsMakeOneThreadThatHasLeftNew) {
    for (int i = 0; i < 100; ++i) {
        std::atomic<int> runs{0}, started{0}, refused{0}, sawNew{0};
        Task count([&] { runs.fetch_add(1); });
        Thread thread(&count);
        mwtest::Latch line(2);
        auto starter = [&] {
            line.arriveAndWait();
            const bool won = !alreadyStarted(thread);
            const Thread::State state = thread.getState();
            (won ? started : refused).fetch_add(1);
            if (won && state != Thread::RUNNING && state != Thread::TERMINATED) sawNew.fetch_add(1);
        };
        std::thread first(starter), second(starter);
        first.join();
        second.join();
        thread.join();
        EXPECT_EQ(1, started.load());
        EXPECT_EQ(1, refused.load());
        EXPECT_EQ(1, runs.load());
        EXPECT_EQ(0, sawNew.load());
    }
}

// An adopted object is one per thread, alive, and carries the interrupt flag. It cannot be started,
// and a join that would wait for the calling thread returns at once: on its own adopted or started
// object, and on another thread's adopted object, whose handle means "the calling thread" too.
TEST(ThreadLifecycle, AdoptedObjectIsNeverStartedAndNoThreadWaitsForItself) {
    auto selfJoin = [] { return mwtest::elapsed([] { Thread::currentThread()->join(20000); }); };
    Release toEnd;
    mwtest::WorkerThread worker([&] {
        const Thread* self = Thread::currentThread();
        EXPECT_EQ(self, Thread::currentThread());
        EXPECT_STREQ("linux thread", self->getName());
        EXPECT_TRUE(self->isAlive());
        EXPECT_FALSE(Thread::interrupted());
        self->interrupt();
        EXPECT_TRUE(self->isInterrupted());
        EXPECT_TRUE(Thread::interrupted());
        EXPECT_FALSE(Thread::interrupted() || self->isInterrupted());
        EXPECT_LT(selfJoin(), seconds(10));
        toEnd.await();
    });
    Thread* adopted = const_cast<Thread*>(worker.self());
    EXPECT_NE(Thread::currentThread()->getId(), adopted->getId());
    EXPECT_TRUE(alreadyStarted(*adopted));
    EXPECT_LT(mwtest::elapsed([&] { adopted->join(20000); }), seconds(10));
    EXPECT_LT(selfJoin(), seconds(10));
    EXPECT_EQ(Thread::RUNNING, adopted->getState());
    toEnd.open();

    std::chrono::steady_clock::duration startedSelfJoin{};
    Task joinsItself([&] { startedSelfJoin = selfJoin(); });
    Thread started(&joinsItself);
    started.start();
    started.join();
    EXPECT_LT(startedSelfJoin, seconds(10));
}

#ifdef _WIN32

// A killed thread dies wherever it stands, here in a loop of calls that pin another thread's
// object: nothing it held may keep that object's destructor, or new objects, waiting.
TEST(ThreadLifecycle, TerminateKillsTheThreadWhereverItStands) {
    Thread idle;
    idle.terminate();
    EXPECT_EQ(Thread::TERMINATED, idle.getState());
    std::minstd_rand random(std::random_device{}());
    for (int round = 0; round < 20; ++round) {
        Release toEnd;
        Task spins([&] { toEnd.await(); });
        Thread* other = new Thread(&spins);
        other->start();
        std::atomic<long> calls{0};
        Task callsOnOther([&] {
            for (;;) {
                other->interrupt();
                other->isInterrupted();
                calls.fetch_add(1);
            }
        });
        Thread* killed = new Thread(&callsOnOther);
        killed->start();
        long enough = 1000 + static_cast<long>(random() % 100000);
        ASSERT_TRUE(mwtest::eventually([&] { return calls.load() > enough; }));
        killed->terminate();
        EXPECT_EQ(Thread::TERMINATED, killed->getState());
        EXPECT_FALSE(killed->isAlive());
        EXPECT_LT(mwtest::elapsed([&] { killed->join(); }), seconds(10));
        expectNoPriority(*killed);
        toEnd.open();
        other->join();
        std::atomic<bool> done{false};
        std::thread cleaner([&] {
            delete other;
            delete killed;
            delete new Thread();
            done.store(true);
        });
        joinOrAbort(cleaner, done, "deleting objects after a kill");
    }
}

// A thread killed while queued gives its node up: its object may be deleted (and its memory
// scribbled over) and the waiters behind it, also in a fair lock, are not held up.
TEST(ThreadLifecycle, ObjectOfAThreadKilledWhileQueuedCanBeDeleted) {
    mw::ReentrantLock<mw::FairLockPolicy> lock;
    mw::Object monitor;
    lock.lock();
    Task locks([&] {
        lock.lock();
        lock.unlock();
    });
    Task waits([&] {
        mw::Guard guard(monitor);
        monitor.wait(0, 0);
    });
    alignas(Thread) unsigned char storage[2][sizeof(Thread)];
    Thread* killedInQueue = new (storage[0]) Thread(&locks);
    Thread* killedInWait = new (storage[1]) Thread(&waits);
    killedInQueue->start();
    ASSERT_TRUE(mwtest::eventually([&] { return killedInQueue->getState() == Thread::PARKED; }));
    Thread behind(&locks);
    behind.start();
    ASSERT_TRUE(mwtest::eventually([&] { return behind.getState() == Thread::PARKED; }));
    killedInWait->start();
    ASSERT_TRUE(mwtest::eventually([&] { return killedInWait->getState() == Thread::PARKED; }));
    for (Thread* killed : {killedInQueue, killedInWait}) {
        killed->terminate();
        killed->~Thread();
    }
    std::memset(storage, 0xCC, sizeof storage);
    lock.unlock();
    behind.join();
    EXPECT_EQ(Thread::TERMINATED, behind.getState())
        << "the waiter behind the dead one got the lock";
    EXPECT_TRUE(lock.tryLock());
    lock.unlock();
    mw::Guard guard(monitor);
    monitor.notifyAll();
}

#endif

// An autoDelete object is freed on its own thread as the thread's last act. A joiner pins the
// object only to copy its handle, so it comes free wherever in its join the end lands.
class SelfDeleting : public Thread {
public:
    SelfDeleting(const Release& toEnd, std::atomic<unsigned long>& destroyedOn)
        : Thread(true, "self-deleting"), m_toEnd(toEnd), m_destroyedOn(destroyedOn) {}
    ~SelfDeleting() override { m_destroyedOn.store(osThreadId()); }
    void run() override { m_toEnd.await(); }

private:
    const Release& m_toEnd;
    std::atomic<unsigned long>& m_destroyedOn;
};

TEST(ThreadLifecycle, SelfDeletingThreadFreesItsObjectOnItsOwnThreadWhileJoined) {
    std::minstd_rand random(std::random_device{}());
    for (int i = 0; i < 50; ++i) {
        Release toEnd;
        std::atomic<unsigned long> destroyedOn{0};
        SelfDeleting* thread = new SelfDeleting(toEnd, destroyedOn);
        thread->start();
        const unsigned long id = thread->getId();
        std::atomic<bool> joining{false}, joined{false};
        std::thread joiner([&] {
            joining.store(true);
            thread->join();
            joined.store(true);
        });
        mwtest::eventually([&] { return joining.load(); });
        volatile unsigned spin = 0;
        for (unsigned n = random() % 4096; n > 0; --n) spin = spin + 1;
        toEnd.open();
        joinOrAbort(joiner, joined, "the joiner of a self-deleting thread");
        EXPECT_TRUE(mwtest::eventually([&] { return destroyedOn.load() != 0; }));
        EXPECT_EQ(id, destroyedOn.load());
    }
}

// Ownership is recorded by serial, not address: a lock left held by an ended owner is not owned by
// a new object built at the very same address.
TEST(ThreadLifecycle, LockLeftByAnEndedOwnerIsNotOwnedByANewObjectAtItsAddress) {
    Lock lock;
    alignas(Thread) unsigned char storage[sizeof(Thread)];
    Task takeAndEnd([&] { lock.lock(); });
    Thread* first = new (storage) Thread(&takeAndEnd, "first owner");
    first->start();
    first->join();
    EXPECT_EQ(first, lock.getOwner());
    first->~Thread();
    EXPECT_EQ(nullptr, lock.getOwner());

    std::atomic<int> ownerSigns{-1};
    Task probe([&] {
        int signs = lock.isHeldByCurrentThread();
        signs += lock.tryLock();
        signs += !throwsWith<mw::IllegalMonitorStateException>([&] { lock.unlock(); }, "");
        signs += lock.getOwner() != nullptr;
        ownerSigns.store(signs + static_cast<int>(lock.getHoldCount()));
    });
    Thread* second = new (storage) Thread(&probe, "second");
    ASSERT_EQ(static_cast<void*>(first), static_cast<void*>(second));
    second->start();
    second->join();
    EXPECT_EQ(0, ownerSigns.load()) << "the new object passed for the owner";
    second->~Thread();
    EXPECT_TRUE(lock.isLocked());
}

// Other threads call everything callable on another thread's object while that thread is
// interrupted out of its wait, ends and frees its object. The memory is scribbled over and held
// back for a few more rounds of calls: a call without a pin reads garbage and crashes, one that
// touches what the destructor freed shows under AddressSanitizer, one that blocks it hangs.
class FreedUnderCalls : public Thread {
public:
    explicit FreedUnderCalls(mw::Lock& wall) : Thread(true, "freed under calls"), m_wall(wall) {}
    void run() override {
        mwtest::interruptedOut([this] {
            m_wall.lockInterruptibly();
            m_wall.unlock();
        });
    }
    static void* operator new(std::size_t size) { return ::operator new(size); }
    static void operator delete(void* memory, std::size_t size) {
        volatile unsigned char* bytes = static_cast<unsigned char*>(memory);
        for (std::size_t i = 0; i < size; ++i) bytes[i] = 0xCC;
        long rounds = s_rounds.load() + 4;
        bool called = mwtest::eventually([&] { return s_rounds.load() >= rounds; }, seconds(60));
        s_freeing.store(true);
        if (!called || !mwtest::eventually([] { return s_callers.load() == 0; }, seconds(60))) {
            std::fputs("callers of a destroyed thread did not go on or stop; aborting\n", stderr);
            std::abort();
        }
        ::operator delete(memory);
    }

    static std::atomic<bool> s_freeing;
    static std::atomic<int> s_callers;
    static std::atomic<long> s_rounds;

private:
    mw::Lock& m_wall;
};

std::atomic<bool> FreedUnderCalls::s_freeing{false};
std::atomic<int> FreedUnderCalls::s_callers{0};
std::atomic<long> FreedUnderCalls::s_rounds{0};

// The calls go on past the destructor, which the sanitizer's dynamic-type check would flag. Only
// the ender calls isAlive, and only before its interrupt: isAlive reads the object before any pin.
__attribute__((no_sanitize("vptr"))) void callUntilFreed(Thread* thread, int interruptAt) {
    for (int n = 0; !FreedUnderCalls::s_freeing.load(); ++n) {
        thread->getState();
        thread->isInterrupted();
        thread->getPriority();
        try {
            thread->setPriority(0);
        } catch (const mw::ThreadStateException&) {
        }
        thread->join(1);
        if (interruptAt >= 0 && n < interruptAt) thread->isAlive();
        if (interruptAt >= 0 && n >= interruptAt) thread->interrupt();
        FreedUnderCalls::s_rounds.fetch_add(1);
    }
    FreedUnderCalls::s_callers.fetch_sub(1);
}

TEST(ThreadLifecycle, CallsOnAThreadThatIsFreeingItsObjectAreSafe) {
    Lock wall;
    wall.lock();
    std::minstd_rand random(std::random_device{}());
    for (int i = 0; i < 50; ++i) {
        FreedUnderCalls::s_freeing.store(false);
        FreedUnderCalls::s_callers.store(2);
        Thread* thread = new FreedUnderCalls(wall);
        thread->start();
        std::thread ender(callUntilFreed, thread, static_cast<int>(random() % 8)),
            watcher(callUntilFreed, thread, -1);
        ender.join();
        watcher.join();
    }
    wall.unlock();
}

// ---- thread-local values and the thread's end --------------------------------------------------

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
