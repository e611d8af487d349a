// The life of a Thread object: start and its handshake, the states it reports, join, priority,
// terminate, the end of a thread that frees its own object, and what other threads may still do
// with an object whose thread is ending.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

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

class Body : public mw::Runnable {
public:
    explicit Body(std::function<void()> body) : m_body(std::move(body)) {}
    void run() override { m_body(); }

private:
    std::function<void()> m_body;
};

// Holds a thread, running (it polls, it does not park), until opened. It gives up by itself after
// a minute, so that a check that fails to open it cannot hang the run.
class Release {
public:
    void open() { m_open.store(true); }
    void await() const {
        mwtest::eventually([this] { return m_open.load(); }, seconds(60));
    }

private:
    std::atomic<bool> m_open{false};
};

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// The library throws inside itself; the test catches by type and checks the description.
template <typename E, typename Call>
void expectRefusal(Call call, const char* description) {
    try {
        call();
        ADD_FAILURE() << "no refusal: " << description;
    } catch (const E& e) {
        EXPECT_TRUE(endsWith(e.what(), std::string(", Description: ") + description)) << e.what();
    }
}

void expectAlreadyStarted(Thread& thread) {
    expectRefusal<mw::ThreadStateException>([&] { thread.start(); }, "Thread already started");
}

void expectNoPriority(Thread& thread) {
    expectRefusal<mw::ThreadStateException>([&] { thread.setPriority(0); },
                                            "could not set priority");
    EXPECT_EQ(PRIORITY_ERROR, thread.getPriority());
}

template <typename Call>
milliseconds timed(Call call) {
    return std::chrono::duration_cast<milliseconds>(mwtest::elapsed(call));
}

// A thread that should end at once but is still running after a generous deadline can be neither
// joined nor left behind: the process ends with a message.
void joinOrAbort(std::thread& thread, const std::atomic<bool>& done, const char* what) {
    if (!mwtest::eventually([&] { return done.load(); }, seconds(60))) {
        std::fprintf(stderr, "%s did not return; aborting\n", what);
        std::abort();
    }
    thread.join();
}

TEST(ThreadLifecycle, NeverStartedObjectHasNoThreadToReportWaitForOrPrioritise) {
    Thread idle;
    EXPECT_EQ(Thread::TERMINATED, idle.getState());
    EXPECT_FALSE(idle.isAlive());
    EXPECT_EQ(0u, idle.getId());
    EXPECT_LT(timed([&] { idle.join(); }), seconds(10));
    EXPECT_LT(timed([&] { idle.join(60000); }), seconds(10));
    expectNoPriority(idle);
}

// The state follows the thread: RUNNING from the return of start, PARKED while it waits for a lock,
// TIMED_PARKED in a timed condition wait, RUNNING again, and TERMINATED for good once it ended.
// Inside run, currentThread is the started object, with the OS's id of the thread.
TEST(ThreadLifecycle, StateFollowsTheThreadFromStartToItsEnd) {
    Lock lock;
    std::unique_ptr<mw::Condition> condition(lock.newCondition());
    Release toLock, toEnd;
    std::atomic<const Thread*> current{nullptr};
    std::atomic<unsigned long> idInside{0};
    std::string nameInside;
    Body body([&] {
        nameInside = Thread::currentThread()->getName();
        idInside.store(osThreadId());
        current.store(Thread::currentThread());
        toLock.await();
        lock.lock();
        lock.unlock();
        lock.lock();
        condition->awaitNanos(60 * 1000000000LL);
        lock.unlock();
        toEnd.await();
    });
    Thread thread(&body, "lifecycle");
    lock.lock();
    thread.start();
    EXPECT_EQ(Thread::RUNNING, thread.getState());
    EXPECT_TRUE(thread.isAlive());
    ASSERT_TRUE(mwtest::eventually([&] { return current.load() != nullptr; }));
    EXPECT_EQ(&thread, current.load());
    EXPECT_EQ(idInside.load(), thread.getId());
    EXPECT_NE(0u, thread.getId());
    EXPECT_EQ("lifecycle", nameInside);
    expectAlreadyStarted(thread);

    toLock.open();
    EXPECT_TRUE(mwtest::eventually([&] { return thread.getState() == Thread::PARKED; }));
    lock.unlock();
    EXPECT_TRUE(mwtest::eventually([&] { return thread.getState() == Thread::TIMED_PARKED; }));
    EXPECT_TRUE(thread.isAlive());
    lock.lock();
    condition->signal();
    lock.unlock();
    EXPECT_TRUE(mwtest::eventually([&] { return thread.getState() == Thread::RUNNING; }));

    toEnd.open();
    thread.join();
    EXPECT_EQ(Thread::TERMINATED, thread.getState());
    EXPECT_FALSE(thread.isAlive());
    EXPECT_LT(timed([&] { thread.join(); }), seconds(10));
    expectAlreadyStarted(thread);
    EXPECT_EQ(Thread::TERMINATED, thread.getState());
}

