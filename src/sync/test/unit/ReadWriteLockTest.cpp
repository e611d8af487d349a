// ReadWriteLock: sharing and exclusion, re-entry, downgrade and the refused upgrade, the write
// side's conditions, writers among readers, interrupts and time-outs in the queue, the standard
// wrappers and their time conversions, misuse, and the per-thread read-hold tables.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <vector>

#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mwtest::eventually;
using mwtest::throwsWith;
using mwtest::WorkerThread;
using std::chrono::milliseconds;
typedef mw::detail::ReadWriteLockSync Sync;
typedef mw::IllegalMonitorStateException IMSE;
typedef std::unique_ptr<WorkerThread> Worker;

const char* const READ_NOT_HELD = "read lock not held by the calling thread";
const char* const WRITE_NOT_HELD = "write lock not held by the calling thread";
const char* const UPGRADE =
    "read lock held by the calling thread: it cannot take the write lock without releasing its "
    "read holds first";

const mw::TimeUnit& SECONDS() { return mw::TimeUnit::SECONDS(); }

// A worker whose body blocks on the lock; returns once it is parked there.
Worker queued(std::function<void()> body) {
    Worker worker(new WorkerThread(body));
    EXPECT_TRUE(worker->awaitParked());
    return worker;
}

struct ReadWriteLockTest : testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Fairness, ReadWriteLockTest, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) {
                             return info.param ? "Fair" : "NonFair";
                         });

// ---- sharing, re-entry, downgrade, upgrade ------------------------------------------------------

// Each reader stays inside until it has seen the other inside too, which only overlapping holds
// allow; then a writer keeps out readers and writers alike.
TEST_P(ReadWriteLockTest, ReadersOverlapAndAWriterExcludesEveryone) {
    mw::ReadWriteLock lock(GetParam());
    std::atomic<int> inside(0), overlapped(0);
    auto reader = [&] {
        lock.lock_shared();
        inside.fetch_add(1);
        if (eventually([&] { return inside.load() == 2; })) overlapped.fetch_add(1);
        lock.unlock_shared();
    };
    { WorkerThread a(reader), b(reader); }
    EXPECT_EQ(2, overlapped.load());
    lock.lock();
    EXPECT_EQ(mw::Thread::currentThread(), lock.getOwner());
    WorkerThread([&] {
        EXPECT_FALSE(lock.try_lock_shared());
        EXPECT_FALSE(lock.readLock().tryLock(0, SECONDS()));
        EXPECT_FALSE(lock.try_lock());
        EXPECT_TRUE(lock.isWriteLocked() && !lock.isWriteLockedByCurrentThread());
        EXPECT_EQ(0u, lock.getWriteHoldCount());
    }).join();
    lock.unlock();
    EXPECT_EQ(nullptr, lock.getOwner());
}

// The writer re-enters and takes read holds without giving way to a queued writer (which waits
// for it). Giving up the write lock then keeps the read holds and lets readers in, the queued
// one included, but no writer.
TEST_P(ReadWriteLockTest, WriterReentersAndDowngradesToItsReadHolds) {
    mw::ReadWriteLock lock(GetParam());
    lock.lock();
    Worker writer = queued([&] { std::lock_guard<mw::ReadWriteLock> scope(lock); });
    EXPECT_TRUE(lock.try_lock() && lock.writeLock().tryLock(0, SECONDS()));
    EXPECT_TRUE(lock.try_lock_shared_for(std::chrono::seconds(30)));
    EXPECT_EQ(3u, lock.getWriteHoldCount());
    for (int i = 0; i < 3; ++i) lock.unlock();
    lock.unlock_shared();
    ASSERT_TRUE(writer->awaitFinished());

    lock.lock();
    std::atomic<bool> readerIn(false);
    Worker reader = queued([&] {
        std::shared_lock<mw::ReadWriteLock> scope(lock);
        readerIn.store(true);
    });
    lock.lock_shared();
    lock.readLock().lock();
    lock.unlock();
    EXPECT_EQ(2u, lock.getReadHoldCount());
    EXPECT_TRUE(eventually([&] { return readerIn.load(); }));
    WorkerThread([&] { EXPECT_FALSE(lock.try_lock()); }).join();
    lock.unlock_shared();
    lock.readLock().unlock();
    EXPECT_EQ(0u, lock.getReadLockCount());
}

