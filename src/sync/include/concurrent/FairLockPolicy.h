/// @class mw::FairLockPolicy
/// FairLockPolicy: a free lock goes to the caller only if no other thread stands first in the
/// queue. tryLock() without a time still barges (it uses nonfairTryAcquire). The first queued
/// thread watches a held lock for a moment before it parks (TLockSync::spinWhileHeld).
#ifndef MW_CONCURRENT_FAIR_LOCK_POLICY_H
#define MW_CONCURRENT_FAIR_LOCK_POLICY_H

#include "Export.h"
#include "TLockSync.h"

namespace mw {

class MW_API FairLockPolicy : public detail::TLockSync {
public:
    /// A free lock.
    FairLockPolicy();
    /// A copy, or an assignment, takes the source's hold count and holder and keeps a queue of its
    /// own.
    ///@{
    FairLockPolicy(const FairLockPolicy& other);
    FairLockPolicy& operator=(const FairLockPolicy& other);
    ///@}
    virtual ~FairLockPolicy();

    /// Adds acquires to the caller's own hold, or takes a free lock unless another thread stands
    /// first in the queue; true if it did. The first queued thread watches a held lock for a
    /// moment before it gives up. Never parks; the acquire operations call it.
    virtual bool tryAcquire(int acquires);
    /// Takes the lock (or adds a hold of the caller's): at once when it is free and nobody is
    /// queued, else through the queue in the order of arrival. Blocks; an interrupt that arrives
    /// meanwhile does not end the wait and is re-asserted on return.
    virtual void lock();
};

}  // namespace mw

#endif
