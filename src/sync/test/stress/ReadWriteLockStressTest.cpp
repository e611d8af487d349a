// Bounded stress of ReadWriteLock, fair and non-fair. Counts scale with MW_STRESS_SCALE.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>

#include "StressDriver.h"
#include "concurrent/Concurrent.h"

namespace {

// Threads read and write under one ReadWriteLock by every form it has, re-enter, downgrade and
// give up timed attempts, interrupted at random after every few reads (StressDriver.h). Writers are
// alone and readers never meet a writer; a plain counter, written only by writers, shows a lost
// update (and, under TSan, a race). Afterwards the lock is free with nobody queued.
void runReadersAndWriters(bool fair, int threads) {
    const int rounds = 50000 * mwtest::stressScale();
    mw::ReadWriteLock lock(fair);
    long long data = 0;  // plain: only the lock protects it
    std::atomic<long long> writes(0), reads(0);
    std::atomic<int> readers(0), writers(0), violations(0), interrupts(0);
    auto asReader = [&] {
        readers.fetch_add(1);
        if (writers.load() != 0 || data < 0) violations.fetch_add(1);
        reads.fetch_add(1);
        readers.fetch_sub(1);
    };
    auto asWriter = [&] {
        if (writers.fetch_add(1) != 0 || readers.load() != 0) violations.fetch_add(1);
        ++data;
        writes.fetch_add(1);
        writers.fetch_sub(1);
    };
    auto take = [&](bool write, unsigned form, std::chrono::microseconds patience) {
        switch (form) {
            case 0:
                write ? lock.lock() : lock.lock_shared();
                return true;
            case 1:
                (write ? lock.writeLock() : lock.readLock()).lockInterruptibly();
                return true;
            case 2:
                return write ? lock.try_lock_for(patience) : lock.try_lock_shared_for(patience);
            default:
                return write ? lock.try_lock() : lock.try_lock_shared();
        }
    };
    // One round, its form, re-entry and downgrade chosen by the bits of choice.
    auto round = [&](unsigned choice) {
        const bool write = choice % 2 == 0;
        bool held = take(write, choice / 2 % 4, std::chrono::microseconds(choice % 200));
        if (!held) return;
        if (!write) {
            asReader();
            if (choice % 7 == 0) {
                lock.lock_shared();
                asReader();
                lock.unlock_shared();
            }
            lock.unlock_shared();
            return;
        }
        asWriter();
        if (choice % 5 == 0) {
            lock.lock();
            asWriter();
            lock.unlock();
        }
        if (choice % 3 == 0) {  // downgrade
            lock.lock_shared();
            lock.unlock();
            asReader();
            lock.unlock_shared();
        } else {
            lock.unlock();
        }
    };
    auto body = [&](int, std::mt19937& random, bool loud) {
        for (int r = 0; r < (loud ? rounds : rounds / 10); ++r) {
            try {
                round(static_cast<unsigned>(random()));
            } catch (const mw::InterruptedException&) {
                interrupts.fetch_add(1);
            }
        }
    };
    mwtest::runWithInterrupts(threads, body, &reads);
    EXPECT_EQ(0, violations.load());
    EXPECT_EQ(writes.load(), data);
    EXPECT_GT(reads.load(), 0);
    EXPECT_GT(writes.load(), 0);
    EXPECT_GT(interrupts.load(), 0);
    EXPECT_FALSE(lock.isWriteLocked());
    EXPECT_EQ(0u, lock.getReadLockCount());
    EXPECT_EQ(0u, lock.getQueueLength());
    EXPECT_TRUE(lock.try_lock());
    lock.unlock();
}

TEST(ReadWriteLockStress, ReadersAndWritersOnNonFairLock) { runReadersAndWriters(false, 4); }
TEST(ReadWriteLockStress, ReadersAndWritersOnFairLock) { runReadersAndWriters(true, 4); }

}  // namespace
