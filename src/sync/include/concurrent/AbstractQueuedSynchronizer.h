/// @class mw::AbstractQueuedSynchronizer
/// AbstractQueuedSynchronizer: the base of the library's blocking primitives. It keeps one 32-bit
/// state, whose meaning belongs to the subclass, and a lock-free first-in-first-out queue of the
/// threads blocked on it. A subclass says what acquiring and releasing mean by overriding
/// tryAcquire, tryRelease and isHeldExclusively (exclusive mode) or tryAcquireShared and
/// tryReleaseShared (shared mode); this class queues, parks and wakes.
///
/// An uncontended acquire or release allocates nothing, reads no clock and makes no system call.
/// A thread that has to queue takes a node, which the first time may throw std::bad_alloc; it then
/// holds nothing. What the subclass's try operations throw passes through to the caller, after the
/// caller has left the queue.
/// The object must not be destroyed while a thread is queued on it or inside one of its operations
/// (a thread that has just released it included: see release()).
//
// The queue runs from m_head (a sentinel that stands for no waiter) to m_tail. It is reliable
// backwards through prev from m_tail; next is only a hint. Every write to m_head, m_tail, m_state,
// status and next is a sequentially consistent exchange or compare-exchange; reads are acquire
// loads made afresh at each use. Nodes are recycled, never handed back to the allocator: a node
// that left the queue is reused once no thread inside an operation can still hold its address
// (epochs, see NodePool), so memory stays bounded by the threads and synchronizers, not by the
// number of waits.
#ifndef MW_CONCURRENT_ABSTRACT_QUEUED_SYNCHRONIZER_H
#define MW_CONCURRENT_ABSTRACT_QUEUED_SYNCHRONIZER_H

#include <atomic>
#include <cstdint>
#include <string>

#include "Atomic.h"
#include "AtomicPtr.h"
#include "AutoPtr.h"
#include "Condition.h"
#include "ContentionStatistics.h"
#include "Export.h"
#include "NullPointerException.h"

namespace mw {

class Thread;
class TimeUnit;

namespace detail {
class ShownWait;
class SynchronizerDiagnostics;
}  // namespace detail

class MW_API AbstractQueuedSynchronizer {
public:
    /// The queue's record of one waiting thread. Written only as the table of the queue protocol
    /// allows: prev by the node's own thread (and before publication), status and next also by
    /// the successor's thread and by releasers, thread cleared by its own thread.
    ///
    /// Nodes are recycled, never handed back to the allocator (see NodePool): a node that left
    /// every structure may come back for another wait, even of another synchronizer. A thread that
    /// reached a node through a hint (next) therefore trusts it only after reading, in this order,
    /// a status of 0 or less and a prev that names the node it came from.
    struct Node {
        /// Values of status besides 0: the wait was given up (CANCELLED); the next node's thread
        /// parks, or is about to, and must be woken when this node is the head and a release
        /// comes (SIGNAL); the node waits on a condition's list (CONDITION).
        ///@{
        static const int CANCELLED = 1;
        static const int SIGNAL = -1;
        static const int CONDITION = -2;
        ///@}
        /// Only ever on the head: a shared release landed here after the first waiter last looked,
        /// so a wake-up may have to be passed on (see releaseShared).
        static const int PROPAGATE = -3;

        /// Mode markers, compared by address: a shared waiter has SHARED's node in waiterLink, an
        /// exclusive one has null (what EXCLUSIVE holds).
        ///@{
        static AutoPtr<Node> SHARED;
        static AutoPtr<Node> EXCLUSIVE;
        ///@}

        /// A node of no wait: no thread, status 0, exclusive mode.
        Node() { reset(nullptr, 0, nullptr); }

        /// The node before this one; a node inside an acquire loop always has one. Throws
        /// NullPointerException when there is none.
        Node* predecessor() const {
            Node* p = prev.load(std::memory_order_relaxed);
            if (p == nullptr) MW_THROW(NullPointerException, "");
            return p;
        }

