#include "concurrent/CountDownLatch.h"

#include "concurrent/IllegalArgumentException.h"

namespace mw {

// The synchronizer never holds a negative count, not even for the moment before the refusal.
CountDownLatch::CountDownLatch(int count) : m_sync(count < 0 ? 0 : count) {
    m_sync.setDiagnosticIdentity(this);
    if (count < 0) MW_THROW(IllegalArgumentException, "count must not be negative");
}

CountDownLatch::~CountDownLatch() {}

int CountDownLatch::getCount() const { return m_sync.getCount(); }

bool CountDownLatch::hasQueuedThreads() const { return m_sync.hasQueuedThreads(); }

unsigned long long CountDownLatch::getQueueLength() const { return m_sync.getQueueLength(); }

}  // namespace mw
