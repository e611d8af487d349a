#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mw::Thread;

// Cases that interrupt, publish or set thread-local values run on a fresh thread: the runner's
// thread keeps its record and its flag until the process ends.
TEST(Thread, AdoptedObjectIsOnePerThreadAndCarriesTheInterruptFlag) {
    const Thread* main = Thread::currentThread();
    EXPECT_EQ(main, Thread::currentThread());
    mwtest::onFreshThread([main] {
        const Thread* self = Thread::currentThread();
        EXPECT_EQ(self, Thread::currentThread());
        EXPECT_NE(main->getId(), self->getId());
        EXPECT_STREQ("linux thread", self->getName());
        EXPECT_TRUE(self->isAlive());
        const_cast<Thread*>(self)->setName("renamed");
        EXPECT_STREQ("renamed", Thread::currentThread()->getName());
        EXPECT_FALSE(Thread::interrupted());
        self->interrupt();
        EXPECT_TRUE(self->isInterrupted());
        EXPECT_TRUE(Thread::interrupted());
        EXPECT_FALSE(Thread::interrupted());
        EXPECT_FALSE(self->isInterrupted());
    });
    Thread idle;
    EXPECT_FALSE(idle.isAlive());
    idle.interrupt();
    EXPECT_FALSE(idle.isInterrupted()) << "an interrupt before the start is not remembered";
}

// Publishing a ParkEvent is the owner's own business. The refusal is thrown inside the library
// and caught here by type.
TEST(Thread, AnotherThreadsObjectRefusesSetEvent) {
    mwtest::WorkerThread other([] {});
    try {
        other.self()->setEvent(nullptr);
        ADD_FAILURE() << "setEvent on another thread's object did not throw";
    } catch (const mw::ThreadStateException& e) {
        const std::string text = e.what(),
                          expected =
                              ", Description: This operation is only allowed for the "
                              "thread istself!";
        EXPECT_EQ(0u, text.find("Error in: "));
        EXPECT_EQ(text.size() - expected.size(), text.rfind(expected));
    }
    EXPECT_EQ(Thread::RUNNING, other.self()->getState());
}

// The thread's end cleans what is left in each pointer once, in the order in which the pointers
// were first set on it (not their creation order), past a cleaner that throws; a pointer left
// null is not cleaned. reset cleans the value it replaces, unless it is the same.
TEST(ThreadLocal, ThreadEndCleansValuesInOrderOfFirstSet) {
    std::vector<int> log;
    auto logs = [&log](int tag, bool throws = false) {
        return new std::function<void()>([&log, tag, throws] {
            log.push_back(tag);
            if (throws) throw std::runtime_error("cleaner failed");
        });
    };
    mw::TlsPtr<std::function<void()>, mwtest::RunWhenCleaned> first, second, third, nulled;
    mwtest::onFreshThread([&] {
        third.set(logs(3, true));
        for (int tag = 10; tag <= 14; ++tag) delete first.set(logs(tag));
        nulled.set(logs(99));
        std::function<void()>* kept = logs(2);
        second.reset(kept);
        second.reset(kept);
        delete nulled.set(nullptr);
        EXPECT_TRUE(log.empty());
        first.reset(logs(15));
        EXPECT_EQ(std::vector<int>{14}, log);
    });
    EXPECT_EQ((std::vector<int>{14, 3, 15, 2}), log);
}

}  // namespace
