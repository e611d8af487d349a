// AbstractQueuedSynchronizer: the base of the library's blocking primitives. It keeps one 32-bit
// state, whose meaning belongs to the subclass, and a lock-free first-in-first-out queue of the
// threads blocked on it. A subclass says what acquiring and releasing mean by overriding
// tryAcquire, tryRelease and isHeldExclusively; this class queues, parks and wakes.
//
// The queue runs from m_head (a sentinel that stands for no waiter) to m_tail. It is reliable
// backwards through prev from m_tail; next is only a hint. Every write to m_head, m_tail, m_state,
// status and next is a sequentially consistent exchange or compare-exchange; reads are acquire
// loads made afresh at each use. A published node is never deleted, so a node pointer that was
// read once stays dereferenceable: every lock-free walk relies on that.
//
// An uncontended acquire or release allocates nothing, reads no clock and makes no system call.
// The object must not be destroyed while a thread is queued on it or inside one of its operations.
#ifndef MW_CONCURRENT_ABSTRACT_QUEUED_SYNCHRONIZER_H
#define MW_CONCURRENT_ABSTRACT_QUEUED_SYNCHRONIZER_H

#include <atomic>

#include "Atomic.h"
#include "AtomicPtr.h"
#include "AutoPtr.h"
#include "Condition.h"
#include "Export.h"
#include "NullPointerException.h"

namespace mw {

class Thread;
class TimeUnit;

class MW_API AbstractQueuedSynchronizer {
public:
    // The queue's record of one waiting thread. Written only as the table of the queue protocol
    // allows: prev by the node's own thread (and before publication), status and next also by
    // the successor's thread and by releasers, thread cleared by its own thread.
    struct Node {
        static const int CANCELLED = 1;
        static const int SIGNAL = -1;
        static const int CONDITION = -2;
        // Only ever on the head: a shared release landed here after the first waiter last looked,
        // so a wake-up may have to be passed on (see releaseShared).
        static const int PROPAGATE = -3;

        // Mode markers, compared by address: a shared waiter has SHARED's node in waiterLink, an
        // exclusive one has null (what EXCLUSIVE holds).
        static AutoPtr<Node> SHARED;
        static AutoPtr<Node> EXCLUSIVE;

        Node() : status(0), prev(nullptr), next(nullptr), thread(nullptr), waiterLink(nullptr) {}
        Node(const Thread* waiter, Node* mode)
            : status(0), prev(nullptr), next(nullptr), thread(waiter), waiterLink(mode) {}
        Node(const Thread* waiter, int waitStatus)
            : status(waitStatus),
              prev(nullptr),
              next(nullptr),
              thread(waiter),
              waiterLink(nullptr) {}

        // The node before this one; a node inside an acquire loop always has one.
        Node* predecessor() const {
            Node* p = prev.load(std::memory_order_relaxed);
            if (p == nullptr) MW_THROW(NullPointerException, "");
            return p;
        }

        Atomic<int> status;
        // Whole-word fields that other threads read while they may change; readers accept an
        // old value. Ordering comes from the status/next/m_tail operations around them.
        std::atomic<Node*> prev;
        AtomicPtr<Node> next;
        std::atomic<const Thread*> thread;
        std::atomic<Node*> waiterLink;
    };

    class ConditionObject;

    AbstractQueuedSynchronizer(const AbstractQueuedSynchronizer& other);
    AbstractQueuedSynchronizer& operator=(const AbstractQueuedSynchronizer& other);
    // Touches neither the queue nor its waiters.
    virtual ~AbstractQueuedSynchronizer();

    // Exclusive mode. acquire ignores interrupts and re-asserts them on return;
    // acquireInterruptibly and tryAcquireNanos throw InterruptedException with the flag cleared.
    void acquire(int arg);
    void acquireInterruptibly(int arg);
    bool tryAcquireNanos(int arg, long long nanosTimeout);
    // Inline, so that a subclass whose type is known at the call (a lock's member synchronizer)
    // reaches its tryRelease without a virtual call.
    bool release(int arg) {
        if (!tryRelease(arg)) return false;
        Node* h = m_head.get();
        if (h != nullptr && h->status.get() != 0) unparkSuccessor(h);
        return true;
    }

    // Shared mode: several threads may hold at once, as tryAcquireShared decides. acquireShared
    // ignores interrupts and re-asserts them on return; the other two throw InterruptedException
    // with the flag cleared. releaseShared may be called by any thread.
    void acquireShared(int arg);
    void acquireSharedInterruptibly(int arg);
    bool tryAcquireSharedNanos(int arg, long long nanosTimeout);
    bool releaseShared(int arg);

    // Inspection: one moment's reading, without locks or allocation.
    bool hasQueuedThreads() const;
    bool hasContended() const;
    const Thread* getFirstQueuedThread() const;
    bool isQueued(const Thread* thread) const;
    unsigned long long getQueueLength() const;

    // Conditions, asked at the synchronizer's level.
    bool owns(const ConditionObject* condition) const;
    bool hasWaiters(const ConditionObject* condition) const;
    unsigned long long getWaitQueueLength(const ConditionObject* condition) const;

protected:
    AbstractQueuedSynchronizer();

