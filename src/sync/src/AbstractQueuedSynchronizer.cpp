#include "concurrent/AbstractQueuedSynchronizer.h"

#include "CriticalSection.h"
#include "NodePool.h"
#include "Park.h"
#include "Parker.h"
#include "TimeArithmetic.h"
#include "SynchronizerDiagnostics.h"
#include "ThreadInfoSlot.h"
#include "platform.h"
#include "concurrent/IllegalArgumentException.h"
#include "concurrent/IllegalMonitorStateException.h"
#include "concurrent/InterruptedException.h"
#include "concurrent/Thread.h"
#include "concurrent/TimeUtil.h"
#include "concurrent/UnsupportedOperationException.h"

// Orders that the queue's walkers depend on, labelled at both ends:
//  [Q1] a node's prev is stored before the compare-exchange on m_tail that publishes it, so a
//       walker that reaches the node from m_tail can always go on through prev. Pairs with the
//       acquire loads of m_tail in every walk ([Q5]).
//  [Q2] the predecessor's next is stored after that compare-exchange; until then next is null
//       although a successor exists, so unparkSuccessor walks from m_tail when next is null.
//  [Q3] setHead moves m_head before it clears the new head's thread and prev; the old head's next
//       is cleared last, by the acquire loop.
//  [Q4] cancelAcquire clears thread before status becomes CANCELLED, so a node seen with status
//       0 or less may already have a null thread; wakers accept that.
//  [Q6] a node leaves the prev chain by a sequentially consistent store (a successor's prev
//       moving past it, or setHead), and walkers load prev in that order too: a walker that
//       still reached a node through prev did so before the node was retired (NodePool), so
//       the epoch it announced keeps the node from reuse.
//
// Nodes are recycled (NodePool). Every operation here that reads nodes other than the caller's
// own runs inside a CriticalSection; the caller's own node and its predecessor while it is the
// head cannot be retired under it, and they alone are kept across a park.

