/// @struct mw::ObjectDeallocator
/// ObjectDeallocator: disposes of a pointee with delete, through its virtual destructor where it
/// has one. Serves AutoPtr as a function object and TlsPtr as a deallocation policy.
#ifndef MW_CONCURRENT_OBJECT_DEALLOCATOR_H
#define MW_CONCURRENT_OBJECT_DEALLOCATOR_H

namespace mw {

struct ObjectDeallocator {
    /// Deletes pointee; null does nothing.
    template <typename T>
    static void deallocate(T* pointee) {
        delete pointee;
    }

    /// deallocate, as a function object.
    template <typename T>
    void operator()(T* pointee) const {
        deallocate(pointee);
    }
};

}  // namespace mw

#endif
