#include "Park.h"

#include "Parker.h"
#include "ThreadInfoSlot.h"
#include "platform.h"

namespace mw {
namespace {

std::atomic<int> s_wakers(0);

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

// [W1] The increment precedes the sequentially consistent read of a node's thread field; the
// ending thread has cleared its fields, fences, and then reads the count ([W2]). If it reads 0,
// every later waker reads the cleared field.
WakerScope::WakerScope() { s_wakers.fetch_add(1); }

WakerScope::~WakerScope() { s_wakers.fetch_sub(1, std::memory_order_release); }

void awaitWakersQuiescent() {
    std::atomic_thread_fence(std::memory_order_seq_cst);  // [W2] pairs with [W1]
    while (s_wakers.load() != 0) platform::yieldThread();
}

}  // namespace detail
}  // namespace mw
