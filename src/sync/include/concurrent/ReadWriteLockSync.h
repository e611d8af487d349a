// ReadWriteLockSync: the synchronizer behind ReadWriteLock. The state holds two counts: the low 16
// bits the write holds of the one writer, the high 16 bits the read holds of all readers together
// (a writer's own read holds included), each at most 65535. m_owner is the writer's serial
// number (Thread::getSerial), 0 while no thread holds the write lock: a serial, not an address,
// so that a new thread at a dead writer's address neither passes for the writer nor releases its
// hold. Each thread's own read holds are counted in its read-hold table under m_id.
//
// The write count leaves 0 only by the compareAndSet of a free state, and only the writer changes
// it afterwards; the read count changes by compareAndSet alone. A reader that holds already, or
// the writer, never waits for the queue: either would wait for itself. A new reader gives way to a
// queued writer that stands first (non-fair) or to any queued thread (fair); a new writer gives
// way to queued threads only when fair.
#ifndef MW_CONCURRENT_READ_WRITE_LOCK_SYNC_H
#define MW_CONCURRENT_READ_WRITE_LOCK_SYNC_H

#include <atomic>

#include "AbstractQueuedSynchronizer.h"
#include "Export.h"

namespace mw {

class Thread;

namespace detail {

class MW_API ReadWriteLockSync final : public AbstractQueuedSynchronizer {
public:
    // The most holds of each kind; an enumerator, not a data member, so that no client of the
    // DLL has to import it.
    enum : unsigned { MAX_COUNT = 0xFFFF };

    explicit ReadWriteLockSync(bool fair);
    // Forgets the calling thread's read holds of this lock; other threads' entries stay in their
    // tables until they end. Neither releases nor looks at waiters.
    virtual ~ReadWriteLockSync();

    // The write side. Each refuses a caller that holds read holds and not the write lock with
    // IllegalMonitorStateException, changing nothing: it would wait for itself. The untimed try
    // takes a free lock even when threads are queued, also when fair.
    void lockWrite();
    void lockWriteInterruptibly();
    bool tryLockWrite();
    bool tryLockWriteNanos(long long nanosTimeout);
    // Throws IllegalMonitorStateException, changing nothing, unless the caller holds the write
    // lock.
    void unlockWrite() { release(1); }

    // The read side. The untimed try takes the lock whenever no other thread writes, queue or not.
    void lockRead() { acquireShared(1); }
    void lockReadInterruptibly() { acquireSharedInterruptibly(1); }
    bool tryLockRead();
    bool tryLockReadNanos(long long nanosTimeout) { return tryAcquireSharedNanos(1, nanosTimeout); }
    // Throws IllegalMonitorStateException, changing nothing, unless the caller holds a read hold.
    void unlockRead() { releaseShared(1); }

    // A condition of the write lock; the caller owns it.
    ConditionObject* newCondition() const;

    // One moment's reading each.
    unsigned long long getReadLockCount() const;
    unsigned long long getReadHoldCount() const;
    unsigned long long getWriteHoldCount() const;
    bool isWriteLocked() const;
    bool isFair() const { return m_fair; }
    // The writer's object while it lives; null when no thread writes or the writer has ended.
    const Thread* getOwner() const;
    // Thread::getSerial of the writer, 0 when none: a thread dump's reading, which dereferences
    // nothing.
    unsigned long long getOwnerSerial() const { return m_owner.load(std::memory_order_relaxed); }

    // The number of entries in the calling thread's read-hold table, and the number of tables
    // alive in the process: inspection for tests of the tables' bounds.
    static unsigned long long readHoldEntriesOfCurrentThread();
    static long long liveReadHoldTables();

    virtual bool isHeldExclusively() const;

protected:
    virtual bool tryAcquire(int acquires);
    virtual bool tryRelease(int releases);
    virtual int tryAcquireShared(int unused);
    virtual bool tryReleaseShared(int unused);

private:
    ReadWriteLockSync(const ReadWriteLockSync&) = delete;
    ReadWriteLockSync& operator=(const ReadWriteLockSync&) = delete;

    bool readerShouldWait() const;
    bool writerShouldWait() const;
    // True if the caller holds read holds and not the write lock.
    bool wouldUpgrade() const;
    bool isOwner(const Thread* thread) const;

    const unsigned long long m_id;
    const bool m_fair;
    // A whole-word field read by other threads without a lock; m_state's operations order it.
    std::atomic<unsigned long long> m_owner;
};

}  // namespace detail
}  // namespace mw

#endif
