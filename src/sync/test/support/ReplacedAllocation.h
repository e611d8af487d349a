// Replaces every form of the program's allocation functions by two hooks that the including
// program defines, so that each allocation pairs with its own deallocation, also under a
// sanitizer. Included by one source file of a test program; a Windows DLL does not allocate
// through them.
#ifndef MW_SYNC_TEST_REPLACED_ALLOCATION_H
#define MW_SYNC_TEST_REPLACED_ALLOCATION_H

#include <cstddef>
#include <cstdlib>
#include <new>

namespace mwtest {

// Returns null for a refused allocation; the throwing forms then throw std::bad_alloc.
void* allocate(std::size_t size, std::size_t alignment, bool nothrow) noexcept;
void release(void* memory) noexcept;

// The allocation proper, for the hooks.
inline void* mallocAligned(std::size_t size, std::size_t alignment) noexcept {
    if (size == 0) size = 1;
    if (alignment <= alignof(std::max_align_t)) return std::malloc(size);
    void* memory = nullptr;
    return posix_memalign(&memory, alignment, size) == 0 ? memory : nullptr;
}

inline void* allocateOrThrow(std::size_t size, std::size_t alignment) {
    void* memory = allocate(size, alignment, false);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

}  // namespace mwtest

void* operator new(std::size_t size) { return mwtest::allocateOrThrow(size, 0); }
void* operator new[](std::size_t size) { return mwtest::allocateOrThrow(size, 0); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return mwtest::allocate(size, 0, true);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return mwtest::allocate(size, 0, true);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return mwtest::allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return mwtest::allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return mwtest::allocate(size, static_cast<std::size_t>(alignment), true);
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return mwtest::allocate(size, static_cast<std::size_t>(alignment), true);
}
void operator delete(void* memory) noexcept { mwtest::release(memory); }
void operator delete[](void* memory) noexcept { mwtest::release(memory); }
void operator delete(void* memory, std::size_t) noexcept { mwtest::release(memory); }
void operator delete[](void* memory, std::size_t) noexcept { mwtest::release(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { mwtest::release(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { mwtest::release(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { mwtest::release(memory); }
void operator delete[](void* memory, std::align_val_t) noexcept { mwtest::release(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    mwtest::release(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
    mwtest::release(memory);
}
void operator delete(void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
    mwtest::release(memory);
}
void operator delete[](void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
    mwtest::release(memory);
}

#endif
