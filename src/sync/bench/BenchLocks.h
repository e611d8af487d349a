// Adapters that give every lock under test the same lock()/unlock() shape, so that one benchmark
// body measures them side by side.
#ifndef MW_SYNC_BENCH_LOCKS_H
#define MW_SYNC_BENCH_LOCKS_H

#include <atomic>
#include <mutex>

#include "concurrent/AbstractQueuedSynchronizer.h"
#include "concurrent/FairLockPolicy.h"
#include "concurrent/Guard.h"
#include "concurrent/NonFairLockPolicy.h"
#include "concurrent/Object.h"
#include "concurrent/ReentrantLock.h"

#if defined(MW_BENCH_HAVE_TBB)
#include <tbb/queuing_mutex.h>
#endif

namespace mwbench {

// The smallest useful subclass of the synchronizer: a non-reentrant mutex with one CAS to take
// and one exchange to give back.
class SimpleMutex : public mw::AbstractQueuedSynchronizer {
public:
    void lock() {
        if (!compareAndSetState(0, 1)) acquire(1);
    }
    void unlock() { release(1); }

protected:
    virtual bool tryAcquire(int) { return compareAndSetState(0, 1); }
    virtual bool tryRelease(int) {
        setState(0);
        return true;
    }
    virtual bool isHeldExclusively() const { return getState() != 0; }
};

struct StdMutex {
    std::mutex m;
    void lock() { m.lock(); }
    void unlock() { m.unlock(); }
};

struct StdRecursiveMutex {
    std::recursive_mutex m;
    void lock() { m.lock(); }
    void unlock() { m.unlock(); }
};

template <typename Policy>
struct MwReentrant {
    mw::ReentrantLock<Policy> m;
    void lock() { m.lock(); }
    void unlock() { m.unlock(); }
};

#if defined(MW_BENCH_HAVE_TBB)
struct TbbQueuingMutex {
    tbb::queuing_mutex m;
};
#endif

}  // namespace mwbench

#endif
