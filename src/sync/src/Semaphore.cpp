#include "concurrent/Semaphore.h"

#include "concurrent/IllegalArgumentException.h"

// Each operation tests its argument itself, so that a refusal names the operation called. Those
// that move permits are defined in the header, where ThreadSanitizer annotations reach the caller.

namespace mw {

namespace {

const char* const NEGATIVE_INITIAL = "initial permits must not be negative";

}  // namespace

// The synchronizer never holds a negative count, not even for the moment before the refusal.
Semaphore::Semaphore(int permits, bool fair) : m_sync(permits < 0 ? 0 : permits, fair) {
    m_sync.setDiagnosticIdentity(this);
    if (permits < 0) MW_THROW(IllegalArgumentException, NEGATIVE_INITIAL);
}

Semaphore::~Semaphore() {}

int Semaphore::availablePermits() const { return m_sync.getPermits(); }

bool Semaphore::isFair() const { return m_sync.isFair(); }

bool Semaphore::hasQueuedThreads() const { return m_sync.hasQueuedThreads(); }

unsigned long long Semaphore::getQueueLength() const { return m_sync.getQueueLength(); }

}  // namespace mw
