// Many short-lived threads block once on a lock, a condition or a monitor, are interrupted,
// signalled, notified or time out, and end at once, while other threads inspect the queues and
// the threads. Some are started from objects that free themselves at their end, some from objects
// that their owner joins and deletes, some are std::threads that the library adopts.
//
// The race hunted is the one between a call on a thread's object from another thread, above all
// the interrupt that ends its wait, and that thread's end, which frees the object at once. Calls
// are made only where the contract allows them: the interrupter interrupts only a thread that
// nothing but its interrupt can end, so that thread is alive until the call; the inspector calls
// an owned object only while its owner keeps it. A call that touched a freed object, parker or
// park event fails under AddressSanitizer; a lost wake-up leaves a thread blocked and the run
// stalls until its deadline.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mw::Thread;
using std::chrono::seconds;

typedef mw::AbstractQueuedSynchronizer::ConditionObject ConditionObject;

// Threads that are blocked or ending at once; the queues never hold more than these and the few
// helpers.
const int MAX_LIVE = 8;
const long long HOUR_MS = 3600LL * 1000;
const long long HOUR_NS = HOUR_MS * 1000000;

enum Wait {
    // Left only by an interrupt: the thread is alive until it has been interrupted.
    GATE_LOCK,
    GATE_TIMED_LOCK,
    DEAF_AWAIT,
    DEAF_AWAIT_NANOS,
    CELL_WAIT,
    CELL_TIMED_WAIT,
    // Left by themselves: by acquiring, by a signal or a notification, or by a time-out.
    BUSY_TIMED_LOCK,
    BUSY_LOCK,
    BELL_AWAIT,
    BELL_AWAIT_NANOS,
    ROOM_WAIT,
    ROOM_TIMED_WAIT,
    WAITS
};

bool onlyAnInterruptEnds(int wait) { return wait <= CELL_TIMED_WAIT; }

enum Carrier { SELF_DELETING, OWNED, ADOPTED, CARRIERS };

class Hold {
public:
    explicit Hold(mw::detail::TLockSync& sync) : m_sync(sync) { m_sync.lock(); }
    ~Hold() { m_sync.release(1); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

private:
    mw::detail::TLockSync& m_sync;
};

// An owned object that the inspector may call. [W1] The inspector counts itself in before it
// reads the pointer, and [W2] the owner withdraws the pointer before it counts the inspectors
// (all sequentially consistent): either the inspector reads null, or the owner sees it counted
// and waits for it to leave before the object may go.
struct Watched {
    std::atomic<const Thread*> thread{nullptr};
    std::atomic<int> users{0};
};

// The primitives, and the run's bookkeeping.
struct Scene {
    mw::NonFairLockPolicy gate;  // held by the test's thread for the whole run
    mw::FairLockPolicy busy;
    std::unique_ptr<ConditionObject> bell{busy.newCondition()};  // signalled
    std::unique_ptr<ConditionObject> deaf{busy.newCondition()};  // never signalled
    mw::Object room;                                             // notified
    mw::Object cell;                                             // never notified
    const Thread* gateHolder = nullptr;
    std::atomic<bool> gateHeld{false};

