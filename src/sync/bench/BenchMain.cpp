#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#if defined(MW_BENCH_HAVE_ABSL)
#include <absl/synchronization/mutex.h>
#endif

namespace {

// glibc takes its mutexes without the bus lock while a process is single-threaded. The library's
// users are multi-threaded by definition, so one idle thread stays alive, blocked, for the whole
// run: every benchmark, including the one-thread ones, measures the locks in multi-threaded mode.
class IdleThread {
public:
    IdleThread()
        : m_thread([this] {
              std::unique_lock<std::mutex> hold(m_mutex);
              m_released.wait(hold, [this] { return m_done.load(std::memory_order_relaxed); });
          }) {}
    ~IdleThread() {
        {
            std::lock_guard<std::mutex> hold(m_mutex);
            m_done.store(true, std::memory_order_relaxed);
        }
        m_released.notify_one();
        m_thread.join();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_released;
    std::atomic<bool> m_done{false};  // guarded by m_mutex, which orders it
    std::thread m_thread;
};

}  // namespace

int main(int argc, char** argv) {
    IdleThread idle;
#if defined(MW_BENCH_HAVE_ABSL)
    // A debug build of Abseil checks lock order on every acquisition; release programs run without.
    absl::SetMutexDeadlockDetectionMode(absl::OnDeadlockCycle::kIgnore);
#endif
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
