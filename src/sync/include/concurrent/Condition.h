// Condition: the interface of a condition bound to a lock. Every operation must be called by the
// thread that holds the lock. A wait gives up the whole hold, sleeps until signalled, interrupted
// or out of time, and always has the hold back when it returns or throws.
#ifndef MW_CONCURRENT_CONDITION_H
#define MW_CONCURRENT_CONDITION_H

namespace mw {

class TimeUnit;

class Condition {
public:
    virtual ~Condition() {}
    // False if the time ran out before a signal.
    virtual bool await(long long time, const TimeUnit& unit) const = 0;
    virtual void await() const = 0;
    virtual void awaitUninterruptibly() const = 0;
    // The nanoseconds left, counted up to the return (0 or less once the time ran out).
    virtual long long awaitNanos(long long nanosTimeout) const = 0;
    // deadline: milliseconds since 1970 on TimeUtil::milliTime. False if it passed first.
    virtual bool awaitUntil(long long deadline) const = 0;
    virtual void signal() const = 0;
    virtual void broadcast() const = 0;
};

}  // namespace mw

#endif