    std::atomic<bool> stop{false};
    std::atomic<int> live{0}, interruptOnly{0}, sent{0}, sentWhileParked{0}, caught{0};
    std::atomic<int> unexpected{0};
    std::atomic<int> selfDeletingMade{0}, selfDeletingFreed{0};
    std::atomic<int> wrongOwner{0}, queueTooLong{0}, badState{0}, startFailures{0};
    // Threads that only an interrupt ends, posted by themselves, taken by the interrupter alone.
    std::atomic<const Thread*> mailbox[MAX_LIVE] = {};
    Watched watched[2 * MAX_LIVE];
};

void post(Scene& scene, const Thread* self) {
    for (;;) {
        for (std::atomic<const Thread*>& slot : scene.mailbox) {
            const Thread* empty = nullptr;
            if (slot.compare_exchange_strong(empty, self)) return;
        }
        std::this_thread::yield();
    }
}

// One wait of the given kind. A wait that only an interrupt ends and that returns otherwise, and
// any failure of a wait that ends by itself, counts as unexpected.
void waitOnce(Scene& scene, int wait, unsigned seed) {
    if (onlyAnInterruptEnds(wait)) post(scene, Thread::currentThread());
    try {
        switch (wait) {
            case GATE_LOCK:
                scene.gate.acquireInterruptibly(1);
                scene.gate.release(1);
                break;
            case GATE_TIMED_LOCK:
                if (scene.gate.tryAcquireNanos(1, HOUR_NS)) scene.gate.release(1);
                break;
            case DEAF_AWAIT: {
                Hold hold(scene.busy);
                scene.deaf->await();
                break;
            }
            case DEAF_AWAIT_NANOS: {
                Hold hold(scene.busy);
                scene.deaf->awaitNanos(HOUR_NS);
                break;
            }
            case CELL_WAIT: {
                mw::Guard guard(scene.cell);
                scene.cell.wait(0, 0);
                break;
            }
            case CELL_TIMED_WAIT: {
                mw::Guard guard(scene.cell);
                scene.cell.wait(HOUR_MS, 0);
                break;
            }
            case BUSY_TIMED_LOCK:
                if (scene.busy.tryAcquireNanos(1, (seed % 2000) * 1000LL)) scene.busy.release(1);
                break;
            case BUSY_LOCK: {
                Hold hold(scene.busy);
                break;
            }
            case BELL_AWAIT: {
                Hold hold(scene.busy);
                scene.bell->await();
                break;
            }
            case BELL_AWAIT_NANOS: {
                Hold hold(scene.busy);
                scene.bell->awaitNanos(seed % 2000000);
                break;
            }
            case ROOM_WAIT: {
                mw::Guard guard(scene.room);
                scene.room.wait(0, 0);
                break;
            }
            default: {
                mw::Guard guard(scene.room);
                scene.room.wait(1 + seed % 2, 0);
                break;
            }
        }
        if (onlyAnInterruptEnds(wait)) scene.unexpected.fetch_add(1);
    } catch (const mw::InterruptedException&) {
        (onlyAnInterruptEnds(wait) ? scene.caught : scene.unexpected).fetch_add(1);
    } catch (...) {
        scene.unexpected.fetch_add(1);
    }
}

class SelfDeletingVictim : public Thread {
public:
    SelfDeletingVictim(Scene& scene, int wait, unsigned seed)
        : Thread(true, "self-deleting victim"), m_scene(scene), m_wait(wait), m_seed(seed) {}
    ~SelfDeletingVictim() override { m_scene.selfDeletingFreed.fetch_add(1); }
    void run() override {
        waitOnce(m_scene, m_wait, m_seed);
        m_scene.live.fetch_sub(1);
    }

private:
    Scene& m_scene;
    const int m_wait;
    const unsigned m_seed;
};

struct VictimTask : mw::Runnable {
    VictimTask(Scene& scene, int wait, unsigned seed) : scene(scene), wait(wait), seed(seed) {}
    void run() override {
        waitOnce(scene, wait, seed);
        scene.live.fetch_sub(1);
        done.store(true);
    }
    Scene& scene;
    const int wait;
    const unsigned seed;
    std::atomic<bool> done{false};
};

struct OwnedVictim {
    std::unique_ptr<VictimTask> task;
    std::unique_ptr<Thread> thread;
    Watched* watched;
};

struct AdoptedVictim {
    std::unique_ptr<VictimTask> task;
    std::thread thread;
};

// A stall here is a thread that its wake-up never reached. Such a thread can be neither joined nor
// left behind, so the process ends with the run's counts.
template <typename Predicate>
void awaitOrAbort(const Scene& scene, Predicate predicate, const char* what) {
    if (mwtest::eventually(predicate, seconds(120) * mwtest::stressScale())) return;
    std::fprintf(stderr,
                 "ThreadLifecycleStress: %s stalled (live %d, interrupt-only %d, sent %d, "
                 "caught %d); aborting\n",
                 what, scene.live.load(), scene.interruptOnly.load(), scene.sent.load(),
                 scene.caught.load());
    std::abort();
}

// Interrupts each posted thread exactly once, mostly once it shows a park, else at once.
void interruptPosted(Scene& scene, unsigned seed) {
    std::minstd_rand random(seed);
    while (!scene.stop.load()) {
        bool any = false;
        for (std::atomic<const Thread*>& slot : scene.mailbox) {
            const Thread* thread = slot.load();
            if (thread == nullptr) continue;
            any = true;
            bool parked = false;
            for (int poll = random() % 4 == 0 ? 0 : 1000; poll > 0 && !parked; --poll) {
                Thread::State state = thread->getState();
                parked = state == Thread::PARKED || state == Thread::TIMED_PARKED;
                if (!parked) std::this_thread::yield();
            }
            slot.store(nullptr);
            thread->interrupt();
            scene.sent.fetch_add(1);
            if (parked) scene.sentWhileParked.fetch_add(1);
        }
        if (!any) std::this_thread::yield();
    }
}

void signalAndNotify(Scene& scene, unsigned seed) {
    std::minstd_rand random(seed);
    while (!scene.stop.load()) {
        {
            Hold hold(scene.busy);
            if (scene.busy.hasWaiters(scene.bell.get())) {
                random() % 4 == 0 ? scene.bell->broadcast() : scene.bell->signal();
            }
        }
        {
            mw::Guard guard(scene.room);
            random() % 4 == 0 ? scene.room.notifyAll() : scene.room.notify();
        }
        std::this_thread::yield();
    }
}

void inspectQueue(Scene& scene, const mw::detail::TLockSync& sync) {
    sync.hasQueuedThreads();
    sync.hasContended();
    if (sync.getQueueLength() > static_cast<unsigned long long>(MAX_LIVE) + 2) {
        scene.queueTooLong.fetch_add(1);
    }
    const Thread* first = sync.getFirstQueuedThread();
    if (first != nullptr) sync.isQueued(first);
    sync.getOwner();
    sync.isLocked();
}

void inspectWatched(Scene& scene, Watched& watched) {
    watched.users.fetch_add(1);  // [W1] pairs with [W2]
    const Thread* thread = watched.thread.load();
    if (thread != nullptr) {
        Thread::State state = thread->getState();
        if (state != Thread::NEW && state != Thread::RUNNING && state != Thread::PARKED &&
            state != Thread::TIMED_PARKED && state != Thread::TERMINATED) {
            scene.badState.fetch_add(1);
        }
        thread->isAlive();
        thread->isInterrupted();
        thread->getPriority();
        scene.gate.isQueued(thread);
        scene.busy.isQueued(thread);
    }
    watched.users.fetch_sub(1);
}

void inspect(Scene& scene) {
    while (!scene.stop.load()) {
        inspectQueue(scene, scene.gate);
        inspectQueue(scene, scene.busy);
        // The holder stops counting as held before it lets go.
        const Thread* owner = scene.gate.getOwner();
        if (owner != scene.gateHolder && scene.gateHeld.load()) scene.wrongOwner.fetch_add(1);
        for (Watched& watched : scene.watched) inspectWatched(scene, watched);
        std::this_thread::yield();
    }
}

Watched* watch(Scene& scene, const Thread* thread) {
    for (Watched& watched : scene.watched) {
        const Thread* empty = nullptr;
        if (watched.thread.compare_exchange_strong(empty, thread)) return &watched;
    }
    return nullptr;
}

void unwatch(Scene& scene, Watched* watched) {
    if (watched == nullptr) return;
    watched->thread.store(nullptr);  // [W2] pairs with [W1]
    awaitOrAbort(
        scene, [&] { return watched->users.load() == 0; }, "an inspection");
}

class Spawner {
public:
    Spawner(Scene& scene, unsigned seed) : m_scene(scene), m_random(seed) {}

