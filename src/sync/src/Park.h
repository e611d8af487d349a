// The four park functions: the only means by which a lock, condition or monitor blocks or wakes a
// thread. A park may return for no reason; callers loop on their own condition.
//
// Waking reads a Thread pointer out of a queue node, and that thread may end and its object be
// freed at any moment after it has acquired. So every read of a node's thread for waking happens
// inside a WakerScope, and ~Thread first waits until no waker that could have read its address is
// inside one (awaitWakersQuiescent). A thread clears its nodes' thread fields before it can end.
#ifndef MW_SYNC_PARK_H
#define MW_SYNC_PARK_H

#include <atomic>

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

class WakerScope {
public:
    WakerScope();
    ~WakerScope();

    // Reads a node's thread field inside the scope; see [W1].
    static const Thread* read(const std::atomic<const Thread*>& field) {
        return field.load(std::memory_order_seq_cst);
    }

    WakerScope(const WakerScope&) = delete;
    WakerScope& operator=(const WakerScope&) = delete;

private:
    int m_side;
};

// Waits until no waker that may have read a since-cleared thread field is still inside its scope.
void awaitWakersQuiescent();
void markProcessEnding();

// Makes sure the calling thread's next park cannot fail for lack of memory, so that a condition
// wait can be refused before it gives up its hold rather than after.
void prepareCurrentPark();

}  // namespace detail
}  // namespace mw

#endif
