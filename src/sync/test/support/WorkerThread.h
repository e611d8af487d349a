// WorkerThread: a std::thread for tests that publishes its mw::Thread (the library adopts the
// thread at its first Thread::currentThread) and stays alive after its body until join(). The
// adopted object is freed on the thread's way out, so keeping the thread alive is what lets other
// threads poll its state or interrupt it without racing with its exit.
#ifndef MW_SYNC_TEST_WORKER_THREAD_H
#define MW_SYNC_TEST_WORKER_THREAD_H

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

#include "TestSupport.h"
#include "concurrent/Thread.h"

namespace mwtest {

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

    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    ~WorkerThread() { join(); }

    const mw::Thread* self() const {
        const mw::Thread* thread;
        while ((thread = m_self.load()) == nullptr) std::this_thread::yield();
        return thread;
    }

    bool finished() const { return m_finished.load(); }

    // Polls until the body blocks in a park, timed or not; false if it finished instead or the
    // deadline passed. A park is where every lock, condition and monitor wait of the library
    // blocks, so this is how a test knows that the worker is queued.
    bool awaitParked(std::chrono::milliseconds deadline = std::chrono::seconds(30)) const {
        const mw::Thread* thread = self();
        bool seen = eventually(
            [&] {
                mw::Thread::State state = thread->getState();
                return finished() || state == mw::Thread::PARKED ||
                       state == mw::Thread::TIMED_PARKED;
            },
            deadline);
        return seen && !finished();
    }

    bool awaitFinished(std::chrono::milliseconds deadline = std::chrono::seconds(30)) const {
        return eventually([&] { return finished(); }, deadline);
    }

    void join() {
        if (!m_thread.joinable()) return;
        m_exit.countDown();
        m_thread.join();
    }

private:
    std::atomic<const mw::Thread*> m_self;
    std::atomic<bool> m_finished;
    Latch m_exit;
    std::thread m_thread;  // last: it starts once the fields above are built
};

// Runs an action when its scope ends, also when a failed assertion returns early. Declared after
// a WorkerThread, it runs before the thread is joined: the place to let a blocked worker go.
template <typename Action>
class OnExit {
public:
    explicit OnExit(Action action) : m_action(action) {}
    OnExit(const OnExit&) = delete;
    OnExit& operator=(const OnExit&) = delete;
    ~OnExit() { m_action(); }

private:
    Action m_action;
};

}  // namespace mwtest

#endif
