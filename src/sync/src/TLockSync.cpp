#include "concurrent/TLockSync.h"

#include <algorithm>

#include "SynchronizerDiagnostics.h"
#include "ThreadInfoSlot.h"
#include "ThreadRegistry.h"
#include "concurrent/IllegalMonitorStateException.h"
#include "platform.h"

namespace mw {
namespace detail {

TLockSync::TLockSync(bool fenceFreeRelease)
    : AbstractQueuedSynchronizer(fenceFreeRelease), m_owner(0), m_spinRounds(0) {
    SynchronizerDiagnostics::setKind(*this, SynchronizerDiagnostics::LOCK);
}

TLockSync::TLockSync(const TLockSync& other)
    : AbstractQueuedSynchronizer(other),
      m_owner(other.m_owner.load(std::memory_order_relaxed)),
      m_spinRounds(0) {}

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
    releaseState(c);
    return free;
}

// 26 ns a pause on the machines measured: at most about 5 us, which is shorter than a park and
// wake-up; at least a few hundred nanoseconds, so that a lock that was held long once can learn
// again that it is now held briefly.
bool TLockSync::spinWhileHeld() {
    const int MIN_ROUNDS = 16;
    const int MAX_ROUNDS = 200;
    int recent = m_spinRounds.load(std::memory_order_relaxed);
    int limit = std::min(MAX_ROUNDS, 2 * recent + MIN_ROUNDS);
    int rounds = 0;
    bool free = false;
    while (!free && rounds < limit) {
        platform::cpuRelax();
        ++rounds;
        free = getState() == 0;
    }
    // A spin that saw the lock free moves the estimate toward the rounds it needed; one that ran
    // out halves it, so a lock whose holders keep it (or take it straight back) is soon watched
    // only briefly, and its waiters park instead of pulling the lock's line from the holder.
    int next = free ? recent + (rounds - recent) / 8 : recent / 2;
    m_spinRounds.store(next, std::memory_order_relaxed);
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
