#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "concurrent/ParkEvent.h"
#include "concurrent/Thread.h"
#include "concurrent/ThreadStateException.h"
#include "concurrent/TlsPtr.h"

namespace {

using mw::Thread;

// Every case that gives a thread-local value, interrupts or publishes runs on a thread of its own:
// the test runner's thread keeps its record until the process ends, and its flag is shared.
void onFreshThread(const std::function<void()>& body) { std::thread(body).join(); }

TEST(ThreadIdentity, EachThreadHasOneAdoptedObject) {
    const Thread* main = Thread::currentThread();
    ASSERT_NE(nullptr, main);
    EXPECT_EQ(main, Thread::currentThread());
    EXPECT_NE(0u, main->getId());
    onFreshThread([main] {
        const Thread* self = Thread::currentThread();
        ASSERT_NE(nullptr, self);
        EXPECT_EQ(self, Thread::currentThread());
        EXPECT_NE(main, self);
        EXPECT_NE(0u, self->getId());
        EXPECT_NE(main->getId(), self->getId());
        EXPECT_STREQ("linux thread", self->getName());
        EXPECT_EQ(Thread::RUNNING, self->getState());
        EXPECT_TRUE(self->isAlive());
        const_cast<Thread*>(self)->setName("renamed");
        EXPECT_STREQ("renamed", Thread::currentThread()->getName());
    });
}

class CountingTask : public mw::Runnable {
public:
    void run() override { ++m_runs; }
    int m_runs = 0;
};

TEST(ThreadObject, UnstartedObjectsHaveNoIdentityAndRunForwardsToTheTarget) {
    Thread idle;
    EXPECT_STREQ("", idle.getName());
    EXPECT_EQ(0u, idle.getId());
    EXPECT_EQ(Thread::TERMINATED, idle.getState());
    EXPECT_FALSE(idle.isAlive());
    idle.run();
    idle.interrupt();
    EXPECT_FALSE(idle.isInterrupted()) << "an interrupt before the start is not remembered";

    CountingTask task;
    Thread worker(&task, "worker");
    EXPECT_STREQ("worker", worker.getName());
    worker.run();
    worker.run();
    EXPECT_EQ(2, task.m_runs);
}

TEST(ThreadInterrupt, InterruptedReportsOnceAndIsInterruptedKeepsTheFlag) {
    onFreshThread([] {
        const Thread* self = Thread::currentThread();
        EXPECT_FALSE(Thread::interrupted());
        self->interrupt();
        EXPECT_TRUE(self->isInterrupted());
        EXPECT_TRUE(self->isInterrupted());
        EXPECT_TRUE(Thread::interrupted());
        EXPECT_FALSE(Thread::interrupted());
        EXPECT_FALSE(self->isInterrupted());
    });
}

// Counts the wake-ups that reach it instead of waking a parker.
class ProbeEvent : public mw::detail::ParkEvent {
public:
    explicit ProbeEvent(int state) { setState(state); }
    void unpark() override { m_unparks.fetch_add(1); }
    std::atomic<int> m_unparks{0};
};

TEST(ThreadParkEvent, PublishedEventSetsTheStateAndTakesTheInterrupt) {
    onFreshThread([] {
        const Thread* self = Thread::currentThread();
        ProbeEvent event(Thread::TIMED_PARKED);
        self->setEvent(&event);
        EXPECT_EQ(Thread::TIMED_PARKED, self->getState());
        event.setState(Thread::PARKED);
        self->setEvent(&event);
        EXPECT_EQ(Thread::PARKED, self->getState());
        self->interrupt();
        EXPECT_EQ(1, event.m_unparks.load());
        self->setEvent(nullptr);
        EXPECT_EQ(Thread::RUNNING, self->getState());
        self->interrupt();
        EXPECT_EQ(1, event.m_unparks.load()) << "a withdrawn event must not be woken";
        EXPECT_TRUE(Thread::interrupted());
    });
}

TEST(ThreadParkEvent, AnotherThreadsObjectRefusesPublication) {
    std::atomic<const Thread*> other{nullptr};
    mwtest::Latch done(1);
    std::thread holder([&] {
        other.store(Thread::currentThread());
        done.wait();
    });
    ASSERT_TRUE(mwtest::eventually([&] { return other.load() != nullptr; }));
    ProbeEvent event(Thread::PARKED);
    for (mw::detail::ParkEvent* published : {static_cast<mw::detail::ParkEvent*>(&event),
                                              static_cast<mw::detail::ParkEvent*>(nullptr)}) {
        try {
            other.load()->setEvent(published);
            ADD_FAILURE() << "setEvent on another thread's object did not throw";
        } catch (const mw::ThreadStateException& e) {
            const std::string text = e.what();
            const std::string expected =
                ", Description: This operation is only allowed for the thread istself!";
            ASSERT_GE(text.size(), expected.size());
            EXPECT_EQ(expected, text.substr(text.size() - expected.size()));
        }
    }
    EXPECT_EQ(Thread::RUNNING, other.load()->getState());
    other.load()->interrupt();
    EXPECT_EQ(0, event.m_unparks.load()) << "the refused event was published after all";
    EXPECT_TRUE(other.load()->isInterrupted());
    done.countDown();
    holder.join();
}

// A thread-local value that logs its tag when it is cleaned and may fail on the way.
struct Value {
    int tag;
    std::vector<int>* log;
    bool throws;
};

// The cleaning loop swallows what a cleaner throws, so a null handed to one is counted instead.
std::atomic<int> s_nullCleans{0};

struct LoggingPolicy {
    static void deallocate(Value* value) {
        if (value == nullptr) {
            s_nullCleans.fetch_add(1);
            return;
        }
        value->log->push_back(value->tag);
        bool throws = value->throws;
        delete value;
        if (throws) throw std::runtime_error("cleaner failed");
    }
};

typedef mw::TlsPtr<Value, LoggingPolicy> ValuePtr;

TEST(ThreadLocal, GetAndSetLeaveErrnoAndReturnTheValueBefore) {
    ValuePtr pointer;
    onFreshThread([&] {
        std::vector<int> log;
        Value* value = new Value{1, &log, false};
        errno = ERANGE;
        EXPECT_EQ(nullptr, pointer.get());
        EXPECT_EQ(ERANGE, errno);
        EXPECT_EQ(nullptr, pointer.set(value));
        EXPECT_EQ(ERANGE, errno);
        EXPECT_EQ(value, pointer.get());
        EXPECT_EQ(ERANGE, errno);
        EXPECT_EQ(value, pointer.set(nullptr));
        delete value;
        EXPECT_TRUE(log.empty());
    });
}

// The thread's end cleans what is left in each pointer, in the order in which the pointers were
// first set on it (not their creation order, not the reverse), past a cleaner that throws.
TEST(ThreadLocal, ThreadEndCleansValuesInOrderOfFirstSet) {
    std::vector<int> log;
    ValuePtr first, second, third, nulled, untouched;
    int nullCleansBefore = s_nullCleans.load();
    onFreshThread([&] {
        Thread::currentThread();
        third.set(new Value{3, &log, true});
        for (int tag = 10; tag <= 14; ++tag) delete first.set(new Value{tag, &log, false});
        nulled.set(new Value{99, &log, false});
        second.set(new Value{2, &log, false});
        delete nulled.set(nullptr);
        EXPECT_EQ(nullptr, untouched.get());
    });
    EXPECT_EQ((std::vector<int>{3, 14, 2}), log);
    EXPECT_EQ(nullCleansBefore, s_nullCleans.load());
}

TEST(ThreadLocal, ResetCleansTheReplacedValueButNotTheSameOne) {
    std::vector<int> log;
    ValuePtr pointer;
    onFreshThread([&] {
        Thread::currentThread();
        Value* kept = new Value{1, &log, false};
        pointer.reset(kept);
        pointer.reset(kept);
        EXPECT_TRUE(log.empty()) << "resetting to the same value cleaned it";
        pointer.reset(new Value{2, &log, false});
        EXPECT_EQ(std::vector<int>{1}, log);
    });
    EXPECT_EQ((std::vector<int>{1, 2}), log);
}

}  // namespace
