/// @class mw::AtomicPtr
/// AtomicPtr<T>: a pointer cell shared between threads without a lock. It does not own what it
/// points at. Ordering as for Atomic<T>: get() acquires, every write is a full-barrier exchange or
/// compare-exchange.
#ifndef MW_CONCURRENT_ATOMIC_PTR_H
#define MW_CONCURRENT_ATOMIC_PTR_H

#include <atomic>

namespace mw {

template <typename T>
class AtomicPtr {
public:
    /// A cell that holds value.
    AtomicPtr(T* value = nullptr) : m_value(value) {}

    /// Takes the source's value with an acquire load and stores it by exchange.
    AtomicPtr(const AtomicPtr& other) : m_value(nullptr) { set(other.get()); }

    virtual ~AtomicPtr() {}

    /// Exchanges the source's value in; self-assignment does nothing.
    AtomicPtr& operator=(const AtomicPtr& other) {
        if (&other != this) set(other.get());
        return *this;
    }

    /// The pointer, by a load with acquire ordering.
    T* get() const { return m_value.load(std::memory_order_acquire); }

    /// A load that takes part in the single total order of sequentially consistent operations, for
    /// the handshakes in which each of two threads writes one cell and then reads the other's.
    T* getOrdered() const { return m_value.load(std::memory_order_seq_cst); }

    /// Stores value by exchange: sequentially consistent, a full barrier.
    void set(T* value) { m_value.exchange(value); }

    /// Stores update if the pointer is expect; true if it did. Sequentially consistent.
    bool compareAndSet(T* expect, T* update) {
        return m_value.compare_exchange_strong(expect, update);
    }

private:
    std::atomic<T*> m_value;
};

}  // namespace mw

#endif