// A reader that asks for the write lock would wait for itself: every write form refuses it, and
// its read holds, the other reader's and the queue stay as they were. The forms that would wait
// come last, so that a missing refusal fails before it hangs.
TEST_P(ReadWriteLockTest, UpgradeIsRefusedByEveryWriteFormAndKeepsTheReadHolds) {
    mw::ReadWriteLock lock(GetParam());
    mw::Lock& w = lock.writeLock();
    const std::vector<std::function<void()>> forms = {
        [&] { lock.try_lock(); },
        [&] { w.tryLock(); },
        [&] { lock.try_lock_until(std::chrono::steady_clock::now()); },
        [&] { w.tryLock(1, SECONDS()); },
        [&] { lock.try_lock_for(std::chrono::seconds(1)); },
        [&] { w.lockInterruptibly(); },
        [&] { w.lock(); },
        [&] { lock.lock(); }};
    mwtest::Latch done(1);
    WorkerThread other([&] {
        std::shared_lock<mw::ReadWriteLock> scope(lock);
        done.wait();
    });
    ASSERT_TRUE(eventually([&] { return lock.getReadLockCount() == 1; }));
    lock.lock_shared();
    lock.lock_shared();
    for (std::size_t i = 0; i < forms.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_TRUE(throwsWith<IMSE>(forms[i], UPGRADE));
        EXPECT_EQ(2u, lock.getReadHoldCount());
        EXPECT_EQ(3u, lock.getReadLockCount());
        EXPECT_FALSE(lock.isWriteLocked() || lock.hasQueuedThreads());
    }
    done.countDown();
    lock.unlock_shared();
    lock.unlock_shared();
}

// Unlocking what one does not hold changes nothing, also while another thread holds; one hold
// beyond either count's 65535 is refused with nothing changed.
TEST(ReadWriteLock, MisuseIsRefusedAndChangesNothing) {
    mw::ReadWriteLock lock;
    EXPECT_TRUE(throwsWith<IMSE>([&] { lock.unlock(); }, WRITE_NOT_HELD));
    EXPECT_TRUE(throwsWith<IMSE>([&] { lock.unlock_shared(); }, READ_NOT_HELD));
    WorkerThread([&] { lock.lock_shared(); }).join();  // ends holding it: read-held for ever
    EXPECT_TRUE(throwsWith<IMSE>([&] { lock.readLock().unlock(); }, READ_NOT_HELD));
    EXPECT_TRUE(throwsWith<IMSE>([&] { lock.writeLock().unlock(); }, WRITE_NOT_HELD));
    EXPECT_EQ(1u, lock.getReadLockCount());
    EXPECT_FALSE(lock.try_lock());

    mw::ReadWriteLock full;
    const unsigned long long MAX = Sync::MAX_COUNT;
    for (unsigned long long i = 0; i < MAX; ++i) full.lock(), full.lock_shared();
    for (auto form : std::vector<std::function<void()>>{
             [&] { full.lock_shared(); }, [&] { full.try_lock_shared(); }, [&] { full.lock(); },
             [&] { full.try_lock(); }}) {
        EXPECT_TRUE(throwsWith<IMSE>(form, "Maximum lock count exceeded"));
    }
    EXPECT_EQ(MAX, full.getReadHoldCount());
    EXPECT_EQ(MAX, full.getReadLockCount());
    EXPECT_EQ(MAX, full.getWriteHoldCount());
    for (unsigned long long i = 0; i < MAX; ++i) full.unlock(), full.unlock_shared();
    EXPECT_FALSE(full.isWriteLocked());
}

// ---- conditions ---------------------------------------------------------------------------------

// A wait gives up two write holds and a read hold, so that another thread can write, and has all
// three back when the signal brings it out.
TEST_P(ReadWriteLockTest, WriteConditionWaitGivesUpEveryHoldAndTakesItBack) {
    mw::ReadWriteLock lock(GetParam());
    std::unique_ptr<mw::Condition> condition(lock.writeLock().newCondition());
    EXPECT_TRUE(throwsWith<mw::UnsupportedOperationException>(
        [&] { delete lock.readLock().newCondition(); }, "the read lock has no conditions"));
    EXPECT_TRUE(throwsWith<IMSE>([&] { condition->await(); }, ""));
    lock.lock();
    lock.lock();
    lock.lock_shared();
    std::atomic<unsigned long long> readersSeenByWriter(99);
    WorkerThread signaller([&] {
        std::lock_guard<mw::ReadWriteLock> scope(lock);
        readersSeenByWriter.store(lock.getReadLockCount());
        condition->signal();
    });
    EXPECT_TRUE(condition->await(30, SECONDS()));
    EXPECT_EQ(0u, readersSeenByWriter.load());
    EXPECT_EQ(2u, lock.getWriteHoldCount());
    EXPECT_EQ(1u, lock.getReadHoldCount());
    lock.unlock_shared();
    lock.unlock();
    lock.unlock();
}

