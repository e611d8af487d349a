// ReadWriteLock: sharing and exclusion, re-entry, downgrade and the refused upgrade, the write
// side's conditions, writers among readers, interrupts and time-outs in the queue, misuse, and the
// per-thread read-hold tables. Its std::chrono forms are among StdInteropTest's tables.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
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
using mwtest::Workers;
using mwtest::WorkerThread;
using std::chrono::milliseconds;
typedef mw::detail::ReadWriteLockSync Sync;
typedef mw::IllegalMonitorStateException IMSE;
typedef std::shared_lock<mw::ReadWriteLock> Shared;
typedef std::unique_lock<mw::ReadWriteLock> Unique;

const char* const READ_NOT_HELD = "read lock not held by the calling thread";
const char* const WRITE_NOT_HELD = "write lock not held by the calling thread";
const char* const UPGRADE =
    "read lock held by the calling thread: it cannot take the write lock without releasing its "
    "read holds first";

const mw::TimeUnit& SECONDS() { return mw::TimeUnit::SECONDS(); }

struct ReadWriteLockTest : testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Fairness, ReadWriteLockTest, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) {
                             return info.param ? "Fair" : "NonFair";
                         });

// ---- sharing, re-entry, downgrade, upgrade ------------------------------------------------------

// While this thread reads, another reads too, by the barging and the queued form (the standard
// wrappers), but cannot write, and its timed attempt takes its whole time; a writer then keeps
// out readers and writers alike.
TEST_P(ReadWriteLockTest, ReadersShareAndAWriterExcludesEveryone) {
    mw::ReadWriteLock lock(GetParam());
    {
        Shared reading(lock);
        WorkerThread([&] {
            EXPECT_TRUE(Shared(lock, std::try_to_lock).owns_lock());
            EXPECT_TRUE(Shared(lock, milliseconds(1)).owns_lock());
            EXPECT_FALSE(Unique(lock, std::try_to_lock).owns_lock());
            auto waited =
                mwtest::elapsed([&] { EXPECT_FALSE(Unique(lock, milliseconds(30)).owns_lock()); });
            EXPECT_GE(waited, milliseconds(30));
        }).join();
    }
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
    Workers w;
    EXPECT_TRUE(w.startParked([&] { std::lock_guard<mw::ReadWriteLock> scope(lock); }));
    EXPECT_TRUE(lock.try_lock() && lock.writeLock().tryLock(0, SECONDS()));
    EXPECT_TRUE(lock.try_lock_shared_for(std::chrono::seconds(30)));
    EXPECT_EQ(3u, lock.getWriteHoldCount());
    for (int i = 0; i < 3; ++i) lock.unlock();
    lock.unlock_shared();
    ASSERT_TRUE(w[0].awaitFinished());

    lock.lock();
    std::atomic<bool> readerIn(false);
    EXPECT_TRUE(w.startParked([&] {
        Shared scope(lock);
        readerIn.store(true);
    }));
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
        Shared scope(lock);
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
    Workers writer;
    EXPECT_TRUE(writer.startParked([&] { std::lock_guard<mw::ReadWriteLock> scope(lock); }));
    go.countDown();
    mwtest::finishes(reader);
    ASSERT_TRUE(writer.finish());
    EXPECT_EQ(5u, holds.load());
}

// A new reader queues behind a writer that stands first; when that writer gives up (interrupt,
// then time-out), the reader must be let in though the lock never became free. A time-out that
// ends before the reader has queued proves nothing, so that round runs again with a longer one.
TEST_P(ReadWriteLockTest, ReaderQueuedBehindAWriterThatGivesUpGetsIn) {
    mw::ReadWriteLock lock(GetParam());
    Shared held(lock);
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
        WorkerThread reader([&] { Shared scope(lock); });
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
    // Each form returns whether it was served, and gives a hold it got back.
    const std::function<bool()> forms[] = {
        [&] { return lock.writeLock().lockInterruptibly(), lock.unlock(), true; },
        [&] { return lock.readLock().lockInterruptibly(), lock.unlock_shared(), true; },
        [&] { return lock.try_lock_for(std::chrono::hours(1)) && (lock.unlock(), true); },
        [&] { return lock.try_lock_shared_for(milliseconds(30)) && (lock.unlock_shared(), true); },
        [&] { return lock.writeLock().tryLock(0, SECONDS()) && (lock.unlock(), true); }};
    lock.lock();
    Workers waiters;
    for (const std::function<bool()>& form : forms) {
        auto body = [&] {
            try {
                outcomes[form() ? 2 : 1] += 1;
            } catch (const mw::InterruptedException&) {
                outcomes[0] += 1;
            }
        };
        if (waiters.size() < 3) {
            ASSERT_TRUE(waiters.startParked(body));
        } else {
            waiters.start(body);
        }
    }
    waiters[0].self()->interrupt();
    waiters[1].self()->interrupt();
    ASSERT_TRUE(eventually([&] { return outcomes[0].load() == 2 && outcomes[1].load() == 2; }));
    lock.unlock();
    ASSERT_TRUE(waiters.finish());
    EXPECT_EQ(1, outcomes[2].load());
    EXPECT_EQ(0u, lock.getQueueLength());
    EXPECT_TRUE(lock.try_lock());
    lock.unlock();
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
