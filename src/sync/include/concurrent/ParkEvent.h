// ParkEvent: what a thread publishes on its Thread while it is really blocked in a park. It names
// the Parker to wake and the state (PARKED or TIMED_PARKED) that the thread shows meanwhile.
// Thread::interrupt reaches a blocked thread through it. Made once per thread, at the first park
// that gets past the time checks, and kept until the thread's Parker dies. Its monitor is never
// used by the library.
#ifndef MW_CONCURRENT_PARK_EVENT_H
#define MW_CONCURRENT_PARK_EVENT_H

#include <atomic>

#include "Export.h"
#include "Object.h"

namespace mw {
namespace detail {

class Parker;

class MW_API ParkEvent : public Object {
public:
    explicit ParkEvent(Parker* parker);
    virtual ~ParkEvent();

    // Wakes the parker's thread: gives it its permit. Any thread may call it.
    virtual void unpark();

    int getState() const;
    void setState(int state);

protected:
    // For subclasses, which must override unpark.
    ParkEvent();

private:
    Parker* m_parker;
    // Written by the owning thread before each block; read by others only through Thread.
    std::atomic<int> m_parkState;
};

}  // namespace detail
}  // namespace mw

#endif
