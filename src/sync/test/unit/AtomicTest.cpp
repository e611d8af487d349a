#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "concurrent/Atomic.h"
#include "concurrent/AtomicPtr.h"
#include "concurrent/AutoPtr.h"

namespace {

TEST(Atomic, CompareAndSetChangesTheCellOnlyOnAMatch) {
    mw::Atomic<int> cell(5);
    EXPECT_FALSE(cell.compareAndSet(4, 9));
    EXPECT_EQ(5, cell.get());
    EXPECT_TRUE(cell.compareAndSet(5, 9));
    EXPECT_EQ(9, cell.get());

    int a = 0, b = 0;
    mw::AtomicPtr<int> pointer(&a);
    EXPECT_FALSE(pointer.compareAndSet(&b, nullptr));
    EXPECT_EQ(&a, pointer.get());
    EXPECT_TRUE(pointer.compareAndSet(&a, &b));
    EXPECT_EQ(&b, pointer.get());
}

TEST(Atomic, GetAndIncrementReturnsTheOldValue) {
    mw::Atomic<unsigned int> counter(1);
    EXPECT_EQ(1u, counter.getAndIncrement());
    EXPECT_EQ(2u, counter.getAndIncrement());
    EXPECT_EQ(3u, counter.get());

    mw::Atomic<short> flag;
    EXPECT_EQ(0, flag.get());
    flag.set(1);
    EXPECT_EQ(1, flag.get());
    flag.set(0);
    EXPECT_EQ(0, flag.get());
}

TEST(Atomic, CopiesTakeTheValueAndStayIndependent) {
    mw::Atomic<int> source(7);
    mw::Atomic<int> copy(source);
    EXPECT_EQ(7, copy.get());
    copy.set(8);
    EXPECT_EQ(7, source.get());
    source = copy;
    EXPECT_EQ(8, source.get());

    int a = 0, b = 0;
    mw::AtomicPtr<int> pa(&a);
    mw::AtomicPtr<int> pb(pa);
    EXPECT_EQ(&a, pb.get());
    pb.set(&b);
    EXPECT_EQ(&a, pa.get());
    mw::AtomicPtr<int>& alias = pa;
    pa = alias;
    EXPECT_EQ(&a, pa.get());
    pa = pb;
    EXPECT_EQ(&b, pa.get());
}

// Every increment is one indivisible step: the old values handed out are exactly 1..N, each once.
TEST(Atomic, ConcurrentIncrementsHandOutEveryValueOnce) {
    const int threads = 4;
    const int perThread = 20000;
    mw::Atomic<unsigned int> counter(1);
    std::vector<std::vector<unsigned int>> seen(threads);
    mwtest::Latch start(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            start.arriveAndWait();
            for (int i = 0; i < perThread; ++i) seen[t].push_back(counter.getAndIncrement());
        });
    }
    for (std::thread& worker : workers) worker.join();
    std::vector<unsigned int> all;
    for (const std::vector<unsigned int>& part : seen) {
        all.insert(all.end(), part.begin(), part.end());
    }
    std::sort(all.begin(), all.end());
    ASSERT_EQ(static_cast<size_t>(threads * perThread), all.size());
    for (size_t i = 0; i < all.size(); ++i) ASSERT_EQ(i + 1, all[i]);
    EXPECT_EQ(threads * perThread + 1u, counter.get());
}

// Counts its destructions, so that each test sees exactly which pointees died.
struct Counted {
    explicit Counted(int* deaths) : m_deaths(deaths) {}
    ~Counted() { ++*m_deaths; }
    int* m_deaths;
};

TEST(AutoPtr, AssignmentTransfersOwnershipAndDestroysTheOldPointee) {
    int oldDeaths = 0, movedDeaths = 0;
    Counted* moved = new Counted(&movedDeaths);
    {
        mw::AutoPtr<Counted> target(new Counted(&oldDeaths));
        {
            mw::AutoPtr<Counted> source(moved);
            target = source;
            EXPECT_EQ(1, oldDeaths);
            EXPECT_EQ(nullptr, source.get());
            EXPECT_EQ(moved, target.get());
        }
        EXPECT_EQ(0, movedDeaths);
        EXPECT_EQ(&movedDeaths, target->m_deaths);
    }
    EXPECT_EQ(1, movedDeaths);
    EXPECT_EQ(1, oldDeaths);
}

TEST(AutoPtr, SelfAssignmentAndNullPointeesDestroyNothing) {
    int deaths = 0;
    {
        mw::AutoPtr<Counted> owner(new Counted(&deaths));
        Counted* pointee = owner.get();
        mw::AutoPtr<Counted>& alias = owner;
        owner = alias;
        EXPECT_EQ(pointee, owner.get());
        EXPECT_EQ(0, deaths);

        mw::AutoPtr<Counted> empty;
        EXPECT_EQ(nullptr, empty.get());
        empty = owner;
        EXPECT_EQ(pointee, empty.get());
        EXPECT_EQ(nullptr, owner.get());
        EXPECT_EQ(0, deaths);
    }
    EXPECT_EQ(1, deaths);
}

}  // namespace
