// A correct program, compiled with ThreadSanitizer and linked to the library built without it:
// plain ints are handed between threads only through the library's primitives, so any report is
// a happens-before edge that the library's headers failed to tell ThreadSanitizer about. Built a
// second time with the annotations turned off, the same program must be reported: that shows the
// check can fail. Prints "consumer checks passed" when every count is right.
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <vector>

#include "concurrent/Concurrent.h"

namespace {

const int THREADS = 4;
const int ROUNDS = 2000;

typedef mw::ReentrantLock<mw::NonFairLockPolicy> NonFairLock;
typedef mw::ReentrantLock<mw::FairLockPolicy> FairLock;

// Runs body(index) on THREADS library threads and joins them.
template <typename Body>
void onThreads(Body body) {
    std::vector<std::unique_ptr<mw::Thread>> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back(new mw::Thread([body, i] { body(i); }));
        threads.back()->start();
    }
    for (auto& thread : threads) thread->join();
}

int failures = 0;

void check(const char* what, long long actual, long long expected) {
    if (actual == expected) return;
    std::printf("FAILED: %s: %lld, expected %lld\n", what, actual, expected);
    ++failures;
}

// Increments under each lock form: lock/unlock, the standard names, a timed tryLock.
void locks() {
    NonFairLock nonFair;
    FairLock fair;
    int counter = 0;
    onThreads([&](int index) {
        for (int round = 0; round < ROUNDS; ++round) {
            if ((round + index) % 3 == 0) {
                std::lock_guard<NonFairLock> hold(nonFair);
                ++counter;
            } else if ((round + index) % 3 == 1) {
                nonFair.lockInterruptibly();
                ++counter;
                nonFair.unlock();
            } else {
                while (!nonFair.try_lock_for(std::chrono::milliseconds(50))) {
                }
                ++counter;
                nonFair.unlock();
            }
        }
    });
    int fairCounter = 0;
    onThreads([&](int) {
        for (int round = 0; round < ROUNDS / 4; ++round) {
            std::unique_lock<FairLock> hold(fair);
            ++fairCounter;
        }
    });
    check("lock counter", counter, THREADS * ROUNDS);
    check("fair lock counter", fairCounter, THREADS * ROUNDS / 4);
}

// Increments under Guard, and hands a value from a producer to a consumer through
// Object::wait/notifyAll with a predicate, a plain slot and a plain flag.
void monitor() {
    mw::Object object;
    int counter = 0;
    onThreads([&](int) {
        for (int round = 0; round < ROUNDS; ++round) {
            mw::Guard guard(object);
            ++counter;
        }
    });
    mw::Object handOver;
    int slot = 0;
    bool full = false;
    long long sum = 0;
    mw::Thread producer([&] {
        for (int value = 1; value <= ROUNDS; ++value) {
            mw::Guard guard(handOver);
            handOver.wait([&] { return !full; });
            slot = value;
            full = true;
            handOver.notifyAll();
        }
    });
    mw::Thread consumer([&] {
        for (int value = 1; value <= ROUNDS; ++value) {
            mw::Guard guard(handOver);
            while (!full) handOver.waitFor(std::chrono::seconds(10));
            sum += slot;
            full = false;
            handOver.notifyAll();
        }
    });
    producer.start();
    consumer.start();
    producer.join();
    consumer.join();
    check("guard counter", counter, THREADS * ROUNDS);
    check("handed-over sum", sum, static_cast<long long>(ROUNDS) * (ROUNDS + 1) / 2);
}

// Semaphore and latch hand-overs, and a read-write lock's both sides.
void counting() {
    mw::Semaphore toReader(0);
    mw::Semaphore toWriter(1);
    int message = 0;
    long long received = 0;
    mw::Thread reader([&] {
        for (int round = 0; round < ROUNDS; ++round) {
            while (!toReader.try_acquire_for(std::chrono::milliseconds(50))) {
            }
            received += message;
            toWriter.release();
        }
    });
    reader.start();
    for (int round = 1; round <= ROUNDS; ++round) {
        toWriter.acquire();
        message = round;
        toReader.release();
    }
    reader.join();

    // The parts are read once the latch opens, before the threads are joined (a join would
    // order them by itself).
    mw::CountDownLatch done(THREADS);
    std::vector<int> parts(THREADS, 0);
    std::vector<std::unique_ptr<mw::Thread>> workers;
    for (int i = 0; i < THREADS; ++i) {
        workers.emplace_back(new mw::Thread([&parts, &done, i] {
            parts[i] = i + 1;
            done.countDown();
        }));
        workers.back()->start();
    }
    done.await();
    int total = 0;
    for (int part : parts) total += part;
    for (auto& worker : workers) worker->join();

    mw::ReadWriteLock rw;
    int written = 0;
    onThreads([&](int index) {
        for (int round = 0; round < ROUNDS; ++round) {
            if (index == 0 || round % 4 == 0) {
                std::unique_lock<mw::ReadWriteLock> hold(rw);
                ++written;
            } else {
                rw.lock_shared();
                volatile int seen = written;
                (void)seen;
                rw.unlock_shared();
            }
        }
    });
    check("semaphore sum", received, static_cast<long long>(ROUNDS) * (ROUNDS + 1) / 2);
    check("latch parts", total, THREADS * (THREADS + 1) / 2);
    check("read-write counter", written, ROUNDS + (THREADS - 1) * ROUNDS / 4);
}

// Hands values over through the conditions of newCondition (a ReentrantLock's and a read-write
// lock's write side, each waited on through the Lock interface) and counts through the
// read-write lock's Lock objects: their waits and holds run through the library's virtual calls.
void conditionsAndViews() {
    NonFairLock lock;
    mw::ReadWriteLock rw;
    for (mw::Lock* owner : {static_cast<mw::Lock*>(&lock), &rw.writeLock()}) {
        std::unique_ptr<mw::Condition> changed(owner->newCondition());
        int slot = 0;
        bool full = false;
        long long sum = 0;
        mw::Thread producer([&] {
            for (int value = 1; value <= ROUNDS; ++value) {
                owner->lock();
                changed->await([&] { return !full; });
                slot = value;
                full = true;
                changed->broadcast();
                owner->unlock();
            }
        });
        producer.start();
        for (int value = 1; value <= ROUNDS; ++value) {
            owner->lock();
            while (!full) changed->awaitNanos(10000000000LL);
            sum += slot;
            full = false;
            changed->broadcast();
            owner->unlock();
        }
        producer.join();
        check("condition hand-over sum", sum, static_cast<long long>(ROUNDS) * (ROUNDS + 1) / 2);
    }
    int written = 0;
    onThreads([&](int index) {
        mw::Lock& side = index == 0 ? rw.writeLock() : rw.readLock();
        for (int round = 0; round < ROUNDS; ++round) {
            side.lock();
            if (index == 0) {
                ++written;
            } else {
                volatile int seen = written;
                (void)seen;
            }
            side.unlock();
        }
    });
    check("read-write view counter", written, ROUNDS);
}

}  // namespace

int main() {
    locks();
    monitor();
    counting();
    conditionsAndViews();
    if (failures == 0) std::puts("consumer checks passed");
    return failures == 0 ? 0 : 1;
}
