#include "concurrent/ThreadSnapshot.h"

#include <cstdint>

#include "DumpText.h"

namespace mw {

namespace detail {

std::string hexAddress(const void* address) {
    static const char DIGITS[] = "0123456789abcdef";
    std::uintptr_t value = reinterpret_cast<std::uintptr_t>(address);
    std::string digits;
    do {
        digits.insert(digits.begin(), DIGITS[value & 0xF]);
        value >>= 4;
    } while (value != 0);
    return "0x" + digits;
}

const char* stateName(Thread::State state) {
    switch (state) {
        case Thread::NEW:
            return "NEW";
        case Thread::RUNNING:
            return "RUNNING";
        case Thread::PARKED:
            return "PARKED";
        case Thread::TIMED_PARKED:
            return "TIMED_PARKED";
        case Thread::TERMINATED:
            return "TERMINATED";
    }
    return "UNKNOWN";
}

std::string millis(long long nanos) {
    if (nanos < 0) nanos = 0;
    std::string fraction = std::to_string(nanos / 1000 % 1000);
    fraction.insert(0, 3 - fraction.size(), '0');
    return std::to_string(nanos / 1000000) + "." + fraction;
}

std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') result += '\\';
        result += c;
    }
    return result + "\"";
}

}  // namespace detail

const char* ThreadSnapshot::kindName(WaitKind kind) {
    switch (kind) {
        case NOT_WAITING:
            return "nothing";
        case LOCK:
            return "lock";
        case MONITOR_ENTER:
            return "monitor";
        case MONITOR_WAIT:
            return "monitor wait";
        case CONDITION:
            return "condition";
        case READ_LOCK:
            return "read lock";
        case WRITE_LOCK:
            return "write lock";
        case SEMAPHORE:
            return "semaphore";
        case LATCH:
            return "latch";
        case SYNCHRONIZER:
            return "synchronizer";
        case SYNCHRONIZER_SHARED:
            return "shared synchronizer";
        case JOIN:
            return "join";
        case SLEEP:
            return "sleep";
    }
    return "unknown";
}

std::string ThreadSnapshot::toString() const {
    std::string text = detail::quoted(name) + " #" + std::to_string(serial) +
                       " id=" + std::to_string(id) + " " + detail::stateName(state) + "\n";
    if (!isWaiting()) return text;
    text += "    waits on ";
    text += kindName(waitKind);
    if (waitsOn != nullptr) text += " " + detail::hexAddress(waitsOn);
    if (!waitsOnName.empty()) text += " " + detail::quoted(waitsOnName);
    if (waitKind == JOIN) {
        text += ", thread #" + std::to_string(ownerSerial);
    } else if (ownerSerial != 0) {
        text += ", held by ";
        if (!ownerName.empty()) text += detail::quoted(ownerName) + " ";
        text += "#" + std::to_string(ownerSerial);
    }
    return text + ", for " + detail::millis(waitedNanos) + " ms\n";
}

}  // namespace mw
