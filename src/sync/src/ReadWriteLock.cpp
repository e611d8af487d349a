#include "concurrent/ReadWriteLock.h"

#include "concurrent/TimeUnit.h"
#include "concurrent/UnsupportedOperationException.h"

namespace mw {

// ---- the lock -----------------------------------------------------------------------------------

ReadWriteLock::ReadWriteLock(bool fair) : m_sync(fair), m_readLock(m_sync), m_writeLock(m_sync) {
    m_sync.setDiagnosticIdentity(this);
}

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

// ---- the read side ------------------------------------------------------------------------------

void ReadWriteLock::ReadLock::lock() { m_sync.lockRead(); }

void ReadWriteLock::ReadLock::lockInterruptibly() { m_sync.lockReadInterruptibly(); }

bool ReadWriteLock::ReadLock::tryLock(long long timeout, const TimeUnit& unit) {
    return m_sync.tryLockReadNanos(unit.toNanos(timeout));
}

bool ReadWriteLock::ReadLock::tryLock() { return m_sync.tryLockRead(); }

void ReadWriteLock::ReadLock::unlock() { m_sync.unlockRead(); }

Condition* ReadWriteLock::ReadLock::newCondition() {
    MW_THROW(UnsupportedOperationException, "the read lock has no conditions");
}

// ---- the write side -----------------------------------------------------------------------------

void ReadWriteLock::WriteLock::lock() { m_sync.lockWrite(); }

void ReadWriteLock::WriteLock::lockInterruptibly() { m_sync.lockWriteInterruptibly(); }

bool ReadWriteLock::WriteLock::tryLock(long long timeout, const TimeUnit& unit) {
    return m_sync.tryLockWriteNanos(unit.toNanos(timeout));
}

bool ReadWriteLock::WriteLock::tryLock() { return m_sync.tryLockWrite(); }

void ReadWriteLock::WriteLock::unlock() { m_sync.unlockWrite(); }

Condition* ReadWriteLock::WriteLock::newCondition() { return m_sync.newCondition(); }

}  // namespace mw
