#include "concurrent/Thread.h"

#include "Park.h"
#include "Parker.h"
#include "ThreadInfoSlot.h"
#include "concurrent/ParkEvent.h"
#include "concurrent/ThreadStateException.h"
#include "platform.h"

namespace mw {

Thread::Thread(Runnable* target, const std::string& name)
    : detail::ThreadBase(nullptr, 0),
      Object(),
      m_target(target),
      m_name(name),
      m_threadState(NEW),
      m_interrupted(0),
      m_parker(nullptr),
      m_parkEvent(nullptr),
      m_autoDelete(false) {
    initialise();
}

Thread::Thread(bool autoDelete, const std::string& name)
    : detail::ThreadBase(nullptr, 0),
      Object(),
      m_target(nullptr),
      m_name(name),
      m_threadState(NEW),
      m_interrupted(0),
      m_parker(nullptr),
      m_parkEvent(nullptr),
      m_autoDelete(autoDelete) {
    initialise();
}

Thread::Thread(void* handle)
    : detail::ThreadBase(handle, handle != nullptr ? platform::currentThreadId() : 0),
      Object(),
      m_target(nullptr),
      m_name("linux thread"),
      m_threadState(RUNNING),
      m_interrupted(0),
      m_parker(nullptr),
      m_parkEvent(nullptr),
      m_autoDelete(false) {
    initialise();
}

void Thread::initialise() {
    m_parker = new detail::Parker;
    m_parker->m_thread = this;
}

// Neither stops, joins nor inspects the OS thread. A waker may still hold this object's address,
// read from a queue node before the thread cleared it, so wakers in flight are waited for first.
Thread::~Thread() {
    detail::awaitWakersQuiescent();
    platform::closeThreadHandle(m_handle);
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

unsigned long Thread::getId() const { return m_id; }

const char* Thread::getName() const { return m_name.c_str(); }

void Thread::setName(const char* name) { m_name = name; }

void Thread::run() {
    if (m_target != nullptr) m_target->run();
}

Thread::State Thread::getState() const {
    std::uint32_t code = 0;
    if (!platform::getExitCodeThread(m_handle, &code) || code != platform::STILL_ACTIVE_CODE) {
        return TERMINATED;
    }
    return m_threadState.get();
}

bool Thread::isAlive() const {
    State state = getState();
    return state != NEW && state != TERMINATED;
}

// The pointer is published before the state, so a reader that sees a parked state finds the
// event to wake.
void Thread::setEvent(detail::ParkEvent* event) const {
    const Thread* current = detail::currentThreadFast();
    if (current->m_id != m_id) {
        MW_THROW(ThreadStateException, "This operation is only allowed for the thread istself!");
    }
    m_parkEvent.set(event);
    m_threadState.set(event != nullptr ? static_cast<State>(event->getState()) : RUNNING);
}

// Reads the ParkEvent twice and wakes only through a pointer on which both reads agree; a stray
// wake-up does no harm either way.
void Thread::interrupt() const {
    if (m_threadState.get() == NEW) return;
    m_interrupted.set(1);  // [P2] pairs with [P1] in Parker::park
    detail::ParkEvent* event = m_parkEvent.getOrdered();
    if (event == nullptr) return;
    if (m_parkEvent.get() != event) return;
    event->unpark();
}

bool Thread::isInterrupted() const { return isInterrupted(false); }

bool Thread::interrupted() { return detail::currentThreadFast()->isInterrupted(true); }

// Only the owning thread clears the flag, so a compare-exchange from 1 to 0 cannot fail once 1
// was read; an interrupt that lands meanwhile is not wiped unreported.
bool Thread::isInterrupted(bool clear) const {
    if (m_interrupted.get() == 0) return false;
    if (clear) m_interrupted.compareAndSet(1, 0);
    return true;
}

void Thread::yield() { platform::yieldThread(); }

void Thread::sleep(long long milliseconds) {
    platform::sleepMilliseconds(static_cast<std::uint32_t>(milliseconds));
}

}  // namespace mw
