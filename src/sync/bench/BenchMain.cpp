#include <benchmark/benchmark.h>

#include <thread>

// glibc gives std::mutex a non-atomic fast path while a process has only ever had one thread. The
// library's users are multi-threaded by definition, so every run starts and joins one thread first
// and all locks are measured in the multi-threaded mode.
int main(int argc, char** argv) {
    std::thread([] {}).join();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
