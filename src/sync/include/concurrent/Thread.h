/// @class mw::Thread
/// Thread: the library's object for one OS thread. Every facility identifies a thread by the
/// address of its Thread. A thread has such an object whoever started it: threads that the library
/// did not start are adopted, at their attach notification where the OS has one, else at their
/// first currentThread(), and their object is freed on their way out.
///
/// currentThread, getId, getName and the interrupt operations take no lock. The name has no lock:
/// a setName concurrent with getName on one object is the caller's problem.
///
/// How long a Thread* stays valid: an adopted object lives until its thread ends; a started object
/// until its owner deletes it (with autoDelete, until its thread ends). An operation that another
/// thread calls on a live object (interrupt, join, getState, isAlive, getPriority, setPriority)
/// is safe against that thread ending and its object being freed while the operation runs: the
/// object is pinned, and the destructor waits for pins to go. A call on an object already freed
/// is the caller's fault; one that finds the object in its destructor acts as on an ended thread.
//
// m_threadState, m_interrupted and m_parkEvent are written by atomic exchange and may be read from
// any thread.
#ifndef MW_CONCURRENT_THREAD_H
#define MW_CONCURRENT_THREAD_H

#include <chrono>
#include <exception>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "Atomic.h"
#include "AtomicPtr.h"
#include "ChronoTimeout.h"
#include "Export.h"
#include "FunctionRunnable.h"
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
class ThreadSurvey;

// A callable for a thread to run: not a Runnable pointer (nor null), which Thread's other
// constructor takes.
template <typename Body>
struct IsThreadBody
    : std::integral_constant<bool, std::is_invocable<typename std::decay<Body>::type&>::value &&
                                       !std::is_convertible<Body, Runnable*>::value> {};
}  // namespace detail

class MW_API Thread : public detail::ThreadBase, public Object, public Runnable {
public:
    /// What getState reports: NEW, started but not yet running; RUNNING; PARKED, blocked in a
    /// park without a time limit; TIMED_PARKED, blocked in a timed park; TERMINATED, no OS thread
    /// or an ended one.
    enum State { NEW = 0, RUNNING = 1, PARKED = 3, TIMED_PARKED = 4, TERMINATED = 5 };

    /// A thread object that forwards run() to target (not owned, may be null). Not started.
    explicit Thread(Runnable* target = nullptr, const std::string& name = std::string());
    /// A thread object that runs body, a callable taking no arguments (a lambda, a
    /// std::function<void()>, a function pointer): run() forwards to a FunctionRunnable that holds
    /// a copy of body, owned by this object and freed with it. Not started.
    template <typename Body,
              typename = typename std::enable_if<detail::IsThreadBody<Body>::value>::type>
    explicit Thread(Body&& body, const std::string& name = std::string())
        : Thread(static_cast<Runnable*>(nullptr), name) {
        m_ownTarget.reset(new FunctionRunnable(std::forward<Body>(body)));
        m_target = m_ownTarget.get();
    }
    /// Neither stops nor joins the OS thread; waits for operations that other threads run on the
    /// object meanwhile (see Thread).
    virtual ~Thread();

    /// What sees an exception that leaves run(): called on the thread that ran it, inside the
    /// handler of the exception, with the thread's object (alive until the handler returns) and
    /// the exception. Process-wide. Without one (the default) the exception is dropped without a
    /// trace; so is an exception that leaves the handler. The thread ends in good order either way.
    typedef void (*UncaughtExceptionHandler)(const Thread& thread, std::exception_ptr exception);
    /// Installs handler (null: none) and returns the one it replaces. Any thread may call it at
    /// any time; a run() that ends meanwhile reports to the old handler or the new one.
    static UncaughtExceptionHandler setUncaughtExceptionHandler(UncaughtExceptionHandler handler);
    /// The handler installed now; null if there is none.
    static UncaughtExceptionHandler getUncaughtExceptionHandler();

    /// The calling thread's object; adopts the thread if it has none. On a thread that has its
    /// record this reads one thread-local word and cannot fail; an adoption may throw
    /// std::bad_alloc, and the next call tries again.
    static const Thread* currentThread();

    /// The OS's 32-bit id of the thread; 0 while the object has no OS thread yet.
    unsigned long getId() const;
    /// The name; the pointer is valid until the next setName on the object or its end.
    const char* getName() const;
    /// Replaces the name with a copy of name. Throws std::bad_alloc, keeping the old name. May wait
    /// for a thread dump that is copying the old name.
    void setName(const char* name);

    /// Runs the target given at construction, if any; a derived class overrides it. A started
    /// thread calls it on itself; what leaves it goes to the uncaught-exception handler.
    virtual void run();

    /// Starts the OS thread, which runs run(), and returns once that thread has stored RUNNING
    /// (it may have ended by the return). Throws ThreadStateException "Thread already started" on
    /// an object that was started or adopted (also after its end, and to the loser of two
    /// concurrent calls), "Couldn't start thread" when the OS or the new thread could not get as
    /// far as run() (the object may then be started again), std::bad_alloc, and
    /// InterruptedException when the caller is interrupted during the handshake (the new thread
    /// then goes on by itself).
    void start();

