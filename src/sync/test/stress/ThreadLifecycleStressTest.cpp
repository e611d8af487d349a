// Short-lived threads (self-deleting, owned, adopted) block once, are interrupted, signalled,
// notified or time out, and end at once while others inspect them: a call racing with the end that
// frees the object fails under AddressSanitizer, a lost wake-up stalls the run. Only a thread that
// nothing but its interrupt ends is interrupted; an owned one is inspected only while it is kept.
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

// Threads blocked or ending at once; the queues never hold more than these and the helpers.
const int MAX_LIVE = 8;
const long long HOUR_NS = 3600LL * 1000 * 1000000;

// Where a victim waits: a lock, a condition or a monitor, timed (odd) or not (even). The first
// three are left only by an interrupt; the others by acquiring, a signal, a notification or a
// time-out.
enum Primitive { GATE, DEAF, CELL, BUSY, BELL, ROOM, PRIMITIVES };

bool onlyAnInterruptEnds(int wait) { return wait / 2 < BUSY; }

enum Carrier { SELF_DELETING, OWNED, ADOPTED, CARRIERS };

struct Hold {
    explicit Hold(mw::detail::TLockSync& sync) : sync(sync) { sync.lock(); }
    ~Hold() { sync.release(1); }
    mw::detail::TLockSync& sync;
};

// An owned object that the inspector may call. [W1] The inspector counts itself in before it reads
// the pointer, [W2] the owner withdraws the pointer before it counts (both seq_cst): either the
// inspector reads null, or the owner sees it counted and waits for it to leave.
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
    const mw::detail::TLockSync* const locks[2] = {&gate, &busy};
    const Thread* gateHolder = nullptr;
    std::atomic<bool> gateHeld{false};

    std::atomic<bool> stop{false};
    std::atomic<int> live{0}, interruptOnly{0}, sent{0}, sentWhileParked{0}, caught{0};
    std::atomic<int> unexpected{0}, badReads{0}, startFailures{0};
    std::atomic<int> selfDeletingMade{0}, selfDeletingFreed{0};
    // Threads that only an interrupt ends, posted by themselves, taken by the interrupter.
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

// One wait of the given kind; an interrupt-only wait that returns otherwise, or any failure of
// one that ends by itself, is unexpected.
void waitOnce(Scene& scene, int wait, unsigned seed) {
    if (onlyAnInterruptEnds(wait)) post(scene, Thread::currentThread());
    const int primitive = wait / 2;
    const bool timed = wait % 2 != 0;
    const long long nanos = onlyAnInterruptEnds(wait) ? HOUR_NS : seed % 2000000;
    try {
        if (primitive == GATE || primitive == BUSY) {
            mw::detail::TLockSync& sync =
                primitive == GATE ? static_cast<mw::detail::TLockSync&>(scene.gate) : scene.busy;
            if (!timed) sync.acquireInterruptibly(1);
            if (!timed || sync.tryAcquireNanos(1, nanos)) sync.release(1);
        } else if (primitive == DEAF || primitive == BELL) {
            Hold hold(scene.busy);
            ConditionObject& condition = primitive == DEAF ? *scene.deaf : *scene.bell;
            timed ? static_cast<void>(condition.awaitNanos(nanos)) : condition.await();
        } else {
            mw::Object& monitor = primitive == CELL ? scene.cell : scene.room;
            mw::Guard guard(monitor);
            monitor.wait(timed ? 1 + nanos / 1000000 : 0, 0);
        }
        if (onlyAnInterruptEnds(wait)) scene.unexpected.fetch_add(1);
    } catch (const mw::InterruptedException&) {
        (onlyAnInterruptEnds(wait) ? scene.caught : scene.unexpected).fetch_add(1);
    } catch (...) {
        scene.unexpected.fetch_add(1);
    }
}

// Waits once, then leaves the live count; done tells the reaper that its thread may be joined.
struct Victim : mw::Runnable {
    Victim(Scene& scene, int wait, unsigned seed) : scene(scene), wait(wait), seed(seed) {}
    void run() override {
        waitOnce(scene, wait, seed);
        scene.live.fetch_sub(1);
        done.store(true);
    }
    Scene& scene;
    const int wait;
    const unsigned seed;
    std::atomic<bool> done{false};
    std::unique_ptr<Thread> owned;  // an owned victim's; an adopted one runs on a std::thread
    Watched* watched = nullptr;
    std::thread adopted;
};

class SelfDeletingVictim : public Thread {
public:
    SelfDeletingVictim(Scene& scene, int wait, unsigned seed)
        : Thread(true, "self-deleting victim"), m_victim(scene, wait, seed) {}
    ~SelfDeletingVictim() override { m_victim.scene.selfDeletingFreed.fetch_add(1); }
    void run() override { m_victim.run(); }

private:
    Victim m_victim;
};

// A stall is a thread that its wake-up never reached: it can be neither joined nor left behind.
template <typename Predicate>
void awaitOrAbort(const Scene& scene, const char* what, Predicate predicate) {
    if (mwtest::eventually(predicate, seconds(120) * mwtest::stressScale())) return;
    std::fprintf(stderr, "ThreadLifecycleStress: %s stalled (live %d, sent %d, caught %d)\n", what,
                 scene.live.load(), scene.sent.load(), scene.caught.load());
    std::abort();
}

