// The library's static objects, defined in one translation unit so that they are built in this
// order at load and destroyed in the reverse order at unload, on every platform. The destructor
// of s_threadInfo cleans the record of the thread that unloads the library (on exit, the thread
// that called exit, after its atexit routines and the static destructors built after the
// library), so the mode markers of the wait queue and the slot of the read-hold tables, built
// before it, outlive that cleaning.
#include "ReadHoldTable.h"
#include "ThreadInfoSlot.h"
#include "TimeUnitConstant.h"
#include "concurrent/AbstractQueuedSynchronizer.h"
#include "concurrent/DefaultThreadFactory.h"

namespace mw {

// 1, 2: the mode markers of the wait queue.
AutoPtr<AbstractQueuedSynchronizer::Node> AbstractQueuedSynchronizer::Node::SHARED(
    new AbstractQueuedSynchronizer::Node());
AutoPtr<AbstractQueuedSynchronizer::Node> AbstractQueuedSynchronizer::Node::EXCLUSIVE;

namespace detail {

// 3 to 6: the creation locks of the four TimeUnit constants, in their holders. They outlive the
// cleaning of the unloading thread's record, so a cleaner that asks for a constant gets the
// orderly "Dead Reference Detected".
TimeUnitConstant s_timeUnitConstants[4] = {TimeUnitConstant(0), TimeUnitConstant(1),
                                           TimeUnitConstant(2), TimeUnitConstant(3)};

// 7: the slot of each thread's read-hold table, and the source of read-write lock ids. Built
// before s_threadInfo, not after it: the cleaning of the unloading thread's record, in the
// destructor of s_threadInfo, reads and clears this slot (the record lists it once the thread has
// read-locked), and a cleaner run there may still take and release read locks. Built last, it
// would be destroyed first, and that cleaning would call into a destroyed slot.
ReadHoldTables s_readHoldTables;

// 8: every thread's record.
ThreadInfoPtr s_threadInfo;

}  // namespace detail

// 9: the number of the next thread pool.
Atomic<unsigned int> DefaultThreadFactory::s_poolNumber(1);

}  // namespace mw