    /// Waits for the thread's end: milliseconds 0 waits without limit, any other value for its low
    /// 32 bits of milliseconds at most (never less; all ones: without limit). Blocks. Returns at
    /// once for an object without an OS thread and for an adopted object (which would wait for
    /// itself). Never throws; interrupts do not end it. The end includes the thread's whole exit,
    /// thread-local cleaning and all.
    void join(long long milliseconds = 0) const;
    /// As join, for a std::chrono duration, and never less (measured on steady_clock): rounded up
    /// to whole milliseconds, without the 32-bit limit (a huge duration waits for the longest
    /// finite time) and without "0 waits for ever": 0 or less only looks. True if the thread has
    /// ended (or there is no OS thread); false when the time ran out first, and at once where join
    /// has nothing to wait for (the caller's own thread, an adopted one).
    template <typename Rep, typename Period>
    bool join(const std::chrono::duration<Rep, Period>& timeout) const {
        return joinNanos(this, detail::timeoutNanos(timeout));
    }

    /// NEW between the creation of the OS thread and its first store; RUNNING, PARKED or
    /// TIMED_PARKED while it runs; TERMINATED when there is no OS thread (never started, start
    /// failed, killed) or it has ended.
    State getState() const;
    /// True while the thread runs: getState is neither NEW nor TERMINATED.
    bool isAlive() const;

    /// Kills the thread wherever it stands (Windows): its locks stay held and its object and
    /// record are not freed; getState reports TERMINATED from then on. Linux cannot kill a thread
    /// where it stands: there this throws UnsupportedOperationException and changes nothing.
    void terminate();

    /// The OS's own priority number, unmapped: a Win32 thread priority, on Linux the thread's nice
    /// value (-20 to 19). setPriority throws ThreadStateException "could not set priority" on an
    /// object without an OS thread, on an ended thread, for a value the OS does not take, and when
    /// the OS refuses. getPriority gives the OS's answer as it is (0x7FFFFFFF where it fails).
    ///@{
    void setPriority(int priority);
    int getPriority() const;
    ///@}

    /// Publishes (or, with null, withdraws) the ParkEvent of the calling thread's park, and the
    /// state it shows. Throws ThreadStateException when called for another thread's object.
    void setEvent(detail::ParkEvent* event) const;
    /// Sets the interrupt flag and wakes the thread if it is blocked in a park. Has no effect on an
    /// object that was never started. Any thread may call it; never blocks.
    void interrupt() const;
    /// The thread's interrupt flag, left as it is; false for an object in its destructor.
    bool isInterrupted() const;
    /// A number that no other Thread object of the process has had or will have, unlike the
    /// object's address, which a later object may reuse.
    unsigned long long getSerial() const { return m_serial; }
    /// The calling thread's interrupt flag, which is cleared by the call.
    static bool interrupted();

    /// Gives up the rest of the calling thread's time slice.
    static void yield();
    /// Sleeps for the low 32 bits of milliseconds (all ones: for ever). Interrupts do not end it.
    static void sleep(long long milliseconds);
    /// Sleeps for at least timeout, measured on steady_clock: whole milliseconds rounded up,
    /// without the 32-bit limit; 0 or less returns at once. Interrupts do not end it.
    template <typename Rep, typename Period>
    static void sleep(const std::chrono::duration<Rep, Period>& timeout) {
        detail::retryFor(timeout, [](long long nanos) {
            if (nanos > 0) sleep(detail::wholeMillisUp(nanos));
            return false;
        });
    }

protected:
    /// For derived classes that override run. With autoDelete the started thread's record owns
    /// the object.
    Thread(bool autoDelete, const std::string& name);

private:
    friend class AbstractQueuedSynchronizer;
    friend class detail::Parker;
    friend class detail::ThreadRecords;
    friend class detail::ThreadSurvey;

    // Adoption: an object for the calling thread, RUNNING, named "linux thread".
    explicit Thread(void* handle);
    // What every constructor does, in the order of the fields.
    Thread(void* handle, std::uint32_t id, Runnable* target, const std::string& name, State state,
           bool autoDelete);

    // The started thread's entry: installs the object's record, shakes hands with start, runs
    // run() and cleans the record. Always returns 0.
    static unsigned long startThread(void* argument);
    bool handshake();
    void reportStartFailure();
    void recoverFromFailedStart();
    // getState once the object is pinned.
    State pinnedState() const;

    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    void initialise();
    bool isInterrupted(bool clear) const;
    static const Thread* adoptCurrentThread();
    // A handle of its own to the OS thread that join would wait for, or null where join returns
    // at once; *ended then tells whether that is because the thread has ended (or the object has
    // no OS thread, or is gone) rather than because it cannot be waited for (the caller's own
    // thread, an adopted one, one not yet running). Static, like joinNanos: thread may be freed
    // by its own end while they run, so they touch it only under a pin; *serial receives the
    // object's serial, read under the pin.
    static void* joinableHandle(const Thread* thread, bool* ended, unsigned long long* serial);
    // join(duration) for nanosTimeout (0 or less only looks), measured on steady_clock.
    static bool joinNanos(const Thread* thread, long long nanosTimeout);
    // Shows what left run() to the handler, if there is one.
    void reportUncaught() const;

    Runnable* m_target;
    // The target made from a callable, if any; m_target then points at it.
    std::unique_ptr<Runnable> m_ownTarget;
    // Owned. Replaced whole by setName, so that a thread dump copying the name on another thread
    // never reads a string that changes or is freed under it (it protects the string it copies).
    std::atomic<const std::string*> m_name;
    mutable Atomic<State> m_threadState;
    mutable Atomic<short> m_interrupted;
    detail::Parker* m_parker;
    mutable AtomicPtr<detail::ParkEvent> m_parkEvent;
    bool m_autoDelete;

    const unsigned long long m_serial;
    // The start handshake's own cells, written under the monitor by start, except that the new
    // thread takes m_starter by exchange when it has to report a failure before run().
    bool m_started;
    detail::ThreadInfo* m_startRecord;
    mutable std::atomic<const Thread*> m_starter;
};

}  // namespace mw

#endif
