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

// SECONDS and NANOSECONDS were built during normal operation and are gone; MICROSECONDS was never
// built and can no longer be, since a teardown has happened.
void afterTeardown() {
    bool seconds = deadReference(&mw::TimeUnit::SECONDS);
    bool nanoseconds = deadReference(&mw::TimeUnit::NANOSECONDS);
    bool neverUsed = deadReference(&mw::TimeUnit::MICROSECONDS);
    if (seconds && nanoseconds && neverUsed) {
        std::puts("teardown checks passed");
    } else {
        std::printf("FAILED: seconds %d, nanoseconds %d, never used %d\n", seconds, nanoseconds,
                    neverUsed);
    }
    std::fflush(stdout);
}

}  // namespace

int main() {
    if (MW_TEST_LIBRARY_EXIT_LIST_IS_PRIVATE) {
        std::puts("skipped: the library's exit list runs when the DLL unloads, after the "
                  "program's exit handlers, so no program code runs after the teardown");
        return 0;
    }
    std::atexit(afterTeardown);
    // Built during normal operation (toMillis builds MILLISECONDS too): all three are torn down
    // before afterTeardown runs.
    if (mw::TimeUnit::SECONDS().toMillis(2) != 2000) return 1;
    if (mw::TimeUnit::NANOSECONDS().getName() != "NANOSECONDS") return 1;
    std::puts("constants in use");
    return 0;
}
