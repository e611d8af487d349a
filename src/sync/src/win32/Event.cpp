// Auto-reset events on KERNEL32 event objects: unnamed, default security, initially unset.
#include "../platform.h"

#include <windows.h>

#include "Timeout.h"

namespace mw {
namespace platform {

static_assert(sizeof(Handle) == sizeof(HANDLE), "an event handle travels as a Handle");
static_assert(INFINITE_WAIT == INFINITE, "no-limit waits keep the OS's value");
static_assert(WAIT_SIGNALED == WAIT_OBJECT_0, "wait results keep the OS's values");
static_assert(WAIT_TIMEOUT_EXPIRED == WAIT_TIMEOUT, "wait results keep the OS's values");

Handle createEvent() { return CreateEventA(nullptr, FALSE, FALSE, nullptr); }

bool setEvent(Handle event) { return SetEvent(event) != FALSE; }

bool resetEvent(Handle event) { return ResetEvent(event) != FALSE; }

std::uint32_t waitEvent(Handle event, std::uint32_t milliseconds) {
    return waitNoEarlier(event, milliseconds);
}

void closeEvent(Handle event) {
    if (event != nullptr) CloseHandle(event);
}

}  // namespace platform
}  // namespace mw
