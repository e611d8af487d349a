#include "concurrent/NonFairLockPolicy.h"

#include "ThreadInfoSlot.h"

namespace mw {

NonFairLockPolicy::NonFairLockPolicy() : TLockSync() {}

NonFairLockPolicy::NonFairLockPolicy(const NonFairLockPolicy& other) : TLockSync(other) {}

NonFairLockPolicy& NonFairLockPolicy::operator=(const NonFairLockPolicy& other) {
    TLockSync::operator=(other);
    return *this;
}

NonFairLockPolicy::~NonFairLockPolicy() {}

bool NonFairLockPolicy::tryAcquire(int acquires) { return nonfairTryAcquire(acquires); }

// A reentrant lock by the owner fails the fast attempt and succeeds in acquire's first tryAcquire.
void NonFairLockPolicy::lock() {
    if (compareAndSetState(0, 1)) {
        setOwner(detail::currentThreadFast());
        return;
    }
    acquire(1);
}

}  // namespace mw
