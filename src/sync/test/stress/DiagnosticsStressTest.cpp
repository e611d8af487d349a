// Thread dumps, deadlock searches and statistics reads, run without pause while threads start,
// rename themselves, block in every kind of wait, time out, are interrupted, end, and free the
// synchronizers they waited on the moment their waits are over. Nothing may crash or touch freed
// memory (the sanitizer builds run this too), no line may be torn, and since the workload never
// deadlocks, no deadlock may be reported.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "concurrent/Concurrent.h"

namespace {

using mw::ThreadSnapshot;
typedef mw::ReentrantLock<mw::NonFairLockPolicy> Lock;

const char* const NAMES[] = {"worker", "worker-renamed", "worker-renamed-with-a-longer-name"};

bool isOurName(const std::string& name) { return name.compare(0, 6, "worker") == 0; }

bool isKnownName(const std::string& name) {
    for (const char* known : NAMES) {
        if (name == known) return true;
    }
    return false;
}

struct Findings {
    std::atomic<long> dumps{0};
    std::atomic<long> tornLines{0};
    std::atomic<long> falseDeadlocks{0};
};

void checkLine(const ThreadSnapshot& line, Findings& findings) {
    const bool waits = line.waitKind != ThreadSnapshot::NOT_WAITING;
    const bool consistent =
        (!isOurName(line.name) || isKnownName(line.name)) && line.waitedNanos >= 0 &&
        (waits || (line.waitsOn == nullptr && line.ownerSerial == 0 && line.waitedNanos == 0)) &&
        (line.waitKind != ThreadSnapshot::JOIN || line.ownerSerial != 0) &&
        (line.waitKind == ThreadSnapshot::SLEEP || !waits || line.waitsOn != nullptr);
    if (!consistent) findings.tornLines.fetch_add(1);
}

void inspect(const std::atomic<bool>& done, Findings& findings, Lock& shared) {
    while (!done.load()) {
        const mw::ThreadDump dump = mw::ThreadDump::take();
        for (const ThreadSnapshot& line : dump.threads()) checkLine(line, findings);
        const std::vector<mw::DeadlockCycle> cycles = mw::DeadlockDetector::findDeadlocks();
        if (!cycles.empty()) {
            findings.falseDeadlocks.fetch_add(1);
            ADD_FAILURE() << mw::DeadlockDetector::toString(cycles);
        }
        if (dump.toString().empty() || dump.toDot(cycles).empty()) findings.tornLines.fetch_add(1);
        shared.getContentionStatistics();
        findings.dumps.fetch_add(1);
    }
}

// One round of a pair: the owner makes the synchronizers, the partner waits on them in every way,
// and the owner frees them as soon as the partner is through.
void playRound(int index, Lock& shared) {
    std::unique_ptr<Lock> lock(new Lock);
    std::unique_ptr<mw::Object> monitor(new mw::Object);
    std::unique_ptr<mw::Semaphore> semaphore(new mw::Semaphore(0));
    std::unique_ptr<mw::CountDownLatch> latch(new mw::CountDownLatch(1));
    std::unique_ptr<mw::ReadWriteLock> rw(new mw::ReadWriteLock);
    lock->setDiagnosticName("lock " + std::to_string(index));
    monitor->setDiagnosticName("monitor");
    std::atomic<bool> notified(false);
    std::atomic<bool> inLastWait(false);

    lock->lock();
    rw->writeLock().lock();
    mw::Thread partner([&] {
        mw::Thread* self = const_cast<mw::Thread*>(mw::Thread::currentThread());
        self->setName(NAMES[1 + index % 2]);
        lock->lock();  // queued until the owner lets go
        lock->unlock();
        {
            mw::Semaphore never(0);  // a wait that times out, then its synchronizer goes
            EXPECT_FALSE(never.try_acquire_for(std::chrono::microseconds(200)));
        }
        semaphore->acquire();
        latch->await();
        rw->readLock().lock();
        rw->readLock().unlock();
        {
            mw::Guard guard(monitor.get());
            monitor->wait([&] { return notified.load(); });
        }
        shared.lock();
        shared.unlock();
        try {
            mw::Guard guard(monitor.get());
            inLastWait = true;
            monitor->wait(0, 0);  // until interrupted
        } catch (const mw::InterruptedException&) {
        }
        self->setName(NAMES[0]);
    }, NAMES[0]);
    partner.start();
    lock->unlock();
    semaphore->release();
    latch->countDown();
    rw->writeLock().unlock();
    {
        mw::Guard guard(monitor.get());
        notified = true;
        monitor->notifyAll();
    }
    shared.lock();
    mw::Thread::yield();
    shared.unlock();
    EXPECT_TRUE(mwtest::eventually([&] { return inLastWait.load(); }));
    partner.interrupt();
    partner.join();
    // Freed right after the last wait on each of them.
    lock.reset();
    monitor.reset();
    semaphore.reset();
    latch.reset();
    rw.reset();
}

TEST(DiagnosticsStress, InspectionsWhileThreadsWaitEndAndFreeTheirSynchronizers) {
    const int rounds = 300 * mwtest::stressScale();
    const int pairs = 3;
    Lock shared;
    shared.setDiagnosticName("shared");
    std::atomic<bool> done(false);
    Findings findings;
    std::vector<std::unique_ptr<mw::Thread>> inspectors;
    for (int i = 0; i < 2; ++i) {
        inspectors.emplace_back(new mw::Thread([&] { inspect(done, findings, shared); },
                                               "inspector-" + std::to_string(i)));
        inspectors.back()->start();
    }
    std::vector<std::unique_ptr<mw::Thread>> owners;
    for (int p = 0; p < pairs; ++p) {
        owners.emplace_back(new mw::Thread([&, p] {
            for (int r = p; r < rounds; r += pairs) playRound(r, shared);
        }, NAMES[0]));
        owners.back()->start();
    }
    for (std::unique_ptr<mw::Thread>& owner : owners) owner->join();
    done = true;
    for (std::unique_ptr<mw::Thread>& inspector : inspectors) inspector->join();

    EXPECT_GT(findings.dumps.load(), 0);
    EXPECT_EQ(0, findings.tornLines.load());
    EXPECT_EQ(0, findings.falseDeadlocks.load());
    EXPECT_GT(shared.getContentionStatistics().contendedAcquisitions +
                  shared.getContentionStatistics().cancelledWaits,
              0u);
}

}  // namespace
