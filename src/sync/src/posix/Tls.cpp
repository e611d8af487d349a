// Thread-local slots on a table of the library's own, not on pthread keys. glibc clears every
// key's value before it calls that key's destructor, so values kept in keys could not be read at
// the end of a thread's exit, where the last stage still cleans them. glibc never touches this
// table: the values stay readable until the last stage frees it. errno plays the part of the
// thread's last-error code.
//
// Slots are allocated process-wide, lowest free index first, up to a fixed capacity (Windows's).
// Each slot has a stamp that changes at every allocation and every free and is odd while the slot
// is allocated; a value is stored together with the stamp it was stored under and reads null once
// the stamp has moved on. So a slot freed and allocated again reads null on every thread, as a
// new slot must. Each thread's values sit in a table reached through an initial-exec TLS word,
// grown on demand: a slot beyond the end of the table reads null.
#include "../platform.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>

#include "ThreadExit.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#define MW_LEAK_CHECKED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#define MW_LEAK_CHECKED 1
#endif
#endif

namespace mw {
namespace platform {
namespace {

const std::uint32_t SLOT_CAPACITY = 1088;
const std::uint32_t FIRST_TABLE_SIZE = 32;

// Read relaxed: a slot is used only between its allocation and its free, and whatever hands a
// thread-local pointer to another thread orders its construction (and its destruction) with that
// thread's uses.
std::atomic<std::uint64_t> s_stamps[SLOT_CAPACITY];

struct StoredValue {
    void* value;
    std::uint64_t stamp;
};

__thread StoredValue* t_values __attribute__((tls_model("initial-exec"))) = nullptr;
__thread std::uint32_t t_tableSize __attribute__((tls_model("initial-exec"))) = 0;

bool isAllocated(std::uint64_t stamp) { return stamp % 2 == 1; }

// A thread may still be in the last stage of its exit when the process ends, and the leak checker
// no longer scans such a thread: it would report the table that the stage is about to free.
void exemptFromLeakCheck(void* table) {
#if defined(MW_LEAK_CHECKED)
    __lsan_ignore_object(table);
#else
    static_cast<void>(table);
#endif
}

// Makes room for slot index size - 1. The allocation is the one a test can make fail (through a
// replacement of the nothrow operator new); the old table stays as it was then.
bool growTable(std::uint32_t size) {
    std::uint32_t grown = t_tableSize == 0 ? FIRST_TABLE_SIZE : t_tableSize * 2;
    while (grown < size) grown *= 2;
    if (grown > SLOT_CAPACITY) grown = SLOT_CAPACITY;
    void* memory = ::operator new(grown * sizeof(StoredValue), std::nothrow);
    if (memory == nullptr) return false;
    exemptFromLeakCheck(memory);
    StoredValue* values = static_cast<StoredValue*>(memory);
    for (std::uint32_t i = 0; i < grown; ++i) values[i] = StoredValue{nullptr, 0};
    if (t_values != nullptr) std::memcpy(values, t_values, t_tableSize * sizeof(StoredValue));
    ::operator delete(t_values);
    t_values = values;
    t_tableSize = grown;
    return true;
}

}  // namespace

__thread void* t_threadRecord __attribute__((tls_model("initial-exec"))) = nullptr;

std::uint32_t tlsAlloc() {
    for (std::uint32_t slot = 0; slot < SLOT_CAPACITY; ++slot) {
        std::uint64_t stamp = s_stamps[slot].load(std::memory_order_relaxed);
        if (isAllocated(stamp)) continue;
        if (s_stamps[slot].compare_exchange_strong(stamp, stamp + 1, std::memory_order_relaxed)) {
            return slot;
        }
    }
    errno = EAGAIN;
    return TLS_OUT_OF_SLOTS;
}

void* tlsGetValue(std::uint32_t slot) {
    if (slot >= t_tableSize) return nullptr;
    const StoredValue& stored = t_values[slot];
    if (stored.stamp != s_stamps[slot].load(std::memory_order_relaxed)) return nullptr;
    return stored.value;
}

// A non-null value is refused unless the last stage, which cleans it and frees the table on the
// thread's way out, is armed first.
bool tlsSetValue(std::uint32_t slot, void* value) {
    if (slot >= SLOT_CAPACITY) {
        errno = EINVAL;
        return false;
    }
    std::uint64_t stamp = s_stamps[slot].load(std::memory_order_relaxed);
    if (!isAllocated(stamp)) {
        errno = EINVAL;
        return false;
    }
    if (value != nullptr && !armLastStage()) return false;
    if (slot >= t_tableSize) {
        if (value == nullptr) return true;
        if (!growTable(slot + 1)) {
            errno = ENOMEM;
            return false;
        }
    }
    t_values[slot] = StoredValue{value, stamp};
    return true;
}

void tlsFree(std::uint32_t slot) {
    if (slot >= SLOT_CAPACITY) return;
    std::uint64_t stamp = s_stamps[slot].load(std::memory_order_relaxed);
    if (isAllocated(stamp)) {
        s_stamps[slot].compare_exchange_strong(stamp, stamp + 1, std::memory_order_relaxed);
    }
}

std::uint32_t getLastError() { return static_cast<std::uint32_t>(errno); }

void setLastError(std::uint32_t code) { errno = static_cast<int>(code); }

void releaseThreadValues() {
    StoredValue* values = t_values;
    t_values = nullptr;
    t_tableSize = 0;
    ::operator delete(values);
}

}  // namespace platform
}  // namespace mw
