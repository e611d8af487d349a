// ReentrantLock<Policy>: the library's mutual-exclusion lock, reentrant, with conditions.
// Policy is FairLockPolicy or NonFairLockPolicy, held by value as the synchronizer itself. The
// whole class lives in this header, so each client compiles it.
//
// Taking a free non-fair lock is one compareAndSet and one thread-local read; a reentrant acquire
// or a release is one exchange. Nothing allocates unless a thread has to queue.
//
// The standard names come from Lock (try_lock, try_lock_for, try_lock_until, and tryLock for a
// std::chrono duration), so std::unique_lock, std::scoped_lock and std::lock take the lock as it
// is. Every path that takes or gives up the lock here tells ThreadSanitizer so (TsanAnnotations.h):
// a program built with it sees the lock synchronize even over a library built without it.
#ifndef MW_CONCURRENT_REENTRANT_LOCK_H
#define MW_CONCURRENT_REENTRANT_LOCK_H

#include <boost/noncopyable.hpp>

#include "AbstractQueuedSynchronizer.h"
#include "IllegalArgumentException.h"
#include "Lock.h"
#include "NullPointerException.h"
#include "TimeUnit.h"
#include "TsanAnnotations.h"

namespace mw {

template <typename Policy>
class ReentrantLock : public Lock, private boost::noncopyable {
public:
    ReentrantLock() : m_sync() {}
    // Neither unlocks nor looks at waiters.
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
    // Barges with either policy: takes a free lock even when threads are queued.
    virtual bool tryLock() { return acquired(m_sync.nonfairTryAcquire(1)); }
    virtual void unlock() {
        detail::tsanRelease(this);
        detail::TsanLibraryCode library;
        m_sync.release(1);
    }
    virtual Condition* newCondition() { return m_sync.newCondition(); }

    virtual unsigned long long getHoldCount() const { return m_sync.getHoldCount(); }
    virtual bool isHeldByCurrentThread() const { return m_sync.isHeldExclusively(); }
    virtual bool isLocked() const { return m_sync.isLocked(); }
    // Refuse null, then a Condition of another implementation ("not owner"); the synchronizer
    // then refuses a condition of another lock ("Not owner") and a caller without the hold. Each
    // refusal is thrown here or there, so that its report names the operation called.
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
    virtual const Thread* getOwner() const { return m_sync.getOwner(); }

private:
    bool acquired(bool success) {
        if (success) detail::tsanAcquire(this);
        return success;
    }

    // The library's own condition behind condition, or null for another implementation.
    static const AbstractQueuedSynchronizer::ConditionObject* conditionObject(
        const Condition* condition) {
        return dynamic_cast<const AbstractQueuedSynchronizer::ConditionObject*>(condition);
    }

    Policy m_sync;
};

}  // namespace mw

#endif