        /// Makes a fresh or recycled node ready for one wait: a sync queue node (CONDITION not
        /// given) is in one structure, a condition node in two (its list, then the queue).
        void reset(const Thread* waiter, int waitStatus, Node* mode) {
            next.set(nullptr);
            thread.store(waiter, std::memory_order_relaxed);
            waiterLink.store(mode, std::memory_order_relaxed);
            memberships.store(waitStatus == CONDITION ? 2 : 1, std::memory_order_relaxed);
            leftQueue.store(false, std::memory_order_relaxed);
            retiredAt = 0;
            prev.store(nullptr, std::memory_order_relaxed);
            status.set(waitStatus);
        }

        /// Reclamation's link; the only field that a free node keeps meaningful.
        std::atomic<Node*> poolNext{nullptr};
        /// The wait's status: 0, CANCELLED, SIGNAL, CONDITION or PROPAGATE.
        // Read, never written, by a stale reader of a free node; every other field is the
        // current wait's alone.
        Atomic<int> status;
        // Whole-word fields that other threads read while they may change; readers accept an
        // old value. Ordering comes from the status/next/m_tail operations around them.
        /// The node before this one in the queue; null before the node is linked, and on the head.
        std::atomic<Node*> prev{nullptr};
        /// The node after this one in the queue: a hint, which may be null or stale.
        AtomicPtr<Node> next;
        /// The waiting thread; null on the head and once the wait was given up.
        std::atomic<const Thread*> thread{nullptr};
        /// On a condition's list the next node of the list; in the queue the mode marker.
        std::atomic<Node*> waiterLink{nullptr};
        /// How many of the node's structures (condition list, sync queue) it has not yet left;
        /// at 0 it is retired. leftQueue makes leaving the queue count once.
        ///@{
        std::atomic<int> memberships{0};
        std::atomic<bool> leftQueue{false};
        ///@}
        /// The epoch read when the node was retired; owner of the holding cache only.
        unsigned long long retiredAt = 0;
    };

    class ConditionObject;

    /// A copy takes the state and starts with a queue of its own, empty; an assignment takes the
    /// state and keeps this object's queue. Neither shares a node with the source.
    ///@{
    AbstractQueuedSynchronizer(const AbstractQueuedSynchronizer& other);
    AbstractQueuedSynchronizer& operator=(const AbstractQueuedSynchronizer& other);
    ///@}
    /// Gives the queue's last head back for reuse. No thread may be queued on the object, nor
    /// inside one of its operations (a releasing thread included).
    virtual ~AbstractQueuedSynchronizer();

    /// @name Exclusive mode
    /// acquire ignores interrupts and re-asserts them on return; acquireInterruptibly and
    /// tryAcquireNanos throw InterruptedException with the flag cleared.
    ///@{

    /// Acquires in exclusive mode: tries tryAcquire(arg) and, while it fails, queues and parks
    /// until a release lets this thread, first in the queue, succeed. Blocks; an interrupt that
    /// arrives meanwhile does not end the wait and is re-asserted on return.
    void acquire(int arg);
    /// As acquire, but throws InterruptedException, with the flag cleared and nothing acquired,
    /// for an interrupt pending on entry or arriving while it waits.
    void acquireInterruptibly(int arg);
    /// As acquireInterruptibly, but gives up once nanosTimeout nanoseconds have passed on
    /// TimeUtil::nanoTime: true if acquired, false if the time ran out. 0 or less tries without
    /// parking.
    bool tryAcquireNanos(int arg, long long nanosTimeout);
    /// Releases in exclusive mode: calls tryRelease(arg) and, if that returns true, wakes the
    /// first queued thread. Returns what tryRelease returned. Never blocks.
    /// The synchronizer itself is read after tryRelease has let it go, so the releasing thread
    /// must be done before anyone destroys it: "the last one out destroys it" needs the last one
    /// to have returned from unlock, which a thread that merely acquired after it cannot know.
    // Inline, so that a subclass whose type is known at the call (a lock's member synchronizer)
    // reaches its tryRelease without a virtual call.
    // The head is read without protection: nodes are never handed back to the allocator, so the
    // read is of a node, if perhaps of one recycled since; signalNext looks again, protected.
    bool release(int arg) {
        if (!tryRelease(arg)) return false;
        Node* h = m_head.get();
        if (h != nullptr && h->status.get() != 0) signalNext();
        return true;
    }

    ///@}

