// The read of the calling thread's object as the library's own lock paths make it (inlined from
// the initial-exec cache), beside a plain thread_local read and the exported call. Linked with the
// library's objects, as the library itself is.
#include <benchmark/benchmark.h>

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
