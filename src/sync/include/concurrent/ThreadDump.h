// ThreadDump: what every thread of the library is doing.
#ifndef MW_CONCURRENT_THREAD_DUMP_H
#define MW_CONCURRENT_THREAD_DUMP_H

#include <string>
#include <vector>

#include "DeadlockCycle.h"
#include "Export.h"
#include "ThreadSnapshot.h"

namespace mw {

/// A snapshot of every thread that has a Thread object (started by the library or adopted), with
/// what each one waits on while it is blocked in the library.
///
/// take() may be called by any thread at any time, also while threads start, block, wake, time
/// out, are interrupted and end: it never blocks another thread, never waits for one, and never
/// reads an object that is being freed (it only reads objects it has first made sure are alive;
/// a thread or a synchronizer that goes away meanwhile just shows less). Nothing on the lock,
/// unlock or park paths takes part; a queued wait records itself for the dump as it starts and
/// ends. Each thread's snapshot is consistent in itself; the dump as a whole is not one instant.
///
/// The text form (toString) is stable, one line per thread and one more per wait:
/// @code
/// Thread dump: 3 threads
/// "main" #1 id=4711 RUNNING
/// "worker-1" #2 id=4712 PARKED
///     waits on lock 0x55d0c2a0 "accounts", held by "worker-2" #3, for 1203.114 ms
/// "worker-2" #3 id=4713 RUNNING
///     waits on join 0x55d0c3f0 "worker-1", thread #2, for 12.000 ms
/// @endcode
/// A thread line is the name in double quotes, '#' and the serial, "id=" and the OS id, and the
/// state's name. A wait line is indented by four spaces: "waits on", the kind (see
/// ThreadSnapshot::kindName), the address of what is waited on, its diagnostic name in double
/// quotes if it has one, then ", held by" with the owner's name (unless the owner has ended or
/// has an empty name) and serial where there is an exclusive owner (", thread #N" for a join),
/// then ", for" and the time waited in milliseconds
/// with three decimals. A sleep shows "waits on sleep, for ...".
class ThreadDump {
public:
    /// Reads every thread now. Allocates the snapshot (std::bad_alloc if it cannot); blocks no one.
    MW_API static ThreadDump take();

    /// Every thread, in the order of their serials.
    const std::vector<ThreadSnapshot>& threads() const { return m_threads; }
    /// The snapshot of the thread with that serial, or null.
    MW_API const ThreadSnapshot* find(unsigned long long serial) const;
    /// The text form described above.
    MW_API std::string toString() const;
    /// The wait-for graph as Graphviz DOT: a box per thread that waits or is waited for, an
    /// ellipse per object waited on, "waits on" edges from threads ("waits in" for a monitor
    /// wait), "held by" edges to owners, "joins" edges between threads. Threads, objects and
    /// edges of the given cycles are drawn in red.
    MW_API std::string toDot(
        const std::vector<DeadlockCycle>& cycles = std::vector<DeadlockCycle>()) const;

private:
    std::vector<ThreadSnapshot> m_threads;
};

}  // namespace mw

#endif