    /// @name Shared mode
    /// Several threads may hold at once, as tryAcquireShared decides. acquireShared ignores
    /// interrupts and re-asserts them on return; the other two throw InterruptedException with the
    /// flag cleared. releaseShared may be called by any thread.
    ///@{

    /// Acquires in shared mode: tries tryAcquireShared(arg) and, while it gives less than 0,
    /// queues and parks until a release lets this thread, first in the queue, succeed. Blocks; an
    /// interrupt that arrives meanwhile does not end the wait and is re-asserted on return.
    void acquireShared(int arg);
    /// As acquireShared, but throws InterruptedException, with the flag cleared and nothing
    /// acquired, for an interrupt pending on entry or arriving while it waits.
    void acquireSharedInterruptibly(int arg);
    /// As acquireSharedInterruptibly, but gives up once nanosTimeout nanoseconds have passed on
    /// TimeUtil::nanoTime: true if acquired, false if the time ran out. 0 or less tries without
    /// parking.
    bool tryAcquireSharedNanos(int arg, long long nanosTimeout);
    /// Releases in shared mode: calls tryReleaseShared(arg) and, if that returns true, wakes the
    /// queued threads that may now succeed. Returns what tryReleaseShared returned. Never blocks.
    bool releaseShared(int arg);
    ///@}

    /// @name Inspection
    /// One moment's reading each, without locks or allocation; never blocks.
    ///@{

    /// True if a thread is queued, or was a moment ago.
    bool hasQueuedThreads() const;
    /// True once any thread has had to queue on this synchronizer.
    bool hasContended() const;
    /// The thread that has been queued longest; null if none is.
    const Thread* getFirstQueuedThread() const;
    /// True if thread is queued. Throws NullPointerException for null.
    bool isQueued(const Thread* thread) const;
    /// The number of queued threads.
    unsigned long long getQueueLength() const;
    ///@}

    /// @name Conditions, asked at the synchronizer's level
    /// hasWaiters and getWaitQueueLength need the synchronizer held exclusively by the caller.
    /// Each throws NullPointerException for a null condition; those two also throw
    /// IllegalArgumentException "Not owner" for a condition of another synchronizer and then
    /// IllegalMonitorStateException to a caller without the hold.
    ///@{

    /// True if condition was made for this synchronizer.
    bool owns(const ConditionObject* condition) const;
    /// True if a thread waits on condition.
    bool hasWaiters(const ConditionObject* condition) const;
    /// The number of threads that wait on condition.
    unsigned long long getWaitQueueLength(const ConditionObject* condition) const;
    ///@}

    /// @name Diagnostics
    /// What thread dumps show of the synchronizer, and how much it has been waited for. None of
    /// these touches the acquire or release paths; any thread may call them at any time.
    ///@{

    /// Gives the synchronizer a name for thread dumps (up to 63 bytes; a longer name is cut).
    /// Throws std::bad_alloc if the first name cannot be stored.
    void setDiagnosticName(const std::string& name);
    /// The name given by setDiagnosticName; empty if none was given.
    std::string getDiagnosticName() const;
    /// The object that thread dumps show for this synchronizer, for a primitive that keeps it as
    /// a member: the primitive's address rather than the member's. Default: the synchronizer.
    void setDiagnosticIdentity(const void* object);
    /// The contention seen since construction (see ContentionStatistics).
    ContentionStatistics getContentionStatistics() const;
    ///@}

protected:
    /// A synchronizer with state 0; its queue is made when a thread first has to queue.
    AbstractQueuedSynchronizer();
    /// fenceFreeRelease: the subclass lets its state go with releaseState, and wants the cheap
    /// release where the platform has a process-wide barrier (see releaseState).
    explicit AbstractQueuedSynchronizer(bool fenceFreeRelease);

