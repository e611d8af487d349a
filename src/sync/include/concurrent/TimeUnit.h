/// @class mw::TimeUnit
/// TimeUnit: the unit in which a duration is meant, with saturating conversion between units.
/// There are four constants, each made at its first use and torn down when the library is
/// unloaded, in the reverse order of first use; an accessor called after any teardown throws
/// std::runtime_error("Dead Reference Detected"). A reference from an accessor is valid until the
/// teardown of that constant. A constant never changes; any thread may use it.
#ifndef MW_CONCURRENT_TIME_UNIT_H
#define MW_CONCURRENT_TIME_UNIT_H

#include <cstdint>
#include <string>

#include "Export.h"

namespace mw {

class Object;
class Thread;

namespace detail {
class TimeUnitConstant;
}

class MW_API TimeUnit {
public:
    /// The four units, each made at its first use (see TimeUnit). The first use may also throw
    /// std::bad_alloc.
    ///@{
    static const TimeUnit& NANOSECONDS();
    static const TimeUnit& MICROSECONDS();
    static const TimeUnit& MILLISECONDS();
    static const TimeUnit& SECONDS();
    ///@}

    ~TimeUnit();

    /// duration, given in source, expressed in this unit. Finer units saturate at the limits of
    /// a signed 64-bit integer; coarser ones truncate toward zero.
    long long convert(long long duration, const TimeUnit& source) const;
    /// duration, given in this unit, in nanoseconds, microseconds, milliseconds or seconds;
    /// saturated or truncated as by convert.
    ///@{
    long long toNanos(long long duration) const;
    long long toMicros(long long duration) const;
    long long toMillis(long long duration) const;
    long long toSeconds(long long duration) const;
    ///@}

    /// The unit's name: "NANOSECONDS", "MICROSECONDS", "MILLISECONDS" or "SECONDS".
    const std::string& getName() const;
    /// Whether the two are the same unit.
    ///@{
    bool operator==(const TimeUnit& other) const;
    bool operator!=(const TimeUnit& other) const;
    ///@}

    /// @name Waits in this unit
    /// A timeout of 0 or less returns at once and touches nothing: timedWait then needs no
    /// monitor. Otherwise each goes through the library's accessors of the constants (so it can
    /// end in "Dead Reference Detected" during unload) and passes on what the wait throws.
    ///@{

    /// Object::wait on object for timeout: the whole milliseconds and the nanoseconds left over.
    /// Less than a millisecond does not block (Object::wait(0, ns) is a timed wait of nothing).
    void timedWait(const Object& object, long long timeout) const;
    /// Thread::join for timeout, in whole milliseconds, but for 1 ms at least: a positive timeout
    /// shorter than that must not turn into join(0), which waits without limit.
    void timedJoin(const Thread& thread, long long timeout) const;
    /// Thread::sleep for timeout in whole milliseconds; the rest below a millisecond is dropped.
    void sleep(long long timeout) const;
    ///@}

private:
    friend class detail::TimeUnitConstant;

    explicit TimeUnit(int index);
    TimeUnit(const TimeUnit&) = delete;
    TimeUnit& operator=(const TimeUnit&) = delete;

    static long long doConvert(int delta, long long duration);
    // The nanoseconds by which duration in this unit exceeds millis, the same duration truncated
    // to whole milliseconds: 0 for milliseconds and seconds.
    long long excessNanos(long long duration, long long millis) const;

    static const char* NAMES[4];
    static const std::uint32_t MULTIPLIERS[4];
    static const long long OVERFLOWS[4];

    std::string m_name;
    int m_index;
};

}  // namespace mw

#endif