// start returns only once the new thread has stored RUNNING, so it never reports NEW; a thread
// without a target runs nothing and ends.
TEST(ThreadLifecycle, StartReturnsOnlyOnceTheNewThreadHasLeftNew) {
    std::atomic<int> runs{0};
    Body count([&] { runs.fetch_add(1); });
    const int starts = 100;
    for (int i = 0; i < starts; ++i) {
        Thread thread(i % 10 == 0 ? nullptr : &count);
        thread.start();
        Thread::State state = thread.getState();
        EXPECT_TRUE(state == Thread::RUNNING || state == Thread::TERMINATED) << state;
        thread.join();
        EXPECT_EQ(Thread::TERMINATED, thread.getState());
    }
    EXPECT_EQ(starts - starts / 10, runs.load());
}

// Of two starts at once, one makes the thread and the other is refused: one object never gets
// two OS threads.
TEST(ThreadLifecycle, ConcurrentStartsMakeOneThread) {
    for (int i = 0; i < 100; ++i) {
        std::atomic<int> runs{0}, started{0}, refused{0};
        Body count([&] { runs.fetch_add(1); });
        Thread thread(&count);
        mwtest::Latch line(2);
        auto starter = [&] {
            line.arriveAndWait();
            try {
                thread.start();
                started.fetch_add(1);
            } catch (const mw::ThreadStateException& e) {
                if (endsWith(e.what(), ", Description: Thread already started")) {
                    refused.fetch_add(1);
                }
            }
        };
        std::thread first(starter), second(starter);
        first.join();
        second.join();
        thread.join();
        EXPECT_EQ(1, started.load());
        EXPECT_EQ(1, refused.load());
        EXPECT_EQ(1, runs.load());
    }
}

// An adopted object cannot be started, and a join that would wait for the calling thread itself
// returns at once: on the caller's adopted object, and on another thread's adopted object, whose
// handle means "the calling thread" too.
TEST(ThreadLifecycle, AdoptedObjectIsNeverStartedNorWaitedFor) {
    Release toEnd;
    mwtest::WorkerThread worker([&] {
        EXPECT_LT(timed([] { Thread::currentThread()->join(20000); }), seconds(10));
        toEnd.await();
    });
    Thread* adopted = const_cast<Thread*>(worker.self());
    expectAlreadyStarted(*adopted);
    EXPECT_LT(timed([&] { adopted->join(20000); }), seconds(10));
    EXPECT_LT(timed([] { Thread::currentThread()->join(20000); }), seconds(10));
    EXPECT_EQ(Thread::RUNNING, adopted->getState());
    toEnd.open();
}

// A started thread that joins its own object would wait for itself as well, and returns at once.
TEST(ThreadLifecycle, StartedThreadJoiningItselfReturnsAtOnce) {
    milliseconds selfJoin(0);
    Body joinsItself([&] { selfJoin = timed([] { Thread::currentThread()->join(20000); }); });
    Thread started(&joinsItself);
    started.start();
    started.join();
    EXPECT_LT(selfJoin, seconds(10));
}

// Whatever leaves run is dropped: the thread ends in good order (its thread-local values are
// cleaned), join returns, and the process goes on.
TEST(ThreadLifecycle, RunThatThrowsEndsTheThreadInGoodOrder) {
    std::function<void()> throwers[] = {
        [] { throw std::runtime_error("run failed"); },
        [] { throw mw::InterruptedException("file", "function", 1, ""); },
        [] { throw 42; },
    };
    for (const std::function<void()>& thrower : throwers) {
        mw::TlsPtr<std::function<void()>, mwtest::RunWhenCleaned> local;
        std::atomic<bool> cleaned{false};
        Body body([&] {
            local.set(new std::function<void()>([&] { cleaned.store(true); }));
            thrower();
        });
        Thread thread(&body);
        thread.start();
        thread.join();
        EXPECT_EQ(Thread::TERMINATED, thread.getState());
        EXPECT_TRUE(cleaned.load());
    }
}

