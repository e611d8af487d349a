// CountDownLatchSync: the synchronizer behind CountDownLatch, in shared mode. The state is the
// count still to go. It only falls, by compareAndSet, one step at a time, and stays at 0 once
// there; so the one count-down that takes it from 1 to 0 is the release that opens the latch, and
// every acquisition succeeds from then on.
#ifndef MW_CONCURRENT_COUNT_DOWN_LATCH_SYNC_H
#define MW_CONCURRENT_COUNT_DOWN_LATCH_SYNC_H

#include "AbstractQueuedSynchronizer.h"
#include "Export.h"

namespace mw {
namespace detail {

class MW_API CountDownLatchSync : public AbstractQueuedSynchronizer {
public:
    // Requires count >= 0; the caller checks.
    explicit CountDownLatchSync(int count);
    // A copy would share the source's queue, so there is none.
    CountDownLatchSync(const CountDownLatchSync&) = delete;
    CountDownLatchSync& operator=(const CountDownLatchSync&) = delete;
    virtual ~CountDownLatchSync();

    int getCount() const { return getState(); }

protected:
    // 1 once the count is 0, so that each waiter that passes lets the next one try; else -1. The
    // argument is not used.
    virtual int tryAcquireShared(int unused);
    // Takes one from the count; true only for the step that reaches 0. At 0 changes nothing and
    // returns false. The argument is not used.
    virtual bool tryReleaseShared(int unused);
};

}  // namespace detail
}  // namespace mw

#endif
