// NodePool: where queue nodes come from and where they go. A node is made once and then recycled
// for the life of the process, never handed back to the allocator, so that a thread which read a
// node's address may still read its status and prev however late (the unlocked release reads the
// head that way); it is reused only when no thread can still act on it, by the epochs of the
// hazard records (Reclamation.h).
//
// A node is retired when it has left every structure it was in (memberships reaches 0): the sync
// queue (as an old head, or as a cancelled node that no prev and no tail names any more) and, for
// a condition node, the condition's list. The retiring thread keeps it in its own record's cache,
// stamped with the epoch read then; it becomes free two epochs later. Each record keeps a few free
// nodes; beyond that they go to one shared lock-free stack, so that a thread which mostly retires
// nodes that others made hands them back. The number of nodes is bounded by the most that were in
// use, retired or cached at one time: a function of the threads and synchronizers, not of waits.
//
// take needs the caller inside a critical section of its hazard record, holding no node that it
// read from a queue (it may take a fresh announcement). The calls that
// retire accept a null record from a caller that has none at hand (a destructor); the node then
// waits in a shared list for whichever thread collects next.
#ifndef MW_SYNC_NODE_POOL_H
#define MW_SYNC_NODE_POOL_H

#include "concurrent/AbstractQueuedSynchronizer.h"

namespace mw {
namespace detail {

class HazardRecord;

class NodePool {
public:
    typedef AbstractQueuedSynchronizer::Node Node;

    // A node ready for one wait (see Node::reset). Throws std::bad_alloc only when no node is free
    // and none can be made.
    static Node* take(HazardRecord* record, const Thread* waiter, int status, Node* mode);
    // A never published node, with no record at hand: to the shared free nodes.
    static void giveBackUnpublished(Node* node);
    // The node was never published: straight back to the caller's cache.
    static void giveBack(HazardRecord* record, Node* node);
    // The node has left the sync queue; counted once however many threads see it leave.
    static void leaveQueue(HazardRecord* record, Node* node);
    // The node has left its condition's list.
    static void leaveList(HazardRecord* record, Node* node);

    // For tests and the soak program: nodes made since the process started, and nodes handed
    // out for waits (made or reused). Counted on the queued path only.
    static unsigned long long nodesMade();
    static unsigned long long nodesTaken();
};

}  // namespace detail
}  // namespace mw

#endif
