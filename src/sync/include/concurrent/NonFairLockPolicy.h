/// @class mw::NonFairLockPolicy
/// NonFairLockPolicy: a newcomer may take a free lock ahead of every queued thread, once in lock()
/// and again in the first tryAcquire of the queued path. Its tryAcquire watches a lock held by
/// another thread for a moment before it gives up (TLockSync::spinWhileHeld).
#ifndef MW_CONCURRENT_NON_FAIR_LOCK_POLICY_H
#define MW_CONCURRENT_NON_FAIR_LOCK_POLICY_H

#include "Export.h"
#include "TLockSync.h"

namespace mw {

class MW_API NonFairLockPolicy : public detail::TLockSync {
public:
    /// A free lock.
    NonFairLockPolicy();
    /// A copy, or an assignment, takes the source's hold count and holder and keeps a queue of its
    /// own.
    ///@{
    NonFairLockPolicy(const NonFairLockPolicy& other);
    NonFairLockPolicy& operator=(const NonFairLockPolicy& other);
    ///@}
    virtual ~NonFairLockPolicy();

    /// Takes a free lock, whoever is queued, or adds acquires to the caller's own hold; true if it
    /// did. Watches a lock held by another thread for a moment before it gives up. Never parks;
    /// the acquire operations call it.
    virtual bool tryAcquire(int acquires);
    /// Takes the lock (or adds a hold of the caller's). Blocks; an interrupt that arrives
    /// meanwhile does not end the wait and is re-asserted on return.
    /// One compareAndSet on a free lock; else the queued acquire.
    virtual void lock();
};

}  // namespace mw

#endif
