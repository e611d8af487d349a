// ReentrantLock<Policy>: the library's mutual-exclusion lock, reentrant, with conditions.
// Policy is FairLockPolicy or NonFairLockPolicy, held by value as the synchronizer itself. The
// whole class lives in this header, so each client compiles it.
//
// Taking a free non-fair lock is one compareAndSet and one thread-local read; a reentrant acquire
// or a release is one exchange. Nothing allocates unless a thread has to queue.
#ifndef MW_CONCURRENT_REENTRANT_LOCK_H
#define MW_CONCURRENT_REENTRANT_LOCK_H

#include <boost/noncopyable.hpp>

#include "AbstractQueuedSynchronizer.h"
#include "IllegalArgumentException.h"
#include "Lock.h"
#include "NullPointerException.h"
#include "TimeUnit.h"

namespace mw {

template <typename Policy>
class ReentrantLock : public Lock, private boost::noncopyable {
public:
    ReentrantLock() : m_sync() {}
    // Neither unlocks nor looks at waiters.
    virtual ~ReentrantLock() {}

    virtual void lock() { m_sync.lock(); }
    virtual void lockInterruptibly() { m_sync.acquireInterruptibly(1); }
    virtual bool tryLock(long long timeout, const TimeUnit& unit) {
        return m_sync.tryAcquireNanos(1, unit.toNanos(timeout));
    }
    // Barges with either policy: takes a free lock even when threads are queued.
    virtual bool tryLock() { return m_sync.nonfairTryAcquire(1); }
    virtual void unlock() { m_sync.release(1); }
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
    // The library's own condition behind condition, or null for another implementation.
    static const AbstractQueuedSynchronizer::ConditionObject* conditionObject(
        const Condition* condition) {
        return dynamic_cast<const AbstractQueuedSynchronizer::ConditionObject*>(condition);
    }

    Policy m_sync;
};

}  // namespace mw

#endif