    void spawn() {
        int wait = static_cast<int>(m_random() % WAITS);
        unsigned seed = static_cast<unsigned>(m_random());
        if (onlyAnInterruptEnds(wait)) m_scene.interruptOnly.fetch_add(1);
        m_scene.live.fetch_add(1);
        switch (m_random() % CARRIERS) {
            case SELF_DELETING: {
                m_scene.selfDeletingMade.fetch_add(1);
                // The object may be gone as soon as start has returned.
                Thread* thread = new SelfDeletingVictim(m_scene, wait, seed);
                if (!started(*thread, wait)) delete thread;
                break;
            }
            case OWNED: {
                OwnedVictim victim;
                victim.task.reset(new VictimTask(m_scene, wait, seed));
                victim.thread.reset(new Thread(victim.task.get(), "owned victim"));
                victim.watched = watch(m_scene, victim.thread.get());
                if (started(*victim.thread, wait)) {
                    m_owned.push_back(std::move(victim));
                } else {
                    unwatch(m_scene, victim.watched);
                }
                break;
            }
            default: {
                AdoptedVictim victim;
                victim.task.reset(new VictimTask(m_scene, wait, seed));
                VictimTask* task = victim.task.get();
                victim.thread = std::thread([task] { task->run(); });
                m_adopted.push_back(std::move(victim));
                break;
            }
        }
    }

    // Joins and frees the victims whose wait is over.
    void reap(bool all) {
        for (auto it = m_owned.begin(); it != m_owned.end();) {
            if (!all && !it->task->done.load()) {
                ++it;
                continue;
            }
            unwatch(m_scene, it->watched);
            it->thread->join();
            it = m_owned.erase(it);
        }
        for (auto it = m_adopted.begin(); it != m_adopted.end();) {
            if (!all && !it->task->done.load()) {
                ++it;
                continue;
            }
            it->thread.join();
            it = m_adopted.erase(it);
        }
    }

private:
    // A start that fails is counted, and its victim, which never ran, taken off the counts.
    bool started(Thread& thread, int wait) {
        try {
            thread.start();
            return true;
        } catch (const mw::Exception&) {
            m_scene.startFailures.fetch_add(1);
            if (onlyAnInterruptEnds(wait)) m_scene.interruptOnly.fetch_sub(1);
            m_scene.live.fetch_sub(1);
            return false;
        }
    }

