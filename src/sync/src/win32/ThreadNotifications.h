// The bridge from the loader's per-thread notifications to the routines that the portable code
// installs with installThreadHooks. DllMain feeds it in the DLL; a module that carries the
// library's objects without being the DLL (the internal test executable) feeds it from a TLS
// callback of its own.
#ifndef MW_SYNC_WIN32_THREAD_NOTIFICATIONS_H
#define MW_SYNC_WIN32_THREAD_NOTIFICATIONS_H

namespace mw {
namespace platform {

// Takes a loader notification code (DLL_THREAD_ATTACH, DLL_THREAD_DETACH, ...) on the thread that
// it concerns; runs the matching installed routine, if any, and ignores the other codes. Never
// throws: an exception must not cross the loader's frames. A failed adoption at attach leaves the
// thread without a record, and its first use adopts it.
void dispatchThreadNotification(unsigned long reason) noexcept;

}  // namespace platform
}  // namespace mw

#endif
