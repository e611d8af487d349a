// The DLL's entry point and the thread hooks it serves.
//
// The loader calls DllMain with DLL_THREAD_ATTACH on every thread created after the load, before
// the thread's entry function, and with DLL_THREAD_DETACH on every thread's way out, including
// threads older than the load that never had an attach. The DLL's thread_local destructors have
// already run by then, so the detach routine works on TLS slots only. Process attach and detach do
// nothing: the static objects are built and destroyed by the run-time library around them.
#include "ThreadNotifications.h"

#include <atomic>

#include <windows.h>

#include "../platform.h"

namespace mw {
namespace platform {
namespace {

std::atomic<ThreadHook> s_attachHook(nullptr);
std::atomic<ThreadHook> s_detachHook(nullptr);

void runHook(const std::atomic<ThreadHook>& hook) noexcept {
    ThreadHook routine = hook.load();
    if (routine == nullptr) return;
    try {
        routine();
    } catch (...) {
        // Dropped: see dispatchThreadNotification.
    }
}

}  // namespace

void installThreadHooks(ThreadHook attach, ThreadHook detach) {
    s_attachHook.store(attach);
    s_detachHook.store(detach);
}

void removeThreadHooks() {
    s_attachHook.store(nullptr);
    s_detachHook.store(nullptr);
}

// Every thread gets its detach notification from the loader, so there is nothing to arm.
void armThreadDetach() {}

void dispatchThreadNotification(unsigned long reason) noexcept {
    if (reason == DLL_THREAD_ATTACH) {
        runHook(s_attachHook);
    } else if (reason == DLL_THREAD_DETACH) {
        runHook(s_detachHook);
    }
}

}  // namespace platform
}  // namespace mw

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    mw::platform::dispatchThreadNotification(reason);
    return TRUE;
}
