// The primitives on the synchronizer's shared mode beside their standard peers, in one run:
// Semaphore with std::counting_semaphore, CountDownLatch with std::latch, ReadWriteLock with
// std::shared_mutex. Contended runs report the rate of operations across all threads.
#include <benchmark/benchmark.h>

#include <latch>
#include <memory>
#include <semaphore>
#include <shared_mutex>
#include <vector>

#include "concurrent/CountDownLatch.h"
#include "concurrent/ReadWriteLock.h"
#include "concurrent/Semaphore.h"
#include "concurrent/Thread.h"

namespace {

// ---- semaphores: acquire and release one permit --------------------------------------------------

struct MwSemaphore {
    explicit MwSemaphore(int permits) : s(permits) {}
    void acquire() { s.acquire(); }
    void release() { s.release(); }
    mw::Semaphore s;
};

struct MwFairSemaphore {
    explicit MwFairSemaphore(int permits) : s(permits, true) {}
    void acquire() { s.acquire(); }
    void release() { s.release(); }
    mw::Semaphore s;
};

struct StdSemaphore {
    explicit StdSemaphore(int permits) : s(permits) {}
    void acquire() { s.acquire(); }
    void release() { s.release(); }
    std::counting_semaphore<1 << 20> s;
};

// One semaphore per type for all the threads of a run; two permits, so that up to two threads
// hold at once and the rest queue.
template <typename Sem>
Sem& sharedSemaphore() {
    static Sem semaphore(2);
    return semaphore;
}

template <typename Sem>
void BM_SemaphoreAcquireRelease(benchmark::State& state) {
    Sem& s = sharedSemaphore<Sem>();
    mw::Thread::currentThread();
    for (auto _ : state) {
        s.acquire();
        benchmark::ClobberMemory();
        s.release();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK_TEMPLATE(BM_SemaphoreAcquireRelease, StdSemaphore)->ThreadRange(1, 8)->UseRealTime();
BENCHMARK_TEMPLATE(BM_SemaphoreAcquireRelease, MwSemaphore)->ThreadRange(1, 8)->UseRealTime();
BENCHMARK_TEMPLATE(BM_SemaphoreAcquireRelease, MwFairSemaphore)->ThreadRange(1, 8)->UseRealTime();

// ---- latches: every thread counts down and waits, once per latch ---------------------------------

const int LATCH_ROUNDS = 20000;

struct MwLatch {
    explicit MwLatch(int count) : l(count) {}
    void arriveAndWait() {
        l.countDown();
        l.await();
    }
    mw::CountDownLatch l;
};

struct StdLatch {
    explicit StdLatch(int count) : l(count) {}
    void arriveAndWait() { l.arrive_and_wait(); }
    std::latch l;
};

// A fresh latch for each round, since a latch cannot be reset. Thread 0 makes them before its
// loop; the others reach them only through the start barrier of theirs.
template <typename Latch>
std::vector<std::unique_ptr<Latch>>& latches() {
    static std::vector<std::unique_ptr<Latch>> made(LATCH_ROUNDS);
    return made;
}

template <typename Latch>
void BM_LatchRound(benchmark::State& state) {
    std::vector<std::unique_ptr<Latch>>& rounds = latches<Latch>();
    if (state.thread_index() == 0) {
        for (auto& l : rounds) l.reset(new Latch(state.threads()));
    }
    mw::Thread::currentThread();
    int round = 0;
    for (auto _ : state) rounds[round++]->arriveAndWait();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK_TEMPLATE(BM_LatchRound, StdLatch)->ThreadRange(1, 8)->Iterations(LATCH_ROUNDS)->UseRealTime();
BENCHMARK_TEMPLATE(BM_LatchRound, MwLatch)->ThreadRange(1, 8)->Iterations(LATCH_ROUNDS)->UseRealTime();

// ---- read-write locks: read-mostly and write-heavy mixes ----------------------------------------

struct MwReadWrite {
    void lock() { l.lock(); }
    void unlock() { l.unlock(); }
    void lock_shared() { l.lock_shared(); }
    void unlock_shared() { l.unlock_shared(); }
    mw::ReadWriteLock l;
};

struct MwFairReadWrite {
    MwFairReadWrite() : l(true) {}
    void lock() { l.lock(); }
    void unlock() { l.unlock(); }
    void lock_shared() { l.lock_shared(); }
    void unlock_shared() { l.unlock_shared(); }
    mw::ReadWriteLock l;
};

struct StdSharedMutex {
    void lock() { m.lock(); }
    void unlock() { m.unlock(); }
    void lock_shared() { m.lock_shared(); }
    void unlock_shared() { m.unlock_shared(); }
    std::shared_mutex m;
};

// The guarded data: a reader sums it, a writer bumps every cell.
struct Table {
    long cells[16] = {};
};

template <typename RW>
struct Guarded {
    RW lock;
    Table table;
};

template <typename RW>
Guarded<RW>& sharedTable() {
    static Guarded<RW> guarded;
    return guarded;
}

// writeEvery: one operation in writeEvery is a write, the others reads.
template <typename RW, int writeEvery>
void BM_ReadWriteMix(benchmark::State& state) {
    Guarded<RW>& g = sharedTable<RW>();
    mw::Thread::currentThread();
    unsigned op = static_cast<unsigned>(state.thread_index());
    long sum = 0;
    for (auto _ : state) {
        if (++op % writeEvery == 0) {
            g.lock.lock();
            for (long& c : g.table.cells) ++c;
            g.lock.unlock();
        } else {
            g.lock.lock_shared();
            for (long c : g.table.cells) sum += c;
            g.lock.unlock_shared();
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations());
}

#define MW_BENCH_MIX(RW)                                                              \
    BENCHMARK_TEMPLATE(BM_ReadWriteMix, RW, 20)->ThreadRange(1, 8)->UseRealTime();    \
    BENCHMARK_TEMPLATE(BM_ReadWriteMix, RW, 2)->ThreadRange(1, 8)->UseRealTime();
MW_BENCH_MIX(StdSharedMutex)
MW_BENCH_MIX(MwReadWrite)
MW_BENCH_MIX(MwFairReadWrite)
#undef MW_BENCH_MIX

}  // namespace
