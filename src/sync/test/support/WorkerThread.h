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
#include <thread>
#include <utility>

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

}  // namespace mwtest

#endif
