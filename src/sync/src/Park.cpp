#include "Park.h"

#include "Parker.h"
#include "ThreadInfoSlot.h"
#include "platform.h"

namespace mw {
namespace {

detail::Parker* currentParker() { return detail::Parker::of(detail::currentThreadFast()); }


// A parked thread announces no epoch, so that it holds up no reclamation however long it waits.
void parkWithoutEpoch(bool absolute, long long time) {
    detail::Parker* parker = currentParker();
    detail::HazardRecord* record = parker->hazards();
    record->suspendCritical();
    parker->park(absolute, time);
    record->resumeCritical();
}

}  // namespace

void parkCurrent() { parkWithoutEpoch(false, 0); }

void parkCurrentNanos(long long nanos) {
    if (nanos > 0) parkWithoutEpoch(false, nanos);
}

void parkCurrentUntil(long long deadline) { parkWithoutEpoch(true, deadline); }

void unparkThread(const Thread* thread) {
    if (thread != nullptr) detail::Parker::of(thread)->unpark();
}

namespace detail {

void prepareCurrentPark() { currentParker()->prepare(); }

HazardRecord* currentHazards() { return currentParker()->hazards(); }

void unparkNodeThread(const std::atomic<const Thread*>& nodeThread) {
    HazardRecord* hazards = currentHazards();
    unparkThread(hazards->protect(HazardRecord::WAKER, nodeThread));
    hazards->clear(HazardRecord::WAKER);
}

// Once the library's statics are being destroyed the process is ending: threads may have been
// killed inside a read-side section (Windows kills them before process detach), so nobody waits.
void markProcessEnding() { HazardRecord::markProcessEnding(); }

}  // namespace detail
}  // namespace mw