// A positive limit is waited in full while the thread outlives it; only its low 32 bits count, so
// 2^32 ms is a wait of 0 and 2^32 + 120 ms one of 120 ms. join(0) returns only after the thread's
// whole end, and a limited join returns by the end of a thread that ends first.
TEST(ThreadLifecycle, JoinWaitsItsFullLimitOrTheEndOfTheThread) {
    Release toEnd;
    std::atomic<bool> ended{false};
    Body body([&] {
        toEnd.await();
        ended.store(true);
    });
    Thread thread(&body);
    thread.start();
    EXPECT_GE(timed([&] { thread.join(150); }), milliseconds(150));
    EXPECT_TRUE(thread.isAlive());
    EXPECT_LT(timed([&] { thread.join(4294967296LL); }), seconds(10));
    EXPECT_GE(timed([&] { thread.join(4294967296LL + 120); }), milliseconds(120));
    EXPECT_TRUE(thread.isAlive());

    std::atomic<bool> joining{false};
    std::thread opener([&] {
        mwtest::eventually([&] { return joining.load(); });
        toEnd.open();
    });
    joining.store(true);
    thread.join();
    EXPECT_TRUE(ended.load());
    EXPECT_EQ(Thread::TERMINATED, thread.getState());
    opener.join();

    Release toEndEarly;
    Body shortBody([&] { toEndEarly.await(); });
    Thread early(&shortBody);
    early.start();
    std::thread earlyOpener([&] { toEndEarly.open(); });
    EXPECT_LT(timed([&] { early.join(60000); }), seconds(30));
    EXPECT_FALSE(early.isAlive());
    earlyOpener.join();
}

#ifdef _WIN32

// Win32 thread priorities, unmapped.
TEST(ThreadLifecycle, PriorityIsTheOsOwnNumber) {
    Thread idle;
    expectNoPriority(idle);
    Release toEnd;
    Body body([&] { toEnd.await(); });
    Thread thread(&body);
    thread.start();
    const int priorities[] = {THREAD_PRIORITY_LOWEST, THREAD_PRIORITY_BELOW_NORMAL,
                              THREAD_PRIORITY_NORMAL, THREAD_PRIORITY_ABOVE_NORMAL,
                              THREAD_PRIORITY_HIGHEST};
    for (int priority : priorities) {
        thread.setPriority(priority);
        EXPECT_EQ(priority, thread.getPriority());
    }
    expectRefusal<mw::ThreadStateException>([&] { thread.setPriority(100); },
                                            "could not set priority");
    EXPECT_EQ(THREAD_PRIORITY_HIGHEST, thread.getPriority());
    toEnd.open();
    thread.join();
}

#else

int niceOf(unsigned long tid) {
    errno = 0;
    int value = getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
    return errno == 0 ? value : PRIORITY_ERROR;
}

// The nice value of the thread's own kernel thread, -20 to 19: what is set is what the kernel
// reports for that thread. A value outside the range, or a thread that has ended, is refused.
TEST(ThreadLifecycle, PriorityIsTheOsOwnNumber) {
    Thread idle;
    expectNoPriority(idle);
    Release toEnd;
    Body body([&] { toEnd.await(); });
    Thread thread(&body);
    thread.start();
    thread.setPriority(5);
    EXPECT_EQ(5, thread.getPriority());
    EXPECT_EQ(5, niceOf(thread.getId()));
    if (geteuid() == 0) {
        thread.setPriority(-3);
        EXPECT_EQ(-3, thread.getPriority());
        EXPECT_EQ(-3, niceOf(thread.getId()));
    }
    int before = thread.getPriority();
    for (int outOfRange : {20, -21, 100}) {
        expectRefusal<mw::ThreadStateException>([&] { thread.setPriority(outOfRange); },
                                                "could not set priority");
    }
    EXPECT_EQ(before, thread.getPriority());
    toEnd.open();
    thread.join();
    expectNoPriority(thread);

    mwtest::onFreshThread([] {
        Thread* self = const_cast<Thread*>(Thread::currentThread());
        self->setPriority(7);
        EXPECT_EQ(7, self->getPriority());
        EXPECT_EQ(7, niceOf(osThreadId()));
    });
}

#endif

#ifdef _WIN32

