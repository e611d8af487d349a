#include "concurrent/NonFairLockPolicy.h"

#include "ThreadInfoSlot.h"

namespace mw {

NonFairLockPolicy::NonFairLockPolicy() : TLockSync(true) {}

NonFairLockPolicy::NonFairLockPolicy(const NonFairLockPolicy& other) : TLockSync(other) {}

NonFairLockPolicy& NonFairLockPolicy::operator=(const NonFairLockPolicy& other) {
    TLockSync::operator=(other);
    return *this;
}

NonFairLockPolicy::~NonFairLockPolicy() {}

// A lock held by another thread is watched for a moment before the caller queues (or, as the
// first queued thread, parks): a holder that lets go soon hands over without a wake-up.
bool NonFairLockPolicy::tryAcquire(int acquires) {
    return nonfairTryAcquire(acquires) || (spinWhileHeld() && nonfairTryAcquire(acquires));
}

// A reentrant lock by the owner fails the fast attempt and succeeds in acquire's first tryAcquire.
// The calling thread is looked up before the compareAndSet: its adoption may fail, and it must
// not fail with the lock taken and no owner recorded.
void NonFairLockPolicy::lock() {
    const Thread* current = detail::currentThreadFast();
    if (compareAndSetState(0, 1)) {
        setOwner(current);
        return;
    }
    acquire(1);
}

}  // namespace mw
