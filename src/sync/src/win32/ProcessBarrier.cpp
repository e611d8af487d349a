// Windows has a process-wide barrier (FlushProcessWriteBuffers), but the Wine on which this
// backend is tested implements it as a stub that orders nothing, so a lock relying on it could not
// be verified: the backend reports none, and the locks keep their fenced release.
#include <atomic>

#include "platform.h"

namespace mw {
namespace platform {

bool processBarrierAvailable() { return false; }

void processBarrier() { std::atomic_thread_fence(std::memory_order_seq_cst); }

}  // namespace platform
}  // namespace mw
