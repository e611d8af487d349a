#include "Parker.h"

#include <atomic>

#include "concurrent/TimeUtil.h"

namespace mw {
namespace detail {

Parker::~Parker() {
    m_thread = nullptr;
    delete m_parkEvent;
    m_parkEvent = nullptr;
    m_hazards->release();
}

// Between the first test of the interrupt flag and the publication of the ParkEvent an interrupt
// would find nothing to wake. So the flag is tested again after publication: [P1] the ParkEvent
// is exchanged in, then the flag is read with a sequentially consistent load; Thread::interrupt
// exchanges the flag in and reads the ParkEvent the same way ([P2]). In the single order of those
// four operations one of the two reads comes last and sees the other's write: either this thread
// skips the wait, or the interrupter sets the event and the wait returns at once. The early tests stay
// ahead of the publication, so a park that a pending permit ends never shows a parked state.
void Parker::park(bool absolute, long long time) {
    if (time < 0) return;
    long long ms;
    if (time == 0) {
        ms = platform::INFINITE_WAIT;
    } else if (absolute) {
        ms = time - TimeUtil::milliTime();
        if (ms <= 0) return;
    } else {
        ms = time / 1000000;
        if (ms == 0) ms = 1;
    }
    // A wait of 2^32 - 1 ms or more (49.7 days) parks for the longest finite wait instead: the
    // platform's wait takes 32 bits, and its all-ones value means no limit. The callers loop on the
    // time they have left, so the early return costs nothing.
    if (time != 0 && ms >= platform::INFINITE_WAIT) {
        ms = platform::INFINITE_WAIT - 1;
    }
    prepare();
    if (!m_thread->isInterrupted(false) &&
        platform::waitEvent(m_event, 0) != platform::WAIT_SIGNALED) {
        m_parkEvent->setState(ms == platform::INFINITE_WAIT ? Thread::PARKED
                                                            : Thread::TIMED_PARKED);
        m_thread->setEvent(m_parkEvent);  // [P1] pairs with [P2]
        if (m_thread->m_interrupted.getOrdered() == 0) {
            platform::waitEvent(m_event, static_cast<std::uint32_t>(ms));
        }
    }
    platform::resetEvent(m_event);
    m_thread->setEvent(nullptr);
}

}  // namespace detail
}  // namespace mw
