// Condition ping-pong: the measuring thread hands a turn to an echo thread and waits for it to
// come back; one iteration is one round trip, i.e. two signal/await hand-overs.
#include <benchmark/benchmark.h>

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

// turn: 0 = the measuring thread's, 1 = the echo thread's, 2 = stop.
struct StdPingPong {
    std::mutex mutex;
    std::condition_variable changed;
    int turn = 0;

    void roundTrip() {
        std::unique_lock<std::mutex> hold(mutex);
        turn = 1;
        changed.notify_one();
        changed.wait(hold, [this] { return turn == 0; });
    }
    void echo() {
        std::unique_lock<std::mutex> hold(mutex);
        for (;;) {
            changed.wait(hold, [this] { return turn != 0; });
            if (turn == 2) return;
            turn = 0;
            changed.notify_one();
        }
    }
    void stop() {
        std::lock_guard<std::mutex> hold(mutex);
        turn = 2;
        changed.notify_one();
    }
};

struct MwLockPingPong {
    mw::ReentrantLock<mw::NonFairLockPolicy> lock;
    std::unique_ptr<mw::Condition> changed{lock.newCondition()};
    int turn = 0;

    void roundTrip() {
        lock.lock();
        turn = 1;
        changed->signal();
        while (turn != 0) changed->await();
        lock.unlock();
    }
    void echo() {
        lock.lock();
        for (;;) {
            while (turn == 0) changed->await();
            if (turn == 2) break;
            turn = 0;
            changed->signal();
        }
        lock.unlock();
    }
    void stop() {
        lock.lock();
        turn = 2;
        changed->signal();
        lock.unlock();
    }
};

struct MwMonitorPingPong {
    mw::Object monitor;
    int turn = 0;

    void roundTrip() {
        mw::Guard guard(monitor);
        turn = 1;
        monitor.notify();
        while (turn != 0) monitor.wait(0, 0);
    }
    void echo() {
        mw::Guard guard(monitor);
        for (;;) {
            while (turn == 0) monitor.wait(0, 0);
            if (turn == 2) return;
            turn = 0;
            monitor.notify();
        }
    }
    void stop() {
        mw::Guard guard(monitor);
        turn = 2;
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
