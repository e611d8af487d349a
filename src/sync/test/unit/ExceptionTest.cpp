#include <gtest/gtest.h>

#include <type_traits>

#include "concurrent/Concurrent.h"

namespace {

TEST(Exception, WhatHasTheFixedOneLineFormatAlsoInCopies) {
    mw::Exception e("file.cpp", "void f(int)", 42, "broken");
    EXPECT_STREQ("Error in: file.cpp (42) void f(int), Description: broken", e.what());
    mw::NullPointerException empty("a.h", "g()", -7, "");
    EXPECT_STREQ("Error in: a.h (-7) g(), Description: ", empty.what());
    mw::InterruptedException original("x.cpp", "h()", 1, "once");
    mw::InterruptedException copy(original);
    mw::Exception sliced(copy);
    EXPECT_STREQ("Error in: x.cpp (1) h(), Description: once", copy.what());
    EXPECT_STREQ(original.what(), sliced.what());
}

// Every type is caught as a mw::Exception (and so as a std::exception); only the monitor's refusal
// is also an IllegalStateException. A throw from inside the library, caught here by type, is in
// ThreadLifecycleTest (setEvent).
template <typename E, bool illegalState>
constexpr bool placed() {
    return std::is_base_of<mw::Exception, E>::value &&
           std::is_base_of<mw::IllegalStateException, E>::value == illegalState;
}
static_assert(std::is_base_of<std::exception, mw::Exception>::value, "the root");
static_assert(placed<mw::NullPointerException, false>() &&
                  placed<mw::UnsupportedOperationException, false>() &&
                  placed<mw::IllegalArgumentException, false>() &&
                  placed<mw::IllegalStateException, true>() &&
                  placed<mw::IllegalMonitorStateException, true>() &&
                  placed<mw::InterruptedException, false>() &&
                  placed<mw::ThreadStateException, false>(),
              "the exception hierarchy");

}  // namespace
