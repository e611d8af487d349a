// TimeUnitConstant: the holder of one of the four TimeUnit constants. The holders are static
// objects of the library, built at load in its fixed order (only the creation lock needs
// construction); the TimeUnit itself is made at first use and torn down from the exit list, where
// its teardown is entered at that first use, so the constants die in the reverse order of their
// first use and before anything built at load. Once any constant has been torn down, no constant
// is made any more: an accessor then throws std::runtime_error("Dead Reference Detected").
//
// [T1] The release store of m_instance publishes the finished TimeUnit to the lock-free read of
// get()'s first step. m_registered, m_armed and s_destroyed are touched under m_mutex, except for
// the teardown's first test of m_armed, which runs once, on the thread that runs the exit list.
#ifndef MW_SYNC_TIME_UNIT_CONSTANT_H
#define MW_SYNC_TIME_UNIT_CONSTANT_H

#include <atomic>
#include <boost/thread/mutex.hpp>

#include "concurrent/TimeUnit.h"

namespace mw {
namespace detail {

class TimeUnitConstant {
public:
    // index is the unit's ordinal: 0 nanoseconds to 3 seconds.
    explicit TimeUnitConstant(int index);

    // The constant, made on the first call. Lock-free once it exists. Throws std::bad_alloc (a
    // later call tries again), std::runtime_error after a teardown, and
    // boost::thread_resource_error from the lock.
    const TimeUnit& get();

    // The exit list's routine for this constant: deletes it and bars every later creation.
    void teardown();

private:
    TimeUnitConstant(const TimeUnitConstant&) = delete;
    TimeUnitConstant& operator=(const TimeUnitConstant&) = delete;

    // Set by the teardown of any constant, never cleared.
    static std::atomic<bool> s_destroyed;

    const int m_index;
    std::atomic<TimeUnit*> m_instance;
    // Whether the teardown is entered in the exit list, and whether it still has to run.
    std::atomic<bool> m_registered;
    std::atomic<bool> m_armed;
    boost::mutex m_mutex;
};

// The holders, by the unit's ordinal; defined with the library's other statics, in load order.
extern TimeUnitConstant s_timeUnitConstants[4];

}  // namespace detail
}  // namespace mw

#endif
