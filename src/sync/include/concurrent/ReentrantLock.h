/// @class mw::ReentrantLock
/// ReentrantLock<Policy>: the library's mutual-exclusion lock, reentrant, with conditions.
/// Policy is FairLockPolicy or NonFairLockPolicy, held by value as the synchronizer itself. The
/// whole class lives in this header, so each client compiles it.
///
/// Each lock by the holder adds one hold, each unlock takes one off, and the last lets the lock
/// go. The conditions of newCondition are the library's (see Condition): a wait gives up every
/// hold of the caller and has them all back when it returns or throws.
///
/// Taking a free non-fair lock is one compareAndSet and one thread-local read; a reentrant acquire
/// or a release is one exchange. Nothing allocates unless a thread has to queue.
///
/// The standard names come from Lock (try_lock, try_lock_for, try_lock_until, and tryLock for a
/// std::chrono duration), so std::unique_lock, std::scoped_lock and std::lock take the lock as it
/// is. Every path that takes or gives up the lock here tells ThreadSanitizer so
/// (TsanAnnotations.h), and so does every wait on a condition of newCondition (TsanCondition.h): a
/// program built with it sees the lock synchronize even over a library built without it.
#ifndef MW_CONCURRENT_REENTRANT_LOCK_H
#define MW_CONCURRENT_REENTRANT_LOCK_H

#include <boost/noncopyable.hpp>
#include <string>

#include "AbstractQueuedSynchronizer.h"
#include "IllegalArgumentException.h"
#include "Lock.h"
#include "NullPointerException.h"
#include "TimeUnit.h"
#include "TsanAnnotations.h"
#include "TsanCondition.h"

namespace mw {

template <typename Policy>
class ReentrantLock : public Lock, private boost::noncopyable {
public:
    /// A free lock.
    ReentrantLock() : m_sync() { m_sync.setDiagnosticIdentity(this); }
    /// Neither unlocks nor looks at waiters.
    virtual ~ReentrantLock() {}

    using Lock::tryLock;

    virtual void lock() {
        m_sync.lock();
        detail::tsanAcquire(this);
    }
    virtual void lockInterruptibly() {
        m_sync.acquireInterruptibly(1);
        detail::tsanAcquire(this);
    }
    virtual bool tryLock(long long timeout, const TimeUnit& unit) {
        return acquired(m_sync.tryAcquireNanos(1, unit.toNanos(timeout)));
    }
    /// Takes the lock if it is free or the caller's, and then true; never blocks. Barges with
    /// either policy: takes a free lock even when threads are queued.
    virtual bool tryLock() { return acquired(m_sync.nonfairTryAcquire(1)); }
    virtual void unlock() {
        detail::tsanRelease(this);
        detail::TsanLibraryCode library;
        m_sync.release(1);
    }
    virtual Condition* newCondition() {
        return detail::annotatedCondition(m_sync.newCondition(), this);
    }

    /// The calling thread's holds; 0 unless it holds the lock.
    virtual unsigned long long getHoldCount() const { return m_sync.getHoldCount(); }
    /// True if the calling thread holds the lock.
    virtual bool isHeldByCurrentThread() const { return m_sync.isHeldExclusively(); }
    /// True if any thread holds the lock; one moment's reading.
    virtual bool isLocked() const { return m_sync.isLocked(); }
    /// Whether threads wait on condition, and how many; one moment's reading. They need the lock
    /// held by the caller and one of its conditions: they throw NullPointerException for null,
    /// IllegalArgumentException for a Condition of another implementation ("not owner") or of
    /// another lock ("Not owner"), and IllegalMonitorStateException to a caller without the hold.
    ///@{
    // Each refusal is thrown here or there, so that its report names the operation called.
    virtual bool hasWaiters(const Condition* condition) const {
        if (condition == nullptr) MW_THROW(NullPointerException, "");
        const AbstractQueuedSynchronizer::ConditionObject* object = conditionObject(condition);
        if (object == nullptr) MW_THROW(IllegalArgumentException, "not owner");
        return m_sync.hasWaiters(object);
    }
    virtual unsigned long long getWaitQueueLength(const Condition* condition) const {
        if (condition == nullptr) MW_THROW(NullPointerException, "");
        const AbstractQueuedSynchronizer::ConditionObject* object = conditionObject(condition);
        if (object == nullptr) MW_THROW(IllegalArgumentException, "not owner");
        return m_sync.getWaitQueueLength(object);
    }
    ///@}
    /// The holder's object while it lives; null when the lock is free or its holder has ended.
    virtual const Thread* getOwner() const { return m_sync.getOwner(); }

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
    // An Object makes its monitor of a lock, and marks it as a monitor for thread dumps.
    friend class Object;

    bool acquired(bool success) {
        if (success) detail::tsanAcquire(this);
        return success;
    }

    // The library's own condition behind condition, or null for another implementation.
    static const AbstractQueuedSynchronizer::ConditionObject* conditionObject(
        const Condition* condition) {
        return dynamic_cast<const AbstractQueuedSynchronizer::ConditionObject*>(
            detail::TsanCondition::unwrap(condition));
    }

    Policy m_sync;
};

}  // namespace mw

#endif
