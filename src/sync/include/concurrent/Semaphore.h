/// @class mw::Semaphore
/// Semaphore: a count of permits. acquire takes permits, waiting until enough are available;
/// release gives permits back, from any thread, and may raise the count above where it started.
/// Nothing records which thread took what. The count is never negative and never above INT_MAX.
///
/// A fair semaphore hands permits to waiting threads in the order they queued: a newcomer's
/// acquire, blocking or timed, does not take permits while another thread stands first in the
/// queue, so a thread waiting for several permits is not starved by threads that want one. A
/// non-fair one (the default) lets a newcomer take permits whenever enough are available, ahead of
/// the queue; that is faster under contention, but a waiter for several permits may then wait for
/// as long as others keep taking single ones. In either mode queued threads are served in order: a
/// first waiter that wants more than is available holds back those queued behind it.
///
/// Every operation refuses a negative number of permits with IllegalArgumentException before it
/// changes anything. Asking for 0 permits takes nothing and never waits; the interruptible and
/// timed forms still throw InterruptedException for an interrupt pending on entry, as every
/// interruptible wait of the library does. The semaphore must not be destroyed while a thread
/// waits on it or is inside one of its operations.
///
/// The names of std::counting_semaphore stand beside the library's own: acquire and release are
/// the same, try_acquire is tryAcquire(), and try_acquire_for / try_acquire_until take one permit
/// within a std::chrono time (never ending early; see Lock). A release happens before the acquire
/// that takes its permits, also for ThreadSanitizer in a program built with it (TsanAnnotations.h).
// Hence the operations that move permits are defined here.
#ifndef MW_CONCURRENT_SEMAPHORE_H
#define MW_CONCURRENT_SEMAPHORE_H

#include <boost/noncopyable.hpp>
#include <string>

#include "ChronoTimeout.h"
#include "Export.h"
#include "IllegalArgumentException.h"
#include "SemaphoreSync.h"
#include "TimeUnit.h"
#include "TsanAnnotations.h"

namespace mw {

namespace detail {
constexpr char SEMAPHORE_NEGATIVE_PERMITS[] = "number of permits must not be negative";
}

class MW_API Semaphore : private boost::noncopyable {
public:
    /// Starts with permits; fair or non-fair as Semaphore describes. Throws
    /// IllegalArgumentException for negative permits.
    explicit Semaphore(int permits, bool fair = false);
    /// Neither releases nor looks at waiters.
    ~Semaphore();

    /// Blocks until permits are taken. An interrupt does not end the wait: it is remembered, and
    /// the flag is set again on the way out.
    void acquire(int permits = 1) {
        if (permits < 0) MW_THROW(IllegalArgumentException, detail::SEMAPHORE_NEGATIVE_PERMITS);
        m_sync.acquireShared(permits);
        detail::tsanAcquire(this);
    }
    /// Blocks until permits are taken; throws InterruptedException, with the flag cleared and no
    /// permit taken, on an interrupt pending on entry or arriving while it waits.
    void acquireInterruptibly(int permits = 1) {
        if (permits < 0) MW_THROW(IllegalArgumentException, detail::SEMAPHORE_NEGATIVE_PERMITS);
        m_sync.acquireSharedInterruptibly(permits);
        detail::tsanAcquire(this);
    }
    /// Takes permits if that many are available now, even on a fair semaphore with threads queued
    /// (as ReentrantLock::tryLock barges). Never blocks, never queues, ignores interrupts.
    bool tryAcquire(int permits = 1) {
        if (permits < 0) MW_THROW(IllegalArgumentException, detail::SEMAPHORE_NEGATIVE_PERMITS);
        return acquired(m_sync.nonfairTryAcquireShared(permits) >= 0);
    }
    /// As acquireInterruptibly, but gives up when time runs out and then returns false. Honours
    /// fairness. A time of 0 or less makes one attempt without waiting; on a fair semaphore that
    /// attempt fails while another thread is queued first.
    bool tryAcquire(int permits, long long time, const TimeUnit& unit) {
        if (permits < 0) MW_THROW(IllegalArgumentException, detail::SEMAPHORE_NEGATIVE_PERMITS);
        return acquired(m_sync.tryAcquireSharedNanos(permits, unit.toNanos(time)));
    }
    /// Adds permits and lets waiters take them. Throws IllegalArgumentException, changing nothing,
    /// when the count would pass INT_MAX. Never blocks.
    void release(int permits = 1) {
        if (permits < 0) MW_THROW(IllegalArgumentException, detail::SEMAPHORE_NEGATIVE_PERMITS);
        if (permits == 0) return;
        detail::tsanRelease(this);
        // tryReleaseShared refuses 0 as well as an overflow; only the overflow is a failure.
        if (!m_sync.releaseShared(permits)) {
            MW_THROW(IllegalArgumentException, "release would raise the permits above 2147483647");
        }
    }

    /// The standard names, of std::counting_semaphore: try_acquire barges as tryAcquire() does;
    /// the timed forms take one permit, honour fairness and throw InterruptedException as
    /// tryAcquire(permits, time, unit) does.
    ///@{
    bool try_acquire() { return tryAcquire(); }
    template <typename Rep, typename Period>
    bool try_acquire_for(const std::chrono::duration<Rep, Period>& timeout) {
        return detail::retryFor(timeout,
                                [this](long long nanos) { return tryAcquireNanos(nanos); });
    }
    template <typename Clock, typename Duration>
    bool try_acquire_until(const std::chrono::time_point<Clock, Duration>& deadline) {
        return detail::retryUntil(deadline,
                                  [this](long long nanos) { return tryAcquireNanos(nanos); });
    }
    ///@}

    /// @name Inspection
    /// One moment's reading each; never blocks.
    ///@{

    /// The permits available now.
    int availablePermits() const;
    /// True if the semaphore was made fair.
    bool isFair() const;
    /// True if a thread waits for permits.
    bool hasQueuedThreads() const;
    /// The number of threads that wait for permits.
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
    bool acquired(bool success) {
        if (success) detail::tsanAcquire(this);
        return success;
    }
    bool tryAcquireNanos(long long nanosTimeout) {
        return acquired(m_sync.tryAcquireSharedNanos(1, nanosTimeout));
    }

    detail::SemaphoreSync m_sync;
};

}  // namespace mw

#endif
