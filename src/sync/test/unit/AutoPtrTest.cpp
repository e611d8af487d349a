#include <gtest/gtest.h>

#include "concurrent/Concurrent.h"

namespace {

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
