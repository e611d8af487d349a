// Soak: does memory stay flat under a long run of contended locking and condition waits? Prints
// the resident set before and after each phase, the allocations made per queued wait, and the
// queue nodes made against the waits that queued. Not a timed test: run it by hand.
//   mw_sync_soak [contended acquisitions, default 10^7] [condition waits, default 10^6]
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include "NodePool.h"
#include "concurrent/Concurrent.h"

namespace {

std::atomic<unsigned long long> g_allocations(0);

long residentKiB() {
    long pages = 0, resident = 0;
    FILE* statm = std::fopen("/proc/self/statm", "r");
    if (statm == nullptr) return -1;
    if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = -1;
    std::fclose(statm);
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

struct Phase {
    const char* name;
    long rssBefore;
    unsigned long long allocationsBefore, takenBefore, madeBefore;

    explicit Phase(const char* phaseName)
        : name(phaseName),
          rssBefore(residentKiB()),
          allocationsBefore(g_allocations.load()),
          takenBefore(mw::detail::NodePool::nodesTaken()),
          madeBefore(mw::detail::NodePool::nodesMade()) {}

    void report() const {
        unsigned long long queued = mw::detail::NodePool::nodesTaken() - takenBefore;
        unsigned long long allocations = g_allocations.load() - allocationsBefore;
        std::printf("%-27s resident %7ld KiB -> %7ld KiB (%+ld KiB); queued waits %llu; "
                    "nodes made %llu; allocations per queued wait %.6f\n",
                    name, rssBefore, residentKiB(), residentKiB() - rssBefore, queued,
                    mw::detail::NodePool::nodesMade() - madeBefore,
                    queued == 0 ? 0.0 : static_cast<double>(allocations) / queued);
    }
};

void contendedLocking(long long acquisitions, int threads) {
    mw::ReentrantLock<mw::NonFairLockPolicy> lock;
    long long shared = 0;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&] {
            for (long long i = 0; i < acquisitions / threads; ++i) {
                lock.lock();
                ++shared;
                lock.unlock();
            }
        });
    }
    for (auto& w : workers) w.join();
}

void conditionPingPong(long long waits) {
    mw::ReentrantLock<mw::FairLockPolicy> lock;
    std::unique_ptr<mw::Condition> changed(lock.newCondition());
    long long turn = 0;
    auto player = [&](int me) {
        for (long long i = 0; i < waits / 2; ++i) {
            lock.lock();
            while (turn % 2 != me) changed->awaitUninterruptibly();
            ++turn;
            changed->signal();
            lock.unlock();
        }
    };
    std::thread other(player, 1);
    player(0);
    other.join();
}

}  // namespace

void* operator new(std::size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

int main(int argc, char** argv) {
    long long acquisitions = argc > 1 ? std::atoll(argv[1]) : 10000000LL;
    long long waits = argc > 2 ? std::atoll(argv[2]) : 1000000LL;
    std::thread([] {}).join();
    long start = residentKiB();
    unsigned long long madeAtStart = mw::detail::NodePool::nodesMade();
    const char* contendedNames[] = {"contended locking, round 1", "contended locking, round 2",
                                    "contended locking, round 3"};
    const char* conditionNames[] = {"condition waits, round 1", "condition waits, round 2",
                                    "condition waits, round 3"};
    for (int round = 0; round < 3; ++round) {
        Phase contended(contendedNames[round]);
        contendedLocking(acquisitions, 4);
        contended.report();
        Phase condition(conditionNames[round]);
        conditionPingPong(waits);
        condition.report();
    }
    std::printf("in all: resident %+ld KiB, %llu queue nodes made\n", residentKiB() - start,
                mw::detail::NodePool::nodesMade() - madeAtStart);
    return 0;
}
