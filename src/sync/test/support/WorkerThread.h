// WorkerThread: a std::thread for tests that publishes its mw::Thread (the library adopts the
// thread at its first Thread::currentThread) and stays alive after its body until join(). The
// adopted object is freed on the thread's way out, so keeping the thread alive is what lets other
// threads poll its state or interrupt it without racing with its exit.
#ifndef MW_SYNC_TEST_WORKER_THREAD_H
#define MW_SYNC_TEST_WORKER_THREAD_H

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "TestSupport.h"
#include "concurrent/InterruptedException.h"
#include "concurrent/Runnable.h"
#include "concurrent/Thread.h"

namespace mwtest {

// A Runnable that runs a function, for a Thread that the test starts.
class Task : public mw::Runnable {
public:
    explicit Task(std::function<void()> body) : m_body(std::move(body)) {}
    void run() override { m_body(); }

private:
    std::function<void()> m_body;
};

// Runs action; true if an InterruptedException ended it.
template <typename Action>
bool interruptedOut(Action action) {
    try {
        action();
    } catch (const mw::InterruptedException&) {
        return true;
    }
    return false;
}

class WorkerThread {
public:
    template <typename Body>
    explicit WorkerThread(Body body)
        : m_self(nullptr), m_finished(false), m_exit(1), m_thread([this, body]() mutable {
              m_self.store(mw::Thread::currentThread());
              body();
              m_finished.store(true);
              m_exit.wait();
          }) {}

    ~WorkerThread() { join(); }

    const mw::Thread* self() const {
        while (m_self.load() == nullptr) std::this_thread::yield();
        return m_self.load();
    }

    bool finished() const { return m_finished.load(); }

    // Polls until the body blocks in a park, timed or not; false if it finished instead or the
    // deadline passed. Every lock, condition and monitor wait of the library blocks in a park, so
    // this is how a test knows that the worker is queued.
    bool awaitParked(std::chrono::milliseconds deadline = std::chrono::seconds(30)) const {
        const mw::Thread* thread = self();
        auto parked = [&] {
            mw::Thread::State state = thread->getState();
            return state == mw::Thread::PARKED || state == mw::Thread::TIMED_PARKED;
        };
        return eventually([&] { return finished() || parked(); }, deadline) && !finished();
    }

    bool awaitFinished(std::chrono::milliseconds deadline = std::chrono::seconds(30)) const {
        return eventually([&] { return finished(); }, deadline);
    }

    // A body still running two minutes (times the stress scale) into join() is taken for a hang
    // in the primitive under test, or for a test that returned early without letting its worker
    // go. Such a thread can be neither freed nor joined, so the process ends with a message.
    void join() {
        if (!m_thread.joinable()) return;
        auto end = std::chrono::steady_clock::now() + std::chrono::minutes(2) * stressScale();
        while (!finished()) {
            if (std::chrono::steady_clock::now() > end) {
                std::fputs("WorkerThread: the body did not finish; aborting\n", stderr);
                std::abort();
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));  // leaves the cores free
        }
        m_exit.countDown();
        m_thread.join();
    }

private:
    std::atomic<const mw::Thread*> m_self;
    std::atomic<bool> m_finished;
    Latch m_exit;
    std::thread m_thread;  // last: it starts once the fields above are built
};

typedef std::unique_ptr<WorkerThread> Worker;

// Waits for a worker's body. One still blocked is interrupted, so that a lost wake-up in an
// interruptible wait fails the test instead of hanging it in the join.
inline bool finishes(const WorkerThread& worker) {
    if (worker.awaitFinished()) return true;
    worker.self()->interrupt();
    return false;
}

// Workers that a test starts one at a time; startParked returns once the new one is parked (false
// if it finished or never parked), so workers started that way queue in the order of their start.
// Joined at the end of the scope.
class Workers {
public:
    template <typename Body>
    WorkerThread& start(Body body) {
        m_workers.emplace_back(new WorkerThread(std::move(body)));
        return *m_workers.back();
    }
    template <typename Body>
    bool startParked(Body body) {
        return start(std::move(body)).awaitParked();
    }
    WorkerThread& operator[](std::size_t i) const { return *m_workers[i]; }
    std::size_t size() const { return m_workers.size(); }
    // Whether every body finished (see finishes).
    bool finish() const {
        bool all = true;
        for (const Worker& worker : m_workers) all = finishes(*worker) && all;
        return all;
    }

private:
    std::vector<Worker> m_workers;
};

// Holds the given locks (anything with lock and unlock) on a worker of its own until released,
// so that every attempt of the test's thread on them must wait or fail.
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

inline const mw::Thread* me() { return mw::Thread::currentThread(); }

}  // namespace mwtest

#endif
