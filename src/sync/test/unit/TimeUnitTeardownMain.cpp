// Observes the teardown of the TimeUnit constants from an exit handler that runs after them:
// the handler is registered before the first use of any constant, and the exit list runs last
// registered first.
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "concurrent/TimeUnit.h"

namespace {

bool deadReference(const mw::TimeUnit& (*accessor)()) {
    try {
        accessor();
    } catch (const std::runtime_error& e) {
        return std::string(e.what()) == "Dead Reference Detected";
    }
    return false;
}

void afterTeardown() {
    bool usedOne = deadReference(&mw::TimeUnit::SECONDS);
    bool neverUsed = deadReference(&mw::TimeUnit::MICROSECONDS);
    bool conversion = false;
    try {
        mw::TimeUnit::NANOSECONDS();
    } catch (const std::runtime_error&) {
        conversion = true;
    }
    if (usedOne && neverUsed && conversion) {
        std::puts("teardown checks passed");
    } else {
        std::printf("FAILED: used %d, never used %d, nanoseconds %d\n", usedOne, neverUsed, conversion);
    }
    std::fflush(stdout);
}

}  // namespace

int main() {
    std::atexit(afterTeardown);
    // Built during normal operation: both are torn down before afterTeardown runs.
    if (mw::TimeUnit::SECONDS().toMillis(2) != 2000) return 1;
    if (mw::TimeUnit::NANOSECONDS().getName() != "NANOSECONDS") return 1;
    std::puts("constants in use");
    return 0;
}
