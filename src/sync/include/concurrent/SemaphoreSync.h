// SemaphoreSync: the synchronizer behind Semaphore, in shared mode. The state is the number of
// permits available, never negative: it falls only by a compareAndSet that leaves it at 0 or
// more, and rises only by a compareAndSet that leaves it at INT_MAX or less. A fair one lets a
// caller take permits only while no other thread stands first in the queue; a non-fair one lets
// it take them whenever enough are there. Any thread may release; nothing records who holds what.
#ifndef MW_CONCURRENT_SEMAPHORE_SYNC_H
#define MW_CONCURRENT_SEMAPHORE_SYNC_H

#include "AbstractQueuedSynchronizer.h"
#include "Export.h"

namespace mw {
namespace detail {

class MW_API SemaphoreSync : public AbstractQueuedSynchronizer {
public:
    // Requires permits >= 0; the caller checks.
    SemaphoreSync(int permits, bool fair);
    // A copy would share the source's queue, so there is none.
    SemaphoreSync(const SemaphoreSync&) = delete;
    SemaphoreSync& operator=(const SemaphoreSync&) = delete;
    virtual ~SemaphoreSync();

    // Takes permits if that many are available, whoever is queued. Never blocks; a result < 0 is
    // a failure that changed nothing, else it is the number left. Requires permits >= 0.
    int nonfairTryAcquireShared(int permits);
    int getPermits() const { return getState(); }
    bool isFair() const { return m_fair; }

protected:
    // As nonfairTryAcquireShared, but a fair synchronizer first fails a caller that another
    // thread stands ahead of in the queue. Taking 0 permits overtakes nobody and always succeeds.
    virtual int tryAcquireShared(int permits);
    // Adds permits and returns true when there are any to add. Returns false, changing nothing,
    // for 0 and when the count would pass INT_MAX: the caller reports the overflow, so that the
    // report names the operation it called.
    virtual bool tryReleaseShared(int permits);

private:
    // Set before the object is shared and never changed, so every thread reads it plainly.
    const bool m_fair;
};

}  // namespace detail
}  // namespace mw

#endif
