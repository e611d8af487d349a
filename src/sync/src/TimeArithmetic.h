// Saturating arithmetic on signed 64-bit durations: a result beyond the range sticks at its limit
// instead of wrapping, so a time that has run out stays run out however far past it the clock is.
#ifndef MW_SYNC_TIME_ARITHMETIC_H
#define MW_SYNC_TIME_ARITHMETIC_H

#include <climits>

namespace mw {
namespace detail {

inline long long saturatingAdd(long long a, long long b) {
    long long sum;
    if (__builtin_add_overflow(a, b, &sum)) return b > 0 ? LLONG_MAX : LLONG_MIN;
    return sum;
}

inline long long saturatingSub(long long a, long long b) {
    long long difference;
    if (__builtin_sub_overflow(a, b, &difference)) return b < 0 ? LLONG_MAX : LLONG_MIN;
    return difference;
}

// A timed wait's time left once the clock has moved on from lastTime to now; lastTime becomes now.
inline long long timeLeft(long long nanosTimeout, long long& lastTime, long long now) {
    long long left = saturatingSub(nanosTimeout, saturatingSub(now, lastTime));
    lastTime = now;
    return left;
}

}  // namespace detail
}  // namespace mw

#endif
