#include "concurrent/Thread.h"

#include "Park.h"
#include "Parker.h"
#include "Reclamation.h"
#include "ThreadInfoSlot.h"
#include "ThreadRegistry.h"
#include "WaitRecord.h"
#include "concurrent/AbstractQueuedSynchronizer.h"
#include "concurrent/Guard.h"
#include "concurrent/InterruptedException.h"
#include "concurrent/ParkEvent.h"
#include "concurrent/ThreadStateException.h"
#include "concurrent/UnsupportedOperationException.h"
#include "platform.h"

namespace mw {

namespace {

// [H1] Installed by exchange, read with acquire: a handler that a thread installs after
// preparing what it uses finds that ready on the thread that calls it.
std::atomic<Thread::UncaughtExceptionHandler> s_uncaughtHandler(nullptr);

}  // namespace

Thread::Thread(Runnable* target, const std::string& name)
    : Thread(nullptr, 0, target, name, NEW, false) {}

Thread::Thread(bool autoDelete, const std::string& name)
    : Thread(nullptr, 0, nullptr, name, NEW, autoDelete) {}

Thread::Thread(void* handle)
    : Thread(handle, handle != nullptr ? platform::currentThreadId() : 0, nullptr, "linux thread",
             RUNNING, false) {}

Thread::Thread(void* handle, std::uint32_t id, Runnable* target, const std::string& name,
               State state, bool autoDelete)
    : detail::ThreadBase(handle, id),
      Object(),
      m_target(target),
      m_name(new std::string(name)),
      m_threadState(state),
      m_interrupted(0),
      m_parker(nullptr),
      m_parkEvent(nullptr),
      m_autoDelete(autoDelete),
      m_serial(detail::ThreadRegistry::nextSerial()),
      m_started(false),
      m_startRecord(nullptr),
      m_starter(nullptr) {
    try {
        initialise();
    } catch (...) {
        delete m_name.load(std::memory_order_relaxed);
        throw;
    }
}

// The parker brings the hazard record of the thread that will run as this object (an adopted
// object's thread is the caller); publishing the object in it registers the object.
void Thread::initialise() {
    m_parker = new detail::Parker;
    m_parker->m_thread = this;
    detail::HazardRecord* record = m_parker->hazards();
    record->setOwnerThreadId(m_id.load(std::memory_order_relaxed));
    record->publishObject(this, m_serial);
}

// Neither stops, joins nor inspects the OS thread. Once the object has left the registry no new
// pin can reach it; pins already taken and wakers that read its address from a queue node (which
// its thread cleared before it could end) are waited for.
Thread::~Thread() {
    m_parker->hazards()->withdrawObject();
    detail::HazardRecord::awaitUnprotected(this);
    platform::closeThreadHandle(m_handle.load(std::memory_order_relaxed));
    delete m_name.load(std::memory_order_relaxed);
    delete m_parker;
    m_parker = nullptr;
}

const Thread* Thread::currentThread() {
    void* cached = platform::cachedThreadRecord();
    if (cached != nullptr) return static_cast<detail::ThreadInfo*>(cached)->getThread();
    detail::ThreadInfo* record = detail::s_threadInfo.get();
    if (record != nullptr) return record->getThread();
    return adoptCurrentThread();
}

// Gives the calling thread an object and a record that owns it. On failure nothing is left
// behind, and the next call adopts afresh.
const Thread* Thread::adoptCurrentThread() {
    Thread* thread = new Thread(platform::currentThreadHandle());
    detail::ThreadInfo* record = nullptr;
    try {
        record = new detail::ThreadInfo(thread, true);
    } catch (...) {
        delete thread;
        throw;
    }
    try {
        detail::s_threadInfo.reset(record);
    } catch (...) {
        delete record;
        throw;
    }
    platform::armThreadDetach();
    return thread;
}

unsigned long Thread::getId() const { return m_id.load(std::memory_order_relaxed); }

const char* Thread::getName() const { return m_name.load(std::memory_order_acquire)->c_str(); }

// A thread dump may be copying the old name: it has published it in a slot first, so the old
// string is freed once no slot holds it. [N1] the exchange makes the old string unreachable before
// the wait; a dump that protected it re-reads m_name and finds the new one, or is waited for.
void Thread::setName(const char* name) {
    const std::string* fresh = new std::string(name);
    const std::string* old = m_name.exchange(fresh, std::memory_order_seq_cst);  // [N1]
    detail::HazardRecord::awaitUnprotected(old);
    delete old;
}

void Thread::run() {
    if (m_target != nullptr) m_target->run();
}

// ---- lifecycle ----------------------------------------------------------------------------------

// The monitor is held from the test of the state to the wait, so the new thread cannot notify
// before the caller waits, and a second start sees m_started. The new thread's record is made
// here, on the caller's thread, so that its allocation failing is the caller's std::bad_alloc.
// The object is pinned until the monitor has been left: after its notify the new thread may run
// to its end and, with autoDelete, free the object while this thread still gets the monitor back.
void Thread::start() {
    detail::ThreadPin pin(this);
    Guard guard(this);
    if (m_started || m_threadState.get() != NEW) {
        MW_THROW(ThreadStateException, "Thread already started");
    }
    m_startRecord = new detail::ThreadInfo(this, false);
    m_starter.store(detail::currentThreadFast());
    std::uint32_t id = 0;
    platform::Handle handle = platform::createThread(&Thread::startThread, this, &id);
    if (handle == nullptr) {
        m_starter.store(nullptr);
        delete m_startRecord;
        m_startRecord = nullptr;
        MW_THROW(ThreadStateException, "Couldn't start thread");
    }
    m_id.store(id, std::memory_order_relaxed);
    // [S2] Publishes the handle's record, built by createThread, to the other threads that read
    // the handle (join, getState, priority); pairs with their acquire loads.
    m_handle.store(handle, std::memory_order_release);
    m_started = true;
    if (!handshake()) {
        recoverFromFailedStart();
        MW_THROW(ThreadStateException, "Couldn't start thread");
    }
}

// [S1] The new thread takes m_starter by exchange when it fails before run(), and this side takes
// it by exchange when the wait is over: whoever gets it first decides. If this side gets it, a
// later failure of the new thread tells nobody; if the new thread got it, it is waking this
// thread with an interrupt, and this side must wait for that thread's end before it returns.
bool Thread::handshake() {
    try {
        wait(0, 0);
    } catch (const InterruptedException&) {
        if (m_starter.exchange(nullptr) != nullptr) throw;  // [S1]
        return false;
    }
    return m_starter.exchange(nullptr) != nullptr;  // [S1]
}

// The failed thread touches nothing of this object once it has taken m_starter, so after its end
// the object is as before the start, and may be started again. The interrupt by which it woke
// this thread, whether or not the wait consumed it, is taken back.
void Thread::recoverFromFailedStart() {
    platform::Handle handle = m_handle.exchange(nullptr);
    platform::waitThread(handle, platform::INFINITE_WAIT);
    platform::closeThreadHandle(handle);
    m_id.store(0, std::memory_order_relaxed);
    m_startRecord = nullptr;
    m_started = false;
    interrupted();
}

// Runs on the new thread when it cannot get as far as run(): it allocates nothing and, after the
// exchange [S1], touches neither this object nor anything that depends on its own identity. The
// caller of start is blocked in it until this thread ends, so its object is alive meanwhile.
void Thread::reportStartFailure() {
    const Thread* starter = m_starter.exchange(nullptr);  // [S1]
    if (starter == nullptr) return;
    starter->m_interrupted.set(1);  // [P2] pairs with [P1] in Parker::park
    detail::ParkEvent* event = starter->m_parkEvent.getOrdered();
    if (event != nullptr) event->unpark();
}

unsigned long Thread::startThread(void* argument) {
    Thread* thread = static_cast<Thread*>(argument);
    // The same id that start stores once createThread returns; stored here too because this
    // thread may park on the monitor before that, and setEvent compares its own id with it.
    thread->m_id.store(platform::currentThreadId(), std::memory_order_relaxed);
    const bool autoDelete = thread->m_autoDelete;
    thread->m_parker->hazards()->setOwnerThreadId(platform::currentThreadId());
    detail::ThreadInfo* record = thread->m_startRecord;
    try {
        detail::s_threadInfo.reset(record);
    } catch (...) {
        delete record;
        thread->reportStartFailure();
        return 0;
    }
    try {
        Guard guard(thread);
        thread->m_threadState.set(RUNNING);
        thread->notify();
    } catch (...) {
        try {
            detail::s_threadInfo.reset(nullptr);
        } catch (...) {
        }
        thread->reportStartFailure();
        return 0;
    }
    try {
        thread->run();
    } catch (...) {
        // Whatever leaves run() ends the thread in good order, seen only by the handler.
        thread->reportUncaught();
    }
    try {
        detail::s_threadInfo.reset(nullptr);
    } catch (...) {
    }
    if (autoDelete) delete thread;
    return 0;
}

// Never waits on the object itself: it pins the object only to copy the handle, so that an object
// that its own thread frees at its end (autoDelete) can go while this waits. A thread never waits
// for itself: through its own object, or through an adopted one, whose handle means the caller.
void* Thread::joinableHandle(const Thread* thread, bool* ended, unsigned long long* serial) {
    *ended = false;
    *serial = 0;
    if (thread == detail::currentThreadFast()) return nullptr;
    detail::ThreadPin pin(thread);
    if (!pin.held()) {
        *ended = true;
        return nullptr;
    }
    *serial = thread->m_serial;
    platform::Handle own = thread->m_handle.load(std::memory_order_acquire);  // [S2]
    if (own == platform::currentThreadHandle()) return nullptr;
    std::uint32_t code = 0;
    if (!platform::getExitCodeThread(own, &code) || code != platform::STILL_ACTIVE_CODE) {
        *ended = true;
        return nullptr;
    }
    if (thread->m_threadState.get() == NEW) return nullptr;
    return platform::duplicateThreadHandle(own);
}

namespace {

// A join shows its target by serial, which outlives the object: the dump finds the object, if it
// is still alive, through the registry.
detail::WaitRecord::Value joinWait(const Thread* target, unsigned long long serial) {
    detail::WaitRecord::Value value;
    value.kind = ThreadSnapshot::JOIN;
    value.object = target;
    value.targetSerial = serial;
    return value;
}

}  // namespace

void Thread::join(long long milliseconds) const {
    bool ended = false;
    unsigned long long serial = 0;
    platform::Handle handle = joinableHandle(this, &ended, &serial);
    if (handle == nullptr) return;
    detail::ShownWait shown(joinWait(this, serial));
    std::uint32_t limit = milliseconds == 0 ? platform::INFINITE_WAIT
                                            : static_cast<std::uint32_t>(milliseconds);
    platform::waitThread(handle, limit);
    platform::closeThreadHandle(handle);
}

// The platform's wait takes 32-bit milliseconds, so the time is waited for in steps of at most
// the longest finite wait, each rounded up, until steady_clock (the clock on which a caller
// measures a duration) has seen all of it pass.
bool Thread::joinNanos(const Thread* thread, long long nanosTimeout) {
    bool ended = false;
    unsigned long long serial = 0;
    platform::Handle handle = joinableHandle(thread, &ended, &serial);
    if (handle == nullptr) return ended;
    detail::ShownWait shown(joinWait(thread, serial));
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    for (long long left = nanosTimeout;;) {
        const long long millis = detail::wholeMillisUp(left);
        if (platform::waitThread(handle, static_cast<std::uint32_t>(millis)) ==
            platform::WAIT_SIGNALED) {
            ended = true;
            break;
        }
        left = detail::nanosLeft(start, nanosTimeout);
        if (left <= 0) break;
    }
    platform::closeThreadHandle(handle);
    return ended;
}

Thread::State Thread::getState() const {
    detail::ThreadPin pin(this);
    return pin.held() ? pinnedState() : TERMINATED;
}

bool Thread::isAlive() const {
    detail::ThreadPin pin(this);
    if (!pin.held()) return false;
    State state = pinnedState();
    return state != NEW && state != TERMINATED;
}

Thread::State Thread::pinnedState() const {
    std::uint32_t code = 0;
    if (!platform::getExitCodeThread(m_handle.load(std::memory_order_acquire), &code) ||
        code != platform::STILL_ACTIVE_CODE) {
        return TERMINATED;
    }
    return m_threadState.get();
}

// Once the OS thread is gone, the hazard slots that it may have held are cleared, so that no
// later destructor waits for it, and a queue node it waited with is given up, so that the node no
// longer names an object that its owner may now free, nor holds up the threads queued behind it.
void Thread::terminate() {
    if (!platform::threadsCanBeTerminated()) {
        MW_THROW(UnsupportedOperationException,
                 "Threads cannot be terminated on this platform: a thread can only be asked to "
                 "end, by interrupt()");
    }
    platform::Handle handle = m_handle.load(std::memory_order_acquire);
    if (platform::terminateThread(handle)) {
        detail::HazardRecord::clearSlotsOfThread(m_id.load(std::memory_order_relaxed));
        AbstractQueuedSynchronizer* waitingOn = m_parker->m_waitingOn.load(std::memory_order_relaxed);
        if (waitingOn != nullptr) {
            waitingOn->abandonWaitOfKilledThread(
                m_parker->m_waitingNode.load(std::memory_order_relaxed), this);
        }
    }
    platform::closeThreadHandle(handle);
    m_handle.store(nullptr, std::memory_order_relaxed);
}

void Thread::setPriority(int priority) {
    detail::ThreadPin pin(this);
    if (!pin.held() ||
        !platform::setThreadPriority(m_handle.load(std::memory_order_acquire), priority)) {
        MW_THROW(ThreadStateException, "could not set priority");
    }
}

int Thread::getPriority() const {
    detail::ThreadPin pin(this);
    if (!pin.held()) return platform::PRIORITY_ERROR;
    return platform::getThreadPriority(m_handle.load(std::memory_order_acquire));
}

// ---- parking and interruption -------------------------------------------------------------------

// The pointer is published before the state, so a reader that sees a parked state finds the
// event to wake.
void Thread::setEvent(detail::ParkEvent* event) const {
    const Thread* current = detail::currentThreadFast();
    if (current->m_id.load(std::memory_order_relaxed) != m_id.load(std::memory_order_relaxed)) {
        MW_THROW(ThreadStateException, "This operation is only allowed for the thread istself!");
    }
    m_parkEvent.set(event);
    m_threadState.set(event != nullptr ? static_cast<State>(event->getState()) : RUNNING);
}

// Reads the ParkEvent twice and wakes only through a pointer on which both reads agree; a stray
// wake-up does no harm either way.
// The object is pinned before the flag is set: the interrupt may end the thread's wait at once,
// and the thread end and free its object, while this still reads the ParkEvent and sets it.
void Thread::interrupt() const {
    detail::ThreadPin pin(this);
    if (!pin.held() || m_threadState.get() == NEW) return;
    m_interrupted.set(1);  // [P2] pairs with [P1] in Parker::park
    detail::ParkEvent* event = m_parkEvent.getOrdered();
    if (event == nullptr) return;
    if (m_parkEvent.get() != event) return;
    event->unpark();
}

bool Thread::isInterrupted() const {
    detail::ThreadPin pin(this);
    return pin.held() && isInterrupted(false);
}

bool Thread::interrupted() { return detail::currentThreadFast()->isInterrupted(true); }

// Only the owning thread clears the flag, so a compare-exchange from 1 to 0 cannot fail once 1
// was read; an interrupt that lands meanwhile is not wiped unreported.
bool Thread::isInterrupted(bool clear) const {
    if (m_interrupted.get() == 0) return false;
    if (clear) m_interrupted.compareAndSet(1, 0);
    return true;
}

Thread::UncaughtExceptionHandler Thread::setUncaughtExceptionHandler(
    UncaughtExceptionHandler handler) {
    return s_uncaughtHandler.exchange(handler, std::memory_order_acq_rel);  // [H1]
}

Thread::UncaughtExceptionHandler Thread::getUncaughtExceptionHandler() {
    return s_uncaughtHandler.load(std::memory_order_acquire);  // [H1]
}

// Called inside the catch block, so that the handler gets the exception in flight.
void Thread::reportUncaught() const {
    UncaughtExceptionHandler handler = s_uncaughtHandler.load(std::memory_order_acquire);  // [H1]
    if (handler == nullptr) return;
    try {
        handler(*this, std::current_exception());
    } catch (...) {
    }
}

void Thread::yield() { platform::yieldThread(); }

// A sleep of 0 is a yield, too short to show.
void Thread::sleep(long long milliseconds) {
    if (static_cast<std::uint32_t>(milliseconds) == 0) {
        platform::sleepMilliseconds(0);
        return;
    }
    detail::WaitRecord::Value value;
    value.kind = ThreadSnapshot::SLEEP;
    detail::ShownWait shown(value, true);
    platform::sleepMilliseconds(static_cast<std::uint32_t>(milliseconds));
}

}  // namespace mw
