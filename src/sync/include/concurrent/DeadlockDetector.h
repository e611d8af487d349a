// DeadlockDetector: finds threads that wait on one another for good.
#ifndef MW_CONCURRENT_DEADLOCK_DETECTOR_H
#define MW_CONCURRENT_DEADLOCK_DETECTOR_H

#include <string>
#include <vector>

#include "DeadlockCycle.h"
#include "Export.h"

namespace mw {

/// Deadlock detection on demand. The wait-for graph has an edge from each thread blocked
/// acquiring a ReentrantLock, an Object's monitor or the write side of a read-write lock (or its
/// read side, while a writer holds it) to the thread that holds it, and from each thread in join
/// to the thread it joins. A thread in a monitor or condition wait holds nothing that it waits
/// for and has no edge, nor has a wait on a semaphore or a latch (nobody owns their permits).
///
/// Runs only when called, never on a lock path, and blocks no one. A cycle is reported only when
/// it was checked twice: every thread of it was seen in the same wait before and after every
/// owner was read twice the same, so at one moment in between all of them waited on one another.
/// A cycle of untimed, uninterruptible waits then lasts for ever; a timed or interruptible wait
/// in it can still end it.
class DeadlockDetector {
public:
    /// Every deadlock cycle found now, each once; empty when there is none.
    MW_API static std::vector<DeadlockCycle> findDeadlocks();
    /// The text of every cycle (DeadlockCycle::toString), or "No deadlock found.\n".
    MW_API static std::string toString(const std::vector<DeadlockCycle>& cycles);
};

}  // namespace mw

#endif
