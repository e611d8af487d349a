// The process-wide barrier on Linux: membarrier's private expedited command, which interrupts
// every CPU currently running a thread of this process and makes it execute a full barrier.
// The command must be registered before use (an unregistered call fails with EPERM); registering
// is cheapest while the process has one thread, so the first call is made at load. A kernel
// without the call (before 4.14: ENOSYS or no such command) or a sandbox that forbids it (EPERM, a
// seccomp filter) leaves the barrier unavailable, and the locks keep their fenced release.
// MW_SYNC_NO_PROCESS_BARRIER=1 in the environment makes the same choice on purpose (the tests run
// both ways).
#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "platform.h"

namespace mw {
namespace platform {
namespace {

long membarrier(int command) { return syscall(__NR_membarrier, command, 0, 0); }

bool disabledByEnvironment() {
    const char* value = std::getenv("MW_SYNC_NO_PROCESS_BARRIER");
    return value != nullptr && value[0] != '\0' && value[0] != '0';
}

// Registered, and one call seen to succeed: a filter that lets registration through but not the
// barrier itself is found here, not later.
bool registerBarrier() {
    if (disabledByEnvironment()) return false;
    long commands = membarrier(MEMBARRIER_CMD_QUERY);
    if (commands < 0 || (commands & MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0) return false;
    if (membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) != 0) return false;
    return membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0;
}

}  // namespace

bool processBarrierAvailable() {
    static const bool available = registerBarrier();
    return available;
}

namespace {
const bool s_decidedAtLoad = processBarrierAvailable();
}  // namespace

// The registration belongs to the address space: a child made by fork inherits it on the kernels
// measured, and one that did not would be registered here on its first refusal. A command that
// still fails has no safe substitute short of the global command, which orders every CPU of the
// machine and is much slower; a lock that lost both would lose wake-ups, so the process stops.
void processBarrier() {
    if (membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0) return;
    if (errno == EPERM && membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0 &&
        membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0) {
        return;
    }
    if (membarrier(MEMBARRIER_CMD_GLOBAL) == 0) return;
    std::fputs("mw: the process-wide memory barrier failed after it was registered\n", stderr);
    std::abort();
}

}  // namespace platform
}  // namespace mw
