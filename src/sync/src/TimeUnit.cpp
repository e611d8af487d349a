#include "concurrent/TimeUnit.h"

#include <climits>
#include <cstdlib>
#include <stdexcept>

#include "TimeUnitConstant.h"
#include "concurrent/Object.h"
#include "concurrent/Thread.h"

namespace mw {

const char* TimeUnit::NAMES[4] = {"NANOSECONDS", "MICROSECONDS", "MILLISECONDS", "SECONDS"};
const std::uint32_t TimeUnit::MULTIPLIERS[4] = {1u, 1000u, 1000000u, 1000000000u};
const long long TimeUnit::OVERFLOWS[4] = {0LL, 9223372036854775LL, 9223372036854LL, 9223372036LL};

namespace detail {

std::atomic<bool> TimeUnitConstant::s_destroyed(false);

namespace {

template <int Index>
void teardownConstant() {
    s_timeUnitConstants[Index].teardown();
}

typedef void (*Teardown)();
const Teardown TEARDOWNS[4] = {&teardownConstant<0>, &teardownConstant<1>, &teardownConstant<2>,
                               &teardownConstant<3>};

}  // namespace

TimeUnitConstant::TimeUnitConstant(int index)
    : m_index(index), m_instance(nullptr), m_registered(false), m_armed(false), m_mutex() {}

const TimeUnit& TimeUnitConstant::get() {
    TimeUnit* unit = m_instance.load(std::memory_order_acquire);  // [T1]
    if (unit != nullptr) return *unit;
    boost::mutex::scoped_lock hold(m_mutex);
    unit = m_instance.load(std::memory_order_relaxed);
    if (unit != nullptr) return *unit;
    if (s_destroyed.load(std::memory_order_relaxed)) {
        throw std::runtime_error("Dead Reference Detected");
    }
    unit = new TimeUnit(m_index);
    if (!m_registered.exchange(true, std::memory_order_relaxed)) {
        m_armed.store(false, std::memory_order_relaxed);
        std::atexit(TEARDOWNS[m_index]);  // a failed registration just means no teardown
    }
    m_armed.store(true, std::memory_order_relaxed);
    m_instance.store(unit, std::memory_order_release);  // [T1]
    return *unit;
}

void TimeUnitConstant::teardown() {
    if (!m_armed.exchange(false, std::memory_order_relaxed)) return;
    if (m_instance.load(std::memory_order_relaxed) == nullptr) return;
    boost::mutex::scoped_lock hold(m_mutex);
    TimeUnit* unit = m_instance.load(std::memory_order_relaxed);
    if (unit != nullptr) {
        delete unit;
        m_instance.store(nullptr, std::memory_order_relaxed);
        s_destroyed.store(true, std::memory_order_relaxed);
    }
    m_armed.store(false, std::memory_order_relaxed);
}

}  // namespace detail

const TimeUnit& TimeUnit::NANOSECONDS() { return detail::s_timeUnitConstants[0].get(); }
const TimeUnit& TimeUnit::MICROSECONDS() { return detail::s_timeUnitConstants[1].get(); }
const TimeUnit& TimeUnit::MILLISECONDS() { return detail::s_timeUnitConstants[2].get(); }
const TimeUnit& TimeUnit::SECONDS() { return detail::s_timeUnitConstants[3].get(); }

TimeUnit::TimeUnit(int index) : m_name(NAMES[index]), m_index(index) {}

TimeUnit::~TimeUnit() {}

// A positive delta goes to a finer unit and saturates; a negative one truncates toward zero. The
// bounds are compared before multiplying, so the product never overflows.
long long TimeUnit::doConvert(int delta, long long duration) {
    if (delta == 0) return duration;
    if (delta < 0) return duration / static_cast<long long>(MULTIPLIERS[-delta]);
    if (duration > OVERFLOWS[delta]) return LLONG_MAX;
    if (duration < -OVERFLOWS[delta]) return LLONG_MIN;
    return duration * static_cast<long long>(MULTIPLIERS[delta]);
}

long long TimeUnit::convert(long long duration, const TimeUnit& source) const {
    return doConvert(source.m_index - m_index, duration);
}

long long TimeUnit::toNanos(long long duration) const { return doConvert(m_index, duration); }

long long TimeUnit::toMicros(long long duration) const {
    return doConvert(m_index - MICROSECONDS().m_index, duration);
}

long long TimeUnit::toMillis(long long duration) const {
    return doConvert(m_index - MILLISECONDS().m_index, duration);
}

long long TimeUnit::toSeconds(long long duration) const {
    return doConvert(m_index - SECONDS().m_index, duration);
}

const std::string& TimeUnit::getName() const { return m_name; }

bool TimeUnit::operator==(const TimeUnit& other) const { return m_index == other.m_index; }

bool TimeUnit::operator!=(const TimeUnit& other) const { return m_index != other.m_index; }

// millis is duration truncated toward zero, so the product never exceeds duration in size and
// the differences lie within one millisecond: nothing here can overflow.
long long TimeUnit::excessNanos(long long duration, long long millis) const {
    if (*this == NANOSECONDS()) return duration - millis * 1000000;
    if (*this == MICROSECONDS()) return (duration - millis * 1000) * 1000;
    return 0;
}

void TimeUnit::timedWait(const Object& object, long long timeout) const {
    if (timeout <= 0) return;
    long long ms = toMillis(timeout);
    object.wait(ms, excessNanos(timeout, ms));
}

void TimeUnit::timedJoin(const Thread& thread, long long timeout) const {
    if (timeout <= 0) return;
    long long ms = toMillis(timeout);
    thread.join(ms > 0 ? ms : 1);
}

void TimeUnit::sleep(long long timeout) const {
    if (timeout <= 0) return;
    Thread::sleep(toMillis(timeout));
}

}  // namespace mw
