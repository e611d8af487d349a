// TlsPtr<T, Policy, Base>: a typed thread-local pointer. Policy::deallocate(T*) is the cleaner;
// ObjectDeallocator serves for values made with new. Base is TlsPtrBase or a class derived from it.
#ifndef MW_CONCURRENT_TLS_PTR_H
#define MW_CONCURRENT_TLS_PTR_H

#include "TlsPtrBase.h"

namespace mw {

template <typename T, typename Policy, typename Base = detail::TlsPtrBase>
class TlsPtr : public Base {
public:
    TlsPtr() : Base(&TlsPtr::clean) {}

    virtual ~TlsPtr() noexcept(false) {}

    T* get() const { return static_cast<T*>(Base::get()); }

    T* set(T* value) { return static_cast<T*>(Base::set(value)); }

    // Replaces the calling thread's value and destroys the old one. The new value is in place
    // before the old one is destroyed, so a cleaner that reads this pointer sees the new value.
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
