// Thread-local slots on pthread keys. errno plays the part of the thread's last-error code.
#include "../platform.h"

#include <cerrno>

#include <pthread.h>

namespace mw {
namespace platform {

static_assert(sizeof(pthread_key_t) <= sizeof(std::uint32_t), "a key travels as a 32-bit slot");

std::uint32_t tlsAlloc() {
    pthread_key_t key;
    if (pthread_key_create(&key, nullptr) != 0) return TLS_OUT_OF_SLOTS;
    return static_cast<std::uint32_t>(key);
}

void* tlsGetValue(std::uint32_t slot) { return pthread_getspecific(static_cast<pthread_key_t>(slot)); }

bool tlsSetValue(std::uint32_t slot, void* value) {
    if (slot == TLS_OUT_OF_SLOTS) return false;
    int rc = pthread_setspecific(static_cast<pthread_key_t>(slot), value);
    if (rc != 0) errno = rc;
    return rc == 0;
}

void tlsFree(std::uint32_t slot) {
    if (slot != TLS_OUT_OF_SLOTS) pthread_key_delete(static_cast<pthread_key_t>(slot));
}

std::uint32_t getLastError() { return static_cast<std::uint32_t>(errno); }

void setLastError(std::uint32_t code) { errno = static_cast<int>(code); }

}  // namespace platform
}  // namespace mw

namespace mw {
namespace platform {

__thread void* t_threadRecord __attribute__((tls_model("initial-exec"))) = nullptr;

}  // namespace platform
}  // namespace mw
