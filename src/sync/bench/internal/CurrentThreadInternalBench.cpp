// The read of the calling thread's object as the library's own lock paths make it (inlined from
// the initial-exec cache), beside its peers in one run: a plain thread_local read, a
// pthread_getspecific, the exported Thread::currentThread call, and a read of the OS slot with
// the last-error code saved and restored. Linked with the library's objects, as the library is.
#include <benchmark/benchmark.h>

#include <pthread.h>

#include "ThreadInfoSlot.h"
#include "concurrent/Thread.h"

namespace {

thread_local int t_plainValue = 1;

void BM_ThreadLocalRead(benchmark::State& state) {
    for (auto _ : state) {
        int* address = &t_plainValue;
        benchmark::DoNotOptimize(address);
        benchmark::DoNotOptimize(*address);
    }
}
BENCHMARK(BM_ThreadLocalRead);

void BM_PthreadGetSpecific(benchmark::State& state) {
    static pthread_key_t key;
    static int created = pthread_key_create(&key, nullptr);
    benchmark::DoNotOptimize(created);
    pthread_setspecific(key, &t_plainValue);
    for (auto _ : state) {
        void* value = pthread_getspecific(key);
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_PthreadGetSpecific);

void BM_CurrentThreadInlined(benchmark::State& state) {
    mw::Thread::currentThread();  // adopt before measuring
    for (auto _ : state) {
        const mw::Thread* current = mw::detail::currentThreadFast();
        benchmark::DoNotOptimize(current);
    }
}
BENCHMARK(BM_CurrentThreadInlined);

void BM_CurrentThreadCall(benchmark::State& state) {
    mw::Thread::currentThread();
    for (auto _ : state) {
        const mw::Thread* current = mw::Thread::currentThread();
        benchmark::DoNotOptimize(current);
    }
}
BENCHMARK(BM_CurrentThreadCall);

void BM_SlotReadWithLastError(benchmark::State& state) {
    mw::Thread::currentThread();
    for (auto _ : state) {
        mw::detail::ThreadInfo* record = mw::detail::readThreadInfoSlot();
        benchmark::DoNotOptimize(record);
    }
}
BENCHMARK(BM_SlotReadWithLastError);

}  // namespace

BENCHMARK_MAIN();
