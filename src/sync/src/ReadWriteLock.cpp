#include "concurrent/ReadWriteLock.h"

namespace mw {

// ---- the lock -----------------------------------------------------------------------------------

ReadWriteLock::~ReadWriteLock() {}

unsigned long long ReadWriteLock::getReadLockCount() const { return m_sync.getReadLockCount(); }

unsigned long long ReadWriteLock::getReadHoldCount() const { return m_sync.getReadHoldCount(); }

unsigned long long ReadWriteLock::getWriteHoldCount() const { return m_sync.getWriteHoldCount(); }

bool ReadWriteLock::isWriteLocked() const { return m_sync.isWriteLocked(); }

bool ReadWriteLock::isWriteLockedByCurrentThread() const { return m_sync.isHeldExclusively(); }

const Thread* ReadWriteLock::getOwner() const { return m_sync.getOwner(); }

bool ReadWriteLock::isFair() const { return m_sync.isFair(); }

bool ReadWriteLock::hasQueuedThreads() const { return m_sync.hasQueuedThreads(); }

unsigned long long ReadWriteLock::getQueueLength() const { return m_sync.getQueueLength(); }

}  // namespace mw
