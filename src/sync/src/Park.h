// The four park functions: the only means by which a lock, condition or monitor blocks or wakes a
// thread. A park may return for no reason; callers loop on their own condition.
//
// Waking reads a Thread pointer out of a queue node, and that thread may end and its object be
// freed at any moment after it has acquired. So every read of a node's thread for waking is
// protected by a hazard slot (Reclamation.h), and ~Thread waits until no slot holds its address.
// A thread clears its nodes' thread fields before it can end.
#ifndef MW_SYNC_PARK_H
#define MW_SYNC_PARK_H

#include <atomic>

#include "Reclamation.h"
#include "concurrent/Thread.h"

namespace mw {

// Blocks until a permit or an interrupt.
void parkCurrent();
// nanos <= 0 returns at once; 1 to 999999 waits 1 ms; otherwise the truncated milliseconds.
void parkCurrentNanos(long long nanos);
// deadline in milliseconds on TimeUtil::milliTime; 0 means no limit, negative returns at once.
void parkCurrentUntil(long long deadline);
// Gives the thread its permit; null is ignored. Any thread may call it.
void unparkThread(const Thread* thread);

namespace detail {

// Wakes the thread of a queue node, if it has one. The node's thread may end and its object be
// freed at any moment after the thread has left the node, so the field is read under the calling
// thread's WAKER hazard slot.
void unparkNodeThread(const std::atomic<const Thread*>& nodeThread);

// The calling thread's hazard record.
HazardRecord* currentHazards();

// From here on no destructor waits for readers: the process is ending.
void markProcessEnding();

// Makes sure the calling thread's next park cannot fail for lack of memory, so that a condition
// wait can be refused before it gives up its hold rather than after.
void prepareCurrentPark();

}  // namespace detail
}  // namespace mw

#endif
