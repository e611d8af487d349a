/// @class mw::Atomic
/// Atomic<T>: a cell of at most 32 bits shared between threads without a lock.
/// get() is a load with acquire ordering (a plain load on x86-64); set(), compareAndSet() and
/// getAndIncrement() are sequentially consistent read-modify-write operations, each a full barrier.
/// Compound updates built from get() and set() are safe only while one thread alone writes.
#ifndef MW_CONCURRENT_ATOMIC_H
#define MW_CONCURRENT_ATOMIC_H

#include <atomic>

namespace mw {

template <typename T>
class Atomic {
public:
    /// A cell that holds value.
    Atomic(T value = T()) : m_value(value) {}

    /// Takes the source's value with an acquire load and stores it by exchange.
    Atomic(const Atomic& other) : m_value(T()) { set(other.get()); }

    virtual ~Atomic() {}

    /// Memberwise: not atomic as a whole, unlike the copy constructor.
    Atomic& operator=(const Atomic& other) {
        m_value.store(other.m_value.load(std::memory_order_relaxed), std::memory_order_relaxed);
        return *this;
    }

    /// The value, by a load with acquire ordering.
    T get() const { return m_value.load(std::memory_order_acquire); }

    /// A load that takes part in the single total order of sequentially consistent operations, for
    /// the handshakes in which each of two threads writes one cell and then reads the other's.
    T getOrdered() const { return m_value.load(std::memory_order_seq_cst); }

    /// Stores value by exchange: sequentially consistent, a full barrier.
    void set(T value) { m_value.exchange(value); }

    /// A store with release ordering and no barrier: later loads may pass it. Only for a writer
    /// whose protocol makes up for that (see AbstractQueuedSynchronizer::releaseState).
    void lazySet(T value) { m_value.store(value, std::memory_order_release); }

    /// Stores update if the value is expect; true if it did. Sequentially consistent.
    bool compareAndSet(T expect, T update) {
        return m_value.compare_exchange_strong(expect, update);
    }

    /// Adds one and returns the value before. Sequentially consistent.
    T getAndIncrement() { return m_value.fetch_add(1); }

private:
    static_assert(sizeof(T) <= 4, "Atomic holds values of at most 32 bits");
    std::atomic<T> m_value;
};

}  // namespace mw

#endif