// ---- writers among readers ----------------------------------------------------------------------

// Two readers pass the lock between them so that it is never free: each takes a new hold while
// the other still holds, and only then does the other let go. Once a writer queues, the next new
// reader must give way to it; the reader still inside lets go after a short patience, and the
// writer gets in. A reader that did not give way would keep the lock read-held for ever.
TEST_P(ReadWriteLockTest, QueuedWriterIsNotStarvedByAStreamOfReaders) {
    mw::ReadWriteLock lock(GetParam());
    std::atomic<long> turn(0);
    std::atomic<bool> stop(false), writerIn(false);
    auto reader = [&](long me) {
        bool holding = false;
        while (!stop.load()) {
            bool myTurn =
                eventually([&] { return stop.load() || turn.load() % 2 == me; }, milliseconds(20));
            if (holding) lock.unlock_shared();  // the other holds now, or ran out of patience
            holding = false;
            if (!myTurn || stop.load()) continue;
            lock.lock_shared();  // a new hold, while the other reader holds
            holding = true;
            turn.fetch_add(1);
        }
        if (holding) lock.unlock_shared();
    };
    WorkerThread first([&] { reader(0); }), second([&] { reader(1); });
    ASSERT_TRUE(eventually([&] { return turn.load() > 100; }));
    WorkerThread writer([&] {
        std::lock_guard<mw::ReadWriteLock> scope(lock);
        writerIn.store(true);
    });
    EXPECT_TRUE(eventually([&] { return writerIn.load(); }, std::chrono::seconds(20)));
    stop.store(true);
}

// A reader that holds already never waits for a queued writer (which waits for it). The
// interruptible forms come first, so that a wrong wait ends in an interrupt instead of a hang.
TEST_P(ReadWriteLockTest, ReaderReentersWhileAWriterIsQueued) {
    mw::ReadWriteLock lock(GetParam());
    mwtest::Latch go(1);
    std::atomic<unsigned long long> holds(0);
    WorkerThread reader([&] {
        lock.lock_shared();
        go.wait();
        try {
            lock.readLock().lockInterruptibly();
            lock.try_lock_shared_for(std::chrono::hours(1));
            lock.readLock().tryLock(1, SECONDS());
            lock.lock_shared();
        } catch (const mw::InterruptedException&) {
        }
        holds.store(lock.getReadHoldCount());
        while (lock.getReadHoldCount() > 0) lock.unlock_shared();
    });
    ASSERT_TRUE(eventually([&] { return lock.getReadLockCount() == 1; }));
    Worker writer = queued([&] { std::lock_guard<mw::ReadWriteLock> scope(lock); });
    go.countDown();
    if (!reader.awaitFinished()) reader.self()->interrupt();
    ASSERT_TRUE(writer->awaitFinished());
    EXPECT_EQ(5u, holds.load());
}

// A new reader queues behind a writer that stands first; when that writer gives up (interrupt,
// then time-out), the reader must be let in though the lock never became free. A time-out that
// ends before the reader has queued proves nothing, so that round runs again with a longer one.
TEST_P(ReadWriteLockTest, ReaderQueuedBehindAWriterThatGivesUpGetsIn) {
    mw::ReadWriteLock lock(GetParam());
    std::shared_lock<mw::ReadWriteLock> held(lock);
    bool timedOutWriterSeen = false;
    for (long patience : {0, 100, 400, 1600, 6400}) {
        SCOPED_TRACE(patience);
        WorkerThread writer([&] {
            try {
                if (patience == 0) lock.writeLock().lockInterruptibly();
                EXPECT_FALSE(patience == 0 || lock.try_lock_for(milliseconds(patience)));
            } catch (const mw::InterruptedException&) {
            }
        });
        ASSERT_TRUE(writer.awaitParked() || patience > 0);
        WorkerThread reader([&] { std::shared_lock<mw::ReadWriteLock> scope(lock); });
        bool queuedBehindWriter = reader.awaitParked();  // readers wait only for a queued writer
        if (patience == 0) writer.self()->interrupt();
        ASSERT_TRUE(writer.awaitFinished() && reader.awaitFinished());
        EXPECT_FALSE(lock.isWriteLocked());
        EXPECT_EQ(0u, lock.getQueueLength());
        ASSERT_TRUE(queuedBehindWriter || patience > 0);
        timedOutWriterSeen = patience > 0 && queuedBehindWriter;
        if (timedOutWriterSeen) break;
    }
    EXPECT_TRUE(timedOutWriterSeen);
}

