// A tour of the library as a caller uses it: thread identity, thread-local values cleaned at a
// thread's end, clocks and time units, a reentrant lock with a condition, a monitor entered
// through Guard, interruption, and the library's exceptions.
#include <cstdio>
#include <deque>
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

void monitor() {
    std::puts("Monitor: producer and consumer on a bounded queue of 4");
    BoundedQueue queue(4);
    const int count = 1000;
    long long sum = 0;
    std::thread producer([&] {
        for (int i = 1; i <= count; ++i) queue.put(i);
    });
    for (int i = 0; i < count; ++i) sum += queue.take();
    producer.join();
    std::printf("  consumed %d items, sum %lld (expected %lld)\n", count, sum,
                static_cast<long long>(count) * (count + 1) / 2);
}

void interruption() {
    std::puts("Interruption");
    mw::Object object;
    const mw::Thread* waiter = nullptr;
    std::atomic<const mw::Thread*> published(nullptr);
    std::thread worker([&] {
        published.store(mw::Thread::currentThread());
        mw::Guard guard(object);
        try {
            object.wait(0, 0);
        } catch (const mw::InterruptedException&) {
            std::puts("  waiting thread was interrupted and holds the monitor again");
        }
    });
    while ((waiter = published.load()) == nullptr || waiter->getState() != mw::Thread::PARKED) {
        std::this_thread::yield();
    }
    waiter->interrupt();
    worker.join();
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
