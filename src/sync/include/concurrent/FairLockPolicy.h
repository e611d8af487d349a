// FairLockPolicy: a free lock goes to the caller only if no other thread stands first in the
// queue. tryLock() without a time still barges (it uses nonfairTryAcquire). The first queued thread
// watches a held lock for a moment before it parks (TLockSync::spinWhileHeld).
#ifndef MW_CONCURRENT_FAIR_LOCK_POLICY_H
#define MW_CONCURRENT_FAIR_LOCK_POLICY_H

#include "Export.h"
#include "TLockSync.h"

namespace mw {

class MW_API FairLockPolicy : public detail::TLockSync {
public:
    FairLockPolicy();
    FairLockPolicy(const FairLockPolicy& other);
    FairLockPolicy& operator=(const FairLockPolicy& other);
    virtual ~FairLockPolicy();

    virtual bool tryAcquire(int acquires);
    virtual void lock();
};

}  // namespace mw

#endif
