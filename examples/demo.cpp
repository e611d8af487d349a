// A tour of the library as a caller uses it: thread identity, thread-local values cleaned at a
// thread's end, clocks and time units, a reentrant lock with a condition, threads made by a
// factory, started, joined and asked for their state, a monitor entered through Guard,
// interruption, and the library's exceptions.
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "concurrent/Concurrent.h"

namespace {

// A bounded queue on an Object monitor: put waits while full, take while empty.
class BoundedQueue : public mw::Object {
public:
    explicit BoundedQueue(std::size_t capacity) : m_capacity(capacity) {}

    void put(int item) {
        mw::Guard guard(this);
        while (m_items.size() == m_capacity) wait(0, 0);
        m_items.push_back(item);
        notifyAll();
    }

    int take() {
        mw::Guard guard(this);
        while (m_items.empty()) wait(0, 0);
        int item = m_items.front();
        m_items.pop_front();
        notifyAll();
        return item;
    }

private:
    std::size_t m_capacity;
    std::deque<int> m_items;
};

struct Greeting {
    std::string text;
};

// Says goodbye when the thread that set it ends.
struct GreetingCleaner {
    static void deallocate(Greeting* greeting) {
        std::printf("  thread-local value cleaned at thread end: %s\n", greeting->text.c_str());
        delete greeting;
    }
};

mw::TlsPtr<Greeting, GreetingCleaner> s_greeting;

void identity() {
    std::puts("Thread identity");
    const mw::Thread* self = mw::Thread::currentThread();
    std::printf("  main thread: name \"%s\", id %lu, same object twice: %s\n", self->getName(),
                self->getId(), self == mw::Thread::currentThread() ? "yes" : "no");
    std::thread worker([] {
        s_greeting.set(new Greeting{"hello from a worker"});
        const mw::Thread* me = mw::Thread::currentThread();
        std::printf("  worker thread: name \"%s\", id %lu\n", me->getName(), me->getId());
    });
    worker.join();
}

void clocksAndUnits() {
    std::puts("Clocks and time units");
    long long start = mw::TimeUtil::nanoTime();
    std::printf("  wall clock: %lld ms since 1970\n", mw::TimeUtil::milliTime());
    std::printf("  90 s = %lld ms = %lld ns; 1999 ms = %lld s (truncated)\n",
                mw::TimeUnit::SECONDS().toMillis(90), mw::TimeUnit::SECONDS().toNanos(90),
                mw::TimeUnit::MILLISECONDS().toSeconds(1999));
    std::printf("  10^12 s in ns saturates at %lld\n", mw::TimeUnit::SECONDS().toNanos(1000000000000LL));
    std::printf("  those lines took %lld us\n", (mw::TimeUtil::nanoTime() - start) / 1000);
}

void lockAndCondition() {
    std::puts("Reentrant lock and condition");
    mw::ReentrantLock<mw::FairLockPolicy> lock;
    std::unique_ptr<mw::Condition> ready(lock.newCondition());
    bool done = false;
    std::thread worker([&] {
        lock.lock();
        lock.lock();  // reentrant
        std::printf("  worker holds the lock %llu times\n", lock.getHoldCount());
        done = true;
        ready->signal();
        lock.unlock();
        lock.unlock();
    });
    lock.lock();
    while (!done) ready->await();
    std::printf("  main woke up with the hold back: held by me = %s\n",
                lock.isHeldByCurrentThread() ? "yes" : "no");
    lock.unlock();
    worker.join();
}

const char* stateName(mw::Thread::State state) {
    switch (state) {
        case mw::Thread::NEW: return "NEW";
        case mw::Thread::RUNNING: return "RUNNING";
        case mw::Thread::PARKED: return "PARKED";
        case mw::Thread::TIMED_PARKED: return "TIMED_PARKED";
        case mw::Thread::TERMINATED: return "TERMINATED";
    }
    return "?";
}

// A task that runs a function: what a caller hands to a thread factory.
class Task : public mw::Runnable {
public:
    explicit Task(std::function<void()> body) : m_body(std::move(body)) {}
    virtual void run() { m_body(); }

private:
    std::function<void()> m_body;
};

void monitor() {
    std::puts("Threads from a factory: two producers and a consumer on a bounded queue of 4");
    BoundedQueue queue(4);
    const int perProducer = 500;
    long long sum = 0;
    Task produce([&] {
        for (int i = 1; i <= perProducer; ++i) queue.put(i);
    });
    Task consume([&] {
        for (int i = 0; i < 2 * perProducer; ++i) sum += queue.take();
    });
    mw::DefaultThreadFactory factory;
    std::unique_ptr<mw::Thread> workers[] = {std::unique_ptr<mw::Thread>(factory.createThread(&consume)),
                                             std::unique_ptr<mw::Thread>(factory.createThread(&produce)),
                                             std::unique_ptr<mw::Thread>(factory.createThread(&produce))};
    for (auto& worker : workers) {
        std::printf("  %s before start: %s (no OS thread yet)\n", worker->getName(),
                    stateName(worker->getState()));
    }
    for (auto& worker : workers) {
        worker->start();
        std::printf("  %s started (id %lu): %s\n", worker->getName(), worker->getId(),
                    stateName(worker->getState()));
    }
    for (auto& worker : workers) worker->join(0);
    for (auto& worker : workers) {
        std::printf("  %s after join: %s, alive: %s\n", worker->getName(),
                    stateName(worker->getState()), worker->isAlive() ? "yes" : "no");
    }
    std::printf("  consumed %d items, sum %lld (expected %lld)\n", 2 * perProducer, sum,
                2LL * perProducer * (perProducer + 1) / 2);
}

void interruption() {
    std::puts("Interruption");
    mw::Object object;
    Task waitForever([&] {
        mw::Guard guard(object);
        try {
            object.wait(0, 0);
        } catch (const mw::InterruptedException&) {
            std::puts("  waiting thread was interrupted and holds the monitor again");
        }
    });
    mw::Thread waiter(&waitForever, "waiter");
    waiter.start();
    while (waiter.getState() != mw::Thread::PARKED) mw::Thread::yield();
    std::printf("  %s is %s in Object::wait\n", waiter.getName(), stateName(waiter.getState()));
    waiter.interrupt();
    waiter.join(0);
    std::printf("  %s is %s\n", waiter.getName(), stateName(waiter.getState()));
}

void failures() {
    std::puts("Failures are exceptions with a one-line message");
    mw::ReentrantLock<mw::NonFairLockPolicy> lock;
    try {
        lock.unlock();
    } catch (const mw::IllegalMonitorStateException& e) {
        std::printf("  %s\n", e.what());
    }
    try {
        mw::Guard guard(static_cast<const mw::Object*>(nullptr));
    } catch (const mw::NullPointerException& e) {
        std::printf("  %s\n", e.what());
    }
}

}  // namespace

int main() {
    identity();
    clocksAndUnits();
    lockAndCondition();
    monitor();
    interruption();
    failures();
    return 0;
}
