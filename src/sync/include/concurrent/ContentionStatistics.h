// ContentionStatistics: how much a synchronizer has been waited for.
#ifndef MW_CONCURRENT_CONTENTION_STATISTICS_H
#define MW_CONCURRENT_CONTENTION_STATISTICS_H

namespace mw {

/// The contention that one synchronizer (a lock, a monitor, a semaphore, a latch, a read-write
/// lock) has seen since it was made, as read at one moment.
///
/// Only waits that queued are counted: an acquisition that took the synchronizer at once, or
/// after the lock's short spin, is not contention here and costs nothing to count. The counters
/// are kept by the waiting threads themselves, on the path that queues, so reading them never
/// blocks anyone; the fields of one snapshot are read one after another and may come from
/// slightly different moments while threads wait. A re-acquisition at the end of a condition
/// wait is not counted: it is part of the condition wait.
struct ContentionStatistics {
    /// Acquisitions that queued and then succeeded.
    unsigned long long contendedAcquisitions = 0;
    /// Queued waits that gave up: time-outs, interrupts, and failures thrown while queued.
    unsigned long long cancelledWaits = 0;
    /// Nanoseconds spent queued by the contended acquisitions, summed.
    long long totalWaitNanos = 0;
    /// The longest time one contended acquisition spent queued, in nanoseconds.
    long long maxWaitNanos = 0;
    /// The most threads that waited in the queue at one time.
    unsigned long long maxQueueLength = 0;
};

}  // namespace mw

#endif
