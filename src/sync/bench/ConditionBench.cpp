// Condition ping-pong: the measuring thread hands a turn to an echo thread and waits for it to
// come back; one iteration is one round trip, i.e. two signal/await hand-overs.
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "concurrent/Condition.h"
#include "concurrent/Guard.h"
#include "concurrent/NonFairLockPolicy.h"
#include "concurrent/Object.h"
#include "concurrent/ReentrantLock.h"

namespace {

// Whose turn it is: 0 = the measuring thread's, 1 = the echo thread's, 2 = stop. Read and written
// only under the lock, which orders it; relaxed access compiles to plain moves.
class Turn {
public:
    int get() const { return m_value.load(std::memory_order_relaxed); }
    void set(int value) { m_value.store(value, std::memory_order_relaxed); }

private:
    std::atomic<int> m_value{0};
};

struct StdPingPong {
    std::mutex mutex;
    std::condition_variable changed;
    Turn turn;

    void roundTrip() {
        std::unique_lock<std::mutex> hold(mutex);
        turn.set(1);
        changed.notify_one();
        changed.wait(hold, [this] { return turn.get() == 0; });
    }
    void echo() {
        std::unique_lock<std::mutex> hold(mutex);
        for (;;) {
            changed.wait(hold, [this] { return turn.get() != 0; });
            if (turn.get() == 2) return;
            turn.set(0);
            changed.notify_one();
        }
    }
    void stop() {
        std::lock_guard<std::mutex> hold(mutex);
        turn.set(2);
        changed.notify_one();
    }
};

struct MwLockPingPong {
    mw::ReentrantLock<mw::NonFairLockPolicy> lock;
    std::unique_ptr<mw::Condition> changed{lock.newCondition()};
    Turn turn;

    void roundTrip() {
        lock.lock();
        turn.set(1);
        changed->signal();
        while (turn.get() != 0) changed->await();
        lock.unlock();
    }
    void echo() {
        lock.lock();
        for (;;) {
            while (turn.get() == 0) changed->await();
            if (turn.get() == 2) break;
            turn.set(0);
            changed->signal();
        }
        lock.unlock();
    }
    void stop() {
        lock.lock();
        turn.set(2);
        changed->signal();
        lock.unlock();
    }
};

struct MwMonitorPingPong {
    mw::Object monitor;
    Turn turn;

    void roundTrip() {
        mw::Guard guard(monitor);
        turn.set(1);
        monitor.notify();
        while (turn.get() != 0) monitor.wait(0, 0);
    }
    void echo() {
        mw::Guard guard(monitor);
        for (;;) {
            while (turn.get() == 0) monitor.wait(0, 0);
            if (turn.get() == 2) return;
            turn.set(0);
            monitor.notify();
        }
    }
    void stop() {
        mw::Guard guard(monitor);
        turn.set(2);
        monitor.notify();
    }
};

template <typename PingPong>
void BM_ConditionPingPong(benchmark::State& state) {
    PingPong pingPong;
    std::thread echo([&pingPong] { pingPong.echo(); });
    for (auto _ : state) pingPong.roundTrip();
    pingPong.stop();
    echo.join();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK_TEMPLATE(BM_ConditionPingPong, StdPingPong)->UseRealTime();
BENCHMARK_TEMPLATE(BM_ConditionPingPong, MwLockPingPong)->UseRealTime();
BENCHMARK_TEMPLATE(BM_ConditionPingPong, MwMonitorPingPong)->UseRealTime();

}  // namespace
