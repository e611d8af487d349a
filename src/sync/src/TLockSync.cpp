#include "concurrent/TLockSync.h"

#include "ThreadInfoSlot.h"
#include "concurrent/IllegalMonitorStateException.h"

namespace mw {
namespace detail {

TLockSync::TLockSync() : AbstractQueuedSynchronizer(), m_owner(nullptr) {}

TLockSync::TLockSync(const TLockSync& other)
    : AbstractQueuedSynchronizer(other), m_owner(other.owner()) {}

TLockSync& TLockSync::operator=(const TLockSync& other) {
    AbstractQueuedSynchronizer::operator=(other);
    setOwner(other.owner());
    return *this;
}

TLockSync::~TLockSync() {}

bool TLockSync::nonfairTryAcquire(int acquires) {
    const Thread* current = currentThreadFast();
    int c = getState();
    if (c == 0) {
        if (!compareAndSetState(0, acquires)) return false;
        setOwner(current);
        return true;
    }
    if (current == owner()) {
        setState(c + acquires);
        return true;
    }
    return false;
}

// [L1] m_owner is cleared before m_state is stored, so the next owner's store into m_owner, which
// follows its compareAndSet on m_state, cannot be overwritten by this one.
bool TLockSync::tryRelease(int releases) {
    int c = static_cast<int>(static_cast<unsigned>(getState()) - static_cast<unsigned>(releases));
    if (currentThreadFast() != owner()) MW_THROW(IllegalMonitorStateException, "");
    bool free = c == 0;
    if (free) setOwner(nullptr);  // [L1]
    setState(c);
    return free;
}

bool TLockSync::isHeldExclusively() const {
    if (getState() == 0) return false;
    return owner() == currentThreadFast();
}

AbstractQueuedSynchronizer::ConditionObject* TLockSync::newCondition() const {
    return new ConditionObject(this);
}

const Thread* TLockSync::getOwner() const { return getState() == 0 ? nullptr : owner(); }

unsigned long long TLockSync::getHoldCount() const {
    const Thread* current = currentThreadFast();
    if (owner() != current) return 0;
    return static_cast<unsigned long long>(static_cast<long long>(getState()));
}

bool TLockSync::isLocked() const { return getState() != 0; }

}  // namespace detail
}  // namespace mw
