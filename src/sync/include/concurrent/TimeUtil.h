/// @class mw::TimeUtil
/// TimeUtil: the library's clocks. All operations are static, lock-free and never fail.
/// - milliTime / timeOfDay: wall clock, milliseconds since 1970-01-01 UTC; jumps with the system
///   time.
/// - nanoTime: nanoseconds from an arbitrary origin, for differences only; never decreases.
/// - microTime: nanoTime in microseconds, rounded to the nearest (a half goes up).
#ifndef MW_CONCURRENT_TIME_UTIL_H
#define MW_CONCURRENT_TIME_UTIL_H

#include "Export.h"

namespace mw {

class MW_API TimeUtil {
public:
    /// Wall clock: milliseconds since 1970-01-01 UTC; jumps with the system time.
    static long long milliTime();
    /// The same as milliTime.
    static long long timeOfDay();
    /// Nanoseconds from an arbitrary origin, for differences only; never decreases.
    static long long nanoTime();
    /// nanoTime in microseconds, rounded to the nearest (a half goes up).
    static long long microTime();

    /// Does nothing: a TimeUtil has no state.
    TimeUtil& operator=(const TimeUtil& other);
};

}  // namespace mw

#endif
