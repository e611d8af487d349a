#include "NodePool.h"

#include "Reclamation.h"

#if defined(__SANITIZE_ADDRESS__) && defined(MW_SYNC_EAGER_RECLAIM)
#include <sanitizer/asan_interface.h>
#define MW_POISON_FREE_NODES 1
#endif

// The reclaiming build (MW_SYNC_EAGER_RECLAIM) frees a node as soon as the epochs allow, keeps no
// free node back from other threads, and, under AddressSanitizer, poisons every field of a free
// node but the three that a stale reader may read (poolNext, status, prev), so that a wake-up or a
// write through a node that was given up is reported where it happens.

namespace mw {
namespace detail {

typedef AbstractQueuedSynchronizer::Node Node;

namespace {

// A record's lists (NodeCache) hold nodes linked through poolNext. retired is newest first, so
// its stamps never rise along the list and everything after the first node old enough is old
// enough too.
Node* asNode(void* p) { return static_cast<Node*>(p); }

#if defined(MW_SYNC_NO_NODE_REUSE)
const bool REUSE = false;  // a test build: every wait makes its node afresh
#else
const bool REUSE = true;
#endif
// RETIRED_LIMIT: a thread that retires more than it takes collects on its own once it keeps this
// many; otherwise collecting waits for the next take() that finds no free node.
// COLLECT_AT_LEAST: a thread out of free nodes collects only once it keeps that many retired
// ones, so that moving the epoch on (which every announcing thread then reads anew) is paid for
// by a batch.
#if defined(MW_SYNC_EAGER_RECLAIM)
const unsigned RETIRED_LIMIT = 1;
const unsigned COLLECT_AT_LEAST = 1;
const unsigned FREE_KEPT = 0;
#else
const unsigned RETIRED_LIMIT = 256;
const unsigned COLLECT_AT_LEAST = 16;
const unsigned FREE_KEPT = 64;
#endif

// Free nodes that no cache keeps. Popped only inside a critical section: a node popped by another
// thread meanwhile cannot come back here before this section ends (it must be retired and outlive
// two epochs first), so the compare-exchange cannot be fooled by the same address (ABA).
std::atomic<Node*> s_shared(nullptr);
// Nodes retired by a thread that has no record at hand (a synchronizer's or a condition's
// destructor, which may run while its thread's own object is being destroyed). Pushed one by one,
// taken all at once by a collecting thread: neither can be fooled by the same address.
std::atomic<Node*> s_orphans(nullptr);
std::atomic<unsigned long long> s_made(0);

void poison(Node* node) {
#if defined(MW_POISON_FREE_NODES)
    char* from = reinterpret_cast<char*>(&node->next);
    ASAN_POISON_MEMORY_REGION(from, reinterpret_cast<char*>(node + 1) - from);
#else
    (void)node;
#endif
}

void unpoison(Node* node) {
#if defined(MW_POISON_FREE_NODES)
    char* from = reinterpret_cast<char*>(&node->next);
    ASAN_UNPOISON_MEMORY_REGION(from, reinterpret_cast<char*>(node + 1) - from);
#else
    (void)node;
#endif
}

NodeCache& cacheOf(HazardRecord* record) { return record->nodeCache(); }

// What a stale reader finds in a free node: a cancelled status and no prev, so no check that a
// node is a live successor passes.
void makeFree(Node* node) {
    node->status.set(Node::CANCELLED);
    node->prev.store(nullptr, std::memory_order_seq_cst);
    poison(node);
}

void push(std::atomic<Node*>& stack, Node* node) {
    Node* top = stack.load(std::memory_order_relaxed);
    do {
        node->poolNext.store(top, std::memory_order_relaxed);
    } while (!stack.compare_exchange_weak(top, node, std::memory_order_release,
                                          std::memory_order_relaxed));
}

void pushShared(Node* node) { push(s_shared, node); }

Node* popShared() {
    Node* top = s_shared.load(std::memory_order_acquire);
    while (top != nullptr &&
           !s_shared.compare_exchange_weak(top, top->poolNext.load(std::memory_order_relaxed),
                                           std::memory_order_acquire, std::memory_order_acquire)) {
    }
    return top;
}

void pushFree(NodeCache& cache, Node* node) {
    node->poolNext.store(asNode(cache.free), std::memory_order_relaxed);
    cache.free = node;
    ++cache.freeCount;
}

void keepFewFree(NodeCache& cache) {
    while (cache.freeCount > FREE_KEPT) {
        Node* node = asNode(cache.free);
        cache.free = node->poolNext.load(std::memory_order_relaxed);
        --cache.freeCount;
        pushShared(node);
    }
}

void collectOrphans(NodeCache& cache, std::uint64_t now) {
    if (s_orphans.load(std::memory_order_relaxed) == nullptr) return;
    Node* orphan = s_orphans.exchange(nullptr, std::memory_order_acquire);
    while (orphan != nullptr) {
        Node* next = orphan->poolNext.load(std::memory_order_relaxed);
        if (orphan->retiredAt + 2 > now) {
            push(s_orphans, orphan);
        } else {
            makeFree(orphan);
            pushFree(cache, orphan);
        }
        orphan = next;
    }
}

// Frees the retired nodes whose epoch is two behind the global one, after trying to move the
// global epoch on. The caller's own announcement would hold the second step back; a caller that
// keeps no node from before (holdsNothing) takes a fresh one in between.
void collect(HazardRecord* record, NodeCache& cache, bool holdsNothing) {
    HazardRecord::tryAdvanceEpoch();
    if (holdsNothing) {
        record->refreshCritical();
        HazardRecord::tryAdvanceEpoch();
        record->refreshCritical();
    }
    std::uint64_t now = HazardRecord::epoch();
    Node* young = nullptr;
    Node* old = asNode(cache.retired);
    while (old != nullptr && old->retiredAt + 2 > now) {
        young = old;
        old = old->poolNext.load(std::memory_order_relaxed);
    }
    if (young == nullptr) {
        cache.retired = nullptr;
    } else {
        young->poolNext.store(nullptr, std::memory_order_relaxed);
    }
    while (old != nullptr) {
        Node* next = old->poolNext.load(std::memory_order_relaxed);
        --cache.retiredCount;
        makeFree(old);
        pushFree(cache, old);
        old = next;
    }
    collectOrphans(cache, now);
    keepFewFree(cache);
}

void retire(HazardRecord* record, Node* node) {
    node->retiredAt = HazardRecord::epoch();  // after the node became unreachable
    if (record == nullptr) {
        push(s_orphans, node);
        return;
    }
    NodeCache& cache = cacheOf(record);
    node->poolNext.store(asNode(cache.retired), std::memory_order_relaxed);
    cache.retired = node;
    if (++cache.retiredCount >= RETIRED_LIMIT) collect(record, cache, false);
}

void leave(HazardRecord* record, Node* node) {
    if (node->memberships.fetch_sub(1, std::memory_order_acq_rel) == 1) retire(record, node);
}

}  // namespace

Node* NodePool::take(HazardRecord* record, const Thread* waiter, int status, Node* mode) {
    Node* node = nullptr;
    if (REUSE) {
        NodeCache& cache = cacheOf(record);
        if (cache.free == nullptr && cache.retiredCount >= COLLECT_AT_LEAST) {
            collect(record, cache, true);
        }
        node = asNode(cache.free);
        if (node != nullptr) {
            cache.free = node->poolNext.load(std::memory_order_relaxed);
            --cache.freeCount;
        } else {
            node = popShared();
        }
    }
    if (node == nullptr) {
        node = new Node();
        s_made.fetch_add(1, std::memory_order_relaxed);
    } else {
        unpoison(node);
    }
    node->reset(waiter, status, mode);
    // A per-record count, so that counting costs no shared write on the path that queues.
    NodeCache& cache = cacheOf(record);
    cache.taken.store(cache.taken.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return node;
}

void NodePool::giveBackUnpublished(Node* node) {
    makeFree(node);
    pushShared(node);
}

void NodePool::giveBack(HazardRecord* record, Node* node) {
    NodeCache& cache = cacheOf(record);
    makeFree(node);
    pushFree(cache, node);
    keepFewFree(cache);
}

void NodePool::leaveQueue(HazardRecord* record, Node* node) {
    if (node->leftQueue.exchange(true, std::memory_order_acq_rel)) return;
    leave(record, node);
}

void NodePool::leaveList(HazardRecord* record, Node* node) { leave(record, node); }

unsigned long long NodePool::nodesMade() { return s_made.load(std::memory_order_relaxed); }

unsigned long long NodePool::nodesTaken() {
    unsigned long long taken = 0;
    for (HazardRecord* r = HazardRecord::first(); r != nullptr; r = r->next()) {
        taken += r->nodeCache().taken.load(std::memory_order_relaxed);
    }
    return taken;
}

}  // namespace detail
}  // namespace mw
