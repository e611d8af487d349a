/// @class mw::CountDownLatch
/// CountDownLatch: a gate that opens once, when a count reaches zero. Threads wait in await until
/// then; any thread may count down. The count-down that reaches zero lets every waiter through at
/// that moment, and from then on await returns at once; at zero, countDown changes nothing. A latch
/// cannot be reset.
///
/// There is no fair mode: every waiter passes at the same moment, so there is no order to keep.
/// The latch must not be destroyed while a thread waits on it or is inside one of its operations.
///
/// Every count-down happens before the return of an await that sees the count at zero, also for
/// ThreadSanitizer in a program built with it (TsanAnnotations.h).
// Hence await and countDown are defined here.
#ifndef MW_CONCURRENT_COUNT_DOWN_LATCH_H
#define MW_CONCURRENT_COUNT_DOWN_LATCH_H

#include <boost/noncopyable.hpp>
#include <string>

#include "CountDownLatchSync.h"
#include "Export.h"
#include "TimeUnit.h"
#include "TsanAnnotations.h"

namespace mw {

class MW_API CountDownLatch : private boost::noncopyable {
public:
    /// Throws IllegalArgumentException for a negative count. A latch made with 0 is open.
    explicit CountDownLatch(int count);
    /// Neither opens the latch nor looks at waiters.
    ~CountDownLatch();

    /// Blocks until the count is zero. Throws InterruptedException, with the flag cleared, on an
    /// interrupt pending on entry or arriving while it waits, even if the latch is open.
    void await() const {
        m_sync.acquireSharedInterruptibly(1);
        detail::tsanAcquire(this);
    }
    /// As await, but gives up when time runs out. Returns whether the count reached zero; a time of
    /// 0 or less just tests the count (after the test for an interrupt).
    bool await(long long time, const TimeUnit& unit) const {
        if (!m_sync.tryAcquireSharedNanos(1, unit.toNanos(time))) return false;
        detail::tsanAcquire(this);
        return true;
    }
    /// Takes one from the count; the step that reaches zero wakes every waiter. Never blocks.
    void countDown() {
        detail::tsanRelease(this);
        m_sync.releaseShared(1);
    }

    /// @name Inspection
    /// One moment's reading each; never blocks. The count is an int, as the constructor takes it.
    ///@{

    /// The count still to go; 0 once the latch is open.
    int getCount() const;
    /// True if a thread waits in await.
    bool hasQueuedThreads() const;
    /// The number of threads that wait in await.
    unsigned long long getQueueLength() const;
    ///@}

    /// @name Diagnostics
    /// A name for thread dumps (up to 63 bytes), and the contention seen since construction;
    /// see AbstractQueuedSynchronizer's diagnostics. Any thread, at any time; never blocks.
    ///@{

    /// Names the object for thread dumps; throws std::bad_alloc if the first name cannot be stored.
    void setDiagnosticName(const std::string& name) { m_sync.setDiagnosticName(name); }
    /// The name given by setDiagnosticName; empty if none was given.
    std::string getDiagnosticName() const { return m_sync.getDiagnosticName(); }
    /// The contention seen since construction (see ContentionStatistics).
    ContentionStatistics getContentionStatistics() const {
        return m_sync.getContentionStatistics();
    }
    ///@}

private:
    // mutable: waiting is not a change of the latch, but it queues on the synchronizer.
    mutable detail::CountDownLatchSync m_sync;
};

}  // namespace mw

#endif
