// ChronoTimeout: std::chrono durations and deadlines turned into the library's nanosecond
// time-outs, for every chrono overload of the library's waits. Header-only, in mw::detail.
//
// Conversions saturate and never shorten a wait: a duration is rounded up to whole nanoseconds
// (and to whole milliseconds for a call that takes milliseconds), a huge one clamps to the
// longest finite wait (never to "no limit", never wraps into a short one), and 0 or less means
// "do not wait". A deadline is turned into the time left on its own clock, read afresh each time.
//
// retryFor and retryUntil run a timed attempt until it succeeds or the time has passed as the
// caller's clock measures it: the attempt measures on the library's clock and may also return
// early for its own reasons, so the remainder is asked for again rather than given up.
#ifndef MW_CONCURRENT_CHRONO_TIMEOUT_H
#define MW_CONCURRENT_CHRONO_TIMEOUT_H

#include <chrono>
#include <climits>
#include <cmath>
#include <ratio>
#include <type_traits>

namespace mw {
namespace detail {

__extension__ typedef __int128 WideNanos;

// A bound far inside WideNanos, so that one difference of two bounded values cannot overflow.
constexpr WideNanos WIDE_NANOS_LIMIT = static_cast<WideNanos>(1) << 120;

// The longest finite wait of a call that takes 32-bit milliseconds, whose all-ones value means
// no limit (Thread::join, Thread::sleep): about 49.7 days.
constexpr long long LONGEST_FINITE_MILLIS = 0xFFFFFFFELL;

inline WideNanos clampWide(WideNanos n) {
    return n > WIDE_NANOS_LIMIT ? WIDE_NANOS_LIMIT : n < -WIDE_NANOS_LIMIT ? -WIDE_NANOS_LIMIT : n;
}

// count ticks of Period in nanoseconds, rounded up (roundUp) or down, clamped to the limit.
// Integral counts are converted exactly; NaN counts as 0.
template <typename Period, typename Rep>
WideNanos wideNanos(Rep count, bool roundUp) {
    static_assert(std::is_arithmetic<Rep>::value, "a duration's count must be arithmetic");
    typedef std::ratio_divide<Period, std::nano> PerTick;
    if constexpr (std::is_floating_point<Rep>::value) {
        long double n = static_cast<long double>(count) * PerTick::num / PerTick::den;
        if (std::isnan(n)) return 0;
        const long double limit = static_cast<long double>(WIDE_NANOS_LIMIT);
        if (n >= limit) return WIDE_NANOS_LIMIT;
        if (n <= -limit) return -WIDE_NANOS_LIMIT;
        return static_cast<WideNanos>(roundUp ? std::ceil(n) : std::floor(n));
    } else {
        static_assert(sizeof(Rep) <= sizeof(long long), "a duration's count must fit 64 bits");
        const WideNanos c = static_cast<WideNanos>(count);
        const WideNanos den = PerTick::den;
        WideNanos whole;
        if (__builtin_mul_overflow(c / den, static_cast<WideNanos>(PerTick::num), &whole)) {
            return c < 0 ? -WIDE_NANOS_LIMIT : WIDE_NANOS_LIMIT;
        }
        if (whole != clampWide(whole)) return clampWide(whole);
        // The remainder has the sign of c and is smaller than den: its product cannot overflow.
        const WideNanos part = c % den * PerTick::num;
        WideNanos fraction = part / den;
        if (part % den != 0 && (part > 0) == roundUp) fraction += roundUp ? 1 : -1;
        return clampWide(whole + fraction);
    }
}

inline long long toWaitNanos(WideNanos n) {
    return n <= 0 ? 0 : n >= LLONG_MAX ? LLONG_MAX : static_cast<long long>(n);
}

// A duration as a time-out in nanoseconds: rounded up, so that the wait never ends early;
// saturated at LLONG_MAX (about 292 years, still a timed wait); 0 or less tries once.
template <typename Rep, typename Period>
long long timeoutNanos(const std::chrono::duration<Rep, Period>& timeout) {
    return toWaitNanos(wideNanos<Period>(timeout.count(), true));
}

// The time left until deadline on its own clock, read once, in nanoseconds as above. The deadline
// is rounded up and the clock's reading down, and neither is converted to the other's type, so
// neither a coarse deadline nor time_point::max() can overflow.
template <typename Clock, typename Duration>
long long nanosUntil(const std::chrono::time_point<Clock, Duration>& deadline) {
    typedef typename Clock::duration NowDuration;
    const WideNanos end =
        wideNanos<typename Duration::period>(deadline.time_since_epoch().count(), true);
    const WideNanos now =
        wideNanos<typename NowDuration::period>(Clock::now().time_since_epoch().count(), false);
    return toWaitNanos(end - now);
}

// What is left of total nanoseconds counted from start on steady_clock (elapsed time rounded
// down, so the rest is never short).
inline long long nanosLeft(std::chrono::steady_clock::time_point start, long long total) {
    typedef std::chrono::steady_clock::period Period;
    const WideNanos elapsed =
        wideNanos<Period>((std::chrono::steady_clock::now() - start).count(), false);
    return toWaitNanos(static_cast<WideNanos>(total) - elapsed);
}

// A time-out for a call that takes whole milliseconds: rounded up, at most the longest finite
// wait; 0 for no time at all.
inline long long wholeMillisUp(long long nanos) {
    if (nanos <= 0) return 0;
    const long long millis = (nanos - 1) / 1000000 + 1;
    return millis < LONGEST_FINITE_MILLIS ? millis : LONGEST_FINITE_MILLIS;
}

// attempt(nanos) is a timed attempt that returns true on success. Calls it until it succeeds or
// timeout has passed on steady_clock; the first call gets the whole time (0 for none: one try).
template <typename Rep, typename Period, typename Attempt>
bool retryFor(const std::chrono::duration<Rep, Period>& timeout, Attempt attempt) {
    const long long total = timeoutNanos(timeout);
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    for (long long left = total;;) {
        if (attempt(left)) return true;
        left = nanosLeft(start, total);
        if (left <= 0) return false;
    }
}

// As retryFor, until deadline on its own clock.
template <typename Clock, typename Duration, typename Attempt>
bool retryUntil(const std::chrono::time_point<Clock, Duration>& deadline, Attempt attempt) {
    for (long long left = nanosUntil(deadline);;) {
        if (attempt(left)) return true;
        left = nanosUntil(deadline);
        if (left <= 0) return false;
    }
}

// The predicate waits: while predicate() is false, waits by timedWait(nanos left), which may
// return early for any reason. Returns the predicate's last value: false only once the time has
// passed with the predicate still false.
template <typename Rep, typename Period, typename Predicate, typename TimedWait>
bool waitForPredicate(const std::chrono::duration<Rep, Period>& timeout, Predicate& predicate,
                      TimedWait timedWait) {
    const long long total = timeoutNanos(timeout);
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    while (!predicate()) {
        const long long left = nanosLeft(start, total);
        if (left <= 0) return false;
        timedWait(left);
    }
    return true;
}

template <typename Clock, typename Duration, typename Predicate, typename TimedWait>
bool waitUntilPredicate(const std::chrono::time_point<Clock, Duration>& deadline,
                        Predicate& predicate, TimedWait timedWait) {
    while (!predicate()) {
        const long long left = nanosUntil(deadline);
        if (left <= 0) return false;
        timedWait(left);
    }
    return true;
}

}  // namespace detail
}  // namespace mw

#endif
