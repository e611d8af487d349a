#include "Park.h"

#include "Parker.h"
#include "ThreadInfoSlot.h"
#include "platform.h"

namespace mw {
namespace {

// Wakers in flight, in two counters. A new waker counts itself in the one that s_wakerSide names;
// a thread that waits for the wakers points s_wakerSide away from the counter it drains, so a
// steady stream of new wakers cannot keep that counter above zero.
std::atomic<int> s_wakers[2];
std::atomic<int> s_wakerSide(0);
std::atomic<bool> s_processEnding(false);

detail::Parker* currentParker() { return detail::Parker::of(detail::currentThreadFast()); }

}  // namespace

void parkCurrent() { currentParker()->park(false, 0); }

void parkCurrentNanos(long long nanos) {
    if (nanos > 0) currentParker()->park(false, nanos);
}

void parkCurrentUntil(long long deadline) { currentParker()->park(true, deadline); }

void unparkThread(const Thread* thread) {
    if (thread != nullptr) detail::Parker::of(thread)->unpark();
}

namespace detail {

void prepareCurrentPark() { currentParker()->prepare(); }

// [W1] The increment precedes the sequentially consistent read of a node's thread field. The
// fields of a Thread about to be freed were cleared by sequentially consistent stores that happen
// before ~Thread, which then sees each counter at 0 at least once ([W2]). In the single order of
// those operations a waker whose increment comes after that reading reads a cleared field; a
// waker whose increment came before is waited for.
WakerScope::WakerScope() : m_side(s_wakerSide.load(std::memory_order_relaxed)) {
    s_wakers[m_side].fetch_add(1);
}

WakerScope::~WakerScope() { s_wakers[m_side].fetch_sub(1, std::memory_order_release); }

void awaitWakersQuiescent() {
    for (int side = 0; side < 2; ++side) {
        while (s_wakers[side].load() != 0) {  // [W2] pairs with [W1]
            if (s_processEnding.load(std::memory_order_relaxed)) return;
            s_wakerSide.store(1 - side, std::memory_order_relaxed);
            platform::yieldThread();
        }
    }
}

// Once the library's statics are being destroyed the process is ending: threads may have been
// killed inside a waker scope (Windows kills them before process detach), so nobody waits.
void markProcessEnding() { s_processEnding.store(true); }

}  // namespace detail
}  // namespace mw
