// Thread: the library's object for one OS thread. Every facility identifies a thread by the
// address of its Thread. A thread has such an object whoever started it: threads that the library
// did not start are adopted, at their attach notification where the OS has one, else at their
// first currentThread(), and their object is freed on their way out.
//
// currentThread, getId, getName and the interrupt operations take no lock. m_threadState,
// m_interrupted and m_parkEvent are written by atomic exchange and may be read from any thread.
// The name has no lock: a setName concurrent with getName on one object is the caller's problem.
#ifndef MW_CONCURRENT_THREAD_H
#define MW_CONCURRENT_THREAD_H

#include <string>

#include "Atomic.h"
#include "AtomicPtr.h"
#include "Export.h"
#include "Object.h"
#include "Runnable.h"
#include "ThreadBase.h"

namespace mw {

class AbstractQueuedSynchronizer;

namespace detail {
class Parker;
class ParkEvent;
class ThreadInfo;
class ThreadRecords;
}  // namespace detail

class MW_API Thread : public detail::ThreadBase, public Object, public Runnable {
public:
    enum State { NEW = 0, RUNNING = 1, PARKED = 3, TIMED_PARKED = 4, TERMINATED = 5 };

    // A thread object that forwards run() to target (not owned, may be null). Not started.
    explicit Thread(Runnable* target = nullptr, const std::string& name = std::string());
    virtual ~Thread();

    // The calling thread's object; adopts the thread if it has none. On a thread that has its
    // record this reads one thread-local word and cannot fail.
    static const Thread* currentThread();

    unsigned long getId() const;
    const char* getName() const;
    void setName(const char* name);

    virtual void run();

    // The state cell as the thread last published it: RUNNING, PARKED or TIMED_PARKED while the
    // OS thread exists; TERMINATED when the OS reports no running thread for the handle.
    State getState() const;
    bool isAlive() const;

    // Publishes (or, with null, withdraws) the ParkEvent of the calling thread's park, and the
    // state it shows. Throws ThreadStateException when called for another thread's object.
    void setEvent(detail::ParkEvent* event) const;
    // Sets the interrupt flag and wakes the thread if it is blocked in a park. Has no effect on an
    // object that was never started. Any thread may call it.
    void interrupt() const;
    bool isInterrupted() const;
    // The calling thread's interrupt flag, which is cleared by the call.
    static bool interrupted();

    // Gives up the rest of the calling thread's time slice.
    static void yield();
    // Sleeps for the low 32 bits of milliseconds. Interrupts do not end it.
    static void sleep(long long milliseconds);

protected:
    // For derived classes that override run. With autoDelete the started thread's record owns
    // the object.
    Thread(bool autoDelete, const std::string& name);

private:
    friend class AbstractQueuedSynchronizer;
    friend class detail::Parker;
    friend class detail::ThreadRecords;

    // Adoption: an object for the calling thread, RUNNING, named "linux thread".
    explicit Thread(void* handle);

    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    void initialise();
    bool isInterrupted(bool clear) const;
    static const Thread* adoptCurrentThread();

    Runnable* m_target;
    std::string m_name;
    mutable Atomic<State> m_threadState;
    mutable Atomic<short> m_interrupted;
    detail::Parker* m_parker;
    mutable AtomicPtr<detail::ParkEvent> m_parkEvent;
    bool m_autoDelete;
};

}  // namespace mw

#endif
