/// @class mw::Lock
/// Lock: the interface of a lock.
///
/// Besides its own operations every Lock has the standard names (try_lock, try_lock_for,
/// try_lock_until; lock and unlock are its own), so std::unique_lock, std::scoped_lock, std::lock
/// and std::condition_variable_any work over any Lock. The std::chrono forms are built on the
/// virtual timed tryLock and never end early: a duration is rounded up to whole nanoseconds and
/// measured on steady_clock, a deadline on its own clock; a remainder that the timed tryLock
/// leaves is asked for again. Huge times saturate to the longest finite wait; 0 or less tries once.
/// Like every timed wait of the library they throw InterruptedException for an interrupt.
#ifndef MW_CONCURRENT_LOCK_H
#define MW_CONCURRENT_LOCK_H

#include <chrono>

#include "ChronoTimeout.h"
#include "TimeUnit.h"

namespace mw {

class Condition;

class Lock {
public:
    virtual ~Lock() {}
    /// Takes the lock, waiting as long as it takes; blocks. Interrupts do not end the wait: one
    /// that arrives meanwhile is re-asserted on return.
    virtual void lock() = 0;
    /// As lock, but throws InterruptedException, with the flag cleared and the lock not taken,
    /// for an interrupt pending on entry or arriving while it waits.
    virtual void lockInterruptibly() = 0;
    /// As lockInterruptibly, but gives up once timeout in unit has passed: true if the lock was
    /// taken, false if the time ran out. 0 or less tries without waiting.
    virtual bool tryLock(long long timeout, const TimeUnit& unit) = 0;
    /// Takes the lock if it can at once, whatever threads are queued; true if it did. Never
    /// blocks and ignores interrupts.
    virtual bool tryLock() = 0;
    /// Gives up one hold of the calling thread. Throws IllegalMonitorStateException, changing
    /// nothing, when the caller does not hold the lock. Never blocks.
    virtual void unlock() = 0;
    /// A new condition bound to this lock; the caller owns it. A lock without conditions throws
    /// UnsupportedOperationException.
    virtual Condition* newCondition() = 0;

    /// As tryLock(timeout, unit), for a std::chrono duration, never ending early (see Lock).
    template <typename Rep, typename Period>
    bool tryLock(const std::chrono::duration<Rep, Period>& timeout) {
        return detail::retryFor(
            timeout, [this](long long nanos) { return tryLock(nanos, TimeUnit::NANOSECONDS()); });
    }

    /// The standard name of tryLock().
    bool try_lock() { return tryLock(); }
    /// The standard name of tryLock(duration).
    template <typename Rep, typename Period>
    bool try_lock_for(const std::chrono::duration<Rep, Period>& timeout) {
        return tryLock(timeout);
    }
    /// As tryLock(duration), until a std::chrono deadline measured on its own clock.
    template <typename Clock, typename Duration>
    bool try_lock_until(const std::chrono::time_point<Clock, Duration>& deadline) {
        return detail::retryUntil(
            deadline, [this](long long nanos) { return tryLock(nanos, TimeUnit::NANOSECONDS()); });
    }
};

}  // namespace mw

#endif
