// Thread-local slots on KERNEL32 TLS indexes. TlsGetValue clears the thread's last-error code on
// success, which is why the portable code saves and restores it around every read.
#include "../platform.h"

#include <windows.h>

namespace mw {
namespace platform {

static_assert(sizeof(DWORD) == sizeof(std::uint32_t), "a TLS index and an error code are 32 bits");
static_assert(TLS_OUT_OF_SLOTS == TLS_OUT_OF_INDEXES, "allocation failure keeps the OS's value");

std::uint32_t tlsAlloc() { return TlsAlloc(); }

void* tlsGetValue(std::uint32_t slot) { return TlsGetValue(slot); }

bool tlsSetValue(std::uint32_t slot, void* value) { return TlsSetValue(slot, value) != FALSE; }

void tlsFree(std::uint32_t slot) {
    if (slot != TLS_OUT_OF_SLOTS) TlsFree(slot);
}

std::uint32_t getLastError() { return GetLastError(); }

void setLastError(std::uint32_t code) { SetLastError(code); }

}  // namespace platform
}  // namespace mw
