// Bounded buffer: producers put items into a fixed-capacity ring and consumers take them out, the
// ring guarded by one monitor with one wait set. The same program runs on an mw::Object monitor
// and on std::mutex with std::condition_variable; the rate is items handed over per second.
// Even thread indexes produce and odd ones consume, so 2 threads are 1 producer + 1 consumer and
// 4 threads are 2 + 2. Every thread runs the same iteration count, so each run hands over exactly
// what it makes and leaves the ring empty for the next.
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "concurrent/Guard.h"
#include "concurrent/Object.h"
#include "concurrent/Thread.h"

namespace {

struct StdMonitor {
    class Hold {
    public:
        explicit Hold(StdMonitor& monitor) : m_monitor(monitor), m_lock(monitor.m_mutex) {}
        void wait() { m_monitor.m_changed.wait(m_lock); }

    private:
        StdMonitor& m_monitor;
        std::unique_lock<std::mutex> m_lock;
    };
    void notify() { m_changed.notify_one(); }
    void notifyAll() { m_changed.notify_all(); }

    std::mutex m_mutex;
    std::condition_variable m_changed;
};

struct MwMonitor {
    class Hold {
    public:
        explicit Hold(MwMonitor& monitor) : m_monitor(monitor), m_guard(monitor.m_object) {}
        void wait() { m_monitor.m_object.wait(0, 0); }

    private:
        MwMonitor& m_monitor;
        mw::Guard m_guard;
    };
    void notify() { m_object.notify(); }
    void notifyAll() { m_object.notifyAll(); }

    mw::Object m_object;
};

// A FIFO ring of CAPACITY items. Producers wait only while it is full and consumers only while it
// is empty, and only the transitions out of those states wake anyone. With one producer and one
// consumer at most one thread waits at a time (the ring is never full and empty at once), so one
// notify suffices; with more, producers and consumers share the wait set and a single notify could
// wake a thread of the wrong side and strand the right one, so every waiter is woken.
// The slots and counts are read and written only under the monitor, which orders them; they are
// relaxed atomics, which compile to plain moves.
template <typename Monitor>
class BoundedBuffer {
public:
    static constexpr long CAPACITY = 16;

    void put(long item, bool wakeAll) {
        typename Monitor::Hold hold(m_monitor);
        while (count() == CAPACITY) hold.wait();
        long tail = (m_head.load(std::memory_order_relaxed) + count()) % CAPACITY;
        m_slots[tail].store(item, std::memory_order_relaxed);
        m_count.store(count() + 1, std::memory_order_relaxed);
        if (count() == 1) wake(wakeAll);
    }

    long take(bool wakeAll) {
        typename Monitor::Hold hold(m_monitor);
        while (count() == 0) hold.wait();
        long head = m_head.load(std::memory_order_relaxed);
        long item = m_slots[head].load(std::memory_order_relaxed);
        m_head.store((head + 1) % CAPACITY, std::memory_order_relaxed);
        m_count.store(count() - 1, std::memory_order_relaxed);
        if (count() == CAPACITY - 1) wake(wakeAll);
        return item;
    }

private:
    long count() const { return m_count.load(std::memory_order_relaxed); }
    void wake(bool all) {
        if (all) {
            m_monitor.notifyAll();
        } else {
            m_monitor.notify();
        }
    }

    Monitor m_monitor;
    std::atomic<long> m_slots[CAPACITY] = {};
    std::atomic<long> m_head{0};
    std::atomic<long> m_count{0};
};

template <typename Monitor>
BoundedBuffer<Monitor>& sharedBuffer() {
    static BoundedBuffer<Monitor> buffer;
    return buffer;
}

template <typename Monitor>
void BM_BoundedBuffer(benchmark::State& state) {
    BoundedBuffer<Monitor>& buffer = sharedBuffer<Monitor>();
    mw::Thread::currentThread();
    bool wakeAll = state.threads() > 2;
    bool producer = state.thread_index() % 2 == 0;
    long sum = 0;
    if (producer) {
        for (auto _ : state) buffer.put(1, wakeAll);
    } else {
        for (auto _ : state) sum += buffer.take(wakeAll);
    }
    benchmark::DoNotOptimize(sum);
    // Only the consumers count, so that the rate is items handed over, not puts plus takes.
    state.SetItemsProcessed(producer ? 0 : state.iterations());
}
BENCHMARK_TEMPLATE(BM_BoundedBuffer, StdMonitor)->Threads(2)->Threads(4)->UseRealTime();
BENCHMARK_TEMPLATE(BM_BoundedBuffer, MwMonitor)->Threads(2)->Threads(4)->UseRealTime();

}  // namespace
