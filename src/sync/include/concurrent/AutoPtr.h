/// @class mw::AutoPtr
/// AutoPtr<T>: an owning pointer that hands its pointee over on assignment. How the pointee is
/// disposed of hides behind a holder (detail::PtrContainer), so the deallocator is not part of the
/// AutoPtr's type. An AutoPtr always has a holder; it is not safe for concurrent use.
#ifndef MW_CONCURRENT_AUTO_PTR_H
#define MW_CONCURRENT_AUTO_PTR_H

#include "ObjectDeallocator.h"

namespace mw {
namespace detail {

// The abstract holder. createEmpty makes a new holder of the same concrete kind with a null
// pointer, on the heap, for the caller to own.
template <typename T>
class PtrContainer {
public:
    explicit PtrContainer(T* pointer) : m_ptr(pointer) {}
    virtual ~PtrContainer() = 0;
    virtual PtrContainer* createEmpty() const = 0;

    T* m_ptr;

    PtrContainer(const PtrContainer&) = delete;
    PtrContainer& operator=(const PtrContainer&) = delete;
};

template <typename T>
inline PtrContainer<T>::~PtrContainer() {}

// The concrete holder: hands a non-null pointee to its deallocator when it dies.
template <typename T, typename D>
class AutoPtrContainer : public PtrContainer<T> {
public:
    explicit AutoPtrContainer(T* pointer) : PtrContainer<T>(pointer), m_deallocator() {}

    virtual ~AutoPtrContainer() {
        if (this->m_ptr != nullptr) m_deallocator(this->m_ptr);
    }

    virtual PtrContainer<T>* createEmpty() const { return new AutoPtrContainer(nullptr); }

private:
    D m_deallocator;
};

}  // namespace detail

template <typename T>
class AutoPtr {
public:
    /// Owns pointee from here on. If the holder cannot be allocated, std::bad_alloc leaves the
    /// pointee with the caller.
    explicit AutoPtr(T* pointee = nullptr)
        : m_container(new detail::AutoPtrContainer<T, ObjectDeallocator>(pointee)) {}

    virtual ~AutoPtr() {
        delete m_container;
        m_container = nullptr;
    }

    /// Transfers ownership from source; the target's former pointee is destroyed. The source's new
    /// empty holder is made first, so a failed allocation leaves both sides as they were.
    AutoPtr& operator=(AutoPtr& source) {
        if (&source == this) return *this;
        detail::PtrContainer<T>* empty = source.m_container->createEmpty();
        detail::PtrContainer<T>* old = m_container;
        m_container = source.m_container;
        source.m_container = empty;
        delete old;
        return *this;
    }

    /// The pointee; null if there is none.
    T* get() const { return m_container->m_ptr; }
    /// The pointee, which must not be null.
    ///@{
    T* operator->() const { return m_container->m_ptr; }
    T& operator*() const { return *m_container->m_ptr; }
    ///@}

    /// Copying would leave two owners of one holder.
    AutoPtr(const AutoPtr&) = delete;

private:
    detail::PtrContainer<T>* m_container;
};

}  // namespace mw

#endif