// Queued writers and readers that are interrupted or run out of time leave; the one left is
// served, and the lock ends free with nobody queued.
TEST_P(ReadWriteLockTest, InterruptedAndTimedOutWaitersLeaveTheLockUsable) {
    mw::ReadWriteLock lock(GetParam());
    std::atomic<int> outcomes[3] = {{0}, {0}, {0}};  // interrupted, timed out, served
    auto waiter = [&](std::function<bool()> take, bool write) {
        return Worker(new WorkerThread([&, take, write] {
            try {
                bool served = take();
                outcomes[served ? 2 : 1].fetch_add(1);
                if (served && write) lock.unlock();
                if (served && !write) lock.unlock_shared();
            } catch (const mw::InterruptedException&) {
                outcomes[0].fetch_add(1);
            }
        }));
    };
    lock.lock();
    std::vector<Worker> waiters;
    waiters.push_back(waiter(
        [&] {
            lock.writeLock().lockInterruptibly();
            return true;
        },
        true));
    waiters.push_back(waiter(
        [&] {
            lock.readLock().lockInterruptibly();
            return true;
        },
        false));
    waiters.push_back(waiter([&] { return lock.try_lock_for(std::chrono::hours(1)); }, true));
    for (auto& w : waiters) ASSERT_TRUE(w->awaitParked());
    waiters.push_back(waiter([&] { return lock.try_lock_shared_for(milliseconds(30)); }, false));
    waiters.push_back(waiter([&] { return lock.writeLock().tryLock(0, SECONDS()); }, true));
    waiters[0]->self()->interrupt();
    waiters[1]->self()->interrupt();
    ASSERT_TRUE(eventually([&] { return outcomes[0].load() == 2 && outcomes[1].load() == 2; }));
    lock.unlock();
    for (auto& w : waiters) ASSERT_TRUE(w->awaitFinished());
    EXPECT_EQ(1, outcomes[2].load());
    EXPECT_EQ(0u, lock.getQueueLength());
    EXPECT_TRUE(lock.try_lock());
    lock.unlock();
}

// ---- the standard wrappers and their times ------------------------------------------------------

TEST_P(ReadWriteLockTest, StandardWrappersLockEachSideAndTimedOnesNeverEndEarly) {
    typedef std::shared_lock<mw::ReadWriteLock> Shared;
    typedef std::unique_lock<mw::ReadWriteLock> Unique;
    mw::ReadWriteLock lock(GetParam());
    {
        Shared shared(lock);
        WorkerThread([&] {
            EXPECT_TRUE(Shared(lock, std::try_to_lock).owns_lock());
            EXPECT_TRUE(Shared(lock, milliseconds(1)).owns_lock());
            EXPECT_FALSE(Unique(lock, std::try_to_lock).owns_lock());
            auto waited =
                mwtest::elapsed([&] { EXPECT_FALSE(Unique(lock, milliseconds(30)).owns_lock()); });
            EXPECT_GE(waited, milliseconds(30));
        }).join();
    }
    Unique exclusive(lock);
    WorkerThread([&] {
        EXPECT_FALSE(Shared(lock, std::try_to_lock).owns_lock());
        auto deadline = std::chrono::system_clock::now() + milliseconds(30);
        EXPECT_FALSE(lock.try_lock_shared_until(deadline));
        EXPECT_GE(std::chrono::system_clock::now(), deadline);
    }).join();
    exclusive.unlock();
    EXPECT_TRUE(lock.try_lock_until(std::chrono::steady_clock::time_point::max()));
    lock.unlock();
}

// A clock whose now() is fixed at 1.5 ns, finer than a nanosecond, and counted.
struct FixedClock {
    typedef std::chrono::duration<long long, std::pico> duration;
    typedef duration::rep rep;
    typedef duration::period period;
    typedef std::chrono::time_point<FixedClock> time_point;
    [[maybe_unused]] static const bool is_steady = true;
    static std::atomic<int> calls;
    static time_point now() {
        calls.fetch_add(1);
        return time_point(duration(1500));
    }
};
std::atomic<int> FixedClock::calls(0);

