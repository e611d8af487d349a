/// @class mw::ReadWriteLock
/// ReadWriteLock: many readers or one writer. The write lock is reentrant and has conditions; the
/// read lock is reentrant too, also while a writer waits. The writer may take read holds and then
/// give up the write lock, keeping the read lock (a downgrade). The reverse is refused: a thread
/// that holds read holds and asks for the write lock, in any form, gets
/// IllegalMonitorStateException and keeps its read holds, since it would wait for itself.
///
/// Non-fair (the default): a writer takes a free lock ahead of queued threads; a new reader gives
/// way to a queued writer that stands first, so a stream of readers cannot starve it. Fair: new
/// readers and writers give way to any queued thread. Either way a thread re-entering a hold it
/// has, and the untimed tryLock of either side, ignore the queue.
///
/// The write side meets the standard Lockable and TimedLockable requirements (lock, unlock,
/// try_lock, try_lock_for, try_lock_until) and the read side SharedTimedLockable (lock_shared ...),
/// so std::unique_lock and std::shared_lock work over the object. The timed forms, like every
/// timed wait of the library, throw InterruptedException when the caller is interrupted; lock and
/// lock_shared ignore interrupts and re-assert them on return. Their std::chrono times never end
/// early (see Lock), as with ReentrantLock. readLock() and writeLock() give the two sides as
/// Lock objects.
///
/// The standard-named operations are defined here and tell ThreadSanitizer, in a program built
/// with it, that the lock synchronizes (TsanAnnotations.h): an unlock of either side happens before
/// a later lock of the write side, and an unlock of the write side before a later lock of either.
/// So do the Lock objects of readLock() and writeLock(), which are defined here too, and the waits
/// on their conditions (TsanCondition.h).
///
/// Limits: 65535 write holds, 65535 read holds over all threads; one more throws
/// IllegalMonitorStateException "Maximum lock count exceeded" and changes nothing. Unlocking a hold
/// that the caller does not have throws IllegalMonitorStateException and changes nothing.
///
/// Each thread counts its own read holds in a table of its own, freed when it ends. A thread that
/// ends while it read-holds the lock leaves the lock read-held for ever: its holds can no longer be
/// released, and writers wait for ever. A lock destroyed while threads read-hold it (which is not
/// allowed) leaves their entries in their tables until they end; a new lock never inherits them.
/// The object must not be destroyed while a thread holds it, waits for it or is inside one of its
/// operations.
#ifndef MW_CONCURRENT_READ_WRITE_LOCK_H
#define MW_CONCURRENT_READ_WRITE_LOCK_H

#include <boost/noncopyable.hpp>
#include <chrono>
#include <string>

#include "ChronoTimeout.h"
#include "Export.h"
#include "Lock.h"
#include "ReadWriteLockSync.h"
#include "TsanAnnotations.h"
#include "TsanCondition.h"
#include "UnsupportedOperationException.h"

namespace mw {

class MW_API ReadWriteLock : private boost::noncopyable {
public:
    /// The read side as a Lock. newCondition throws UnsupportedOperationException: a reader does
    /// not hold the lock alone, so it has nothing to wait with.
    class ReadLock final : public Lock, private boost::noncopyable {
    public:
        using Lock::tryLock;

        virtual void lock() {
            m_sync.lockRead();
            detail::tsanAcquire(&m_sync);
        }
        virtual void lockInterruptibly() {
            m_sync.lockReadInterruptibly();
            detail::tsanAcquire(&m_sync);
        }
        virtual bool tryLock(long long timeout, const TimeUnit& unit) {
            return acquired(m_sync.tryLockReadNanos(unit.toNanos(timeout)));
        }
        virtual bool tryLock() { return acquired(m_sync.tryLockRead()); }
        virtual void unlock() {
            detail::tsanRelease(&m_sync);
            m_sync.unlockRead();
        }
        /// Throws UnsupportedOperationException: the read side has no conditions.
        virtual Condition* newCondition() {
            MW_THROW(UnsupportedOperationException, "the read lock has no conditions");
        }

