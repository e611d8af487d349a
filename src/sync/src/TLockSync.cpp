#include "concurrent/TLockSync.h"

#include "ThreadInfoSlot.h"
#include "ThreadRegistry.h"
#include "concurrent/IllegalMonitorStateException.h"

namespace mw {
namespace detail {

TLockSync::TLockSync() : AbstractQueuedSynchronizer(), m_owner(0) {}

TLockSync::TLockSync(const TLockSync& other)
    : AbstractQueuedSynchronizer(other), m_owner(other.m_owner.load(std::memory_order_relaxed)) {}

TLockSync& TLockSync::operator=(const TLockSync& other) {
    AbstractQueuedSynchronizer::operator=(other);
    m_owner.store(other.m_owner.load(std::memory_order_relaxed), std::memory_order_relaxed);
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
    if (isOwner(current)) {
        setState(c + acquires);
        return true;
    }
    return false;
}

// [L1] m_owner is cleared before m_state is stored, so the next owner's store into m_owner, which
// follows its compareAndSet on m_state, cannot be overwritten by this one.
bool TLockSync::tryRelease(int releases) {
    int c = static_cast<int>(static_cast<unsigned>(getState()) - static_cast<unsigned>(releases));
    if (!isOwner(currentThreadFast())) MW_THROW(IllegalMonitorStateException, "");
    bool free = c == 0;
    if (free) clearOwner();  // [L1]
    setState(c);
    return free;
}

bool TLockSync::isHeldExclusively() const {
    if (getState() == 0) return false;
    return isOwner(currentThreadFast());
}

AbstractQueuedSynchronizer::ConditionObject* TLockSync::newCondition() const {
    return new ConditionObject(this);
}

// The owner's object if it is still alive; null for a free lock and for one whose owner ended
// while holding it.
const Thread* TLockSync::getOwner() const {
    if (getState() == 0) return nullptr;
    unsigned long long serial = m_owner.load(std::memory_order_relaxed);
    return serial == 0 ? nullptr : ThreadRegistry::find(serial);
}

unsigned long long TLockSync::getHoldCount() const {
    if (!isOwner(currentThreadFast())) return 0;
    return static_cast<unsigned long long>(static_cast<long long>(getState()));
}

bool TLockSync::isLocked() const { return getState() != 0; }

}  // namespace detail
}  // namespace mw
