/// @class mw::Condition
/// Condition: the interface of a condition bound to a lock. Every operation must be called by the
/// thread that holds the lock. A wait gives up the whole hold, sleeps until signalled, interrupted
/// or out of time, and always has the hold back when it returns or throws.
///
/// What the library's conditions (those of ReentrantLock and of ReadWriteLock's write side) do
/// when the rules are broken or a wait is cut short: every operation throws
/// IllegalMonitorStateException, changing nothing, to a caller that does not hold the lock. Every
/// wait but awaitUninterruptibly throws InterruptedException, with the interrupt flag cleared, for
/// an interrupt pending on entry (the hold is then never given up) or one that arrives before a
/// signal (thrown once the hold is back); an interrupt that arrives after the signal is re-asserted
/// on return instead. A wait that cannot get its bookkeeping throws std::bad_alloc before it gives
/// up the hold. signal and broadcast never block.
///
/// The std::chrono and predicate forms are built here on the virtual waits, for every Condition.
/// awaitFor (a duration) and awaitUntil (a time_point; the overload that takes milliseconds on
/// TimeUtil::milliTime stays as it was) never end early: the duration is measured on steady_clock
/// and the deadline on its own clock, and a wait that the library's clock ends before that waits
/// again for the rest. The predicate forms, like std::condition_variable's, wait while the
/// predicate is false and return its last value; the predicate runs with the lock held.
#ifndef MW_CONCURRENT_CONDITION_H
#define MW_CONCURRENT_CONDITION_H

#include <chrono>

#include "ChronoTimeout.h"
#include "TimeUnit.h"

namespace mw {

class Condition {
public:
    virtual ~Condition() {}
    /// Waits for a signal, up to time in unit; blocks. False if the time ran out before a signal;
    /// true if a signal came first, even when the time has run out by the return. 0 or less gives
    /// up the hold and takes it back without waiting for a signal.
    virtual bool await(long long time, const TimeUnit& unit) const = 0;
    /// Waits for a signal without a time limit; blocks.
    virtual void await() const = 0;
    /// Waits for a signal without a time limit; blocks. Interrupts do not end the wait: one that
    /// arrives meanwhile is re-asserted on return.
    virtual void awaitUninterruptibly() const = 0;
    /// Waits for a signal, up to nanosTimeout nanoseconds; blocks.
    /// The nanoseconds left, counted up to the return (0 or less once the time ran out).
    virtual long long awaitNanos(long long nanosTimeout) const = 0;
    /// Waits for a signal until deadline; blocks.
    /// deadline: milliseconds since 1970 on TimeUtil::milliTime. False if it passed first.
    virtual bool awaitUntil(long long deadline) const = 0;
    /// Wakes the thread that has waited longest, if any: it goes on once it has the hold back,
    /// after the caller has let go.
    virtual void signal() const = 0;
    /// Wakes every waiting thread, as signal wakes one.
    virtual void broadcast() const = 0;

    /// Waits for a signal, up to a std::chrono duration; blocks.
    /// False if the time ran out before a signal. A signal ends the wait: it is never consumed by
    /// a wait that then goes on. 0 or less gives up the lock, takes it back and returns false
    /// unless a signal came meanwhile. Huge durations clamp to the longest finite wait.
    template <typename Rep, typename Period>
    bool awaitFor(const std::chrono::duration<Rep, Period>& timeout) const {
        return detail::retryFor(timeout, [this](long long nanos) { return awaitNanosFor(nanos); });
    }
    /// As awaitFor, until a std::chrono deadline measured on its own clock.
    template <typename Clock, typename Duration>
    bool awaitUntil(const std::chrono::time_point<Clock, Duration>& deadline) const {
        return detail::retryUntil(deadline,
                                  [this](long long nanos) { return awaitNanosFor(nanos); });
    }

    /// Waits until predicate() holds; interruptible as await().
    template <typename Predicate>
    void await(Predicate predicate) const {
        while (!predicate()) await();
    }
    /// Wait while predicate() is false, up to the time; return its last value.
    template <typename Rep, typename Period, typename Predicate>
    bool awaitFor(const std::chrono::duration<Rep, Period>& timeout, Predicate predicate) const {
        return detail::waitForPredicate(timeout, predicate,
                                        [this](long long nanos) { awaitNanosFor(nanos); });
    }
    /// As awaitFor(timeout, predicate), until a std::chrono deadline measured on its own clock.
    template <typename Clock, typename Duration, typename Predicate>
    bool awaitUntil(const std::chrono::time_point<Clock, Duration>& deadline,
                    Predicate predicate) const {
        return detail::waitUntilPredicate(deadline, predicate,
                                          [this](long long nanos) { awaitNanosFor(nanos); });
    }

private:
    // The timed wait that tells a signal from a time-out (awaitNanos cannot, at the last moment).
    bool awaitNanosFor(long long nanos) const { return await(nanos, TimeUnit::NANOSECONDS()); }
};

}  // namespace mw

#endif
