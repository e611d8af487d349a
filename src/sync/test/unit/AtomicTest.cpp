#include <gtest/gtest.h>

#include "concurrent/Concurrent.h"

namespace {

TEST(Atomic, CellsChangeOnlyOnAMatchAndCountFromTheOldValue) {
    mw::Atomic<int> cell(5);
    EXPECT_FALSE(cell.compareAndSet(4, 9));
    EXPECT_EQ(5, cell.get());
    EXPECT_TRUE(cell.compareAndSet(5, 9));
    EXPECT_EQ(9, cell.get());
    int a = 0, b = 0;
    mw::AtomicPtr<int> pointer(&a);
    EXPECT_FALSE(pointer.compareAndSet(&b, nullptr));
    EXPECT_TRUE(pointer.compareAndSet(&a, &b));
    mw::AtomicPtr<int>& alias = pointer;
    pointer = alias;
    EXPECT_EQ(&b, pointer.get());
    mw::Atomic<unsigned int> counter(1);
    EXPECT_EQ(1u, counter.getAndIncrement());
    EXPECT_EQ(2u, counter.getAndIncrement());
    EXPECT_EQ(3u, counter.get());
    mw::Atomic<short> flag;
    flag.set(1);
    EXPECT_EQ(1, flag.get());
    flag.set(0);
    EXPECT_EQ(0, flag.get());
}

struct Counted {
    explicit Counted(int* deaths) : m_deaths(deaths) {}
    ~Counted() { ++*m_deaths; }
    int* m_deaths;
};

// Assignment moves the pointee and destroys only the one it replaces; a self-assignment and the
// end of an emptied or null AutoPtr destroy nothing.
TEST(AutoPtr, AssignmentTransfersOwnershipAndDestroysOnlyTheReplacedPointee) {
    int oldDeaths = 0, movedDeaths = 0;
    Counted* moved = new Counted(&movedDeaths);
    {
        mw::AutoPtr<Counted> target(new Counted(&oldDeaths)), empty;
        {
            mw::AutoPtr<Counted> source(moved);
            target = source;
            EXPECT_EQ(1, oldDeaths);
            EXPECT_EQ(nullptr, source.get());
        }
        mw::AutoPtr<Counted>& alias = target;
        target = alias;
        EXPECT_EQ(&movedDeaths, target->m_deaths);
        empty = target;
        EXPECT_EQ(moved, empty.get());
        EXPECT_EQ(0, movedDeaths);
    }
    EXPECT_EQ(1, movedDeaths);
    EXPECT_EQ(1, oldDeaths);
}

}  // namespace
