// Timeouts that never end early. Windows counts a timeout on its clock interrupt and documents that
// one shorter than that clock's resolution may end before its time, while the platform contract
// promises that a timed wait or a sleep never does. So a timed operation notes its start on the
// performance counter and, when the OS reports the time up, goes on for what is left.
#ifndef MW_SYNC_WIN32_TIMEOUT_H
#define MW_SYNC_WIN32_TIMEOUT_H

#include <cstdint>

#include <windows.h>

namespace mw {
namespace platform {

class Timeout {
public:
    explicit Timeout(std::uint32_t milliseconds) : m_total(milliseconds), m_start(counter()) {}

    // Whole milliseconds still to go; 0 once the full time has passed. Elapsed time is rounded
    // down, so a caller that goes on for the result never stops short.
    std::uint32_t remaining() const {
        LARGE_INTEGER frequency;
        if (!QueryPerformanceFrequency(&frequency) || frequency.QuadPart <= 0) return 0;
        std::int64_t elapsed = counter() - m_start;
        std::int64_t elapsedMs = elapsed / frequency.QuadPart * 1000 +
                                 elapsed % frequency.QuadPart * 1000 / frequency.QuadPart;
        if (elapsedMs >= m_total) return 0;
        return static_cast<std::uint32_t>(m_total - elapsedMs);
    }

private:
    static std::int64_t counter() {
        LARGE_INTEGER now;
        QueryPerformanceCounter(&now);
        return now.QuadPart;
    }

    std::uint32_t m_total;
    std::int64_t m_start;
};

// WaitForSingleObject on any waitable handle, going on after an early time-out for what is left.
inline std::uint32_t waitNoEarlier(HANDLE object, std::uint32_t milliseconds) {
    if (milliseconds == 0 || milliseconds == 0xFFFFFFFFu) {
        return WaitForSingleObject(object, milliseconds);
    }
    Timeout timeout(milliseconds);
    std::uint32_t result = WaitForSingleObject(object, milliseconds);
    while (result == WAIT_TIMEOUT) {
        std::uint32_t rest = timeout.remaining();
        if (rest == 0) break;
        result = WaitForSingleObject(object, rest);
    }
    return result;
}

}  // namespace platform
}  // namespace mw

#endif
