// Thread dumps, deadlock detection and contention statistics, against threads blocked in every
// kind of wait the library has. Each blocked thread is released at the end of its case, so that
// no case leaves a thread behind.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "concurrent/Concurrent.h"

namespace {

using mw::ThreadSnapshot;
using mwtest::eventually;
typedef mw::ReentrantLock<mw::NonFairLockPolicy> Lock;

unsigned long long serialOf(const mw::Thread& thread) { return thread.getSerial(); }

unsigned long long mySerial() { return mw::Thread::currentThread()->getSerial(); }

// The snapshot of thread once a dump shows it waiting on kind in state (a thread shows its wait
// from just before it parks); fails the case if none does.
ThreadSnapshot awaitWait(const mw::Thread& thread, ThreadSnapshot::WaitKind kind,
                         mw::Thread::State state = mw::Thread::PARKED) {
    ThreadSnapshot seen;
    const bool shown = eventually([&] {
        const mw::ThreadDump dump = mw::ThreadDump::take();
        const ThreadSnapshot* line = dump.find(thread.getSerial());
        if (line == nullptr || line->waitKind != kind || line->state != state) return false;
        seen = *line;
        return true;
    });
    EXPECT_TRUE(shown) << "never seen waiting on " << ThreadSnapshot::kindName(kind) << ":\n"
                       << mw::ThreadDump::take().toString();
    return seen;
}

int waitersOn(const void* object) {
    int count = 0;
    const mw::ThreadDump dump = mw::ThreadDump::take();
    for (const ThreadSnapshot& line : dump.threads()) {
        if (line.waitsOn == object) ++count;
    }
    return count;
}

// A started thread that runs body and is joined by the destructor.
class Waiter {
public:
    Waiter(std::function<void()> body, const std::string& name) : m_thread(body, name) {
        m_thread.start();
    }
    ~Waiter() { m_thread.join(); }
    mw::Thread& thread() { return m_thread; }

private:
    mw::Thread m_thread;
};

struct ExpectedWait {
    const char* what;
    ThreadSnapshot::WaitKind kind;
    mw::Thread::State state;
    const void* object;
    std::string name;
    unsigned long long owner;
};

void expectWait(const ExpectedWait& expected, const ThreadSnapshot& line) {
    SCOPED_TRACE(expected.what);
    EXPECT_EQ(expected.kind, line.waitKind);
    EXPECT_EQ(expected.state, line.state);
    EXPECT_EQ(expected.object, line.waitsOn);
    EXPECT_EQ(expected.name, line.waitsOnName);
    EXPECT_EQ(expected.owner, line.ownerSerial);
    EXPECT_GE(line.waitedNanos, 0);
}

TEST(ThreadDump, ShowsWhatEachKindOfWaitWaitsOnAndWhoHoldsIt) {
    Lock lock;
    lock.setDiagnosticName("lock");
    mw::Object monitor;
    monitor.setDiagnosticName("monitor");
    mw::ReadWriteLock rw;
    rw.setDiagnosticName("rw");
    mw::Semaphore semaphore(0);
    semaphore.setDiagnosticName("semaphore");
    mw::CountDownLatch latch(1);
    latch.setDiagnosticName("latch");
    std::unique_ptr<mw::Condition> condition(lock.newCondition());
    std::atomic<bool> released(false);

    lock.lock();
    Waiter onLock([&] { lock.lock(); lock.unlock(); }, "on-lock");
    expectWait({"lock", ThreadSnapshot::LOCK, mw::Thread::PARKED, &lock, "lock", mySerial()},
               awaitWait(onLock.thread(), ThreadSnapshot::LOCK));
    lock.unlock();

    std::unique_ptr<mw::Guard> entered(new mw::Guard(&monitor));
    Waiter onMonitor([&] { mw::Guard inner(&monitor); }, "on-monitor");
    expectWait({"monitor", ThreadSnapshot::MONITOR_ENTER, mw::Thread::PARKED, &monitor, "monitor",
                mySerial()},
               awaitWait(onMonitor.thread(), ThreadSnapshot::MONITOR_ENTER));
    entered.reset();

    Waiter inWait([&] {
        mw::Guard guard(&monitor);
        monitor.wait([&] { return released.load(); });
    }, "in-wait");
    expectWait({"monitor wait", ThreadSnapshot::MONITOR_WAIT, mw::Thread::PARKED, &monitor,
                "monitor", 0},
               awaitWait(inWait.thread(), ThreadSnapshot::MONITOR_WAIT));

    Waiter onCondition([&] {
        lock.lock();
        while (!released.load()) condition->await();
        lock.unlock();
    }, "on-condition");
    expectWait({"condition", ThreadSnapshot::CONDITION, mw::Thread::PARKED, condition.get(), "lock",
                0},
               awaitWait(onCondition.thread(), ThreadSnapshot::CONDITION));

    rw.writeLock().lock();
    Waiter onRead([&] { rw.readLock().lock(); rw.readLock().unlock(); }, "on-read");
    expectWait({"read lock", ThreadSnapshot::READ_LOCK, mw::Thread::PARKED, &rw, "rw", mySerial()},
               awaitWait(onRead.thread(), ThreadSnapshot::READ_LOCK));
    rw.writeLock().unlock();
    rw.readLock().lock();
    Waiter onWrite([&] { rw.writeLock().lock(); rw.writeLock().unlock(); }, "on-write");
    // Readers share the lock: no one owns it.
    expectWait({"write lock", ThreadSnapshot::WRITE_LOCK, mw::Thread::PARKED, &rw, "rw", 0},
               awaitWait(onWrite.thread(), ThreadSnapshot::WRITE_LOCK));
    rw.readLock().unlock();

    Waiter onSemaphore([&] { semaphore.acquire(2); }, "on-semaphore");
    expectWait({"semaphore", ThreadSnapshot::SEMAPHORE, mw::Thread::PARKED, &semaphore,
                "semaphore", 0},
               awaitWait(onSemaphore.thread(), ThreadSnapshot::SEMAPHORE));
    semaphore.release(2);

    Waiter onLatch([&] { latch.await(); }, "on-latch");
    expectWait({"latch", ThreadSnapshot::LATCH, mw::Thread::PARKED, &latch, "latch", 0},
               awaitWait(onLatch.thread(), ThreadSnapshot::LATCH));
    // A join keeps the joining thread RUNNING and names its target.
    Waiter inJoin([&] { onLatch.thread().join(); }, "in-join");
    expectWait({"join", ThreadSnapshot::JOIN, mw::Thread::RUNNING, &onLatch.thread(), "on-latch",
                serialOf(onLatch.thread())},
               awaitWait(inJoin.thread(), ThreadSnapshot::JOIN, mw::Thread::RUNNING));
    latch.countDown();

    Waiter inSleep([&] {
        while (!released.load()) mw::Thread::sleep(20);
    }, "in-sleep");
    expectWait({"sleep", ThreadSnapshot::SLEEP, mw::Thread::RUNNING, nullptr, "", 0},
               awaitWait(inSleep.thread(), ThreadSnapshot::SLEEP, mw::Thread::RUNNING));

    released = true;
    lock.lock();
    condition->broadcast();
    lock.unlock();
    {
        mw::Guard guard(&monitor);
        monitor.notifyAll();
    }
}

TEST(ThreadDump, TextAndGraphFollowTheDocumentedFormat) {
    Lock lock;
    lock.setDiagnosticName("say \"hi\"");
    lock.lock();
    Waiter waiter([&] { lock.lock(); lock.unlock(); }, "waiter");
    awaitWait(waiter.thread(), ThreadSnapshot::LOCK);
    const mw::ThreadDump dump = mw::ThreadDump::take();
    const std::string text = dump.toString();
    lock.unlock();

    EXPECT_EQ(0u, text.find("Thread dump: " + std::to_string(dump.threads().size()) +
                            " threads\n"));
    std::ostringstream address;
    address << "0x" << std::hex << reinterpret_cast<std::uintptr_t>(&lock);
    const mw::Thread& self = *mw::Thread::currentThread();
    const std::string waiterLines =
        "\"waiter\" #" + std::to_string(waiter.thread().getSerial()) +
        " id=" + std::to_string(waiter.thread().getId()) + " PARKED\n" + "    waits on lock " +
        address.str() + " \"say \\\"hi\\\"\", held by \"" + self.getName() + "\" #" +
        std::to_string(self.getSerial()) + ", for ";
    const std::size_t at = text.find(waiterLines);
    ASSERT_NE(std::string::npos, at) << waiterLines << "\nin\n" << text;
    const std::string time = text.substr(at + waiterLines.size());
    const std::size_t point = time.find('.');
    ASSERT_NE(std::string::npos, point) << text;
    EXPECT_EQ(" ms\n", time.substr(point + 4, 4)) << text;
    EXPECT_EQ(std::string::npos, time.substr(0, point + 4).find_first_not_of("0123456789."));

    const std::string dot = dump.toDot();
    EXPECT_EQ(0u, dot.find("digraph waits {"));
    EXPECT_NE(std::string::npos, dot.find("label=\"waits on\""));
    EXPECT_NE(std::string::npos, dot.find("label=\"held by\""));
}

TEST(ThreadDump, ListsEveryThreadFromAdoptionToItsEnd) {
    std::atomic<unsigned long long> adopted(0);
    std::atomic<bool> done(false);
    std::thread foreign([&] {
        adopted = mw::Thread::currentThread()->getSerial();
        while (!done.load()) std::this_thread::yield();
    });
    ASSERT_TRUE(eventually([&] { return adopted.load() != 0; }));
    EXPECT_NE(nullptr, mw::ThreadDump::take().find(adopted));
    done = true;
    foreign.join();
    EXPECT_TRUE(eventually([&] { return mw::ThreadDump::take().find(adopted) == nullptr; }));
}

// lockInterruptibly in every cycle, so that one interrupt ends it.
void lockBoth(Lock& first, Lock& second, mw::CountDownLatch& holding) {
    first.lockInterruptibly();
    holding.countDown();
    try {
        holding.await();
        second.lockInterruptibly();
        second.unlock();
    } catch (const mw::InterruptedException&) {
    }
    first.unlock();
}

std::vector<mw::DeadlockCycle> awaitDeadlocks() {
    std::vector<mw::DeadlockCycle> cycles;
    EXPECT_TRUE(eventually([&] {
        cycles = mw::DeadlockDetector::findDeadlocks();
        return !cycles.empty();
    }));
    return cycles;
}

TEST(DeadlockDetector, FindsTwoLocksTakenInOppositeOrder) {
    Lock a;
    Lock b;
    mw::CountDownLatch holding(2);
    Waiter first([&] { lockBoth(a, b, holding); }, "first");
    Waiter second([&] { lockBoth(b, a, holding); }, "second");
    const std::vector<mw::DeadlockCycle> cycles = awaitDeadlocks();
    ASSERT_EQ(1u, cycles.size());
    const mw::DeadlockCycle& cycle = cycles[0];
    ASSERT_EQ(2u, cycle.threads.size());
    EXPECT_EQ(first.thread().getSerial(), cycle.threads[0].serial);  // smallest serial first
    EXPECT_EQ(&b, cycle.threads[0].waitsOn);
    EXPECT_EQ(second.thread().getSerial(), cycle.threads[0].ownerSerial);
    EXPECT_EQ(&a, cycle.threads[1].waitsOn);
    EXPECT_EQ(first.thread().getSerial(), cycle.threads[1].ownerSerial);
    EXPECT_EQ(0u, mw::DeadlockDetector::toString(cycles).find("Deadlock of 2 threads:\n"));
    EXPECT_NE(std::string::npos, mw::ThreadDump::take().toDot(cycles).find("color=red"));

    first.thread().interrupt();
    first.thread().join();
    second.thread().join();
    EXPECT_TRUE(mw::DeadlockDetector::findDeadlocks().empty());
}

// Three threads in a ring through a lock, a monitor and a join; an idle fourth is left out.
TEST(DeadlockDetector, FindsAThreeThreadRingThroughLockMonitorAndJoin) {
    Lock lock;
    mw::Object monitor;
    mw::CountDownLatch holding(2);
    std::unique_ptr<Waiter> third;
    // first holds the monitor and waits on the lock; second holds the lock and joins third;
    // third waits to enter the monitor.
    Waiter first([&] {
        mw::Guard guard(&monitor);
        holding.countDown();
        holding.await();
        try {
            lock.lockInterruptibly();
            lock.unlock();
        } catch (const mw::InterruptedException&) {
        }
    }, "first");
    Waiter second([&] {
        lock.lock();
        holding.countDown();
        holding.await();
        third.reset(new Waiter([&] { mw::Guard guard(&monitor); }, "third"));
        third->thread().join();
        lock.unlock();
    }, "second");
    const std::vector<mw::DeadlockCycle> cycles = awaitDeadlocks();
    ASSERT_EQ(1u, cycles.size());
    ASSERT_EQ(3u, cycles[0].threads.size());
    const ThreadSnapshot::WaitKind kinds[] = {ThreadSnapshot::LOCK, ThreadSnapshot::JOIN,
                                              ThreadSnapshot::MONITOR_ENTER};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(kinds[i], cycles[0].threads[i].waitKind) << cycles[0].toString();
        EXPECT_EQ(cycles[0].threads[(i + 1) % 3].serial, cycles[0].threads[i].ownerSerial);
    }
    first.thread().interrupt();
    first.thread().join();
    second.thread().join();
    third.reset();
}

