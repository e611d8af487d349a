// ReadWriteLock: many readers or one writer. The write lock is reentrant and has conditions; the
// read lock is reentrant too, also while a writer waits. The writer may take read holds and then
// give up the write lock, keeping the read lock (a downgrade). The reverse is refused: a thread
// that holds read holds and asks for the write lock, in any form, gets
// IllegalMonitorStateException and keeps its read holds, since it would wait for itself.
//
// Non-fair (the default): a writer takes a free lock ahead of queued threads; a new reader gives
// way to a queued writer that stands first, so a stream of readers cannot starve it. Fair: new
// readers and writers give way to any queued thread. Either way a thread re-entering a hold it
// has, and the untimed tryLock of either side, ignore the queue.
//
// The write side meets the standard Lockable and TimedLockable requirements (lock, unlock,
// try_lock, try_lock_for, try_lock_until) and the read side SharedTimedLockable (lock_shared ...),
// so std::unique_lock and std::shared_lock work over the object. The timed forms, like every
// timed wait of the library, throw InterruptedException when the caller is interrupted; lock and
// lock_shared ignore interrupts and re-assert them on return. readLock() and writeLock() give the
// two sides as Lock objects.
//
// Limits: 65535 write holds, 65535 read holds over all threads; one more throws
// IllegalMonitorStateException "Maximum lock count exceeded" and changes nothing. Unlocking a hold
// that the caller does not have throws IllegalMonitorStateException and changes nothing.
//
// Each thread counts its own read holds in a table of its own, freed when it ends. A thread that
// ends while it read-holds the lock leaves the lock read-held for ever: its holds can no longer be
// released, and writers wait for ever. A lock destroyed while threads read-hold it (which is not
// allowed) leaves their entries in their tables until they end; a new lock never inherits them.
// The object must not be destroyed while a thread holds it, waits for it or is inside one of its
// operations.
#ifndef MW_CONCURRENT_READ_WRITE_LOCK_H
#define MW_CONCURRENT_READ_WRITE_LOCK_H

#include <boost/noncopyable.hpp>
#include <chrono>
#include <climits>
#include <cmath>
#include <ratio>
#include <type_traits>

#include "Export.h"
#include "Lock.h"
#include "ReadWriteLockSync.h"

namespace mw {

namespace detail {

__extension__ typedef __int128 WideNanos;

// A bound far inside WideNanos, so that one difference of two bounded values cannot overflow.
constexpr WideNanos WIDE_NANOS_LIMIT = static_cast<WideNanos>(1) << 120;

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

}  // namespace detail

class MW_API ReadWriteLock : private boost::noncopyable {
public:
    // The read side as a Lock. newCondition throws UnsupportedOperationException: a reader does
    // not hold the lock alone, so it has nothing to wait with.
    class MW_API ReadLock final : public Lock, private boost::noncopyable {
    public:
        virtual void lock();
        virtual void lockInterruptibly();
        virtual bool tryLock(long long timeout, const TimeUnit& unit);
        virtual bool tryLock();
        virtual void unlock();
        virtual Condition* newCondition();

    private:
        friend class ReadWriteLock;
        explicit ReadLock(detail::ReadWriteLockSync& sync) : m_sync(sync) {}

        detail::ReadWriteLockSync& m_sync;
    };

    // The write side as a Lock. Its conditions work as a ReentrantLock's: a wait needs the write
    // lock, gives up every hold of the caller (write holds and its own read holds) and has them
    // all back when it returns or throws.
    class MW_API WriteLock final : public Lock, private boost::noncopyable {
    public:
        virtual void lock();
        virtual void lockInterruptibly();
        virtual bool tryLock(long long timeout, const TimeUnit& unit);
        virtual bool tryLock();
        virtual void unlock();
        virtual Condition* newCondition();

    private:
        friend class ReadWriteLock;
        explicit WriteLock(detail::ReadWriteLockSync& sync) : m_sync(sync) {}

        detail::ReadWriteLockSync& m_sync;
    };

    explicit ReadWriteLock(bool fair = false);
    // Neither unlocks nor looks at waiters.
    ~ReadWriteLock();

    Lock& readLock() { return m_readLock; }
    Lock& writeLock() { return m_writeLock; }

    // The write side, for std::unique_lock and the like. try_lock ignores the queue.
    void lock();
    void unlock();
    bool try_lock();
    bool tryLockNanos(long long nanosTimeout);
    template <typename Rep, typename Period>
    bool try_lock_for(const std::chrono::duration<Rep, Period>& timeout) {
        return tryLockNanos(detail::timeoutNanos(timeout));
    }
    template <typename Clock, typename Duration>
    bool try_lock_until(const std::chrono::time_point<Clock, Duration>& deadline) {
        return tryLockNanos(detail::nanosUntil(deadline));
    }

    // The read side, for std::shared_lock and the like. try_lock_shared ignores the queue.
    void lock_shared();
    void unlock_shared();
    bool try_lock_shared();
    bool tryLockSharedNanos(long long nanosTimeout);
    template <typename Rep, typename Period>
    bool try_lock_shared_for(const std::chrono::duration<Rep, Period>& timeout) {
        return tryLockSharedNanos(detail::timeoutNanos(timeout));
    }
    template <typename Clock, typename Duration>
    bool try_lock_shared_until(const std::chrono::time_point<Clock, Duration>& deadline) {
        return tryLockSharedNanos(detail::nanosUntil(deadline));
    }

    // Inspection: one moment's reading each, without locks or allocation.
    // Read holds of all threads together; those of the calling thread.
    unsigned long long getReadLockCount() const;
    unsigned long long getReadHoldCount() const;
    // The calling thread's write holds (0 unless it is the writer).
    unsigned long long getWriteHoldCount() const;
    bool isWriteLocked() const;
    bool isWriteLockedByCurrentThread() const;
    // The writer's object while it lives; null when nobody writes or the writer has ended.
    const Thread* getOwner() const;
    bool isFair() const;
    bool hasQueuedThreads() const;
    unsigned long long getQueueLength() const;

private:
    detail::ReadWriteLockSync m_sync;
    ReadLock m_readLock;
    WriteLock m_writeLock;
};

}  // namespace mw

#endif
