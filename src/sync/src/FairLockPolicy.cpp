#include "concurrent/FairLockPolicy.h"

#include "ThreadInfoSlot.h"

namespace mw {

FairLockPolicy::FairLockPolicy() : TLockSync(false) {}

FairLockPolicy::FairLockPolicy(const FairLockPolicy& other) : TLockSync(other) {}

FairLockPolicy& FairLockPolicy::operator=(const FairLockPolicy& other) {
    TLockSync::operator=(other);
    return *this;
}

FairLockPolicy::~FairLockPolicy() {}

// A free lock goes to the caller unless another thread stands first in the queue; an empty queue,
// or one that shows no thread yet, lets the caller try. The first queued thread watches a held lock
// for a moment before it parks: the hand-over to a running first waiter costs no wake-up, and the
// order stays FIFO. A newcomer does not spin: it has no place in the order until it queues.
bool FairLockPolicy::tryAcquire(int acquires) {
    const Thread* current = detail::currentThreadFast();
    int c = getState();
    if (c != 0 && isOwner(current)) {
        setState(c + acquires);
        return true;
    }
    if (c != 0) {
        if (!hasQueuedThreads() || fullGetFirstQueuedThread() != current) return false;
        if (!spinWhileHeld()) return false;
    } else if (hasQueuedPredecessors()) {
        return false;
    }
    if (!compareAndSetState(0, acquires)) return false;
    setOwner(current);
    return true;
}

// A free lock with nobody queued is taken at once, as tryAcquire would take it, without the
// virtual call and the queue inspection of the acquire path.
void FairLockPolicy::lock() {
    const Thread* current = detail::currentThreadFast();
    if (getState() == 0 && !hasQueuedThreads() && compareAndSetState(0, 1)) {
        setOwner(current);
        return;
    }
    acquire(1);
}

}  // namespace mw