TEST(DeadlockDetector, ReportsNoChainAndNoMonitorWaitAsADeadlock) {
    // A chain: each thread waits on the lock that the next one holds; the last waits on a latch.
    const int length = 5;
    std::vector<std::unique_ptr<Lock>> locks;
    for (int i = 0; i < length; ++i) locks.emplace_back(new Lock);
    mw::CountDownLatch holding(length);
    mw::CountDownLatch end(1);
    std::vector<std::unique_ptr<Waiter>> chain;
    for (int i = 0; i < length; ++i) {
        chain.emplace_back(new Waiter([&, i] {
            locks[i]->lock();
            holding.countDown();
            holding.await();
            if (i + 1 < length) {
                locks[i + 1]->lock();
                locks[i + 1]->unlock();
            } else {
                end.await();
            }
            locks[i]->unlock();
        }, "chain-" + std::to_string(i)));
    }
    for (int i = 0; i + 1 < length; ++i) awaitWait(chain[i]->thread(), ThreadSnapshot::LOCK);

    // A monitor wait holds nothing it waits for: a waiter that holds a lock while it waits in the
    // monitor, and a thread inside the monitor that waits on that lock, are no cycle.
    Lock held;
    mw::Object monitor;
    std::atomic<bool> notified(false);
    Waiter inWait([&] {
        held.lock();
        {
            mw::Guard guard(&monitor);
            monitor.wait([&] { return notified.load(); });
        }
        held.unlock();
    }, "in-wait");
    awaitWait(inWait.thread(), ThreadSnapshot::MONITOR_WAIT);
    Waiter inMonitor([&] {
        mw::Guard guard(&monitor);
        try {
            held.lockInterruptibly();
            held.unlock();
        } catch (const mw::InterruptedException&) {
        }
    }, "in-monitor");
    awaitWait(inMonitor.thread(), ThreadSnapshot::LOCK);

    // A lock left held by a thread that has ended: its waiter waits for nobody in the dump.
    Lock abandoned;
    std::unique_ptr<Waiter> leaver(new Waiter([&] { abandoned.lock(); }, "leaver"));
    const unsigned long long leaverSerial = leaver->thread().getSerial();
    leaver.reset();  // joined and freed: no longer in any dump
    Waiter onAbandoned([&] {
        EXPECT_THROW(abandoned.lockInterruptibly(), mw::InterruptedException);
    }, "on-abandoned");
    const ThreadSnapshot orphan = awaitWait(onAbandoned.thread(), ThreadSnapshot::LOCK);
    EXPECT_EQ(leaverSerial, orphan.ownerSerial);
    EXPECT_NE(std::string::npos,
              orphan.toString().find(", held by #" + std::to_string(orphan.ownerSerial) + ","));

    EXPECT_TRUE(mw::DeadlockDetector::findDeadlocks().empty())
        << mw::ThreadDump::take().toString();
    onAbandoned.thread().interrupt();
    EXPECT_EQ("No deadlock found.\n", mw::DeadlockDetector::toString({}));

    inMonitor.thread().interrupt();
    inMonitor.thread().join();
    {
        mw::Guard guard(&monitor);
        notified = true;
        monitor.notifyAll();
    }
    end.countDown();
}

