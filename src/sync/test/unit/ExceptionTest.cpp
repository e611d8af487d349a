#include <gtest/gtest.h>

#include <string>

#include "concurrent/Concurrent.h"

namespace {

template <typename E>
std::string thrownText() {
    try {
        MW_THROW(E, "the description");
    } catch (const std::exception& e) {
        return e.what();
    }
    return std::string();
}

TEST(Exception, MessageHasTheFixedOneLineFormat) {
    mw::Exception e("file.cpp", "void f(int)", 42, "broken");
    EXPECT_STREQ("Error in: file.cpp (42) void f(int), Description: broken", e.what());
}

TEST(Exception, EmptyDescriptionEndsWithTheBlankAfterTheColon) {
    mw::NullPointerException e("a.h", "g()", -7, "");
    EXPECT_STREQ("Error in: a.h (-7) g(), Description: ", e.what());
}

TEST(Exception, CopyKeepsTheMessageAsBuilt) {
    mw::InterruptedException original("x.cpp", "h()", 1, "once");
    mw::InterruptedException copy(original);
    EXPECT_STREQ(original.what(), copy.what());
    EXPECT_NE(original.what(), copy.what());
    mw::Exception sliced(copy);
    EXPECT_STREQ(original.what(), sliced.what());
}

TEST(Exception, ThrowMacroNamesFileLineAndFunction) {
    std::string text = thrownText<mw::IllegalArgumentException>();
    EXPECT_EQ(0u, text.find("Error in: "));
    EXPECT_NE(std::string::npos, text.find("ExceptionTest.cpp ("));
    EXPECT_NE(std::string::npos, text.find("thrownText"));
    EXPECT_NE(std::string::npos, text.find(", Description: the description"));
    EXPECT_EQ(std::string::npos, text.find('\n'));
}

template <typename E, typename Handler>
bool caughtBy() {
    try {
        throw E("f", "g", 1, "d");
    } catch (const Handler&) {
        return true;
    } catch (...) {
        return false;
    }
}

template <typename E>
void expectCaughtByOwnRootAndStd() {
    EXPECT_TRUE((caughtBy<E, E>()));
    EXPECT_TRUE((caughtBy<E, mw::Exception>()));
    EXPECT_TRUE((caughtBy<E, std::exception>()));
    EXPECT_FALSE((caughtBy<E, std::runtime_error>()));
}

TEST(Exception, EachTypeIsCaughtByItselfTheRootAndStdException) {
    expectCaughtByOwnRootAndStd<mw::NullPointerException>();
    expectCaughtByOwnRootAndStd<mw::UnsupportedOperationException>();
    expectCaughtByOwnRootAndStd<mw::IllegalArgumentException>();
    expectCaughtByOwnRootAndStd<mw::IllegalStateException>();
    expectCaughtByOwnRootAndStd<mw::IllegalMonitorStateException>();
    expectCaughtByOwnRootAndStd<mw::InterruptedException>();
    expectCaughtByOwnRootAndStd<mw::ThreadStateException>();
}

TEST(Exception, OnlyTheMonitorStateIsAnIllegalState) {
    EXPECT_TRUE((caughtBy<mw::IllegalMonitorStateException, mw::IllegalStateException>()));
    EXPECT_FALSE((caughtBy<mw::InterruptedException, mw::IllegalStateException>()));
    EXPECT_FALSE((caughtBy<mw::IllegalArgumentException, mw::NullPointerException>()));
    EXPECT_FALSE((caughtBy<mw::IllegalStateException, mw::IllegalMonitorStateException>()));
}

// Thrown inside the shared library, caught here by type.
TEST(Exception, LibraryThrowsAreCaughtByTypeAcrossTheBoundary) {
    mw::Object object;
    try {
        object.wait(0, -1);
        FAIL() << "no exception";
    } catch (const mw::IllegalArgumentException& e) {
        std::string text = e.what();
        EXPECT_NE(std::string::npos, text.find("Object::wait(long long int, long long int) const"));
        EXPECT_NE(std::string::npos,
                  text.find(", Description: Parameter ns out of range > 999999"));
    }
}

}  // namespace
