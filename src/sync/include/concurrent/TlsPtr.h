/// @class mw::TlsPtr
/// TlsPtr<T, Policy, Base>: a typed thread-local pointer. Policy::deallocate(T*) is the cleaner;
/// ObjectDeallocator serves for values made with new. Base is TlsPtrBase or a class derived from
/// it.
///
/// Every non-null value set on a thread is cleaned when that thread ends, in the order in which
/// the pointers were first set on it; the pointer must outlive every thread that has given it a
/// non-null value and still lives. Any thread may use a constructed pointer; each sees and
/// changes only its own value.
#ifndef MW_CONCURRENT_TLS_PTR_H
#define MW_CONCURRENT_TLS_PTR_H

#include "TlsPtrBase.h"

namespace mw {

template <typename T, typename Policy, typename Base = detail::TlsPtrBase>
class TlsPtr : public Base {
public:
    /// A pointer whose value is null on every thread. Throws std::bad_alloc when the OS has no
    /// thread-local slot left.
    TlsPtr() : Base(&TlsPtr::clean) {}

    /// Cleans the calling thread's value, then frees the slot. Other threads' values stay.
    virtual ~TlsPtr() noexcept(false) {}

    /// The calling thread's value; null until it sets one. Leaves the thread's last-error code as
    /// it found it.
    T* get() const { return static_cast<T*>(Base::get()); }

    /// Replaces the calling thread's value and returns the one before, which it does not destroy.
    /// Throws std::runtime_error("could not set thread specific data") when the OS refuses,
    /// leaving the old value in place. Leaves the thread's last-error code as it found it.
    T* set(T* value) { return static_cast<T*>(Base::set(value)); }

    /// Replaces the calling thread's value and destroys the old one. The new value is in place
    /// before the old one is destroyed, so a cleaner that reads this pointer sees the new value.
    void reset(T* value) {
        T* old = get();
        if (old == value) return;
        set(value);
        if (old != nullptr) Base::destroy(old);
    }

private:
    static void clean(void* value) { Policy::deallocate(static_cast<T*>(value)); }
};

}  // namespace mw

#endif
