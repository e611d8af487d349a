// Two tellers move money between two accounts, each taking the two accounts' locks in its own
// order: a deadlock, on purpose. The program finds it with the deadlock detector, prints the
// thread dump and the cycle, writes the wait-for graph (deadlock.dot, and deadlock.svg where
// Graphviz's dot is installed), then breaks the cycle by interrupting one teller, whose
// lockInterruptibly gives up, and exits cleanly once both have finished.
//
//   mw_deadlock [output directory]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "concurrent/Concurrent.h"

namespace {

typedef mw::ReentrantLock<mw::NonFairLockPolicy> AccountLock;

// Each teller holds its first lock before either asks for its second, so the deadlock is certain.
void transfer(const char* teller, AccountLock& from, AccountLock& to,
              mw::CountDownLatch& bothHold) {
    from.lockInterruptibly();
    bothHold.countDown();
    bothHold.await();
    try {
        to.lockInterruptibly();
        std::printf("%s: transferred\n", teller);
        to.unlock();
    } catch (const mw::InterruptedException&) {
        std::printf("%s: interrupted while waiting; gives up its transfer\n", teller);
    }
    from.unlock();
}

std::vector<mw::DeadlockCycle> awaitDeadlock() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (;;) {
        std::vector<mw::DeadlockCycle> cycles = mw::DeadlockDetector::findDeadlocks();
        if (!cycles.empty() || std::chrono::steady_clock::now() > deadline) return cycles;
        mw::Thread::sleep(std::chrono::milliseconds(1));
    }
}

void writeGraph(const std::string& directory, const mw::ThreadDump& dump,
                const std::vector<mw::DeadlockCycle>& cycles) {
    const std::string dot = directory + "/deadlock.dot";
    std::ofstream(dot) << dump.toDot(cycles);
    std::printf("\nWait-for graph written to %s\n", dot.c_str());
    if (std::system("dot -V > /dev/null 2>&1") != 0) return;
    const std::string svg = directory + "/deadlock.svg";
    if (std::system(("dot -Tsvg " + dot + " -o " + svg).c_str()) == 0) {
        std::printf("Rendered with Graphviz to %s\n", svg.c_str());
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string directory = argc > 1 ? argv[1] : ".";
    AccountLock savings;
    AccountLock checking;
    savings.setDiagnosticName("savings");
    checking.setDiagnosticName("checking");
    mw::CountDownLatch bothHold(2);

    mw::Thread first([&] { transfer("teller-1", savings, checking, bothHold); }, "teller-1");
    mw::Thread second([&] { transfer("teller-2", checking, savings, bothHold); }, "teller-2");
    first.start();
    second.start();

    const std::vector<mw::DeadlockCycle> cycles = awaitDeadlock();
    if (cycles.empty()) {
        std::puts("No deadlock found within 30 s");
        return 1;
    }
    const mw::ThreadDump dump = mw::ThreadDump::take();
    std::fputs(dump.toString().c_str(), stdout);
    std::puts("");
    std::fputs(mw::DeadlockDetector::toString(cycles).c_str(), stdout);
    writeGraph(directory, dump, cycles);

    std::puts("\nInterrupting teller-1 to break the cycle");
    first.interrupt();
    first.join();
    second.join();
    std::fputs(mw::DeadlockDetector::toString(mw::DeadlockDetector::findDeadlocks()).c_str(),
               stdout);
    for (const AccountLock* lock : {&savings, &checking}) {
        const mw::ContentionStatistics statistics = lock->getContentionStatistics();
        std::printf("%s: %llu contended acquisitions, %llu cancelled waits, longest wait %.3f ms\n",
                    lock->getDiagnosticName().c_str(), statistics.contendedAcquisitions,
                    statistics.cancelledWaits, statistics.maxWaitNanos / 1e6);
    }
    return 0;
}
