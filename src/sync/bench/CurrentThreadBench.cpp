// Thread::currentThread on a thread that has its record, beside a plain thread_local read in this
// executable. currentThread is the first step of every lock and unlock.
#include <benchmark/benchmark.h>

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

void BM_CurrentThread(benchmark::State& state) {
    mw::Thread::currentThread();  // adopt before measuring
    for (auto _ : state) {
        const mw::Thread* current = mw::Thread::currentThread();
        benchmark::DoNotOptimize(current);
    }
}
BENCHMARK(BM_CurrentThread);

}  // namespace

BENCHMARK_MAIN();
