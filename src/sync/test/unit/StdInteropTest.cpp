// The library from the standard library's side: the std lock algorithms, wrappers and
// condition_variable_any over its locks; the std::chrono forms of its waits, which never end early
// and saturate on huge times; predicate waits; threads from callables; and the handler of
// exceptions that leave run().
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstddef>
#include <functional>
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

// Holds the locks on a thread of its own until released.
class Holder {
public:
    template <typename... Locks>
    explicit Holder(Locks&... locks)
        : m_worker([this, &locks...] {
              (locks.lock(), ...);
              m_holding.store(true);
              while (!m_release.load()) std::this_thread::yield();
              (locks.unlock(), ...);
          }) {
        while (!m_holding.load()) std::this_thread::yield();
    }
    ~Holder() { release(); }
    void release() {
        m_release.store(true);
        m_worker.join();
    }

private:
    std::atomic<bool> m_holding{false};
    std::atomic<bool> m_release{false};
    WorkerThread m_worker;
};

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

// Every timed form, asked for a time in which it cannot succeed, must take at least that time:
// also 1500 us, which a whole-millisecond wait would cut to 1 ms, and 1 ns, which must not turn
// into "no wait" nor "no limit". Each form returns whether it succeeded.
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
    // A fractional count rounds up too.
    auto start = steady_clock::now();
    EXPECT_FALSE(rw.try_lock_for(std::chrono::duration<double, std::milli>(1.5)));
    EXPECT_GE(steady_clock::now() - start, microseconds(1500));
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

    NonFairLock held;
    mw::ReadWriteLock rw;
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

TEST(StdInterop, ChronoTimeoutArithmetic) {
    using mw::detail::wholeMillisUp;
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
    for (const auto& row : rows) EXPECT_EQ(row[1], wholeMillisUp(row[0])) << row[0];
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
    typedef std::function<bool()> Wait;  // under the lock or the monitor
    const std::pair<const char*, Wait> onCondition[] = {
        {"await", [&] { return condition->await(predicate), true; }},
        {"awaitFor", [&] { return condition->awaitFor(seconds(30), predicate); }},
        {"awaitUntil",
         [&] { return condition->awaitUntil(steady_clock::now() + seconds(30), predicate); }},
    };
    const std::pair<const char*, Wait> onMonitor[] = {
        {"wait", [&] { return monitor.wait(predicate), true; }},
        {"waitFor", [&] { return monitor.waitFor(seconds(30), predicate); }},
        {"waitUntil",
         [&] { return monitor.waitUntil(steady_clock::now() + seconds(30), predicate); }},
    };
    for (const auto& wait : onCondition) {
        value = 0;
        tests.store(0);
        std::atomic<bool> result(false);
        WorkerThread waiter([&] {
            std::lock_guard<NonFairLock> hold(lock);
            result.store(wait.second());
        });
        for (int v = 1; v <= 3; ++v) {
            ASSERT_TRUE(eventually([&] { return tests.load() == v; })) << wait.first;
            std::lock_guard<NonFairLock> hold(lock);
            value = v;
            condition->signal();
        }
        waiter.join();
        EXPECT_TRUE(result.load()) << wait.first;
        EXPECT_EQ(4, tests.load()) << wait.first;
    }
    for (const auto& wait : onMonitor) {
        value = 0;
        tests.store(0);
        std::atomic<bool> result(false);
        WorkerThread waiter([&] {
            mw::Guard guard(monitor);
            result.store(wait.second());
        });
        for (int v = 1; v <= 3; ++v) {
            ASSERT_TRUE(eventually([&] { return tests.load() == v; })) << wait.first;
            mw::Guard guard(monitor);
            value = v;
            monitor.notify();
        }
        waiter.join();
        EXPECT_TRUE(result.load()) << wait.first;
        EXPECT_EQ(4, tests.load()) << wait.first;
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
    }
}

void throwAgain(const mw::Thread&, std::exception_ptr exception) {
    std::rethrow_exception(exception);
}

TEST(StdInterop, UncaughtExceptionHandlerSeesWhatLeavesRun) {
    EXPECT_EQ(nullptr, mw::Thread::getUncaughtExceptionHandler());
    mw::Thread dropped([] { throw std::runtime_error("dropped"); });
    dropped.start();
    EXPECT_TRUE(dropped.join(seconds(30)));

    EXPECT_EQ(nullptr, mw::Thread::setUncaughtExceptionHandler(&remember));
    EXPECT_EQ(&remember, mw::Thread::getUncaughtExceptionHandler());
    mw::Thread failing([] { throw std::runtime_error("seen"); });
    failing.start();
    EXPECT_TRUE(failing.join(seconds(30)));
    EXPECT_EQ(&failing, s_failedThread.load());
    EXPECT_EQ("seen", s_failure);

    // What leaves the handler is dropped too; the thread still ends in good order.
    EXPECT_EQ(&remember, mw::Thread::setUncaughtExceptionHandler(&throwAgain));
    mw::Thread again([] { throw 42; });
    again.start();
    EXPECT_TRUE(again.join(seconds(30)));
    EXPECT_EQ(&throwAgain, mw::Thread::setUncaughtExceptionHandler(nullptr));
}

}  // namespace
