// The internal test executable carries the library's objects itself instead of loading the DLL,
// so no DllMain of the library receives thread notifications there. This PE TLS callback of the
// executable receives the same notifications, in the same places (attach before a new thread's
// entry function, detach on every thread's way out, after the thread_local destructors), and
// hands them to the library's dispatcher, so thread-end cleaning behaves as it does in the DLL.
#include <windows.h>

#include "win32/ThreadNotifications.h"

namespace {

void NTAPI onThreadNotification(PVOID, DWORD reason, PVOID) {
    mw::platform::dispatchThreadNotification(reason);
}

}  // namespace

// The run-time library brackets the callback array with .CRT$XLA and .CRT$XLZ, and the linker
// sorts the sections by name; .CRT$XLY runs after the run-time library's own callbacks.
extern "C" {
extern const IMAGE_TLS_DIRECTORY _tls_used;
__attribute__((section(".CRT$XLY"), used)) PIMAGE_TLS_CALLBACK mw_test_thread_notification =
    onThreadNotification;
// Keeps the TLS directory, and with it the callback array, in the image.
__attribute__((used)) const void* const mw_test_tls_directory = &_tls_used;
}