// A killed thread dies wherever it stands. Here it stands in a loop of calls on another thread's
// object, which pins that object: once it is killed nothing it held may keep that object's
// destructor, or the making of new objects, waiting. The kill lands at a random point of the loop.
TEST(ThreadLifecycle, TerminateKillsTheThreadWhereverItStands) {
    Thread idle;
    idle.terminate();
    EXPECT_EQ(Thread::TERMINATED, idle.getState());
    std::minstd_rand random(std::random_device{}());
    for (int round = 0; round < 20; ++round) {
        Release toEnd;
        Body spins([&] { toEnd.await(); });
        Thread* other = new Thread(&spins);
        other->start();
        std::atomic<long> calls{0};
        Body callsOnOther([&] {
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
        EXPECT_LT(timed([&] { killed->join(); }), seconds(10));
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

// A thread killed while it waits gives its node up: the owner may delete the object (the thread
// being gone) without a later release or signal reading it, and the waiters queued behind it are
// not held up, also in a fair lock, which would otherwise wait for the dead first waiter for
// ever. The storage is scribbled over after the destruction, as a reuse of the memory would, so
// that a read of it shows as a crash.
TEST(ThreadLifecycle, ObjectOfAThreadKilledWhileQueuedCanBeDeleted) {
    mw::ReentrantLock<mw::FairLockPolicy> lock;
    mw::Object monitor;
    lock.lock();
    Body locks([&] {
        lock.lock();
        lock.unlock();
    });
    Body waits([&] {
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
    EXPECT_EQ(Thread::TERMINATED, behind.getState()) << "the waiter behind the dead one got the lock";
    EXPECT_TRUE(lock.tryLock());
    lock.unlock();
    mw::Guard guard(monitor);
    monitor.notifyAll();
}

#else

// Linux cannot kill a thread where it stands: terminate is refused and changes nothing.
TEST(ThreadLifecycle, TerminateIsRefusedAndChangesNothing) {
    Thread idle;
    EXPECT_THROW(idle.terminate(), mw::UnsupportedOperationException);
    Release toEnd;
    Body body([&] { toEnd.await(); });
    Thread thread(&body);
    thread.start();
    EXPECT_THROW(thread.terminate(), mw::UnsupportedOperationException);
    EXPECT_EQ(Thread::RUNNING, thread.getState());
    EXPECT_TRUE(thread.isAlive());
    EXPECT_GE(timed([&] { thread.join(50); }), milliseconds(50));
    thread.setPriority(1);
    EXPECT_EQ(1, thread.getPriority());
    toEnd.open();
    thread.join();
    EXPECT_EQ(Thread::TERMINATED, thread.getState());
}

#endif

// A thread started from an object with autoDelete frees it on its own thread as the last thing it
// does. A joiner pins the object only to copy its handle, so the object can go while the joiner
// waits; the joiner comes free at the thread's end wherever the end lands in its join.
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

// Lock ownership is recorded by the owner's serial, not its address: a thread that ended holding
// a lock leaves it held by a dead owner, and a new object built at the very same address neither
// holds it nor passes for its owner.
TEST(ThreadLifecycle, LockLeftByAnEndedOwnerIsNotOwnedByANewObjectAtItsAddress) {
    Lock lock;
    alignas(Thread) unsigned char storage[sizeof(Thread)];
    Body takeAndEnd([&] { lock.lock(); });
    Thread* first = new (storage) Thread(&takeAndEnd, "first owner");
    first->start();
    first->join();
    EXPECT_TRUE(lock.isLocked());
    EXPECT_EQ(first, lock.getOwner());
    first->~Thread();
    EXPECT_EQ(nullptr, lock.getOwner());

    std::atomic<bool> held{true}, taken{true}, unlockRefused{false};
    std::atomic<const Thread*> ownerSeen{first};
    std::atomic<unsigned long long> holdCount{1};
    Body probe([&] {
        held.store(lock.isHeldByCurrentThread());
        taken.store(lock.tryLock());
        try {
            lock.unlock();
        } catch (const mw::IllegalMonitorStateException&) {
            unlockRefused.store(true);
        }
        ownerSeen.store(lock.getOwner());
        holdCount.store(lock.getHoldCount());
    });
    Thread* second = new (storage) Thread(&probe, "second");
    ASSERT_EQ(static_cast<void*>(first), static_cast<void*>(second));
    second->start();
    second->join();
    EXPECT_FALSE(held.load());
    EXPECT_FALSE(taken.load());
    EXPECT_TRUE(unlockRefused.load());
    EXPECT_EQ(nullptr, ownerSeen.load());
    EXPECT_EQ(0u, holdCount.load());
    second->~Thread();
    EXPECT_TRUE(lock.isLocked());
}

// Other threads call everything that may be called on another thread's object while that thread
// is interrupted out of its wait, ends and frees its object. Every such operation pins the object
// before it reads any of it, and a call that finds the object gone (past the withdrawal at the
// start of its destructor) acts as on an ended thread without touching it. From the outside a
// call that lands in the destructor cannot be told from one that lands just after it, so the
// memory is held back and scribbled over once the object is destroyed, and the callers go on for
// a few rounds on it before it is given back: a call that read the object without a pin reads
// garbage and crashes; one that touches what the destructor freed (the parker, the park event)
// shows under AddressSanitizer; one that keeps the destructor waiting hangs.
class FreedUnderCalls : public Thread {
public:
    explicit FreedUnderCalls(mw::Lock& wall) : Thread(true, "freed under calls"), m_wall(wall) {}
    void run() override {
        try {
            m_wall.lockInterruptibly();
            m_wall.unlock();
        } catch (const mw::InterruptedException&) {
        }
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

// The calls go on after the Thread destructor, which is the point; the sanitizer's dynamic-type
// check would flag each such call before the library runs, so it is off here. Only the caller that
// ends the thread calls isAlive, and only before its interrupt: isAlive reaches getState by a
// member call before any pin, which is sound on an object in its destructor but not past it.
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

}  // namespace
