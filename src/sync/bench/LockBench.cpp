// Lock and unlock, uncontended and contended, for the library's locks beside the standard ones and
// the common third-party ones.
// Contended runs measure throughput: every thread takes the same lock, increments a counter, and
// lets go; the rate is lock/unlock pairs per second across all threads. One iteration of a
// contended run is a burst of fixed wall-clock length, not one lock/unlock pair (so its "Time" is
// the burst's), and the items are the pairs done. The framework sizes a run from a short trial;
// with pairs as iterations, a lock whose rate swings by orders of magnitude with scheduling (a fair
// lock with more threads than cores forms a convoy or does not) would make a trial that ran without
// the convoy size a run that then takes a thousand times longer. Every thread's clock stops at its
// own burst's end, so their mean time is close to the wall time and the rate is pairs per wall
// second.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>

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
BENCHMARK_TEMPLATE(BM_Uncontended, mwbench::StdTimedMutex);
BENCHMARK_TEMPLATE(BM_Uncontended, mwbench::MwReentrant<mw::NonFairLockPolicy>);
BENCHMARK_TEMPLATE(BM_Uncontended, mwbench::MwReentrant<mw::FairLockPolicy>);
BENCHMARK_TEMPLATE(BM_Uncontended, mwbench::SimpleMutex);
#if defined(MW_BENCH_HAVE_BOOST_THREAD)
BENCHMARK_TEMPLATE(BM_Uncontended, mwbench::BoostMutex);
#endif
#if defined(MW_BENCH_HAVE_TBB)
BENCHMARK_TEMPLATE(BM_Uncontended, mwbench::TbbSpinMutex);
#endif
#if defined(MW_BENCH_HAVE_ABSL)
BENCHMARK_TEMPLATE(BM_Uncontended, mwbench::AbslMutex);
#endif
#if defined(MW_BENCH_HAVE_PTHREAD_ADAPTIVE)
BENCHMARK_TEMPLATE(BM_Uncontended, mwbench::PthreadAdaptiveMutex);
#endif

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

// 1 thread measures the lock's cost where contention is possible but absent; 8 threads on a small
// machine measure it under oversubscription, where a holder can be descheduled.
void ContendedThreads(benchmark::internal::Benchmark* b) {
    for (int threads : {1, 2, 4, 8}) b->Threads(threads);
    b->UseRealTime();
}

// One lock per instantiation, shared by the benchmark's threads.
template <typename LockType>
struct Shared {
    static LockType lock;
    static std::atomic<long> counter;
};
template <typename LockType>
LockType Shared<LockType>::lock;
template <typename LockType>
std::atomic<long> Shared<LockType>::counter{0};

const std::chrono::milliseconds BURST{50};
// The clock is read once per this many pairs, so that reading it costs little beside a pair.
const long PAIRS_PER_CLOCK_READ = 64;

template <typename Pair>
long runBurst(Pair pair) {
    const auto deadline = std::chrono::steady_clock::now() + BURST;
    long pairs = 0;
    do {
        for (long i = 0; i < PAIRS_PER_CLOCK_READ; ++i) pair();
        pairs += PAIRS_PER_CLOCK_READ;
    } while (std::chrono::steady_clock::now() < deadline);
    return pairs;
}

template <typename Pair>
void runContended(benchmark::State& state, Pair pair) {
    mw::Thread::currentThread();
    long pairs = 0;
    for (auto _ : state) pairs += runBurst(pair);
    state.SetItemsProcessed(pairs);
}

template <typename LockType>
void BM_Contended(benchmark::State& state) {
    runContended(state, [] {
        Shared<LockType>::lock.lock();
        mwbench::bump(Shared<LockType>::counter);
        Shared<LockType>::lock.unlock();
    });
}
BENCHMARK_TEMPLATE(BM_Contended, mwbench::StdMutex)->Apply(ContendedThreads);
BENCHMARK_TEMPLATE(BM_Contended, mwbench::StdRecursiveMutex)->Apply(ContendedThreads);
BENCHMARK_TEMPLATE(BM_Contended, mwbench::StdTimedMutex)->Apply(ContendedThreads);
BENCHMARK_TEMPLATE(BM_Contended, mwbench::MwReentrant<mw::NonFairLockPolicy>)
    ->Apply(ContendedThreads);
BENCHMARK_TEMPLATE(BM_Contended, mwbench::MwReentrant<mw::FairLockPolicy>)->Apply(ContendedThreads);
BENCHMARK_TEMPLATE(BM_Contended, mwbench::SimpleMutex)->Apply(ContendedThreads);
#if defined(MW_BENCH_HAVE_BOOST_THREAD)
BENCHMARK_TEMPLATE(BM_Contended, mwbench::BoostMutex)->Apply(ContendedThreads);
#endif
#if defined(MW_BENCH_HAVE_TBB)
BENCHMARK_TEMPLATE(BM_Contended, mwbench::TbbSpinMutex)->Apply(ContendedThreads);
#endif
#if defined(MW_BENCH_HAVE_ABSL)
BENCHMARK_TEMPLATE(BM_Contended, mwbench::AbslMutex)->Apply(ContendedThreads);
#endif
#if defined(MW_BENCH_HAVE_PTHREAD_ADAPTIVE)
BENCHMARK_TEMPLATE(BM_Contended, mwbench::PthreadAdaptiveMutex)->Apply(ContendedThreads);
#endif

struct SharedMonitor {
    static mw::Object monitor;
    static std::atomic<long> counter;
};
mw::Object SharedMonitor::monitor;
std::atomic<long> SharedMonitor::counter{0};

void BM_ContendedGuard(benchmark::State& state) {
    runContended(state, [] {
        mw::Guard guard(SharedMonitor::monitor);
        mwbench::bump(SharedMonitor::counter);
    });
}
BENCHMARK(BM_ContendedGuard)->Apply(ContendedThreads);

#if defined(MW_BENCH_HAVE_TBB)
tbb::queuing_mutex s_tbbLock;
std::atomic<long> s_tbbCounter{0};

void BM_ContendedTbbQueuing(benchmark::State& state) {
    runContended(state, [] {
        tbb::queuing_mutex::scoped_lock hold(s_tbbLock);
        mwbench::bump(s_tbbCounter);
    });
}
BENCHMARK(BM_ContendedTbbQueuing)->Apply(ContendedThreads);
#endif

}  // namespace
