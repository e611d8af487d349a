#include "concurrent/CountDownLatchSync.h"

#include "SynchronizerDiagnostics.h"

namespace mw {
namespace detail {

CountDownLatchSync::CountDownLatchSync(int count) : AbstractQueuedSynchronizer() {
    SynchronizerDiagnostics::setKind(*this, SynchronizerDiagnostics::LATCH);
    setState(count);
}

CountDownLatchSync::~CountDownLatchSync() {}

int CountDownLatchSync::tryAcquireShared(int) { return getState() == 0 ? 1 : -1; }

// Counting down from a count that another thread has just changed is tried again on the new one.
bool CountDownLatchSync::tryReleaseShared(int) {
    for (;;) {
        int count = getState();
        if (count == 0) return false;
        if (compareAndSetState(count, count - 1)) return count == 1;
    }
}

}  // namespace detail
}  // namespace mw