// Interrupts each posted thread exactly once, mostly once it shows a park, else at once.
void interruptPosted(Scene& scene, unsigned seed) {
    std::minstd_rand random(seed);
    while (!scene.stop.load()) {
        for (std::atomic<const Thread*>& slot : scene.mailbox) {
            const Thread* thread = slot.load();
            if (thread == nullptr) continue;
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
        std::this_thread::yield();
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

// Makes every inspecting call, and counts the answers that no moment of the run explains: a queue
// longer than its possible waiters, a state outside the enum, the gate owned by another than its
// holder (who stops counting as held before it lets go).
void inspect(Scene& scene) {
    while (!scene.stop.load()) {
        for (const mw::detail::TLockSync* sync : scene.locks) {
            // Every inspection runs (no short-circuit): each must be safe mid-change.
            bool any = sync->hasQueuedThreads();
            any = sync->hasContended() || any;
            any = sync->isLocked() || any;
            any = sync->getOwner() != nullptr || any;
            static_cast<void>(any);
            scene.badReads += sync->getQueueLength() > MAX_LIVE + 2u;
            const Thread* first = sync->getFirstQueuedThread();
            if (first != nullptr) sync->isQueued(first);
        }
        const Thread* owner = scene.gate.getOwner();
        scene.badReads += owner != scene.gateHolder && scene.gateHeld.load();
        for (Watched& watched : scene.watched) {
            watched.users.fetch_add(1);  // [W1] pairs with [W2]
            const Thread* thread = watched.thread.load();
            if (thread != nullptr) {
                const Thread::State state = thread->getState();
                scene.badReads += state != Thread::NEW && state != Thread::RUNNING &&
                                  state != Thread::PARKED && state != Thread::TIMED_PARKED &&
                                  state != Thread::TERMINATED;
                bool seen = thread->isAlive();
                seen = thread->isInterrupted() || seen;
                seen = thread->getPriority() != 0 || seen;
                seen = scene.gate.isQueued(thread) || seen;
                seen = scene.busy.isQueued(thread) || seen;
                static_cast<void>(seen);
            }
            watched.users.fetch_sub(1);
        }
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
    awaitOrAbort(scene, "an inspection", [&] { return watched->users.load() == 0; });
}

class Spawner {
public:
    Spawner(Scene& scene, unsigned seed) : m_scene(scene), m_random(seed) {}

    void spawn() {
        const int wait = static_cast<int>(m_random() % (2 * PRIMITIVES));
        const unsigned seed = static_cast<unsigned>(m_random());
        const int carrier = static_cast<int>(m_random() % CARRIERS);
        m_scene.live.fetch_add(1);
        if (carrier == SELF_DELETING) {
            m_scene.selfDeletingMade.fetch_add(1);
            Thread* thread = new SelfDeletingVictim(m_scene, wait, seed);
            if (!started(*thread, wait)) delete thread;  // else it may be gone already
            return;
        }
        std::unique_ptr<Victim> victim(new Victim(m_scene, wait, seed));
        if (carrier == ADOPTED) {
            victim->adopted = std::thread([v = victim.get()] { v->run(); });
            m_scene.interruptOnly += onlyAnInterruptEnds(wait);
        } else {
            victim->owned.reset(new Thread(victim.get(), "owned victim"));
            victim->watched = watch(m_scene, victim->owned.get());
            if (!started(*victim->owned, wait)) return unwatch(m_scene, victim->watched);
        }
        m_victims.push_back(std::move(victim));
    }

    // Joins and frees the victims whose wait is over.
    void reap(bool all) {
        for (std::size_t i = m_victims.size(); i-- > 0;) {
            Victim& victim = *m_victims[i];
            if (!all && !victim.done.load()) continue;
            unwatch(m_scene, victim.watched);
            if (victim.owned) victim.owned->join();
            if (victim.adopted.joinable()) victim.adopted.join();
            m_victims.erase(m_victims.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }

private:
    // A victim that never ran leaves the live count; one that runs joins the interrupt-only count
    // if that is its kind.
    bool started(Thread& thread, int wait) {
        try {
            thread.start();
        } catch (const mw::Exception&) {
            m_scene.startFailures.fetch_add(1);
            m_scene.live.fetch_sub(1);
            return false;
        }
        m_scene.interruptOnly += onlyAnInterruptEnds(wait);
        return true;
    }

    Scene& m_scene;
    std::minstd_rand m_random;
    std::vector<std::unique_ptr<Victim>> m_victims;
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
            awaitOrAbort(scene, "a victim", [&] { return scene.live.load() < MAX_LIVE; });
            spawner.spawn();
            spawner.reap(false);
        }
        awaitOrAbort(scene, "the last victims", [&] { return scene.live.load() == 0; });
        spawner.reap(true);
        awaitOrAbort(scene, "a self-deleting victim's end", [&] {
            return scene.selfDeletingFreed.load() == scene.selfDeletingMade.load();
        });
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
    EXPECT_EQ(0, scene.badReads.load());

    for (const mw::detail::TLockSync* sync : scene.locks) {
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

// With memory and threads to spare, start never fails, also when the new thread queues on the
// object's monitor while the starter is still filling in the object's identity.
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
