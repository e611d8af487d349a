#include "concurrent/Semaphore.h"

#include "concurrent/IllegalArgumentException.h"
#include "concurrent/TimeUnit.h"

// Each operation tests its argument itself, so that a refusal names the operation called.

namespace mw {

namespace {

const char* const NEGATIVE_INITIAL = "initial permits must not be negative";
const char* const NEGATIVE_PERMITS = "number of permits must not be negative";
const char* const TOO_MANY_PERMITS = "release would raise the permits above 2147483647";

}  // namespace

// The synchronizer never holds a negative count, not even for the moment before the refusal.
Semaphore::Semaphore(int permits, bool fair) : m_sync(permits < 0 ? 0 : permits, fair) {
    if (permits < 0) MW_THROW(IllegalArgumentException, NEGATIVE_INITIAL);
}

Semaphore::~Semaphore() {}

void Semaphore::acquire(int permits) {
    if (permits < 0) MW_THROW(IllegalArgumentException, NEGATIVE_PERMITS);
    m_sync.acquireShared(permits);
}

void Semaphore::acquireInterruptibly(int permits) {
    if (permits < 0) MW_THROW(IllegalArgumentException, NEGATIVE_PERMITS);
    m_sync.acquireSharedInterruptibly(permits);
}

bool Semaphore::tryAcquire(int permits) {
    if (permits < 0) MW_THROW(IllegalArgumentException, NEGATIVE_PERMITS);
    return m_sync.nonfairTryAcquireShared(permits) >= 0;
}

bool Semaphore::tryAcquire(int permits, long long time, const TimeUnit& unit) {
    if (permits < 0) MW_THROW(IllegalArgumentException, NEGATIVE_PERMITS);
    return m_sync.tryAcquireSharedNanos(permits, unit.toNanos(time));
}

// tryReleaseShared refuses 0 as well as an overflow; only the overflow is a failure.
void Semaphore::release(int permits) {
    if (permits < 0) MW_THROW(IllegalArgumentException, NEGATIVE_PERMITS);
    if (permits == 0) return;
    if (!m_sync.releaseShared(permits)) MW_THROW(IllegalArgumentException, TOO_MANY_PERMITS);
}

int Semaphore::availablePermits() const { return m_sync.getPermits(); }

bool Semaphore::isFair() const { return m_sync.isFair(); }

bool Semaphore::hasQueuedThreads() const { return m_sync.hasQueuedThreads(); }

unsigned long long Semaphore::getQueueLength() const { return m_sync.getQueueLength(); }

}  // namespace mw