TEST(ContentionStatistics, CountsOnlyWaitsThatQueued) {
    Lock lock;
    lock.lock();
    lock.unlock();
    EXPECT_EQ(0u, lock.getContentionStatistics().contendedAcquisitions);

    const int waiters = 3;
    lock.lock();
    std::vector<std::unique_ptr<Waiter>> threads;
    for (int i = 0; i < waiters; ++i) {
        threads.emplace_back(new Waiter([&] { lock.lock(); lock.unlock(); }, "waiter"));
    }
    ASSERT_TRUE(eventually([&] { return waitersOn(&lock) == waiters; }));
    Waiter timesOut([&] { EXPECT_FALSE(lock.tryLock(1, mw::TimeUnit::MILLISECONDS())); }, "timed");
    timesOut.thread().join();
    Waiter interrupted([&] {
        EXPECT_THROW(lock.lockInterruptibly(), mw::InterruptedException);
    }, "interrupted");
    ASSERT_TRUE(eventually([&] { return waitersOn(&lock) == waiters + 1; }));
    interrupted.thread().interrupt();
    interrupted.thread().join();
    lock.unlock();
    threads.clear();

    const mw::ContentionStatistics statistics = lock.getContentionStatistics();
    EXPECT_EQ(static_cast<unsigned long long>(waiters), statistics.contendedAcquisitions);
    EXPECT_EQ(2u, statistics.cancelledWaits);
    EXPECT_EQ(static_cast<unsigned long long>(waiters + 1), statistics.maxQueueLength);
    EXPECT_GT(statistics.maxWaitNanos, 0);
    EXPECT_GE(statistics.totalWaitNanos, statistics.maxWaitNanos);
}

TEST(DiagnosticName, IsTheMonitorsOwnAndIsCut) {
    mw::Thread thread(nullptr, "thread name");
    thread.setDiagnosticName("its monitor");
    EXPECT_STREQ("thread name", thread.getName());
    EXPECT_EQ("its monitor", thread.getDiagnosticName());

    mw::Semaphore semaphore(1);
    EXPECT_EQ("", semaphore.getDiagnosticName());
    semaphore.setDiagnosticName(std::string(100, 'x'));
    EXPECT_EQ(std::string(63, 'x'), semaphore.getDiagnosticName());
}

}  // namespace