    private:
        friend class ReadWriteLock;
        explicit ReadLock(detail::ReadWriteLockSync& sync) : m_sync(sync) {}
        bool acquired(bool success) {
            if (success) detail::tsanAcquire(&m_sync);
            return success;
        }

        detail::ReadWriteLockSync& m_sync;
    };

    /// The write side as a Lock. Its conditions work as a ReentrantLock's: a wait needs the write
    /// lock, gives up every hold of the caller (write holds and its own read holds) and has them
    /// all back when it returns or throws.
    class WriteLock final : public Lock, private boost::noncopyable {
    public:
        using Lock::tryLock;

        virtual void lock() {
            m_sync.lockWrite();
            detail::tsanAcquire(&m_sync);
        }
        virtual void lockInterruptibly() {
            m_sync.lockWriteInterruptibly();
            detail::tsanAcquire(&m_sync);
        }
        virtual bool tryLock(long long timeout, const TimeUnit& unit) {
            return acquired(m_sync.tryLockWriteNanos(unit.toNanos(timeout)));
        }
        virtual bool tryLock() { return acquired(m_sync.tryLockWrite()); }
        virtual void unlock() {
            detail::tsanRelease(&m_sync);
            detail::TsanLibraryCode library;
            m_sync.unlockWrite();
        }
        /// A new condition of the write lock (see WriteLock); the caller owns it.
        virtual Condition* newCondition() {
            return detail::annotatedCondition(m_sync.newCondition(), &m_sync);
        }

    private:
        friend class ReadWriteLock;
        explicit WriteLock(detail::ReadWriteLockSync& sync) : m_sync(sync) {}
        bool acquired(bool success) {
            if (success) detail::tsanAcquire(&m_sync);
            return success;
        }

        detail::ReadWriteLockSync& m_sync;
    };

    /// A free lock; fair or non-fair as ReadWriteLock describes.
    explicit ReadWriteLock(bool fair = false)
        : m_sync(fair), m_readLock(m_sync), m_writeLock(m_sync) {
        m_sync.setDiagnosticIdentity(this);
    }
    /// Neither unlocks nor looks at waiters.
    ~ReadWriteLock();

    /// The read side as a Lock (see ReadLock), as long as this object lives.
    Lock& readLock() { return m_readLock; }
    /// The write side as a Lock (see WriteLock), as long as this object lives.
    Lock& writeLock() { return m_writeLock; }

    /// @name The write side, for std::unique_lock and the like
    /// try_lock ignores the queue. Each refuses a caller that holds read holds without the write
    /// lock, and a hold past the limit, with IllegalMonitorStateException, changing nothing.
    ///@{

    /// Takes the write lock, or adds a hold of the caller's. Blocks; an interrupt that arrives
    /// meanwhile does not end the wait and is re-asserted on return.
    void lock() {
        m_sync.lockWrite();
        detail::tsanAcquire(&m_sync);
    }
    /// Gives up one write hold. Throws IllegalMonitorStateException, changing nothing, unless the
    /// caller holds the write lock. Never blocks.
    void unlock() {
        detail::tsanRelease(&m_sync);
        detail::TsanLibraryCode library;
        m_sync.unlockWrite();
    }
    /// Takes the write lock if it can at once, also past queued threads; true if it did. Never
    /// blocks.
    bool try_lock() { return acquired(m_sync.tryLockWrite()); }
    /// As lock, but gives up once nanosTimeout nanoseconds have passed (false), and throws
    /// InterruptedException, with the flag cleared and no hold taken, for an interrupt pending on
    /// entry or arriving while it waits. 0 or less tries without waiting.
    bool tryLockNanos(long long nanosTimeout) {
        return acquired(m_sync.tryLockWriteNanos(nanosTimeout));
    }
    /// tryLockNanos for a std::chrono duration, never ending early.
    template <typename Rep, typename Period>
    bool try_lock_for(const std::chrono::duration<Rep, Period>& timeout) {
        return detail::retryFor(timeout, [this](long long nanos) { return tryLockNanos(nanos); });
    }
    /// tryLockNanos until a std::chrono deadline, measured on its own clock.
    template <typename Clock, typename Duration>
    bool try_lock_until(const std::chrono::time_point<Clock, Duration>& deadline) {
        return detail::retryUntil(deadline,
                                  [this](long long nanos) { return tryLockNanos(nanos); });
    }
    ///@}

