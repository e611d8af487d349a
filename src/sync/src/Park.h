// The four park functions: the only means by which a lock, condition or monitor blocks or wakes a
// thread. A park may return for no reason; callers loop on their own condition.
//
// Waking reads a Thread pointer out of a queue node, and that thread may end and free its object
// at any moment after it has acquired. So every read of a node's thread for waking happens inside
// a WakerScope, and a thread that is about to free its own object first waits until no waker is
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

private:
    WakerScope(const WakerScope&) = delete;
    WakerScope& operator=(const WakerScope&) = delete;
};

void awaitWakersQuiescent();

}  // namespace detail
}  // namespace mw

#endif