    int getState() const { return m_state.get(); }
    void setState(int newState) { m_state.set(newState); }
    bool compareAndSetState(int expect, int update) {
        return m_state.compareAndSet(expect, update);
    }

    // The base bodies throw UnsupportedOperationException.
    virtual bool tryAcquire(int arg);
    virtual bool tryRelease(int arg);
    virtual int tryAcquireShared(int arg);
    virtual bool tryReleaseShared(int arg);
    virtual bool isHeldExclusively() const;

    // Waits for a node that is already linked; true if an interrupt was seen while waiting.
    bool acquireQueued(Node* node, int arg);
    // The longest-waiting queued thread, by the walk behind getFirstQueuedThread's quick test.
    const Thread* fullGetFirstQueuedThread() const;
    // For fair policies: true if a thread other than the caller stands first in the queue.
    bool hasQueuedPredecessors() const;
    // True if the head's successor is a live exclusive waiter: a reader that defers to it keeps a
    // queued writer from starving. One moment's reading, never a guarantee.
    bool firstQueuedIsExclusive() const;

private:
    friend class Thread;

    static Node* newNode(const Thread* waiter, Node* mode);
    Node* newConditionNode() const;
    // Notes on the calling thread's parker which node of which synchronizer it waits with, so that
    // the node can be given up for the thread if the thread is killed.
    void rememberWait(Node* node) const;
    // Gives up the node of a thread that was killed while it waited with it: the node no longer
    // names the thread (whose object may then be freed) and leaves the queue or the condition's
    // list as a cancelled wait would. Called once the thread is gone.
    void abandonWaitOfKilledThread(Node* node, const Thread* killed);
    // Where a node leaves the queue. Nodes are never freed (other threads may still hold their
    // addresses), so these only mark the two places a reclamation scheme would hook into.
    static void retireOldHead(Node* oldHead);
    static void retireCancelled(Node* cancelled);

    void ensureQueue();
    Node* enq(Node* node);
    Node* addWaiter(Node* mode);
    void setHead(Node* node);
    void unparkSuccessor(Node* node);
    Node* firstLiveFromTail(const Node* node) const;
    void cancelAcquire(Node* node);
    static bool shouldParkAfterFailedAcquire(Node* pred, Node* node);
    static void takePendingWakeUp(Node* head);
    void setHeadAndPropagate(Node* node, int propagate);
    void doReleaseShared();
    void doAcquireShared(int arg);
    void doAcquireSharedInterruptibly(int arg);
    bool doAcquireSharedNanos(int arg, long long nanosTimeout);
    void doAcquireInterruptibly(int arg);
    bool doAcquireNanos(int arg, long long nanosTimeout);
    bool spinAsFirst(Node* p, int arg);
    static bool parkAndCheckInterrupt();
    static void selfInterrupt();

    bool findNodeFromTail(const Node* node) const;
    bool isOnSyncQueue(const Node* node) const;
    int fullyRelease(Node* node);
    bool transferForSignal(Node* node);
    bool transferAfterCancelledWait(Node* node);

    AtomicPtr<Node> m_head;
    AtomicPtr<Node> m_tail;
    Atomic<int> m_state;
};

// ConditionObject: the condition of a synchronizer held exclusively. A waiter's node stands on
// the condition's singly linked list with status CONDITION; a signal moves that same node to the
// end of the sync queue, where the waiter re-acquires with the state it gave up. The list fields
// are plain: only the thread holding the synchronizer touches them. One compare-exchange of the
// node's status from CONDITION to 0 decides a signal against an interrupt or time-out.
class MW_API AbstractQueuedSynchronizer::ConditionObject : public Condition {
public:
    static const int REINTERRUPT = 1;
    static const int THROW_IE = -1;

    explicit ConditionObject(const AbstractQueuedSynchronizer* owner);
    // Copies share the list's nodes with the source; nothing coordinates the two.
    ConditionObject(const ConditionObject& other);
    ConditionObject& operator=(const ConditionObject& other);
    // Does nothing to the list or its waiters.
    virtual ~ConditionObject();

    virtual bool await(long long time, const TimeUnit& unit) const;
    virtual void await() const;
    virtual void awaitUninterruptibly() const;
    virtual long long awaitNanos(long long nanosTimeout) const;
    virtual bool awaitUntil(long long deadline) const;
    virtual void signal() const;
    virtual void broadcast() const;

protected:
    bool hasWaiters() const;
    unsigned long long getWaitQueueLength() const;

private:
    friend class AbstractQueuedSynchronizer;

    bool isOwnedBy(const AbstractQueuedSynchronizer* synchronizer) const;
    Node* addConditionWaiter() const;
    void unlinkCancelledWaiters() const;
    void doSignal(Node* first) const;
    void doSignalAll(Node* first) const;
    int checkInterruptWhileWaiting(Node* node) const;
    void reportInterruptAfterWait(int interruptMode) const;
    void finishWait(Node* node, int savedState, int interruptMode) const;

    AbstractQueuedSynchronizer* m_synchronizer;
    mutable Node* m_waiterHead;
    mutable Node* m_waiterTail;
};

}  // namespace mw

#endif