namespace mw {

typedef AbstractQueuedSynchronizer::Node Node;

namespace {

const char* const NOT_SUPPORTED = "Operation not supported in base implementation";

Node* prevOf(const Node* node) { return node->prev.load(std::memory_order_seq_cst); }  // [Q6]

// Before publication: the compare-exchange that publishes the node orders it ([Q1]).
void storePrev(Node* node, Node* prev) { node->prev.store(prev, std::memory_order_relaxed); }

// Takes node's prev past nodes that leave the chain by it.
void movePrev(Node* node, Node* prev) { node->prev.store(prev, std::memory_order_seq_cst); }  // [Q6]

}  // namespace

// ---- state, copy, lifetime ----------------------------------------------------------------------

AbstractQueuedSynchronizer::AbstractQueuedSynchronizer()
    : m_head(),
      m_tail(),
      m_state(0),
      m_fenceFreeRelease(false),
      m_diagnosticKind(detail::SynchronizerDiagnostics::GENERIC),
      m_spare(nullptr),
      m_diagnostics(0) {}

AbstractQueuedSynchronizer::AbstractQueuedSynchronizer(bool fenceFreeRelease)
    : m_head(),
      m_tail(),
      m_state(0),
      m_fenceFreeRelease(fenceFreeRelease && platform::processBarrierAvailable()),
      m_diagnosticKind(detail::SynchronizerDiagnostics::GENERIC),
      m_spare(nullptr),
      m_diagnostics(0) {}

// Nodes are recycled once they leave their queue, so two synchronizers never share one: a copy
// takes the state alone and starts with no queue; an assignment keeps this object's own queue.
// Either way the name, identity and statistics stay with their object; a copy is of the same kind.
AbstractQueuedSynchronizer::AbstractQueuedSynchronizer(const AbstractQueuedSynchronizer& other)
    : m_head(),
      m_tail(),
      m_state(other.m_state),
      m_fenceFreeRelease(other.m_fenceFreeRelease),
      m_diagnosticKind(other.m_diagnosticKind.load(std::memory_order_relaxed)),
      m_spare(nullptr),
      m_diagnostics(0) {}

AbstractQueuedSynchronizer& AbstractQueuedSynchronizer::operator=(
    const AbstractQueuedSynchronizer& other) {
    m_state = other.m_state;
    return *this;
}

// An idle queue is its head alone; that node leaves with the synchronizer. A queue with waiters
// left in it is a caller's error, and its nodes are left alone rather than freed under them.
AbstractQueuedSynchronizer::~AbstractQueuedSynchronizer() {
    detail::SynchronizerDiagnostics::retire(*this);
    Node* spare = m_spare.load(std::memory_order_acquire);
    if (spare != nullptr) detail::NodePool::giveBackUnpublished(spare);
    Node* h = m_head.get();
    if (h == nullptr || h != m_tail.get()) return;
    detail::NodePool::leaveQueue(nullptr, h);  // may run while its thread's object is destroyed
}

void AbstractQueuedSynchronizer::setDiagnosticName(const std::string& name) {
    detail::SynchronizerDiagnostics::setName(*this, name);
}

std::string AbstractQueuedSynchronizer::getDiagnosticName() const {
    return detail::SynchronizerDiagnostics::name(*this);
}

void AbstractQueuedSynchronizer::setDiagnosticIdentity(const void* object) {
    detail::SynchronizerDiagnostics::setIdentity(*this, object);
}

ContentionStatistics AbstractQueuedSynchronizer::getContentionStatistics() const {
    return detail::SynchronizerDiagnostics::statistics(*this);
}

bool AbstractQueuedSynchronizer::tryAcquire(int) {
    MW_THROW(UnsupportedOperationException, NOT_SUPPORTED);
}

bool AbstractQueuedSynchronizer::tryRelease(int) {
    MW_THROW(UnsupportedOperationException, NOT_SUPPORTED);
}

int AbstractQueuedSynchronizer::tryAcquireShared(int) {
    MW_THROW(UnsupportedOperationException, NOT_SUPPORTED);
}

bool AbstractQueuedSynchronizer::tryReleaseShared(int) {
    MW_THROW(UnsupportedOperationException, NOT_SUPPORTED);
}

bool AbstractQueuedSynchronizer::isHeldExclusively() const {
    MW_THROW(UnsupportedOperationException, NOT_SUPPORTED);
}

// ---- nodes --------------------------------------------------------------------------------------

Node* AbstractQueuedSynchronizer::newNode(const Thread* waiter, Node* mode) {
    return detail::NodePool::take(detail::currentHazards(), waiter, 0, mode);
}

Node* AbstractQueuedSynchronizer::newConditionNode() const {
    Node* node = detail::NodePool::take(detail::currentHazards(), detail::currentThreadFast(),
                                        Node::CONDITION, nullptr);
    rememberWait(node);
    return node;
}

// Two relaxed stores on the path that queues, read only by terminate after the thread has gone.
void AbstractQueuedSynchronizer::rememberWait(Node* node) const {
    detail::Parker* parker = detail::Parker::of(node->thread.load(std::memory_order_relaxed));
    parker->m_waitingOn.store(const_cast<AbstractQueuedSynchronizer*>(this),
                              std::memory_order_relaxed);
    parker->m_waitingNode.store(node, std::memory_order_relaxed);
}

// The killed thread may have stopped anywhere: the node may name it no more (it had left the
// node), be on a condition's list, or be linked in the queue, even as its head. cancelAcquire is
// run by a node's own thread alone; that thread is gone (terminate waited for it), so this caller
// takes its place and no two threads run it on one node.
void AbstractQueuedSynchronizer::abandonWaitOfKilledThread(Node* node, const Thread* killed) {
    detail::CriticalSection section;
    if (node->thread.load(std::memory_order_seq_cst) != killed) return;
    node->thread.store(nullptr, std::memory_order_seq_cst);
    if (node->status.compareAndSet(Node::CONDITION, Node::CANCELLED)) {
        detail::NodePool::leaveQueue(section.record(), node);  // it never reached the queue
        return;
    }
    if (node == m_head.get() || prevOf(node) == nullptr) return;
    cancelAcquire(node);
}

void AbstractQueuedSynchronizer::retireOldHead(Node* oldHead) {
    detail::NodePool::leaveQueue(detail::currentHazards(), oldHead);
}

void AbstractQueuedSynchronizer::retireCancelled(Node* cancelled) {
    detail::NodePool::leaveQueue(detail::currentHazards(), cancelled);
}

// ---- the queue ----------------------------------------------------------------------------------

// A condition waiter, before it gives up its hold, leaves a sentinel here if the queue has none
// yet, so that neither its own return to the queue nor a signal has to allocate one.
void AbstractQueuedSynchronizer::reserveSentinel() {
    if (m_tail.get() != nullptr || m_spare.load(std::memory_order_acquire) != nullptr) return;
    detail::HazardRecord* record = detail::currentHazards();
    Node* sentinel = detail::NodePool::take(record, nullptr, 0, nullptr);
    Node* none = nullptr;
    if (!m_spare.compare_exchange_strong(none, sentinel, std::memory_order_acq_rel)) {
        detail::NodePool::giveBack(record, sentinel);
    }
}

// Publishes the sentinel on first contention, the reserved one if there is one. Between the two
// writes m_head is set and m_tail still null; a thread that comes then brings a sentinel of its
// own, loses on m_head and gives it back. Without mayAllocate the caller relies on a reserved
// sentinel: if another thread has just taken it, that thread is publishing it, and the caller
// waits for m_tail instead of allocating.
void AbstractQueuedSynchronizer::ensureQueue(bool mayAllocate) {
    while (m_tail.get() == nullptr) {
        if (m_head.get() != nullptr) {  // being published
            Thread::yield();
            continue;
        }
        Node* sentinel = m_spare.exchange(nullptr, std::memory_order_acq_rel);
        if (sentinel == nullptr) {
            if (!mayAllocate) {
                Thread::yield();
                continue;
            }
            sentinel = detail::NodePool::take(detail::currentHazards(), nullptr, 0, nullptr);
        }
        if (m_head.compareAndSet(nullptr, sentinel)) {
            m_tail.set(m_head.get());
        } else {
            // Never published: nobody else holds it.
            detail::NodePool::giveBack(detail::currentHazards(), sentinel);
        }
    }
}

// Links node at the tail, making the sentinel on first contention; returns its predecessor.
// Lock-free; retries at once until the node is linked. mayAllocate as for ensureQueue.
Node* AbstractQueuedSynchronizer::enq(Node* node, bool mayAllocate) {
    for (;;) {
        Node* t = m_tail.get();
        if (t == nullptr) {
            ensureQueue(mayAllocate);
            continue;
        }
        storePrev(node, t);  // [Q1]
        if (m_tail.compareAndSet(t, node)) {
            t->next.set(node);  // [Q2]
            return t;
        }
    }
}

Node* AbstractQueuedSynchronizer::addWaiter(Node* mode) {
    Node* node = newNode(detail::currentThreadFast(), mode);
    rememberWait(node);
    Node* pred = m_tail.get();
    if (pred != nullptr) {
        storePrev(node, pred);  // [Q1]
        if (m_tail.compareAndSet(pred, node)) {
            pred->next.set(node);  // [Q2]
            return node;
        }
    }
    try {
        enq(node, true);
    } catch (...) {
        // The sentinel could not be made; the node was never published.
        detail::NodePool::giveBack(detail::currentHazards(), node);
        throw;
    }
    return node;
}

// The status is left as it is: a SIGNAL set by the successor is what release reads later.
void AbstractQueuedSynchronizer::setHead(Node* node) {
    m_head.set(node);  // [Q3]
    node->thread.store(nullptr, std::memory_order_seq_cst);
    movePrev(node, nullptr);  // [Q6] the old head leaves the chain
}

// Wakes at most one thread: the successor by next if it is live, else the live node nearest to
// the head found by the walk from m_tail.
void AbstractQueuedSynchronizer::unparkSuccessor(Node* node) {
    node->status.compareAndSet(Node::SIGNAL, 0);
    Node* s = validSuccessor(node);
    if (s == nullptr) s = firstLiveFromTail(node);
    if (s != nullptr) detail::unparkNodeThread(s->thread);
}

// The unlocked release found a head with a status: look again inside a critical section.
void AbstractQueuedSynchronizer::signalNext() {
    detail::CriticalSection section;
    Node* h = m_head.get();
    if (h != nullptr && h->status.get() != 0) unparkSuccessor(h);
}

// node's successor by the next hint, if the hint names a live node that has node as its
// predecessor. The hint may name a node that left and was recycled since: a live status read
// first, then a prev naming node, can only be the node's current successor ([Q6]).
Node* AbstractQueuedSynchronizer::validSuccessor(const Node* node) const {
    Node* s = node->next.get();
    if (s == nullptr || s->status.getOrdered() > 0 || prevOf(s) != node) return nullptr;
    return s;
}

// The live node nearest to node, by the walk from m_tail that next cannot replace ([Q2]).
Node* AbstractQueuedSynchronizer::firstLiveFromTail(const Node* node) const {
    Node* s = nullptr;
    for (Node* t = m_tail.get(); t != nullptr && t != node; t = prevOf(t)) {  // [Q5]
        if (t->status.get() <= 0) s = t;
    }
    return s;
}

// A false result makes the caller try to acquire once more before it parks. With a fence-free
// release, the barrier after a new mark makes that try see any release whose read of the status
// came before the mark ([A1]).
bool AbstractQueuedSynchronizer::shouldParkAfterFailedAcquire(Node* pred, Node* node) {
    int s = pred->status.get();
    if (s == Node::SIGNAL) return true;
    if (s > 0) {
        do {
            Node* skipped = pred;
            pred = prevOf(pred);
            movePrev(node, pred);  // [Q6]
            retireCancelled(skipped);
        } while (pred->status.get() > 0);
        pred->next.set(node);
    } else if (pred->status.compareAndSet(s, Node::SIGNAL) &&  // 0, or a PROPAGATE taken over [R3]
               m_fenceFreeRelease) {
        // [A1] the mark comes before the caller's next look at the state, for every releaser.
        platform::processBarrier();
    }
    return false;
}

// Run by the node's own thread on a linked node that has not become the head.
void AbstractQueuedSynchronizer::cancelAcquire(Node* node) {
    if (node == nullptr) return;
    Node* pred = prevOf(node);
    node->thread.store(nullptr, std::memory_order_seq_cst);  // [Q4]
    while (pred->status.get() > 0) {
        Node* skipped = pred;
        pred = prevOf(pred);
        movePrev(node, pred);  // [Q6]
        retireCancelled(skipped);
    }
    Node* predNext = pred->next.get();
    node->status.set(Node::CANCELLED);  // [Q4]
    if (node == m_tail.get() && m_tail.compareAndSet(node, pred)) {
        pred->next.compareAndSet(predNext, nullptr);
        retireCancelled(node);  // no tail and no prev names it now
        return;
    }
    bool predTakesOver =
        pred != m_head.get() &&
        (pred->status.get() == Node::SIGNAL || pred->status.compareAndSet(0, Node::SIGNAL)) &&
        pred->thread.load(std::memory_order_seq_cst) != nullptr;
    if (predTakesOver) {
        Node* next = node->next.get();
        if (next != nullptr && next->status.get() <= 0) pred->next.compareAndSet(predNext, next);
    } else {
        unparkSuccessor(node);
    }
    node->next.set(node);
}

// ---- exclusive acquisition ----------------------------------------------------------------------

bool AbstractQueuedSynchronizer::parkAndCheckInterrupt() {
    parkCurrent();
    return detail::currentThreadFast()->isInterrupted(true);
}

void AbstractQueuedSynchronizer::selfInterrupt() { detail::currentThreadFast()->interrupt(); }

void AbstractQueuedSynchronizer::acquire(int arg) {
    if (tryAcquire(arg)) return;
    detail::CriticalSection section;
    detail::QueuedAcquisition wait(*this, false);
    Node* node = addWaiter(Node::EXCLUSIVE.get());
    const bool interrupted = acquireQueued(node, arg);
    wait.acquired();
    if (interrupted) selfInterrupt();
}

// Every loop below gives its node up before any exception leaves it. A linked node always has a
// predecessor until its own setHead, so the guard cancels only a node that still has one.
#define MW_GIVE_UP_NODE_ON_EXCEPTION(node)                     \
    catch (...) {                                              \
        if (prevOf(node) != nullptr) cancelAcquire(node); \
        throw;                                                 \
    }

bool AbstractQueuedSynchronizer::acquireQueued(Node* node, int arg) {
    detail::CriticalSection section;
    bool interrupted = false;
    try {
        for (;;) {
            Node* p = node->predecessor();
            if (p == m_head.get() && tryAcquire(arg)) {
                setHead(node);
                p->next.set(nullptr);  // [Q3]
                retireOldHead(p);
                return interrupted;
            }
            if (shouldParkAfterFailedAcquire(p, node) && parkAndCheckInterrupt())
                interrupted = true;
        }
    }
    MW_GIVE_UP_NODE_ON_EXCEPTION(node)
}

void AbstractQueuedSynchronizer::acquireInterruptibly(int arg) {
    if (Thread::interrupted()) MW_THROW(InterruptedException, "");
    if (!tryAcquire(arg)) doAcquireInterruptibly(arg);
}

void AbstractQueuedSynchronizer::doAcquireInterruptibly(int arg) {
    detail::CriticalSection section;
    detail::QueuedAcquisition wait(*this, false);
    Node* node = addWaiter(Node::EXCLUSIVE.get());
    try {
        for (;;) {
            Node* p = node->predecessor();
            if (p == m_head.get() && tryAcquire(arg)) {
                setHead(node);
                p->next.set(nullptr);  // [Q3]
                retireOldHead(p);
                wait.acquired();
                return;
            }
            if (shouldParkAfterFailedAcquire(p, node) && parkAndCheckInterrupt()) break;
        }
    }
    MW_GIVE_UP_NODE_ON_EXCEPTION(node)
    cancelAcquire(node);
    MW_THROW(InterruptedException, "");
}

bool AbstractQueuedSynchronizer::tryAcquireNanos(int arg, long long nanosTimeout) {
    if (Thread::interrupted()) MW_THROW(InterruptedException, "");
    return tryAcquire(arg) || doAcquireNanos(arg, nanosTimeout);
}

// The acquire attempt comes before the time test, so a first waiter out of time still gets its
// try. The clock is read once before queuing and once after each park.
bool AbstractQueuedSynchronizer::doAcquireNanos(int arg, long long nanosTimeout) {
    detail::CriticalSection section;
    long long lastTime = TimeUtil::nanoTime();
    detail::QueuedAcquisition wait(*this, false);
    Node* node = addWaiter(Node::EXCLUSIVE.get());
    try {
        for (;;) {
            Node* p = node->predecessor();
            if (p == m_head.get() && tryAcquire(arg)) {
                setHead(node);
                p->next.set(nullptr);  // [Q3]
                retireOldHead(p);
                wait.acquired();
                return true;
            }
            if (nanosTimeout <= 0) {
                cancelAcquire(node);
                return false;
            }
            if (!shouldParkAfterFailedAcquire(p, node)) continue;
            parkCurrentNanos(nanosTimeout);
            if (detail::currentThreadFast()->isInterrupted(true)) break;
            nanosTimeout = detail::timeLeft(nanosTimeout, lastTime, TimeUtil::nanoTime());
        }
    }
    MW_GIVE_UP_NODE_ON_EXCEPTION(node)
    cancelAcquire(node);
    MW_THROW(InterruptedException, "");
}

#undef MW_GIVE_UP_NODE_ON_EXCEPTION

// ---- shared acquisition -------------------------------------------------------------------------
//
// A release hands its wake-up to whoever stands first. The first waiter may be between its last
// tryAcquireShared and the move of m_head when a release lands, so a release also leaves a mark,
// PROPAGATE, on the head it found, and the first waiter looks for that mark once it has moved
// m_head: a mark that came after its last look means a release it may not have seen, and it
// passes a wake-up on. The orders that make this complete (docs/DESIGN.md has the argument; the
// model is tools/models/shared_release.pml):
//  [R1] the first waiter takes any mark off its predecessor before it calls tryAcquireShared, so
//       a mark it finds later was left by a release it cannot be sure to have seen.
//  [R2] a release changes the state (tryReleaseShared) before it reads m_head, and marks the head
//       it read; it reads m_head again after marking and starts over if the head has moved, so
//       its mark lands on a head whose first waiter has not yet looked for marks.
//  [R3] a waiter turns a mark into SIGNAL and tries again before it parks, so a release that
//       marked the head after that waiter's last try either finds SIGNAL and wakes it, or its
//       state change is seen by that try.
//  [R4] setHeadAndPropagate moves m_head before it reads the old head's status.

void AbstractQueuedSynchronizer::acquireShared(int arg) {
    if (tryAcquireShared(arg) < 0) doAcquireShared(arg);
}

void AbstractQueuedSynchronizer::acquireSharedInterruptibly(int arg) {
    if (Thread::interrupted()) MW_THROW(InterruptedException, "");
    if (tryAcquireShared(arg) < 0) doAcquireSharedInterruptibly(arg);
}

bool AbstractQueuedSynchronizer::tryAcquireSharedNanos(int arg, long long nanosTimeout) {
    if (Thread::interrupted()) MW_THROW(InterruptedException, "");
    return tryAcquireShared(arg) >= 0 || doAcquireSharedNanos(arg, nanosTimeout);
}

bool AbstractQueuedSynchronizer::releaseShared(int arg) {
    if (!tryReleaseShared(arg)) return false;
    doReleaseShared();  // [R2] after the state change
    return true;
}

// Wakes the head's successor if it asked to be woken, and marks the head in either case. A head
// with nobody behind it is left alone: a waiter that links itself later tries before it parks.
void AbstractQueuedSynchronizer::doReleaseShared() {
    detail::CriticalSection section;
    for (;;) {
        Node* h = m_head.get();
        if (h != nullptr && h != m_tail.get()) {
            int s = h->status.get();
            if (s == Node::SIGNAL) {
                if (!h->status.compareAndSet(Node::SIGNAL, Node::PROPAGATE)) continue;
                Node* first = validSuccessor(h);
                if (first == nullptr) first = firstLiveFromTail(h);
                if (first != nullptr) detail::unparkNodeThread(first->thread);
            } else if (s == 0 && !h->status.compareAndSet(0, Node::PROPAGATE)) {
                continue;
            }
        }
        if (h == m_head.get()) return;  // [R2]
    }
}

// [R1] Only the head's successor takes the mark, just before it tries.
void AbstractQueuedSynchronizer::takePendingWakeUp(Node* head) {
    if (head->status.get() == Node::PROPAGATE) head->status.compareAndSet(Node::PROPAGATE, 0);
}

// Run by the node's own thread once tryAcquireShared gave propagate (0 or more) with the node's
// predecessor as head. Passes a wake-up on when the result says the next waiter may succeed too,
// or when a release marked the old head after this thread last looked ([R1], [R4]); in the second
// case the successor is woken whatever its mode, and one that finds nothing to take parks again.
// Nobody is woken while the new head is unmarked: its successor tries again before it parks.
void AbstractQueuedSynchronizer::setHeadAndPropagate(Node* node, int propagate) {
    Node* oldHead = m_head.get();
    setHead(node);
    bool missedRelease = oldHead->status.get() == Node::PROPAGATE;  // [R4]
    if (propagate <= 0 && !missedRelease) return;
    if (node->status.get() != Node::SIGNAL) return;
    Node* s = validSuccessor(node);  // unknown (null) lets the wake-up through
    if (!missedRelease && s != nullptr && s->waiterLink.load(std::memory_order_relaxed) !=
                                              Node::SHARED.get())
        return;
    unparkSuccessor(node);
}

// Every loop below gives its node up before any exception leaves it (see the exclusive loops).
#define MW_GIVE_UP_NODE_ON_EXCEPTION(node)                     \
    catch (...) {                                              \
        if (prevOf(node) != nullptr) cancelAcquire(node); \
        throw;                                                 \
    }

// The first waiter's attempt: takes the head's mark, tries, and on success becomes the head.
#define MW_TRY_SHARED_AS_FIRST(p, node, arg, onSuccess) \
    if (p == m_head.get()) {                            \
        takePendingWakeUp(p);                           \
        int r = tryAcquireShared(arg);                  \
        if (r >= 0) {                                   \
            setHeadAndPropagate(node, r);               \
            p->next.set(nullptr);                       \
            retireOldHead(p);                           \
            wait.acquired();                            \
            onSuccess;                                  \
        }                                               \
    }

void AbstractQueuedSynchronizer::doAcquireShared(int arg) {
    detail::CriticalSection section;
    detail::QueuedAcquisition wait(*this, true);
    Node* node = addWaiter(Node::SHARED.get());
    bool interrupted = false;
    try {
        for (;;) {
            Node* p = node->predecessor();
            MW_TRY_SHARED_AS_FIRST(p, node, arg, {
                if (interrupted) selfInterrupt();
                return;
            })
            if (shouldParkAfterFailedAcquire(p, node) && parkAndCheckInterrupt())
                interrupted = true;
        }
    }
    MW_GIVE_UP_NODE_ON_EXCEPTION(node)
}

void AbstractQueuedSynchronizer::doAcquireSharedInterruptibly(int arg) {
    detail::CriticalSection section;
    detail::QueuedAcquisition wait(*this, true);
    Node* node = addWaiter(Node::SHARED.get());
    try {
        for (;;) {
            Node* p = node->predecessor();
            MW_TRY_SHARED_AS_FIRST(p, node, arg, return)
            if (shouldParkAfterFailedAcquire(p, node) && parkAndCheckInterrupt()) break;
        }
    }
    MW_GIVE_UP_NODE_ON_EXCEPTION(node)
    cancelAcquire(node);
    MW_THROW(InterruptedException, "");
}

bool AbstractQueuedSynchronizer::doAcquireSharedNanos(int arg, long long nanosTimeout) {
    detail::CriticalSection section;
    long long lastTime = TimeUtil::nanoTime();
    detail::QueuedAcquisition wait(*this, true);
    Node* node = addWaiter(Node::SHARED.get());
    try {
        for (;;) {
            Node* p = node->predecessor();
            MW_TRY_SHARED_AS_FIRST(p, node, arg, return true)
            if (nanosTimeout <= 0) {
                cancelAcquire(node);
                return false;
            }
            if (!shouldParkAfterFailedAcquire(p, node)) continue;
            parkCurrentNanos(nanosTimeout);
            if (detail::currentThreadFast()->isInterrupted(true)) break;
            nanosTimeout = detail::timeLeft(nanosTimeout, lastTime, TimeUtil::nanoTime());
        }
    }
    MW_GIVE_UP_NODE_ON_EXCEPTION(node)
    cancelAcquire(node);
    MW_THROW(InterruptedException, "");
}

#undef MW_TRY_SHARED_AS_FIRST
#undef MW_GIVE_UP_NODE_ON_EXCEPTION


// ---- inspection ---------------------------------------------------------------------------------

bool AbstractQueuedSynchronizer::hasQueuedThreads() const {
    Node* h = m_head.get();
    return h != m_tail.get();
}

bool AbstractQueuedSynchronizer::hasContended() const { return m_head.get() != nullptr; }

const Thread* AbstractQueuedSynchronizer::getFirstQueuedThread() const {
    Node* h = m_head.get();
    if (h == m_tail.get()) return nullptr;
    return fullGetFirstQueuedThread();
}

// The fast path accepts the head's successor only while it still has the head as predecessor and
// a thread; otherwise the walk from m_tail returns the thread found nearest to the head.
const Thread* AbstractQueuedSynchronizer::fullGetFirstQueuedThread() const {
    detail::CriticalSection section;
    Node* h = m_head.get();
    if (h == nullptr) return nullptr;
    Node* s = validSuccessor(h);
    if (s != nullptr) {
        const Thread* st = s->thread.load(std::memory_order_seq_cst);
        if (st != nullptr && h == m_head.get()) return st;
    }
    const Thread* first = nullptr;
    Node* t = m_tail.get();
    while (t != nullptr && t != m_head.get()) {
        const Thread* tt = t->thread.load(std::memory_order_seq_cst);
        t = prevOf(t);
        if (tt != nullptr) first = tt;
    }
    return first;
}

bool AbstractQueuedSynchronizer::hasQueuedPredecessors() const {
    if (!hasQueuedThreads()) return false;
    const Thread* first = fullGetFirstQueuedThread();
    return first != nullptr && first != detail::currentThreadFast();
}

bool AbstractQueuedSynchronizer::firstQueuedIsExclusive() const {
    Node* h = m_head.get();
    if (h == m_tail.get()) return false;  // no queue, or nobody in it: no section needed
    detail::CriticalSection section;
    Node* s = validSuccessor(h);
    return s != nullptr && s->waiterLink.load(std::memory_order_relaxed) != Node::SHARED.get() &&
           s->thread.load(std::memory_order_seq_cst) != nullptr;
}

bool AbstractQueuedSynchronizer::isQueued(const Thread* thread) const {
    if (thread == nullptr) MW_THROW(NullPointerException, "");
    detail::CriticalSection section;
    for (Node* p = m_tail.get(); p != nullptr; p = prevOf(p)) {
        if (p->thread.load(std::memory_order_seq_cst) == thread) return true;
    }
    return false;
}

unsigned long long AbstractQueuedSynchronizer::getQueueLength() const {
    detail::CriticalSection section;
    unsigned long long n = 0;
    for (Node* p = m_tail.get(); p != nullptr; p = prevOf(p)) {
        if (p->thread.load(std::memory_order_seq_cst) != nullptr) ++n;
    }
    return n;
}

// The comparison follows each step, so the null that ends the chain compares too.
bool AbstractQueuedSynchronizer::findNodeFromTail(const Node* node) const {
    Node* t = m_tail.get();
    if (t == node) return true;
    while (t != nullptr) {
        t = prevOf(t);
        if (t == node) return true;
    }
    return false;
}

// ---- the synchronizer's side of conditions ------------------------------------------------------

// A prev that is set proves nothing alone: enq stores it before its compare-exchange may fail.
bool AbstractQueuedSynchronizer::isOnSyncQueue(const Node* node) const {
    if (node->status.get() == Node::CONDITION || prevOf(node) == nullptr) return false;
    if (node->next.get() != nullptr) return true;
    return findNodeFromTail(node);
}

// A failed release leaves the node cancelled on the condition's list; it never reaches the queue.
int AbstractQueuedSynchronizer::fullyRelease(Node* node) {
    try {
        int savedState = getState();
        if (release(savedState)) return savedState;
    } catch (...) {
        giveUpUnqueuedNode(node);
        throw;
    }
    giveUpUnqueuedNode(node);
    MW_THROW(IllegalMonitorStateException, "");
}

void AbstractQueuedSynchronizer::giveUpUnqueuedNode(Node* node) {
    node->status.set(Node::CANCELLED);
    detail::NodePool::leaveQueue(detail::currentHazards(), node);
}

// The compare-exchange from CONDITION to 0 decides a signal against a cancellation; only its
// winner links the node. Usually the predecessor is only marked, and the release of its owner
// wakes the waiter later.
bool AbstractQueuedSynchronizer::transferForSignal(Node* node) {
    if (!node->status.compareAndSet(Node::CONDITION, 0)) return false;
    Node* p = enq(node, false);  // the waiter reserved the sentinel
    int s = p->status.get();
    if (s > 0 || !p->status.compareAndSet(s, Node::SIGNAL)) detail::unparkNodeThread(node->thread);
    return true;
}

// True if the interrupt or time-out came before any signal. If a signal won, its thread is
// between the status change and the end of enq: the waiter must not go on with an unlinked node.
bool AbstractQueuedSynchronizer::transferAfterCancelledWait(Node* node) {
    if (node->status.compareAndSet(Node::CONDITION, 0)) {
        enq(node, false);  // the sentinel was reserved before the hold was given up
        return true;
    }
    while (!isOnSyncQueue(node)) Thread::yield();
    return false;
}

bool AbstractQueuedSynchronizer::owns(const ConditionObject* condition) const {
    if (condition == nullptr) MW_THROW(NullPointerException, "");
    return condition->isOwnedBy(this);
}

// The checks come in this order: null, the owner, the hold. Each refusal is thrown here, so that
// its report names this operation; the condition's own test of the hold then always passes.
bool AbstractQueuedSynchronizer::hasWaiters(const ConditionObject* condition) const {
    if (condition == nullptr) MW_THROW(NullPointerException, "");
    if (!condition->isOwnedBy(this)) MW_THROW(IllegalArgumentException, "Not owner");
    if (!isHeldExclusively()) MW_THROW(IllegalMonitorStateException, "");
    return condition->hasWaiters();
}

unsigned long long AbstractQueuedSynchronizer::getWaitQueueLength(
    const ConditionObject* condition) const {
    if (condition == nullptr) MW_THROW(NullPointerException, "");
    if (!condition->isOwnedBy(this)) MW_THROW(IllegalArgumentException, "Not owner");
    if (!isHeldExclusively()) MW_THROW(IllegalMonitorStateException, "");
    return condition->getWaitQueueLength();
}

}  // namespace mw
