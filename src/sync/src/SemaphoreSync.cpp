#include "concurrent/SemaphoreSync.h"

#include <limits>

#include "SynchronizerDiagnostics.h"

namespace mw {
namespace detail {

SemaphoreSync::SemaphoreSync(int permits, bool fair) : AbstractQueuedSynchronizer(), m_fair(fair) {
    SynchronizerDiagnostics::setKind(*this, SynchronizerDiagnostics::SEMAPHORE);
    setState(permits);
}

SemaphoreSync::~SemaphoreSync() {}

// available - permits cannot overflow: both are 0 or more. A failed compareAndSet means another
// thread changed the count, so the test is made again on the new count.
int SemaphoreSync::nonfairTryAcquireShared(int permits) {
    for (;;) {
        int available = getState();
        int remaining = available - permits;
        if (remaining < 0 || permits == 0 || compareAndSetState(available, remaining)) {
            return remaining;
        }
    }
}

int SemaphoreSync::tryAcquireShared(int permits) {
    if (m_fair && permits > 0 && hasQueuedPredecessors()) return -1;
    return nonfairTryAcquireShared(permits);
}

// The limit is tested against the count that the compareAndSet then replaces, so a release that
// would overflow is refused whatever other threads do meanwhile.
bool SemaphoreSync::tryReleaseShared(int permits) {
    if (permits == 0) return false;
    for (;;) {
        int current = getState();
        if (permits > std::numeric_limits<int>::max() - current) return false;
        if (compareAndSetState(current, current + permits)) return true;
    }
}

}  // namespace detail
}  // namespace mw
