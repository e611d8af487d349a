#include <gtest/gtest.h>

#include "concurrent/Concurrent.h"

namespace {

TEST(Exception, WhatHasTheFixedOneLineFormatAlsoInCopies) {
    mw::Exception e("file.cpp", "void f(int)", 42, "broken");
    EXPECT_STREQ("Error in: file.cpp (42) void f(int), Description: broken", e.what());
    mw::NullPointerException empty("a.h", "g()", -7, "");
    EXPECT_STREQ("Error in: a.h (-7) g(), Description: ", empty.what());
    mw::InterruptedException original("x.cpp", "h()", 1, "once");
    mw::InterruptedException copy(original);
    // Sliced from a temporary: the copy owns its text.
    mw::Exception sliced(mw::InterruptedException("x.cpp", "h()", 1, "once"));
    EXPECT_STREQ("Error in: x.cpp (1) h(), Description: once", copy.what());
    EXPECT_STREQ(original.what(), sliced.what());
}

// A throw from inside the library, caught here by type, is in ThreadTest (setEvent).
template <typename E>
void expectCaughtBy(bool asIllegalState) {
    EXPECT_THROW(throw E("f", "g", 1, "d"), E);
    EXPECT_THROW(throw E("f", "g", 1, "d"), mw::Exception);
    EXPECT_THROW(throw E("f", "g", 1, "d"), std::exception);
    try {
        throw E("f", "g", 1, "d");
    } catch (const mw::IllegalStateException&) {
        EXPECT_TRUE(asIllegalState);
    } catch (const mw::Exception&) {
        EXPECT_FALSE(asIllegalState);
    }
}

TEST(Exception, EachTypeIsCaughtByItselfTheRootAndStdAndOnlyMonitorStateIsAnIllegalState) {
    expectCaughtBy<mw::NullPointerException>(false);
    expectCaughtBy<mw::UnsupportedOperationException>(false);
    expectCaughtBy<mw::IllegalArgumentException>(false);
    expectCaughtBy<mw::IllegalStateException>(true);
    expectCaughtBy<mw::IllegalMonitorStateException>(true);
    expectCaughtBy<mw::InterruptedException>(false);
    expectCaughtBy<mw::ThreadStateException>(false);
}

}  // namespace