    /// The state, by a load with acquire ordering.
    int getState() const { return m_state.get(); }
    /// Stores the state: sequentially consistent, a full barrier.
    void setState(int newState) { m_state.set(newState); }
    /// The store of a release that may free the synchronizer. A subclass made with
    /// fenceFreeRelease must let its state go with it; elsewhere it is setState.
    // It must be ordered before the release reads the head's status ([A1]): else a waiter that
    // marked the head and then found the state still taken would park while the release read the
    // status from before the mark, and nobody would wake it. With a fence-free release the store
    // is a plain release store (no barrier, only a compiler fence) and the waiter pays instead:
    // between its mark and its next look at the state it runs the process-wide barrier, after
    // which either that look sees this store or this release's read of the status sees its mark.
    // Elsewhere the store is a full barrier.
    void releaseState(int newState) {
        if (m_fenceFreeRelease) {
            m_state.lazySet(newState);
            std::atomic_signal_fence(std::memory_order_seq_cst);  // [A1]
        } else {
            m_state.set(newState);  // [A1]
        }
    }
    /// Sets the state to update if it is expect; true if it did. Sequentially consistent.
    bool compareAndSetState(int expect, int update) {
        return m_state.compareAndSet(expect, update);
    }

    /// @name What a subclass says
    /// The base bodies throw UnsupportedOperationException: a subclass overrides those of the
    /// modes it supports. They run on the calling thread, also several times in one acquire, and
    /// must not block; what they throw passes through to the caller.
    ///@{

    /// Tries to acquire in exclusive mode; true on success.
    virtual bool tryAcquire(int arg);
    /// Releases in exclusive mode; true if the synchronizer is now free for a queued thread.
    virtual bool tryRelease(int arg);
    /// Tries to acquire in shared mode: less than 0 on failure, 0 on a success after which no
    /// other shared acquire can succeed, more than 0 when the next one may succeed too.
    virtual int tryAcquireShared(int arg);
    /// Releases in shared mode; true if a queued acquire may now succeed.
    virtual bool tryReleaseShared(int arg);
    /// True if the calling thread holds the synchronizer exclusively. The conditions ask it
    /// before each operation.
    virtual bool isHeldExclusively() const;
    ///@}

    /// Waits for a node that is already linked; true if an interrupt was seen while waiting.
    bool acquireQueued(Node* node, int arg);
    /// The longest-waiting queued thread, by the walk behind getFirstQueuedThread's quick test.
    const Thread* fullGetFirstQueuedThread() const;
    /// For fair policies: true if a thread other than the caller stands first in the queue.
    bool hasQueuedPredecessors() const;
    /// True if the head's successor is a live exclusive waiter: a reader that defers to it keeps a
    /// queued writer from starving. One moment's reading, never a guarantee.
    bool firstQueuedIsExclusive() const;

private:
    friend class Thread;
    friend class detail::SynchronizerDiagnostics;

    static Node* newNode(const Thread* waiter, Node* mode);
    Node* newConditionNode() const;
    // Notes on the calling thread's parker which node of which synchronizer it waits with, so that
    // the node can be given up for the thread if the thread is killed.
    void rememberWait(Node* node) const;
    // Gives up the node of a thread that was killed while it waited with it: the node no longer
    // names the thread (whose object may then be freed) and leaves the queue or the condition's
    // list as a cancelled wait would. Called once the thread is gone.
    void abandonWaitOfKilledThread(Node* node, const Thread* killed);
    // Where a node leaves the queue: an old head once its successor has become the head, a
    // cancelled node once no prev and no tail names it any more.
    static void retireOldHead(Node* oldHead);
    static void retireCancelled(Node* cancelled);

    void reserveSentinel();
    void ensureQueue(bool mayAllocate);
    Node* enq(Node* node, bool mayAllocate);
    Node* addWaiter(Node* mode);
    void setHead(Node* node);
    void unparkSuccessor(Node* node);
    void signalNext();
    Node* validSuccessor(const Node* node) const;
    Node* firstLiveFromTail(const Node* node) const;
    void cancelAcquire(Node* node);
    bool shouldParkAfterFailedAcquire(Node* pred, Node* node);
    static void takePendingWakeUp(Node* head);
    void setHeadAndPropagate(Node* node, int propagate);
    void doReleaseShared();
    void doAcquireShared(int arg);
    void doAcquireSharedInterruptibly(int arg);
    bool doAcquireSharedNanos(int arg, long long nanosTimeout);
    void doAcquireInterruptibly(int arg);
    bool doAcquireNanos(int arg, long long nanosTimeout);
    static bool parkAndCheckInterrupt();
    static void selfInterrupt();

    bool findNodeFromTail(const Node* node) const;
    bool isOnSyncQueue(const Node* node) const;
    int fullyRelease(Node* node);
    static void giveUpUnqueuedNode(Node* node);
    bool transferForSignal(Node* node);
    bool transferAfterCancelledWait(Node* node);