// A duration rounds up and saturates instead of overflowing; a deadline is taken against its own
// clock, read once, rounded up while the clock is rounded down.
TEST(ReadWriteLockTimes, DurationsRoundUpAndSaturate) {
    using mw::detail::nanosUntil;
    using mw::detail::timeoutNanos;
    using std::chrono::duration;
    typedef std::chrono::time_point<FixedClock, std::chrono::hours> CoarsePoint;
    const long long MAX = LLONG_MAX;
    const double INF = std::numeric_limits<double>::infinity();
    EXPECT_EQ(5, timeoutNanos(std::chrono::nanoseconds(5)));
    EXPECT_EQ(2000000, timeoutNanos(duration<int, std::milli>(2)));
    EXPECT_EQ(2, timeoutNanos(duration<long long, std::pico>(1001)));
    EXPECT_EQ(0, timeoutNanos(duration<long long, std::pico>(-1999)));
    EXPECT_EQ(MAX, timeoutNanos(std::chrono::hours::max()));
    EXPECT_EQ(0, timeoutNanos(std::chrono::hours::min()));
    EXPECT_EQ(MAX, timeoutNanos(duration<unsigned long long>(ULLONG_MAX)));
    EXPECT_EQ(MAX, timeoutNanos(duration<long long, std::ratio<31556952>>(LLONG_MAX / 2)));
    EXPECT_EQ(333333334, timeoutNanos(duration<double, std::ratio<1, 3>>(1)));
    EXPECT_EQ(2, timeoutNanos(duration<double, std::nano>(1.25)));
    EXPECT_EQ(MAX, timeoutNanos(duration<double>(INF)));
    EXPECT_EQ(0, timeoutNanos(duration<double>(std::numeric_limits<double>::quiet_NaN())));
    FixedClock::calls.store(0);
    EXPECT_EQ(2, nanosUntil(FixedClock::time_point(FixedClock::duration(2001))));
    EXPECT_EQ(0, nanosUntil(FixedClock::time_point(FixedClock::duration(1000))));
    EXPECT_EQ(MAX, nanosUntil(CoarsePoint::max()));
    EXPECT_EQ(0, nanosUntil(CoarsePoint::min()));
    EXPECT_EQ(4, FixedClock::calls.load());
    EXPECT_GT(nanosUntil(std::chrono::steady_clock::time_point::max()), MAX / 2);
}

// ---- the read-hold tables -----------------------------------------------------------------------

// An entry lives while its count is above 0: failed attempts and released holds leave none, and
// a lock destroyed by its reader takes that reader's entry with it. The table goes with its
// thread, also when the thread ends holding a read lock.
TEST(ReadWriteLockTables, EntriesLastWhileHeldAndTablesEndWithTheirThreads) {
    mw::ReadWriteLock a, b, writeLocked;
    std::lock_guard<mw::ReadWriteLock> scope(writeLocked);
    const long long tablesBefore = Sync::liveReadHoldTables();
    mwtest::onFreshThread([&] {
        EXPECT_FALSE(writeLocked.try_lock_shared());
        EXPECT_FALSE(writeLocked.try_lock_shared_for(std::chrono::nanoseconds(1)));
        EXPECT_EQ(0u, Sync::readHoldEntriesOfCurrentThread());
        a.lock_shared();
        a.lock_shared();
        b.lock_shared();
        EXPECT_EQ(2u, Sync::readHoldEntriesOfCurrentThread());
        EXPECT_EQ(tablesBefore + 1, Sync::liveReadHoldTables());
        a.unlock_shared();
        b.unlock_shared();
        a.unlock_shared();
        EXPECT_EQ(0u, Sync::readHoldEntriesOfCurrentThread());
        mw::ReadWriteLock(false).lock_shared();
        EXPECT_EQ(0u, Sync::readHoldEntriesOfCurrentThread());
        a.lock_shared();
    });
    EXPECT_EQ(tablesBefore, Sync::liveReadHoldTables());
    EXPECT_EQ(1u, a.getReadLockCount());
}

// Holds are keyed by a lock id that is never reused: a lock made where a read-held lock was
// destroyed gives the old reader no hold.
TEST(ReadWriteLockTables, NewLockAtAFreedLocksAddressInheritsNoHolds) {
    alignas(mw::ReadWriteLock) unsigned char storage[sizeof(mw::ReadWriteLock)];
    mw::ReadWriteLock* lock = new (storage) mw::ReadWriteLock;
    mwtest::Latch held(1), rebuilt(1);
    WorkerThread reader([&] {
        lock->lock_shared();
        held.countDown();
        rebuilt.wait();
        EXPECT_EQ(0u, lock->getReadHoldCount());
        EXPECT_TRUE(throwsWith<IMSE>([&] { lock->unlock_shared(); }, READ_NOT_HELD));
        EXPECT_TRUE(lock->try_lock());
        lock->unlock();
    });
    held.wait();  // the reader is out of lock_shared: nobody is inside the lock's operations
    lock->~ReadWriteLock();
    lock = new (storage) mw::ReadWriteLock;
    rebuilt.countDown();
    ASSERT_TRUE(reader.awaitFinished());
    lock->~ReadWriteLock();
}

}  // namespace
