#include "concurrent/ParkEvent.h"

#include "Parker.h"

namespace mw {
namespace detail {

ParkEvent::ParkEvent(Parker* parker) : Object(), m_parker(parker), m_parkState(Thread::PARKED) {}

ParkEvent::ParkEvent() : Object(), m_parker(nullptr), m_parkState(0) {}

ParkEvent::~ParkEvent() {}

void ParkEvent::unpark() { m_parker->unpark(); }

int ParkEvent::getState() const { return m_parkState.load(std::memory_order_relaxed); }

void ParkEvent::setState(int state) { m_parkState.store(state, std::memory_order_relaxed); }

}  // namespace detail
}  // namespace mw
