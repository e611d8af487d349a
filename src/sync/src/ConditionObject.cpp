#include "CriticalSection.h"
#include "NodePool.h"
#include "Park.h"
#include "SynchronizerDiagnostics.h"
#include "ThreadInfoSlot.h"
#include "TimeArithmetic.h"
#include "concurrent/AbstractQueuedSynchronizer.h"
#include "concurrent/IllegalMonitorStateException.h"
#include "concurrent/InterruptedException.h"
#include "concurrent/Thread.h"
#include "concurrent/TimeUnit.h"
#include "concurrent/TimeUtil.h"

// The list (m_waiterHead, m_waiterTail and each node's waiterLink while it is on the list) is
// touched only by the thread that holds the synchronizer exclusively: in addConditionWaiter before
// the hold is given up, in the sweep after it is back, and in the signal operations behind the
// ownership test. Between giving up the hold and getting it back a waiter touches only its own
// node and the sync queue.
//
// A refusal is thrown by the operation that the caller called, not by a helper, so that its
// report names that operation. Time arithmetic saturates: a timeout near the most negative value
// stays run out instead of wrapping into a long wait or a large remainder.

namespace mw {

typedef AbstractQueuedSynchronizer::Node Node;
typedef AbstractQueuedSynchronizer::ConditionObject ConditionObject;

namespace {

Node* link(const Node* node) { return node->waiterLink.load(std::memory_order_relaxed); }


void setLink(Node* node, Node* next) { node->waiterLink.store(next, std::memory_order_relaxed); }

}  // namespace

ConditionObject::ConditionObject(const AbstractQueuedSynchronizer* owner)
    : m_synchronizer(const_cast<AbstractQueuedSynchronizer*>(owner)),
      m_waiterHead(nullptr),
      m_waiterTail(nullptr),
      m_diagnosticIdentity(nullptr) {}

// A node on a list is counted as one of that list's members (NodePool), so no two lists may hold
// it: a copy binds to the same synchronizer with a list of its own, empty; an assignment changes
// the binding and keeps this object's list.
ConditionObject::ConditionObject(const ConditionObject& other)
    : Condition(),
      m_synchronizer(other.m_synchronizer),
      m_waiterHead(nullptr),
      m_waiterTail(nullptr),
      m_diagnosticIdentity(nullptr) {}

ConditionObject& ConditionObject::operator=(const ConditionObject& other) {
    m_synchronizer = other.m_synchronizer;
    return *this;
}

// What is left on the list is given-up waits (a live waiter would make destruction an error);
// their nodes leave the list with it.
ConditionObject::~ConditionObject() {
    for (Node* w = m_waiterHead; w != nullptr;) {
        Node* next = link(w);
        setLink(w, nullptr);
        detail::NodePool::leaveList(nullptr, w);  // no record: see ~AbstractQueuedSynchronizer
        w = next;
    }
}

// What a dump shows for a wait here: the object the program holds.
const void* ConditionObject::shownObject() const {
    const void* identity = m_diagnosticIdentity.load(std::memory_order_relaxed);
    return identity != nullptr ? identity : static_cast<const Condition*>(this);
}

bool ConditionObject::isOwnedBy(const AbstractQueuedSynchronizer* synchronizer) const {
    return synchronizer == m_synchronizer;
}

// ---- the list -----------------------------------------------------------------------------------

// Everything that could fail for lack of memory later in the wait (the sync queue's sentinel,
// reserved on the synchronizer; the thread's ParkEvent) is made here, while the caller still
// holds the synchronizer: a failure then leaves the hold and the list as they were. The sentinel
// itself is published only by whoever first links a node into the queue.
Node* ConditionObject::addConditionWaiter() const {
    m_synchronizer->reserveSentinel();
    detail::prepareCurrentPark();
    Node* t = m_waiterTail;
    if (t != nullptr && t->status.get() != Node::CONDITION) {
        unlinkCancelledWaiters();
        t = m_waiterTail;
    }
    Node* node = m_synchronizer->newConditionNode();
    if (t == nullptr) {
        m_waiterHead = node;
    } else {
        setLink(t, node);
    }
    m_waiterTail = node;
    return node;
}

// One pass that drops every node whose status is no longer CONDITION. Never changes a status.
void ConditionObject::unlinkCancelledWaiters() const {
    Node* trail = nullptr;
    Node* t = m_waiterHead;
    while (t != nullptr) {
        Node* next = link(t);
        if (t->status.get() == Node::CONDITION) {
            trail = t;
        } else {
            setLink(t, nullptr);
            if (trail == nullptr) {
                m_waiterHead = next;
            } else {
                setLink(trail, next);
            }
            if (next == nullptr) m_waiterTail = trail;
            detail::NodePool::leaveList(detail::currentHazards(), t);
        }
        t = next;
    }
}

// ---- signalling ---------------------------------------------------------------------------------

// Nothing here allocates: the waiters reserved the sync queue's sentinel.
void ConditionObject::signal() const {
    if (!m_synchronizer->isHeldExclusively()) MW_THROW(IllegalMonitorStateException, "");
    Node* first = m_waiterHead;
    if (first == nullptr) return;
    detail::CriticalSection section;
    doSignal(first);
}

void ConditionObject::broadcast() const {
    if (!m_synchronizer->isHeldExclusively()) MW_THROW(IllegalMonitorStateException, "");
    Node* first = m_waiterHead;
    if (first == nullptr) return;
    detail::CriticalSection section;
    doSignalAll(first);
}

// Transfers the first node that can still be transferred; given-up nodes before it leave the list.
void ConditionObject::doSignal(Node* first) const {
    do {
        m_waiterHead = link(first);
        if (m_waiterHead == nullptr) m_waiterTail = nullptr;
        setLink(first, nullptr);
        bool transferred = m_synchronizer->transferForSignal(first);
        detail::NodePool::leaveList(detail::currentHazards(), first);
        if (transferred) return;
        first = m_waiterHead;
    } while (first != nullptr);
}

void ConditionObject::doSignalAll(Node* first) const {
    m_waiterHead = nullptr;
    m_waiterTail = nullptr;
    while (first != nullptr) {
        Node* next = link(first);
        setLink(first, nullptr);
        m_synchronizer->transferForSignal(first);
        detail::NodePool::leaveList(detail::currentHazards(), first);
        first = next;
    }
}

// ---- waiting ------------------------------------------------------------------------------------

int ConditionObject::checkInterruptWhileWaiting(Node* node) const {
    if (!Thread::interrupted()) return 0;
    return m_synchronizer->transferAfterCancelledWait(node) ? THROW_IE : REINTERRUPT;
}

void ConditionObject::reportInterruptAfterWait(int interruptMode) const {
    if (interruptMode == THROW_IE) MW_THROW(InterruptedException, "");
    if (interruptMode == REINTERRUPT) detail::currentThreadFast()->interrupt();
}

// The common end of the interruptible waits: the hold comes back with the saved state before
// anything is reported, then the node leaves the list if others stand behind it.
void ConditionObject::finishWait(Node* node, int savedState, int interruptMode,
                                 detail::ShownWait& shown) const {
    shown.change(detail::SynchronizerDiagnostics::acquisitionWait(*m_synchronizer, false));
    if (m_synchronizer->acquireQueued(node, savedState) && interruptMode != THROW_IE) {
        interruptMode = REINTERRUPT;
    }
    if (link(node) != nullptr) unlinkCancelledWaiters();
    if (interruptMode != 0) reportInterruptAfterWait(interruptMode);
}

// Ownership is tested before the list is touched, so a thread that does not hold the
// synchronizer cannot disturb the list under the real holder.
void ConditionObject::await() const {
    if (Thread::interrupted()) MW_THROW(InterruptedException, "");
    if (!m_synchronizer->isHeldExclusively()) MW_THROW(IllegalMonitorStateException, "");
    detail::CriticalSection section;
    Node* node = addConditionWaiter();
    detail::ShownWait shown(
        detail::SynchronizerDiagnostics::conditionWait(*m_synchronizer, shownObject()));
    int savedState = m_synchronizer->fullyRelease(node);
    int interruptMode = 0;
    while (!m_synchronizer->isOnSyncQueue(node)) {
        parkCurrent();
        interruptMode = checkInterruptWhileWaiting(node);
        if (interruptMode != 0) break;
    }
    finishWait(node, savedState, interruptMode, shown);
}

void ConditionObject::awaitUninterruptibly() const {
    if (!m_synchronizer->isHeldExclusively()) MW_THROW(IllegalMonitorStateException, "");
    detail::CriticalSection section;
    Node* node = addConditionWaiter();
    detail::ShownWait shown(
        detail::SynchronizerDiagnostics::conditionWait(*m_synchronizer, shownObject()));
    int savedState = m_synchronizer->fullyRelease(node);
    bool interrupted = false;
    while (!m_synchronizer->isOnSyncQueue(node)) {
        parkCurrent();
        if (Thread::interrupted()) interrupted = true;
    }
    shown.change(detail::SynchronizerDiagnostics::acquisitionWait(*m_synchronizer, false));
    if (m_synchronizer->acquireQueued(node, savedState) || interrupted) {
        AbstractQueuedSynchronizer::selfInterrupt();
    }
}

// The time counts from just after the hold was given up. True whenever a signal reached the node
// first, even if the time has run out by the return.
bool ConditionObject::await(long long time, const TimeUnit& unit) const {
    long long nanosTimeout = unit.toNanos(time);
    if (Thread::interrupted()) MW_THROW(InterruptedException, "");
    if (!m_synchronizer->isHeldExclusively()) MW_THROW(IllegalMonitorStateException, "");
    detail::CriticalSection section;
    Node* node = addConditionWaiter();
    detail::ShownWait shown(
        detail::SynchronizerDiagnostics::conditionWait(*m_synchronizer, shownObject()));
    int savedState = m_synchronizer->fullyRelease(node);
    long long lastTime = TimeUtil::nanoTime();
    bool timedOut = false;
    int interruptMode = 0;
    while (!m_synchronizer->isOnSyncQueue(node)) {
        if (nanosTimeout <= 0) {
            timedOut = m_synchronizer->transferAfterCancelledWait(node);
            break;
        }
        parkCurrentNanos(nanosTimeout);
        interruptMode = checkInterruptWhileWaiting(node);
        if (interruptMode != 0) break;
        nanosTimeout = detail::timeLeft(nanosTimeout, lastTime, TimeUtil::nanoTime());
    }
    finishWait(node, savedState, interruptMode, shown);
    return !timedOut;
}

// The result counts the time spent re-acquiring too.
long long ConditionObject::awaitNanos(long long nanosTimeout) const {
    if (Thread::interrupted()) MW_THROW(InterruptedException, "");
    if (!m_synchronizer->isHeldExclusively()) MW_THROW(IllegalMonitorStateException, "");
    detail::CriticalSection section;
    Node* node = addConditionWaiter();
    detail::ShownWait shown(
        detail::SynchronizerDiagnostics::conditionWait(*m_synchronizer, shownObject()));
    int savedState = m_synchronizer->fullyRelease(node);
    long long lastTime = TimeUtil::nanoTime();
    int interruptMode = 0;
    while (!m_synchronizer->isOnSyncQueue(node)) {
        if (nanosTimeout <= 0) {
            m_synchronizer->transferAfterCancelledWait(node);
            break;
        }
        parkCurrentNanos(nanosTimeout);
        interruptMode = checkInterruptWhileWaiting(node);
        if (interruptMode != 0) break;
        nanosTimeout = detail::timeLeft(nanosTimeout, lastTime, TimeUtil::nanoTime());
    }
    finishWait(node, savedState, interruptMode, shown);
    return detail::saturatingSub(nanosTimeout,
                                 detail::saturatingSub(TimeUtil::nanoTime(), lastTime));
}

// Only a clock strictly later than the deadline times out.
bool ConditionObject::awaitUntil(long long deadline) const {
    if (Thread::interrupted()) MW_THROW(InterruptedException, "");
    if (!m_synchronizer->isHeldExclusively()) MW_THROW(IllegalMonitorStateException, "");
    detail::CriticalSection section;
    Node* node = addConditionWaiter();
    detail::ShownWait shown(
        detail::SynchronizerDiagnostics::conditionWait(*m_synchronizer, shownObject()));
    int savedState = m_synchronizer->fullyRelease(node);
    bool timedOut = false;
    int interruptMode = 0;
    while (!m_synchronizer->isOnSyncQueue(node)) {
        if (TimeUtil::milliTime() > deadline) {
            timedOut = m_synchronizer->transferAfterCancelledWait(node);
            break;
        }
        parkCurrentUntil(deadline);
        interruptMode = checkInterruptWhileWaiting(node);
        if (interruptMode != 0) break;
    }
    finishWait(node, savedState, interruptMode, shown);
    return !timedOut;
}

// ---- inspection ---------------------------------------------------------------------------------

bool ConditionObject::hasWaiters() const {
    if (!m_synchronizer->isHeldExclusively()) MW_THROW(IllegalMonitorStateException, "");
    for (Node* w = m_waiterHead; w != nullptr; w = link(w)) {
        if (w->status.get() == Node::CONDITION) return true;
    }
    return false;
}

unsigned long long ConditionObject::getWaitQueueLength() const {
    if (!m_synchronizer->isHeldExclusively()) MW_THROW(IllegalMonitorStateException, "");
    unsigned long long n = 0;
    for (Node* w = m_waiterHead; w != nullptr; w = link(w)) {
        if (w->status.get() == Node::CONDITION) ++n;
    }
    return n;
}

}  // namespace mw
