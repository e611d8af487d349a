// DeadlockCycle: threads that wait on one another in a ring.
#ifndef MW_CONCURRENT_DEADLOCK_CYCLE_H
#define MW_CONCURRENT_DEADLOCK_CYCLE_H

#include <string>
#include <vector>

#include "Export.h"
#include "ThreadSnapshot.h"

namespace mw {

/// One cycle of the wait-for graph, as DeadlockDetector found it: each thread waits on what the
/// next one holds (or joins the next one), and the last waits on what the first holds.
struct DeadlockCycle {
    /// The threads of the ring, in wait-for order, each with what it waits on and its owner
    /// (ownerSerial is the serial of the next thread). Starts with the thread of the smallest
    /// serial, so that the same cycle always reads the same.
    std::vector<ThreadSnapshot> threads;

    /// Whether the thread with that serial is in the cycle.
    MW_API bool contains(unsigned long long serial) const;
    /// "Deadlock of N threads:" and then each thread's lines as in a ThreadDump.
    MW_API std::string toString() const;
};

}  // namespace mw

#endif
