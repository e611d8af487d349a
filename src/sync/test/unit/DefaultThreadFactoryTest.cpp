// DefaultThreadFactory: names by pool and thread number, copies, and numbering under concurrency.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "WorkerThread.h"
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

// Pools are numbered in the order of construction, threads from 1 per pool, both in plain decimal
// (the twelfth thread is "-thread-12"). A copy, by construction or assignment, takes the prefix and
// the current number and then counts on its own; it takes no pool number. The assignment is checked
// apart: it is written by hand. The threads are made unstarted, for the task.
TEST(DefaultThreadFactory, NumbersPoolsAndThreadsAndCopiesCountOnFromTheCopiedNumber) {
    mw::DefaultThreadFactory first, second;
    Name a = create(first), b = create(second);
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

    mw::DefaultThreadFactory copy(first), assigned;
    EXPECT_EQ(b.pool + 1, create(assigned).pool) << "the copy took a pool number";
    assigned = first;
    mw::DefaultThreadFactory later;
    EXPECT_EQ(b.pool + 2, create(later).pool) << "the assignment took a pool number";
    for (mw::DefaultThreadFactory* factory : {&first, &copy, &assigned}) {
        Name name = create(*factory);
        EXPECT_EQ(a.pool, name.pool);
        EXPECT_EQ(13u, name.thread) << "a shared or a lost count";
    }

    std::atomic<bool> ran{false};
    mwtest::Task task([&] { ran.store(true); });
    std::unique_ptr<mw::Thread> thread(first.createThread(&task));
    EXPECT_EQ(0u, thread->getId());
    EXPECT_FALSE(thread->isAlive());
    EXPECT_FALSE(ran.load());
    thread->start();
    thread->join();
    EXPECT_TRUE(ran.load());
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
