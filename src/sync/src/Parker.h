// Parker: the one place where a thread blocks. Owned by its Thread; wraps one auto-reset OS event
// whose being set is the thread's permit (one bit: permits do not accumulate). unpark() may be
// called by any thread at any time and never blocks. park() is called only by the owner; it may
// return early for no reason, so every caller re-tests its own condition. The parker also holds
// its thread's hazard record, so that the record is at hand wherever the thread object is.
#ifndef MW_SYNC_PARKER_H
#define MW_SYNC_PARKER_H

#include <boost/noncopyable.hpp>

#include "concurrent/AbstractQueuedSynchronizer.h"
#include "concurrent/ParkEvent.h"
#include "Reclamation.h"
#include "WaitRecord.h"
#include "concurrent/Thread.h"
#include "platform.h"

namespace mw {
namespace detail {

class ParkerBase {
public:
    ParkerBase() : m_event(platform::createEvent()) {}
    virtual ~ParkerBase() { platform::closeEvent(m_event); }

protected:
    platform::Handle m_event;
};

class Parker : public ParkerBase, private boost::noncopyable {
public:
    // Throws std::bad_alloc when no hazard record can be had.
    Parker()
        : m_thread(nullptr),
          m_waitingOn(nullptr),
          m_waitingNode(nullptr),
          m_parkEvent(nullptr),
          m_hazards(HazardRecord::acquire(0)) {}
    virtual ~Parker();

    // time 0: no limit. Relative times are nanoseconds (under 1 ms waits 1 ms); absolute times
    // are milliseconds on TimeUtil::milliTime. A negative time, or an absolute one not later than
    // now, returns at once and touches nothing. Every other path ends with the permit dropped.
    void park(bool absolute, long long time);
    void unpark() { platform::setEvent(m_event); }
    // Allocates the ParkEvent now if no park has yet.
    void prepare() {
        if (m_parkEvent == nullptr) m_parkEvent = new ParkEvent(this);
    }

    static Parker* of(const Thread* thread) { return thread->m_parker; }

    // The hazard record of the thread that owns this parker: every pointer that thread protects.
    HazardRecord* hazards() const { return m_hazards; }
    // What the thread is blocked on, for the thread dump.
    WaitRecord& waitRecord() { return m_waitRecord; }
    const WaitRecord& waitRecord() const { return m_waitRecord; }

    Thread* m_thread;
    // The synchronizer and node of the thread's latest queued wait; see rememberWait.
    std::atomic<AbstractQueuedSynchronizer*> m_waitingOn;
    std::atomic<AbstractQueuedSynchronizer::Node*> m_waitingNode;

private:
    ParkEvent* m_parkEvent;
    HazardRecord* m_hazards;
    WaitRecord m_waitRecord;
};

}  // namespace detail
}  // namespace mw

#endif