    Scene& m_scene;
    std::minstd_rand m_random;
    std::vector<OwnedVictim> m_owned;
    std::vector<AdoptedVictim> m_adopted;
};

TEST(ThreadLifecycleStress, ShortLivedThreadsEndingUnderInterruptsSignalsAndInspection) {
    const int victims = 2000 * mwtest::stressScale();
    const auto budget = std::chrono::steady_clock::now() + seconds(30) * mwtest::stressScale();
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    Scene scene;
    scene.gate.lock();
    scene.gateHolder = Thread::currentThread();
    scene.gateHeld.store(true);
    int made = 0;
    {
        mwtest::WorkerThread interrupter([&] { interruptPosted(scene, seed + 1); });
        mwtest::WorkerThread signaller([&] { signalAndNotify(scene, seed + 2); });
        mwtest::WorkerThread inspector([&] { inspect(scene); });
        Spawner spawner(scene, seed);
        for (; made < victims && std::chrono::steady_clock::now() < budget; ++made) {
            awaitOrAbort(
                scene, [&] { return scene.live.load() < MAX_LIVE; }, "a victim");
            spawner.spawn();
            spawner.reap(false);
        }
        awaitOrAbort(
            scene, [&] { return scene.live.load() == 0; }, "the last victims");
        spawner.reap(true);
        awaitOrAbort(
            scene, [&] { return scene.selfDeletingFreed.load() == scene.selfDeletingMade.load(); },
            "a self-deleting victim's end");
        scene.stop.store(true);
    }
    scene.gateHeld.store(false);
    scene.gate.release(1);

    EXPECT_GT(made, 0);
    EXPECT_GT(scene.sentWhileParked.load(), 0) << "no interrupt found its thread parked";
    EXPECT_EQ(0, scene.startFailures.load());
    EXPECT_EQ(0, scene.unexpected.load());
    EXPECT_EQ(scene.interruptOnly.load(), scene.sent.load());
    EXPECT_EQ(scene.interruptOnly.load(), scene.caught.load());
    EXPECT_EQ(0, scene.wrongOwner.load());
    EXPECT_EQ(0, scene.queueTooLong.load());
    EXPECT_EQ(0, scene.badState.load());

    for (mw::detail::TLockSync* sync : {static_cast<mw::detail::TLockSync*>(&scene.gate),
                                        static_cast<mw::detail::TLockSync*>(&scene.busy)}) {
        EXPECT_FALSE(sync->isLocked());
        EXPECT_EQ(nullptr, sync->getOwner());
        EXPECT_FALSE(sync->hasQueuedThreads());
        EXPECT_EQ(0u, sync->getQueueLength());
        EXPECT_EQ(nullptr, sync->getFirstQueuedThread());
    }
    {
        Hold hold(scene.busy);
        EXPECT_FALSE(scene.busy.hasWaiters(scene.bell.get()));
        EXPECT_FALSE(scene.busy.hasWaiters(scene.deaf.get()));
        EXPECT_EQ(0u, scene.busy.getWaitQueueLength(scene.deaf.get()));
    }
    // The monitors are free: a fresh thread enters each at once.
    mwtest::WorkerThread entrant([&] {
        mw::Guard room(scene.room);
        mw::Guard cell(scene.cell);
    });
    EXPECT_TRUE(entrant.awaitFinished());
}

struct Count : mw::Runnable {
    void run() override { runs.fetch_add(1); }
    std::atomic<int> runs{0};
};

// With memory and threads to spare, start never fails. The new thread often queues on the
// object's monitor, and parks there, while the starter is still filling in the object's identity
// before it waits; whatever the new thread checks about itself then must already hold.
TEST(ThreadLifecycleStress, StartNeverFailsWithoutACause) {
    const int starts = 20000 * mwtest::stressScale();
    const auto budget = std::chrono::steady_clock::now() + seconds(20) * mwtest::stressScale();
    Count count;
    int made = 0, failures = 0;
    std::string firstFailure;
    for (; made < starts && std::chrono::steady_clock::now() < budget; ++made) {
        Thread thread(&count);
        try {
            thread.start();
        } catch (const mw::Exception& e) {
            if (failures++ == 0) firstFailure = e.what();
        }
        thread.join();
    }
    EXPECT_EQ(0, failures) << "of " << made << " starts; the first: " << firstFailure;
    EXPECT_EQ(made - failures, count.runs.load());
}

}  // namespace
