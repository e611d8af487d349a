#include "concurrent/FairLockPolicy.h"

#include "ThreadInfoSlot.h"

namespace mw {

FairLockPolicy::FairLockPolicy() : TLockSync() {}

FairLockPolicy::FairLockPolicy(const FairLockPolicy& other) : TLockSync(other) {}

FairLockPolicy& FairLockPolicy::operator=(const FairLockPolicy& other) {
    TLockSync::operator=(other);
    return *this;
}

FairLockPolicy::~FairLockPolicy() {}

// A free lock goes to the caller unless another thread stands first in the queue; an empty queue,
// or one that shows no thread yet, lets the caller try. A caller that would be next (the queue is
// empty, or it is the first queued thread) watches a held lock for a moment before it queues or
// parks: the hand-over to a running first waiter then costs no wake-up, and the order stays FIFO.
bool FairLockPolicy::tryAcquire(int acquires) {
    const Thread* current = detail::currentThreadFast();
    int c = getState();
    if (c != 0 && isOwner(current)) {
        setState(c + acquires);
        return true;
    }
    if (hasQueuedPredecessors()) return false;
    if (c != 0 && (!spinWhileHeld() || hasQueuedPredecessors())) return false;
    if (!compareAndSetState(0, acquires)) return false;
    setOwner(current);
    return true;
}

void FairLockPolicy::lock() { acquire(1); }

}  // namespace mw
