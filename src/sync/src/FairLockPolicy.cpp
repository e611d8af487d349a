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
// or one that shows no thread yet, lets the caller try.
bool FairLockPolicy::tryAcquire(int acquires) {
    const Thread* current = detail::currentThreadFast();
    int c = getState();
    if (c == 0) {
        if (hasQueuedThreads()) {
            const Thread* first = fullGetFirstQueuedThread();
            if (first != nullptr && first != current) return false;
        }
        if (!compareAndSetState(0, acquires)) return false;
        setOwner(current);
        return true;
    }
    if (isOwner(current)) {
        setState(c + acquires);
        return true;
    }
    return false;
}

void FairLockPolicy::lock() { acquire(1); }

}  // namespace mw
