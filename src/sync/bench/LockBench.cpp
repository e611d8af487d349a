// Lock and unlock, uncontended and contended, for the library's locks beside the standard ones.
// Contended runs measure throughput: every thread takes the same lock, increments a counter, and
// lets go; the rate is lock/unlock pairs per second across all threads.
#include <benchmark/benchmark.h>

#include <thread>

#include "BenchLocks.h"
#include "concurrent/Thread.h"

namespace {

template <typename LockType>
void BM_Uncontended(benchmark::State& state) {
    LockType lock;
    mw::Thread::currentThread();
    long counter = 0;
    for (auto _ : state) {
        lock.lock();
        ++counter;
        lock.unlock();
    }
    benchmark::DoNotOptimize(counter);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK_TEMPLATE(BM_Uncontended, mwbench::StdMutex);
BENCHMARK_TEMPLATE(BM_Uncontended, mwbench::StdRecursiveMutex);
BENCHMARK_TEMPLATE(BM_Uncontended, mwbench::MwReentrant<mw::NonFairLockPolicy>);
BENCHMARK_TEMPLATE(BM_Uncontended, mwbench::MwReentrant<mw::FairLockPolicy>);
BENCHMARK_TEMPLATE(BM_Uncontended, mwbench::SimpleMutex);

void BM_UncontendedGuard(benchmark::State& state) {
    mw::Object monitor;
    long counter = 0;
    for (auto _ : state) {
        mw::Guard guard(monitor);
        ++counter;
    }
    benchmark::DoNotOptimize(counter);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_UncontendedGuard);

void BM_UncontendedReentrantNested(benchmark::State& state) {
    mw::ReentrantLock<mw::NonFairLockPolicy> lock;
    lock.lock();
    for (auto _ : state) {
        lock.lock();
        lock.unlock();
    }
    lock.unlock();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_UncontendedReentrantNested);

#if defined(MW_BENCH_HAVE_TBB)
void BM_UncontendedTbbQueuing(benchmark::State& state) {
    tbb::queuing_mutex lock;
    long counter = 0;
    for (auto _ : state) {
        tbb::queuing_mutex::scoped_lock hold(lock);
        ++counter;
    }
    benchmark::DoNotOptimize(counter);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_UncontendedTbbQueuing);
#endif

// One lock per instantiation, shared by the benchmark's threads.
template <typename LockType>
struct Shared {
    static LockType lock;
    static long counter;
};
template <typename LockType>
LockType Shared<LockType>::lock;
template <typename LockType>
long Shared<LockType>::counter = 0;

template <typename LockType>
void BM_Contended(benchmark::State& state) {
    mw::Thread::currentThread();
    for (auto _ : state) {
        Shared<LockType>::lock.lock();
        ++Shared<LockType>::counter;
        Shared<LockType>::lock.unlock();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK_TEMPLATE(BM_Contended, mwbench::StdMutex)->Threads(2)->Threads(4)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Contended, mwbench::StdRecursiveMutex)->Threads(2)->Threads(4)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Contended, mwbench::MwReentrant<mw::NonFairLockPolicy>)
    ->Threads(2)->Threads(4)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Contended, mwbench::MwReentrant<mw::FairLockPolicy>)
    ->Threads(2)->Threads(4)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Contended, mwbench::SimpleMutex)->Threads(2)->Threads(4)->UseRealTime();

struct SharedMonitor {
    static mw::Object monitor;
    static long counter;
};
mw::Object SharedMonitor::monitor;
long SharedMonitor::counter = 0;

void BM_ContendedGuard(benchmark::State& state) {
    for (auto _ : state) {
        mw::Guard guard(SharedMonitor::monitor);
        ++SharedMonitor::counter;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ContendedGuard)->Threads(2)->Threads(4)->UseRealTime();

#if defined(MW_BENCH_HAVE_TBB)
tbb::queuing_mutex s_tbbLock;
long s_tbbCounter = 0;

void BM_ContendedTbbQueuing(benchmark::State& state) {
    for (auto _ : state) {
        tbb::queuing_mutex::scoped_lock hold(s_tbbLock);
        ++s_tbbCounter;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ContendedTbbQueuing)->Threads(2)->Threads(4)->UseRealTime();
#endif

}  // namespace
