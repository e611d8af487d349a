#include "concurrent/DeadlockCycle.h"

namespace mw {

bool DeadlockCycle::contains(unsigned long long serial) const {
    for (const ThreadSnapshot& thread : threads) {
        if (thread.serial == serial) return true;
    }
    return false;
}

std::string DeadlockCycle::toString() const {
    std::string text = "Deadlock of " + std::to_string(threads.size()) + " threads:\n";
    for (const ThreadSnapshot& thread : threads) text += thread.toString();
    return text;
}

}  // namespace mw
