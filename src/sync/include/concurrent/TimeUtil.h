// TimeUtil: the library's clocks. All operations are static, lock-free and never fail.
//  milliTime / timeOfDay: wall clock, milliseconds since 1970-01-01 UTC; jumps with the system
//  time. nanoTime: nanoseconds from an arbitrary origin, for differences only; never decreases.
//  microTime: nanoTime in microseconds, rounded to the nearest (a half goes up).
#ifndef MW_CONCURRENT_TIME_UTIL_H
#define MW_CONCURRENT_TIME_UTIL_H

#include "Export.h"

namespace mw {

class MW_API TimeUtil {
public:
    static long long milliTime();
    static long long timeOfDay();
    static long long nanoTime();
    static long long microTime();

    TimeUtil& operator=(const TimeUtil& other);
};

}  // namespace mw

#endif
