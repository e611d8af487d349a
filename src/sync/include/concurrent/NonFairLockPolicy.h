// NonFairLockPolicy: a newcomer may take a free lock ahead of every queued thread, once in lock()
// and again in the first tryAcquire of the queued path. Its tryAcquire watches a lock held by
// another thread for a moment before it gives up (TLockSync::spinWhileHeld).
#ifndef MW_CONCURRENT_NON_FAIR_LOCK_POLICY_H
#define MW_CONCURRENT_NON_FAIR_LOCK_POLICY_H

#include "Export.h"
#include "TLockSync.h"

namespace mw {

class MW_API NonFairLockPolicy : public detail::TLockSync {
public:
    NonFairLockPolicy();
    NonFairLockPolicy(const NonFairLockPolicy& other);
    NonFairLockPolicy& operator=(const NonFairLockPolicy& other);
    virtual ~NonFairLockPolicy();

    virtual bool tryAcquire(int acquires);
    // One compareAndSet on a free lock; else the queued acquire.
    virtual void lock();
};

}  // namespace mw

#endif
