/// @class mw::Object
/// Object: the monitor base class. Every Object has a non-fair reentrant lock and one condition,
/// made at construction and constant afterwards. The monitor is entered only through a Guard;
/// wait, notify and notifyAll must be called with it held (the condition checks that). All
/// operations are const, so that a constant object can be locked and waited on.
//
// The waits are defined here, with Guard's entry and exit, so that a program built with
// ThreadSanitizer sees the monitor synchronize (TsanAnnotations.h): a wait gives the monitor up
// and takes it back. notify and notifyAll need no annotation: what a waiter sees comes with the
// monitor, from the notifier's Guard.
#ifndef MW_CONCURRENT_OBJECT_H
#define MW_CONCURRENT_OBJECT_H

#include <boost/noncopyable.hpp>
#include <chrono>
#include <string>

#include "ChronoTimeout.h"
#include "Condition.h"
#include "ContentionStatistics.h"
#include "Export.h"
#include "IllegalArgumentException.h"
#include "TimeUnit.h"
#include "TsanAnnotations.h"

namespace mw {

class Lock;
class Guard;

class MW_API Object : private boost::noncopyable {
public:
    /// A monitor that nobody holds. Throws std::bad_alloc.
    Object();
    /// Does not look at waiters or at the lock's state: destroying a held or waited-on monitor is
    /// the program's fault.
    ~Object();

    /// Gives up every hold of the monitor, waits, and takes them all back before it returns.
    /// ms = 0 and ns = 0: no time limit. Otherwise waits up to ms milliseconds; ns only has to lie
    /// in [0, 999999] (else IllegalArgumentException) and selects the timed form when ms is 0,
    /// which then waits for no notification: it gives the monitor up and takes it back. Throws
    /// InterruptedException (monitor held again) on an interrupt before a notification, and
    /// IllegalMonitorStateException without the monitor. Blocks.
    void wait(long long ms, long long ns) const {
        if (ns < 0 || ns > 999999) {
            MW_THROW(IllegalArgumentException, "Parameter ns out of range > 999999");
        }
        detail::TsanMonitorWait span(this);
        waitMonitor(ms, ns);
    }
    /// Wakes the thread that has waited longest, if any: it goes on once it has the monitor back,
    /// after the caller has left it. Throws IllegalMonitorStateException without the monitor.
    /// Never blocks.
    void notify() const;
    /// Wakes every waiting thread, as notify wakes one.
    void notifyAll() const;

    /// The std::chrono forms: wait as wait(ms, ns) does, up to a duration or a deadline, through
    /// the monitor's condition in nanoseconds, never ending early (see Condition::awaitFor); a
    /// time of 0 or less gives the monitor up and takes it back. False if the time ran out before
    /// a notification.
    ///@{
    template <typename Rep, typename Period>
    bool waitFor(const std::chrono::duration<Rep, Period>& timeout) const {
        detail::TsanMonitorWait span(this);
        return m_condition->awaitFor(timeout);
    }
    template <typename Clock, typename Duration>
    bool waitUntil(const std::chrono::time_point<Clock, Duration>& deadline) const {
        detail::TsanMonitorWait span(this);
        return m_condition->awaitUntil(deadline);
    }
    ///@}

    /// The predicate forms: wait while predicate() is false (it runs with the monitor held) and
    /// return its last value; the timed ones give up once the time has passed.
    ///@{
    template <typename Predicate>
    void wait(Predicate predicate) const {
        while (!predicate()) wait(0, 0);
    }
    template <typename Rep, typename Period, typename Predicate>
    bool waitFor(const std::chrono::duration<Rep, Period>& timeout, Predicate predicate) const {
        return detail::waitForPredicate(timeout, predicate,
                                        [this](long long nanos) { waitNanos(nanos); });
    }
    template <typename Clock, typename Duration, typename Predicate>
    bool waitUntil(const std::chrono::time_point<Clock, Duration>& deadline,
                   Predicate predicate) const {
        return detail::waitUntilPredicate(deadline, predicate,
                                          [this](long long nanos) { waitNanos(nanos); });
    }
    ///@}

    /// @name Diagnostics
    /// The monitor's name for thread dumps (up to 63 bytes), apart from any name the object has
    /// for itself (a Thread's name is not its monitor's), and the contention its monitor has seen
    /// since construction: Guard entries that queued. Any thread, at any time; never blocks.
    /// setDiagnosticName throws std::bad_alloc if the first name cannot be stored.
    ///@{

    /// Names the monitor for thread dumps.
    void setDiagnosticName(const std::string& name) const;
    /// The name given by setDiagnosticName; empty if none was given.
    std::string getDiagnosticName() const;
    /// The monitor's contention since construction (see ContentionStatistics).
    ContentionStatistics getContentionStatistics() const;
    ///@}

private:
    friend class Guard;

    void lock() const;
    void release() const;
    // wait(ms, ns) once ns has been checked.
    void waitMonitor(long long ms, long long ns) const;
    void waitNanos(long long nanos) const {
        detail::TsanMonitorWait span(this);
        m_condition->await(nanos, TimeUnit::NANOSECONDS());
    }

    Lock* m_lock;
    Condition* m_condition;
};

}  // namespace mw

#endif