    AtomicPtr<Node> m_head;
    AtomicPtr<Node> m_tail;
    Atomic<int> m_state;
    // Fixed at construction; see releaseState.
    const bool m_fenceFreeRelease;
    // What a thread dump calls a wait on this synchronizer (SynchronizerDiagnostics::Kind), set
    // by the library's primitives as they are built.
    std::atomic<unsigned char> m_diagnosticKind;
    // A sentinel made ahead by a condition waiter, for whoever first links a node; see
    // reserveSentinel.
    std::atomic<Node*> m_spare;
    // Names, identity and statistics; see SynchronizerDiagnostics.
    mutable std::atomic<std::uintptr_t> m_diagnostics;
};

/// ConditionObject: the condition of a synchronizer held exclusively, as the library's locks make
/// it (newCondition). Its operations are Condition's; each needs the caller to hold the
/// synchronizer exclusively (isHeldExclusively).
//
// A waiter's node stands on the condition's singly linked list with status CONDITION; a signal
// moves that same node to the end of the sync queue, where the waiter re-acquires with the state
// it gave up. The list fields are plain: only the thread holding the synchronizer touches them.
// One compare-exchange of the node's status from CONDITION to 0 decides a signal against an
// interrupt or time-out.
class MW_API AbstractQueuedSynchronizer::ConditionObject : public Condition {
public:
    /// How a wait reports an interrupt: re-asserted on return (REINTERRUPT), because a signal
    /// came first, or thrown as InterruptedException (THROW_IE).
    ///@{
    static const int REINTERRUPT = 1;
    static const int THROW_IE = -1;
    ///@}

    /// A condition of owner, which must outlive it; nobody waits on it yet.
    explicit ConditionObject(const AbstractQueuedSynchronizer* owner);
    /// A copy is bound to the source's synchronizer and has no waiters; an assignment binds this
    /// object to the source's synchronizer and keeps its own waiters.
    ///@{
    ConditionObject(const ConditionObject& other);
    ConditionObject& operator=(const ConditionObject& other);
    ///@}
    /// Wakes nobody: no thread may be waiting on the condition when it is destroyed.
    virtual ~ConditionObject();

    // The std::chrono and predicate forms of Condition, next to the overrides of their names.
    using Condition::await;
    using Condition::awaitUntil;

    virtual bool await(long long time, const TimeUnit& unit) const;
    virtual void await() const;
    virtual void awaitUninterruptibly() const;
    virtual long long awaitNanos(long long nanosTimeout) const;
    virtual bool awaitUntil(long long deadline) const;
    virtual void signal() const;
    virtual void broadcast() const;

    /// The object that thread dumps show for a wait on this condition, for a Condition that
    /// forwards to this one: the object the program holds. Default: this condition.
    void setDiagnosticIdentity(const void* object) {
        m_diagnosticIdentity.store(object, std::memory_order_relaxed);
    }

protected:
    /// True if a thread waits on this condition. Throws IllegalMonitorStateException unless the
    /// caller holds the synchronizer exclusively.
    bool hasWaiters() const;
    /// The number of threads that wait on this condition. Throws IllegalMonitorStateException
    /// unless the caller holds the synchronizer exclusively.
    unsigned long long getWaitQueueLength() const;

private:
    friend class AbstractQueuedSynchronizer;

    bool isOwnedBy(const AbstractQueuedSynchronizer* synchronizer) const;
    const void* shownObject() const;
    Node* addConditionWaiter() const;
    void unlinkCancelledWaiters() const;
    void doSignal(Node* first) const;
    void doSignalAll(Node* first) const;
    int checkInterruptWhileWaiting(Node* node) const;
    void reportInterruptAfterWait(int interruptMode) const;
    void finishWait(Node* node, int savedState, int interruptMode,
                    detail::ShownWait& shown) const;

    AbstractQueuedSynchronizer* m_synchronizer;
    mutable Node* m_waiterHead;
    mutable Node* m_waiterTail;
    // Set before the condition is handed out; a whole word that a waiter reads.
    std::atomic<const void*> m_diagnosticIdentity;
};

}  // namespace mw

#endif
