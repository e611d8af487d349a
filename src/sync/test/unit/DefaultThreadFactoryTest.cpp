// DefaultThreadFactory: names by pool and thread number, copies, and numbering under concurrency.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "concurrent/Concurrent.h"

namespace {

struct Name {
    unsigned pool;
    unsigned thread;
};

// Reads "pool-<pool>-thread-<thread>"; a name in any other form (padding, separators, a sign)
// fails the test, since it does not print back to itself.
Name parse(const mw::Thread& thread) {
    Name name = {0, 0};
    const std::string text = thread.getName();
    EXPECT_EQ(2, std::sscanf(text.c_str(), "pool-%u-thread-%u", &name.pool, &name.thread)) << text;
    EXPECT_EQ("pool-" + std::to_string(name.pool) + "-thread-" + std::to_string(name.thread), text);
    return name;
}

Name create(mw::DefaultThreadFactory& factory) {
    std::unique_ptr<mw::Thread> thread(factory.createThread(nullptr));
    return parse(*thread);
}

struct Flag : mw::Runnable {
    std::atomic<bool> ran{false};
    void run() override { ran.store(true); }
};

// Pools are numbered in the order of construction, threads from 1 per pool, both in plain decimal
// (the twelfth thread is "-thread-12").
TEST(DefaultThreadFactory, NumbersPoolsInConstructionOrderAndThreadsFromOne) {
    mw::DefaultThreadFactory first;
    mw::DefaultThreadFactory second;
    Name a = create(first);
    Name b = create(second);
    EXPECT_GE(a.pool, 1u);
    EXPECT_EQ(a.pool + 1, b.pool);
    EXPECT_EQ(1u, a.thread);
    EXPECT_EQ(1u, b.thread);
    for (unsigned expected = 2; expected <= 12; ++expected) {
        Name next = create(first);
        EXPECT_EQ(a.pool, next.pool);
        EXPECT_EQ(expected, next.thread);
    }
    EXPECT_EQ(2u, create(second).thread);
}

// What createThread gives has not been started: no id, not alive, and it can be started once,
// running the task it was given (or nothing, for a null task).
TEST(DefaultThreadFactory, CreatesUnstartedThreadsForTheTask) {
    mw::DefaultThreadFactory factory;
    Flag task;
    std::unique_ptr<mw::Thread> withTask(factory.createThread(&task));
    std::unique_ptr<mw::Thread> withoutTask(factory.createThread(nullptr));
    for (mw::Thread* thread : {withTask.get(), withoutTask.get()}) {
        EXPECT_EQ(0u, thread->getId());
        EXPECT_FALSE(thread->isAlive());
    }
    EXPECT_FALSE(task.ran.load());
    withTask->start();
    withoutTask->start();
    withTask->join();
    withoutTask->join();
    EXPECT_TRUE(task.ran.load());
}

// A copy, by construction or assignment, takes the prefix and the current number and then counts
// on its own; it takes no pool number.
TEST(DefaultThreadFactory, CopiesContinueFromTheCopiedNumberWithTheSamePrefix) {
    mw::DefaultThreadFactory source;
    create(source);
    create(source);
    mw::DefaultThreadFactory copy(source);
    mw::DefaultThreadFactory assigned;
    Name before = create(assigned);
    assigned = source;
    mw::DefaultThreadFactory later;
    Name fromSource = create(source);
    Name fromCopy = create(copy);
    Name fromAssigned = create(assigned);
    EXPECT_EQ(3u, fromSource.thread);
    EXPECT_EQ(3u, fromCopy.thread);
    EXPECT_EQ(3u, fromAssigned.thread);
    EXPECT_EQ(fromSource.pool, fromCopy.pool);
    EXPECT_EQ(fromSource.pool, fromAssigned.pool);
    EXPECT_EQ(4u, create(copy).thread);
    EXPECT_EQ(4u, create(source).thread);
    EXPECT_EQ(fromSource.pool + 1, before.pool);
    EXPECT_EQ(before.pool + 1, create(later).pool);
}

// Threads that create at once on one factory, and construct factories at once, each get numbers
// of their own: together exactly 1..n for the threads, and consecutive pool numbers.
TEST(DefaultThreadFactory, ConcurrentCallsGetDistinctNumbersWithoutGaps) {
    const int threads = 4;
    const int each = 100;
    mw::DefaultThreadFactory shared;
    unsigned pool = create(shared).pool;
    std::vector<std::vector<unsigned>> numbers(threads);
    std::vector<unsigned> pools(threads);
    mwtest::Latch start(threads);
    std::vector<std::thread> creators;
    for (int t = 0; t < threads; ++t) {
        creators.emplace_back([&, t] {
            start.arriveAndWait();
            for (int i = 0; i < each; ++i) {
                Name name = create(shared);
                if (name.pool != pool) name.thread = 0;  // counted as a failure below
                numbers[t].push_back(name.thread);
            }
            mw::DefaultThreadFactory own;
            pools[t] = create(own).pool;
        });
    }
    for (std::thread& creator : creators) creator.join();
    std::vector<unsigned> all;
    for (const std::vector<unsigned>& some : numbers)
        all.insert(all.end(), some.begin(), some.end());
    std::sort(all.begin(), all.end());
    std::vector<unsigned> expected(threads * each);
    for (unsigned i = 0; i < expected.size(); ++i) expected[i] = i + 2;  // 1 went before the race
    EXPECT_EQ(expected, all);
    std::sort(pools.begin(), pools.end());
    for (int t = 0; t < threads; ++t) EXPECT_EQ(pool + 1 + t, pools[t]);
}

}  // namespace
