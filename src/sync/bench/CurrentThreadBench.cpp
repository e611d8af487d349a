// Thread::currentThread on a thread that has its record, beside the peers it must match: a plain
// thread_local read in this executable and a pthread_getspecific call. currentThread is the first
// step of every lock and unlock.
#include <benchmark/benchmark.h>

#include <pthread.h>

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

void BM_CurrentThread(benchmark::State& state) {
    mw::Thread::currentThread();  // adopt before measuring
    for (auto _ : state) {
        const mw::Thread* current = mw::Thread::currentThread();
        benchmark::DoNotOptimize(current);
    }
}
BENCHMARK(BM_CurrentThread);

}  // namespace
