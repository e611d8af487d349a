#include "concurrent/TimeUnit.h"

#include <atomic>
#include <boost/thread/mutex.hpp>
#include <climits>
#include <cstdlib>
#include <stdexcept>

namespace mw {

const char* TimeUnit::NAMES[4] = {"NANOSECONDS", "MICROSECONDS", "MILLISECONDS", "SECONDS"};
const std::uint32_t TimeUnit::MULTIPLIERS[4] = {1u, 1000u, 1000000u, 1000000000u};
const long long TimeUnit::OVERFLOWS[4] = {0LL, 9223372036854775LL, 9223372036854LL, 9223372036LL};

namespace detail {

// One constant's holder: made at load (only its mutex needs construction), the TimeUnit itself at
// first use. The teardown routine is registered with the exit list at first use, so the
// constants die in the reverse order of their first use, before anything built at load.
//
// [T1] The release store of m_instance publishes the finished TimeUnit to the lock-free read of
// the accessor's first step. m_armed and s_destroyed are touched under m_mutex, except for the
// teardown's first test of m_armed, which runs once, on the thread that runs the exit list.
class TimeUnitConstant {
public:
    typedef void (*Teardown)();

    TimeUnitConstant(int index, Teardown teardown)
        : m_index(index),
          m_teardown(teardown),
          m_instance(nullptr),
          m_registered(false),
          m_armed(false) {}

    const TimeUnit& get() {
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
            std::atexit(m_teardown);  // a failed registration just means no teardown
        }
        m_armed.store(true, std::memory_order_relaxed);
        m_instance.store(unit, std::memory_order_release);  // [T1]
        return *unit;
    }

    void teardown() {
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

private:
    // Set by the teardown of any constant; from then on no constant is built.
    static std::atomic<bool> s_destroyed;

    const int m_index;
    const Teardown m_teardown;
    std::atomic<TimeUnit*> m_instance;
    std::atomic<bool> m_registered;
    std::atomic<bool> m_armed;
    boost::mutex m_mutex;
};

std::atomic<bool> TimeUnitConstant::s_destroyed(false);

}  // namespace detail

namespace {

template <int Index>
void teardownConstant();

detail::TimeUnitConstant s_nanoseconds(0, &teardownConstant<0>);
detail::TimeUnitConstant s_microseconds(1, &teardownConstant<1>);
detail::TimeUnitConstant s_milliseconds(2, &teardownConstant<2>);
detail::TimeUnitConstant s_seconds(3, &teardownConstant<3>);

detail::TimeUnitConstant* const s_constants[4] = {&s_nanoseconds, &s_microseconds, &s_milliseconds,
                                                  &s_seconds};

template <int Index>
void teardownConstant() {
    s_constants[Index]->teardown();
}

}  // namespace

const TimeUnit& TimeUnit::NANOSECONDS() { return s_nanoseconds.get(); }
const TimeUnit& TimeUnit::MICROSECONDS() { return s_microseconds.get(); }
const TimeUnit& TimeUnit::MILLISECONDS() { return s_milliseconds.get(); }
const TimeUnit& TimeUnit::SECONDS() { return s_seconds.get(); }

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

}  // namespace mw
