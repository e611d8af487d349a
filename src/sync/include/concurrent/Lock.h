// Lock: the interface of a lock.
#ifndef MW_CONCURRENT_LOCK_H
#define MW_CONCURRENT_LOCK_H

namespace mw {

class Condition;
class TimeUnit;

class Lock {
public:
    virtual ~Lock() {}
    virtual void lock() = 0;
    virtual void lockInterruptibly() = 0;
    virtual bool tryLock(long long timeout, const TimeUnit& unit) = 0;
    virtual bool tryLock() = 0;
    virtual void unlock() = 0;
    // A new condition bound to this lock; the caller owns it.
    virtual Condition* newCondition() = 0;
};

}  // namespace mw

#endif
