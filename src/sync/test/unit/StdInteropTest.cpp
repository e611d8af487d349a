// The library from the standard library's side: the std lock algorithms and wrappers over its
// locks, and std::condition_variable_any waiting over one; the std::chrono forms of its
// waits, which never end early and saturate on huge times, and their arithmetic; predicate waits;
// threads from callables; and what becomes of exceptions that leave run().
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace {

using mwtest::eventually;
using mwtest::Holder;
using mwtest::interruptedOut;
using mwtest::WorkerThread;
using std::chrono::hours;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
typedef mw::ReentrantLock<mw::NonFairLockPolicy> NonFairLock;
typedef mw::ReentrantLock<mw::FairLockPolicy> FairLock;

TEST(StdInterop, LockAlgorithmsAndWrappersTakeTheLibrarysLocks) {
    NonFairLock a;
    FairLock b;
    mw::ReadWriteLock rw;
    {
        std::scoped_lock all(a, b, rw);
        EXPECT_TRUE(a.isHeldByCurrentThread() && b.isHeldByCurrentThread());
        EXPECT_TRUE(rw.isWriteLockedByCurrentThread());
    }
    EXPECT_FALSE(a.isLocked() || b.isLocked() || rw.isWriteLocked());
    std::lock(a, b);
    EXPECT_TRUE(a.isHeldByCurrentThread() && b.isHeldByCurrentThread());
    a.unlock();
    b.unlock();
    {
        // Any Lock, the sides of a ReadWriteLock included, has the standard names.
        std::shared_lock<mw::ReadWriteLock> reading(rw);
        std::unique_lock<mw::Lock> more(rw.readLock(), std::try_to_lock);
        EXPECT_TRUE(more.owns_lock());
        EXPECT_EQ(2u, rw.getReadHoldCount());
    }

    Holder holder(a, rw);
    std::unique_lock<NonFairLock> tried(a, std::try_to_lock);
    EXPECT_FALSE(tried.owns_lock());
    EXPECT_FALSE(tried.try_lock_for(milliseconds(1)));
    std::unique_lock<mw::Lock> writing(rw.writeLock(), std::defer_lock);
    EXPECT_FALSE(writing.try_lock_until(steady_clock::now() + milliseconds(1)));
    holder.release();
    EXPECT_TRUE(tried.try_lock_for(seconds(30)));
    EXPECT_TRUE(writing.try_lock_for(seconds(30)));
    EXPECT_EQ(1u, a.getHoldCount());
}

// Every timed form, asked for a time in which it cannot succeed, must take at least that time:
// also 1500 us, which a whole-millisecond wait would cut to 1 ms, and 1 ns, which must not turn
// into "no wait" nor "no limit". Each form returns whether it succeeded.
// A wait gives the library's lock up and takes it back through the lock's own lock and unlock.
TEST(StdInterop, ConditionVariableAnyWaitsOverTheLibrarysLock) {
    NonFairLock lock;
    std::condition_variable_any changed;
    bool ready = false;  // under lock
    std::atomic<bool> heldOnReturn(false);
    WorkerThread waiter([&] {
        std::unique_lock<NonFairLock> hold(lock);
        changed.wait(hold, [&] { return ready; });
        heldOnReturn.store(lock.isHeldByCurrentThread());
    });
    {
        std::lock_guard<NonFairLock> hold(lock);
        ready = true;
    }
    changed.notify_all();
    waiter.join();
    EXPECT_TRUE(heldOnReturn.load());
    std::unique_lock<NonFairLock> hold(lock);
    auto start = steady_clock::now();
    EXPECT_EQ(std::cv_status::timeout, changed.wait_for(hold, milliseconds(5)));
    EXPECT_GE(steady_clock::now() - start, milliseconds(5));
    EXPECT_TRUE(lock.isHeldByCurrentThread());
}

TEST(StdInterop, ChronoWaitsNeverEndEarly) {
    NonFairLock nonFair;
    FairLock fair;
    mw::ReadWriteLock rw;
    NonFairLock own;
    std::unique_ptr<mw::Condition> condition(own.newCondition());
    mw::Object monitor;
    mw::Semaphore empty(0);
    mw::CountDownLatch end(1);
    mw::Thread blocked([&] { end.await(); });
    blocked.start();
    Holder holder(nonFair, fair, rw);

    typedef std::function<bool(nanoseconds)> Form;
    const std::pair<const char*, Form> forms[] = {
        {"ReentrantLock::tryLock", [&](nanoseconds d) { return nonFair.tryLock(d); }},
        {"fair try_lock_until",
         [&](nanoseconds d) { return fair.try_lock_until(steady_clock::now() + d); }},
        {"ReadWriteLock::try_lock_for", [&](nanoseconds d) { return rw.try_lock_for(d); }},
        {"ReadWriteLock::try_lock_shared_until",
         [&](nanoseconds d) { return rw.try_lock_shared_until(steady_clock::now() + d); }},
        {"Semaphore::try_acquire_for", [&](nanoseconds d) { return empty.try_acquire_for(d); }},
        {"Semaphore::try_acquire_until",
         [&](nanoseconds d) { return empty.try_acquire_until(steady_clock::now() + d); }},
        {"Condition::awaitFor",
         [&](nanoseconds d) {
             std::lock_guard<NonFairLock> hold(own);
             return condition->awaitFor(d);
         }},
        {"Condition::awaitUntil",
         [&](nanoseconds d) {
             std::lock_guard<NonFairLock> hold(own);
             return condition->awaitUntil(steady_clock::now() + d);
         }},
        {"Object::waitFor",
         [&](nanoseconds d) {
             mw::Guard guard(monitor);
             return monitor.waitFor(d);
         }},
        {"Object::waitUntil",
         [&](nanoseconds d) {
             mw::Guard guard(monitor);
             return monitor.waitUntil(steady_clock::now() + d);
         }},
        {"Thread::join", [&](nanoseconds d) { return blocked.join(d); }},
        {"Thread::sleep", [&](nanoseconds d) { return mw::Thread::sleep(d), false; }},
    };
    for (nanoseconds time :
         {nanoseconds(1), nanoseconds(microseconds(1500)), nanoseconds(milliseconds(20))}) {
        for (const auto& form : forms) {
            auto start = steady_clock::now();
            EXPECT_FALSE(form.second(time)) << form.first;
            EXPECT_GE(steady_clock::now() - start, time) << form.first << " " << time.count();
        }
    }
    // A fractional count rounds up too; a deadline on another clock is reached on that clock.
    auto start = steady_clock::now();
    EXPECT_FALSE(rw.try_lock_for(std::chrono::duration<double, std::milli>(1.5)));
    EXPECT_GE(steady_clock::now() - start, microseconds(1500));
    auto deadline = std::chrono::system_clock::now() + milliseconds(20);
    EXPECT_FALSE(rw.try_lock_shared_until(deadline));
    EXPECT_GE(std::chrono::system_clock::now(), deadline);
    holder.release();
    end.countDown();
    EXPECT_TRUE(blocked.join(seconds(30)));
}

// hours::max() and time_point::max() clamp to the longest finite wait: on a free lock they take it
// at once; where they must wait, the waiter parks with a time limit (TIMED_PARKED, never PARKED,
// which would mean no limit) and stays until an interrupt ends it.
TEST(StdInterop, HugeTimesSaturateToTheLongestFiniteWait) {
    NonFairLock lock;
    EXPECT_TRUE(lock.tryLock(hours::max()));
    EXPECT_TRUE(lock.try_lock_until(steady_clock::time_point::max()));
    EXPECT_TRUE(lock.try_lock_for(std::chrono::duration<double>(1e300)));
    EXPECT_EQ(3u, lock.getHoldCount());
    lock.unlock();
    lock.unlock();
    lock.unlock();
    mw::Semaphore one(1);
    EXPECT_TRUE(one.try_acquire_for(hours::max()));
    mw::ReadWriteLock rw;
    EXPECT_TRUE(rw.try_lock_until(steady_clock::time_point::max()));
    rw.unlock();

    NonFairLock held;
    NonFairLock own;
    std::unique_ptr<mw::Condition> condition(own.newCondition());
    mw::Object monitor;
    Holder holder(held, rw);
    const std::pair<const char*, std::function<void()>> waits[] = {
        {"tryLock", [&] { held.tryLock(hours::max()); }},
        {"try_lock_until", [&] { held.try_lock_until(steady_clock::time_point::max()); }},
        {"try_lock_shared_for", [&] { rw.try_lock_shared_for(hours::max()); }},
        {"try_acquire_for", [&] { one.try_acquire_for(hours::max()); }},
        {"awaitFor",
         [&] {
             std::lock_guard<NonFairLock> hold(own);
             condition->awaitFor(hours::max());
         }},
        {"waitUntil",
         [&] {
             mw::Guard guard(monitor);
             monitor.waitUntil(std::chrono::system_clock::time_point::max());
         }},
    };
    for (const auto& wait : waits) {
        std::atomic<bool> interrupted(false);
        WorkerThread waiter([&] { interrupted.store(interruptedOut(wait.second)); });
        EXPECT_TRUE(eventually(
            [&] { return waiter.self()->getState() == mw::Thread::TIMED_PARKED; }, seconds(10)))
            << wait.first;
        waiter.self()->interrupt();
        waiter.join();
        EXPECT_TRUE(interrupted.load()) << wait.first;
    }

    // join: a thread that ends while it is joined; the caller's own thread returns at once.
    mw::CountDownLatch end(1);
    mw::Thread ending([&] { end.await(); });
    ending.start();
    WorkerThread ender([&] { end.countDown(); });
    EXPECT_TRUE(ending.join(hours::max()));
    EXPECT_FALSE(mw::Thread::currentThread()->join(hours::max()));
    mw::Thread unstarted;
    EXPECT_TRUE(unstarted.join(hours::max()));
}

// A clock whose now() is fixed at 1.5 ns, finer than a nanosecond, and counted.
struct FixedClock {
    typedef std::chrono::duration<long long, std::pico> duration;
    typedef duration::rep rep;
    typedef duration::period period;
    typedef std::chrono::time_point<FixedClock> time_point;
    [[maybe_unused]] static const bool is_steady = true;
    static std::atomic<int> calls;
    static time_point now() {
        calls.fetch_add(1);
        return time_point(duration(1500));
    }
};
std::atomic<int> FixedClock::calls(0);

// A duration rounds up to nanoseconds and saturates instead of overflowing; a deadline is taken
// against its own clock, read once, rounded up while the clock is rounded down. A wait in whole
// milliseconds rounds up and stays below the platform's "no limit".
TEST(StdInterop, ChronoTimeoutArithmetic) {
    using mw::detail::nanosUntil;
    using mw::detail::timeoutNanos;
    using std::chrono::duration;
    typedef std::chrono::time_point<FixedClock, hours> CoarsePoint;
    const long long MAX = LLONG_MAX;
    const double INF = std::numeric_limits<double>::infinity();
    EXPECT_EQ(5, timeoutNanos(nanoseconds(5)));
    EXPECT_EQ(2000000, timeoutNanos(duration<int, std::milli>(2)));
    EXPECT_EQ(2, timeoutNanos(duration<long long, std::pico>(1001)));
    EXPECT_EQ(0, timeoutNanos(duration<long long, std::pico>(-1999)));
    EXPECT_EQ(MAX, timeoutNanos(hours::max()));
    EXPECT_EQ(0, timeoutNanos(hours::min()));
    EXPECT_EQ(MAX, timeoutNanos(duration<unsigned long long>(ULLONG_MAX)));
    EXPECT_EQ(MAX, timeoutNanos(duration<long long, std::ratio<31556952>>(LLONG_MAX / 2)));
    EXPECT_EQ(333333334, timeoutNanos(duration<double, std::ratio<1, 3>>(1)));
    EXPECT_EQ(2, timeoutNanos(duration<double, std::nano>(1.25)));
    EXPECT_EQ(MAX, timeoutNanos(duration<double>(INF)));
    EXPECT_EQ(0, timeoutNanos(duration<double>(std::numeric_limits<double>::quiet_NaN())));
    FixedClock::calls.store(0);
    EXPECT_EQ(2, nanosUntil(FixedClock::time_point(FixedClock::duration(2001))));
    EXPECT_EQ(0, nanosUntil(FixedClock::time_point(FixedClock::duration(1000))));
    EXPECT_EQ(MAX, nanosUntil(CoarsePoint::max()));
    EXPECT_EQ(0, nanosUntil(CoarsePoint::min()));
    EXPECT_EQ(4, FixedClock::calls.load());
    EXPECT_GT(nanosUntil(steady_clock::time_point::max()), MAX / 2);

    const long long LONGEST = 0xFFFFFFFELL;
    const long long rows[][2] = {{LLONG_MIN, 0},
                                 {0, 0},
                                 {1, 1},
                                 {999999, 1},
                                 {1000000, 1},
                                 {1000001, 2},
                                 {1500000, 2},
                                 {LONGEST * 1000000, LONGEST},
                                 {(LONGEST + 1) * 1000000, LONGEST},
                                 {LLONG_MAX, LONGEST}};
    for (const auto& row : rows) EXPECT_EQ(row[1], mw::detail::wholeMillisUp(row[0])) << row[0];
    EXPECT_EQ(0, mw::detail::nanosLeft(steady_clock::now() - hours(1), 1000));
    EXPECT_GT(mw::detail::nanosLeft(steady_clock::now(), LLONG_MAX), LLONG_MAX / 2);
}

// The predicate forms re-test after every wake-up: two signals with the predicate still false do
// not end the wait; the third, with it true, does. The waiter tests the predicate under the lock
// and then waits, so a signaller that takes the lock after the n-th test reaches the n-th wait.
TEST(StdInterop, PredicateWaitsLoopUntilThePredicateHolds) {
    NonFairLock lock;
    std::unique_ptr<mw::Condition> condition(lock.newCondition());
    mw::Object monitor;
    int value = 0;  // under lock or monitor
    std::atomic<int> tests(0);
    auto predicate = [&] {
        tests.fetch_add(1);
        return value == 3;
    };
    // Each wait runs with its lock or monitor held and returns its result.
    struct Wait {
        const char* name;
        bool onMonitor;
        std::function<bool()> run;
    };
    const Wait waits[] = {
        {"await", false, [&] { return condition->await(predicate), true; }},
        {"awaitFor", false, [&] { return condition->awaitFor(seconds(30), predicate); }},
        {"awaitUntil", false,
         [&] { return condition->awaitUntil(steady_clock::now() + seconds(30), predicate); }},
        {"wait", true, [&] { return monitor.wait(predicate), true; }},
        {"waitFor", true, [&] { return monitor.waitFor(seconds(30), predicate); }},
        {"waitUntil", true,
         [&] { return monitor.waitUntil(steady_clock::now() + seconds(30), predicate); }},
    };
    auto holding = [&](bool onMonitor, const std::function<void()>& action) {
        if (onMonitor) {
            mw::Guard guard(monitor);
            action();
        } else {
            std::lock_guard<NonFairLock> hold(lock);
            action();
        }
    };
    for (const Wait& wait : waits) {
        value = 0;
        tests.store(0);
        std::atomic<bool> result(false);
        WorkerThread waiter([&] { holding(wait.onMonitor, [&] { result.store(wait.run()); }); });
        for (int v = 1; v <= 3; ++v) {
            ASSERT_TRUE(eventually([&] { return tests.load() == v; })) << wait.name;
            holding(wait.onMonitor, [&] {
                value = v;
                wait.onMonitor ? monitor.notify() : condition->signal();
            });
        }
        waiter.join();
        EXPECT_TRUE(result.load()) << wait.name;
        EXPECT_EQ(4, tests.load()) << wait.name;
    }
    // Out of time with the predicate false: false, and not before the time; true at once when it
    // holds from the start.
    std::lock_guard<NonFairLock> hold(lock);
    mw::Guard guard(monitor);
    auto never = [] { return false; };
    auto start = steady_clock::now();
    EXPECT_FALSE(condition->awaitFor(milliseconds(5), never));
    EXPECT_FALSE(monitor.waitUntil(steady_clock::now() + milliseconds(5), never));
    EXPECT_GE(steady_clock::now() - start, milliseconds(10));
    EXPECT_TRUE(monitor.waitFor(hours::max(), [] { return true; }));
}

class Counted : public mw::Runnable {
public:
    explicit Counted(std::atomic<int>& runs) : m_runs(runs) {}
    void run() override { m_runs.fetch_add(1); }

private:
    std::atomic<int>& m_runs;
};

void addTen(std::atomic<int>* total) { total->fetch_add(10); }
std::atomic<int> s_freeFunctionRuns(0);
void freeFunction() { s_freeFunctionRuns.fetch_add(1); }

// The thread owns a copy of the callable and frees it with itself; a Runnable pointer still goes
// to the constructor that does not own it (a stack object here: owning it would free it wrongly).
TEST(StdInterop, ThreadRunsAnyCallableAndOwnsTheCopy) {
    s_freeFunctionRuns.store(0);
    std::atomic<int> total(0);
    auto token = std::make_shared<int>(1);
    {
        mw::Thread thread([token, &total] { total.fetch_add(*token); }, "from a lambda");
        EXPECT_STREQ("from a lambda", thread.getName());
        EXPECT_EQ(2, token.use_count());
        thread.start();
        EXPECT_TRUE(thread.join(seconds(30)));
    }
    EXPECT_EQ(1, token.use_count());
    EXPECT_EQ(1, total.load());

    std::function<void()> function = std::bind(addTen, &total);
    mw::Thread fromFunction(function);
    mw::Thread fromPointer(&freeFunction);
    Counted counted(total);
    mw::Thread fromRunnable(&counted);
    {
        mw::Thread neverStarted([token] {});
    }
    for (mw::Thread* thread : {&fromFunction, &fromPointer, &fromRunnable}) thread->start();
    for (mw::Thread* thread : {&fromFunction, &fromPointer, &fromRunnable}) thread->join();
    EXPECT_EQ(12, total.load());
    EXPECT_EQ(1, s_freeFunctionRuns.load());
    EXPECT_EQ(1, token.use_count());
    static_assert(!mw::detail::IsThreadBody<Counted*>::value, "a Runnable is not a callable");
    static_assert(!mw::detail::IsThreadBody<std::nullptr_t>::value, "null is no callable");
}

std::atomic<const mw::Thread*> s_failedThread(nullptr);
std::string s_failure;  // written by the handler, read after join

void remember(const mw::Thread& thread, std::exception_ptr exception) {
    s_failedThread.store(&thread);
    try {
        std::rethrow_exception(exception);
    } catch (const std::exception& e) {
        s_failure = e.what();
    } catch (...) {
        s_failure = "not a std::exception";
    }
}

void throwAgain(const mw::Thread&, std::exception_ptr exception) {
    std::rethrow_exception(exception);
}

// Whatever leaves run goes to the handler when one is set, and is dropped after it, as is what
// leaves the handler: the thread ends in good order (its thread-local values are cleaned) and join
// returns.
TEST(StdInterop, WhatLeavesRunGoesToTheHandlerAndTheThreadEndsInGoodOrder) {
    EXPECT_EQ(nullptr, mw::Thread::getUncaughtExceptionHandler());
    const std::function<void()> throwers[] = {
        [] { throw std::runtime_error("seen"); },
        [] { throw mw::InterruptedException("file", "function", 1, "interrupted"); },
        [] { throw 42; }};
    const mw::Thread::UncaughtExceptionHandler handlers[] = {nullptr, &remember, &throwAgain};
    mw::Thread::UncaughtExceptionHandler previous = nullptr;
    for (mw::Thread::UncaughtExceptionHandler handler : handlers) {
        EXPECT_EQ(previous, mw::Thread::setUncaughtExceptionHandler(handler));
        EXPECT_EQ(handler, mw::Thread::getUncaughtExceptionHandler());
        previous = handler;
        for (const std::function<void()>& thrower : throwers) {
            s_failedThread.store(nullptr);
            s_failure.clear();
            mw::TlsPtr<std::function<void()>, mwtest::RunWhenCleaned> local;
            std::atomic<bool> cleaned{false};
            mw::Thread thread([&] {
                local.set(new std::function<void()>([&] { cleaned.store(true); }));
                thrower();
            });
            thread.start();
            EXPECT_TRUE(thread.join(seconds(30)));
            EXPECT_EQ(mw::Thread::TERMINATED, thread.getState());
            EXPECT_TRUE(cleaned.load());
            EXPECT_EQ(handler == &remember ? &thread : nullptr, s_failedThread.load());
            if (handler != &remember) {
                EXPECT_EQ("", s_failure);
            } else if (&thrower == &throwers[0]) {
                EXPECT_EQ("seen", s_failure);
            }
        }
    }
    EXPECT_EQ(&throwAgain, mw::Thread::setUncaughtExceptionHandler(nullptr));
}

}  // namespace