    /// @name The read side, for std::shared_lock and the like
    /// try_lock_shared ignores the queue. Each refuses a hold past the limit with
    /// IllegalMonitorStateException, changing nothing.
    ///@{

    /// Takes a read hold: waits while another thread writes, and a new reader also while it gives
    /// way to the queue (see ReadWriteLock). Blocks; an interrupt that arrives meanwhile does not
    /// end the wait and is re-asserted on return.
    void lock_shared() {
        m_sync.lockRead();
        detail::tsanAcquire(&m_sync);
    }
    /// Gives up one read hold of the caller. Throws IllegalMonitorStateException, changing
    /// nothing, when the caller has none. Never blocks.
    void unlock_shared() {
        detail::tsanRelease(&m_sync);
        m_sync.unlockRead();
    }
    /// Takes a read hold unless another thread writes, whoever is queued; true if it did. Never
    /// blocks.
    bool try_lock_shared() { return acquired(m_sync.tryLockRead()); }
    /// As lock_shared, but gives up once nanosTimeout nanoseconds have passed (false), and throws
    /// InterruptedException, with the flag cleared and no hold taken, for an interrupt pending on
    /// entry or arriving while it waits. 0 or less tries without waiting.
    bool tryLockSharedNanos(long long nanosTimeout) {
        return acquired(m_sync.tryLockReadNanos(nanosTimeout));
    }
    /// tryLockSharedNanos for a std::chrono duration, never ending early.
    template <typename Rep, typename Period>
    bool try_lock_shared_for(const std::chrono::duration<Rep, Period>& timeout) {
        return detail::retryFor(timeout,
                                [this](long long nanos) { return tryLockSharedNanos(nanos); });
    }
    /// tryLockSharedNanos until a std::chrono deadline, measured on its own clock.
    template <typename Clock, typename Duration>
    bool try_lock_shared_until(const std::chrono::time_point<Clock, Duration>& deadline) {
        return detail::retryUntil(deadline,
                                  [this](long long nanos) { return tryLockSharedNanos(nanos); });
    }
    ///@}

    /// @name Inspection
    /// One moment's reading each, without locks or allocation.
    ///@{

    /// Read holds of all threads together.
    unsigned long long getReadLockCount() const;
    /// Read holds of the calling thread.
    unsigned long long getReadHoldCount() const;
    /// The calling thread's write holds (0 unless it is the writer).
    unsigned long long getWriteHoldCount() const;
    /// True if a thread holds the write lock.
    bool isWriteLocked() const;
    /// True if the calling thread holds the write lock.
    bool isWriteLockedByCurrentThread() const;
    /// The writer's object while it lives; null when nobody writes or the writer has ended.
    const Thread* getOwner() const;
    /// True if the lock was made fair.
    bool isFair() const;
    /// True if a thread waits for either side.
    bool hasQueuedThreads() const;
    /// The number of threads that wait for either side.
    unsigned long long getQueueLength() const;
    ///@}

    /// @name Diagnostics
    /// A name for thread dumps (up to 63 bytes), and the contention seen since construction;
    /// see AbstractQueuedSynchronizer's diagnostics. Any thread, at any time; never blocks.
    ///@{

    /// Names the object for thread dumps; throws std::bad_alloc if the first name cannot be stored.
    void setDiagnosticName(const std::string& name) { m_sync.setDiagnosticName(name); }
    /// The name given by setDiagnosticName; empty if none was given.
    std::string getDiagnosticName() const { return m_sync.getDiagnosticName(); }
    /// The contention seen since construction (see ContentionStatistics).
    ContentionStatistics getContentionStatistics() const {
        return m_sync.getContentionStatistics();
    }
    ///@}

private:
    bool acquired(bool success) {
        if (success) detail::tsanAcquire(&m_sync);
        return success;
    }

    detail::ReadWriteLockSync m_sync;
    ReadLock m_readLock;
    WriteLock m_writeLock;
};

}  // namespace mw

#endif
