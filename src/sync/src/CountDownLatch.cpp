#include "concurrent/CountDownLatch.h"

#include "concurrent/IllegalArgumentException.h"
#include "concurrent/TimeUnit.h"

namespace mw {

// The synchronizer never holds a negative count, not even for the moment before the refusal.
CountDownLatch::CountDownLatch(int count) : m_sync(count < 0 ? 0 : count) {
    if (count < 0) MW_THROW(IllegalArgumentException, "count must not be negative");
}

CountDownLatch::~CountDownLatch() {}

void CountDownLatch::await() const { m_sync.acquireSharedInterruptibly(1); }

bool CountDownLatch::await(long long time, const TimeUnit& unit) const {
    return m_sync.tryAcquireSharedNanos(1, unit.toNanos(time));
}

void CountDownLatch::countDown() { m_sync.releaseShared(1); }

int CountDownLatch::getCount() const { return m_sync.getCount(); }

bool CountDownLatch::hasQueuedThreads() const { return m_sync.hasQueuedThreads(); }

unsigned long long CountDownLatch::getQueueLength() const { return m_sync.getQueueLength(); }

}  // namespace mw
