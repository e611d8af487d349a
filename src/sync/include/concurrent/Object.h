// Object: the monitor base class. Every Object has a non-fair reentrant lock and one condition,
// made at construction and constant afterwards. The monitor is entered only through a Guard;
// wait, notify and notifyAll must be called with it held (the condition checks that). All
// operations are const, so that a constant object can be locked and waited on.
#ifndef MW_CONCURRENT_OBJECT_H
#define MW_CONCURRENT_OBJECT_H

#include <boost/noncopyable.hpp>

#include "Export.h"

namespace mw {

class Lock;
class Condition;
class Guard;

class MW_API Object : private boost::noncopyable {
public:
    Object();
    // Does not look at waiters or at the lock's state: destroying a held or waited-on monitor is
    // the program's fault.
    ~Object();

    // Gives up every hold of the monitor, waits, and takes them all back before it returns.
    // ms = 0 and ns = 0: no time limit. Otherwise waits up to ms milliseconds; ns only has to lie
    // in [0, 999999] (else IllegalArgumentException) and selects the timed form when ms is 0, which
    // then does not block. Throws InterruptedException (monitor held again) on an interrupt
    // before a notification, and IllegalMonitorStateException without the monitor.
    void wait(long long ms, long long ns) const;
    void notify() const;
    void notifyAll() const;

private:
    friend class Guard;

    void lock() const;
    void release() const;

    Lock* m_lock;
    Condition* m_condition;
};

}  // namespace mw

#endif
