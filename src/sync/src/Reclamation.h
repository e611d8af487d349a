// Safe reclamation: how a thread may dereference an object that another thread can free at any
// moment (a Thread whose OS thread is ending, and queue nodes), and how the freeing side makes sure
// that no such reader is left. It is the one place where the library answers "a reader still holds
// an address that its owner frees"; the queue, the condition transfer, Thread's cross-thread
// operations and the thread registry use it, and it uses nothing above the platform layer.
//
// Contract.
//  - A reader publishes the address in a slot of its own HazardRecord before it dereferences it,
//    and makes sure that the address was still reachable after the publication: protect() re-reads
//    the shared cell it came from until both reads agree; ThreadRegistry::pin looks for the object
//    among the records' published objects. The reader clears the slot when it is done. A slot is
//    held only across a few instructions that never block, so waiting for it is short.
//  - A retirer first makes the address unreachable for new readers (clears the cell, or leaves the
//    registry), then calls awaitUnprotected(address) before the memory may be reused. Clearing is a
//    sequentially consistent store, as are the slot's store and the re-read ([H1]/[H2]).
//  - Nothing here takes a lock, so a thread killed anywhere cannot block anyone through a lock.
//    A thread killed inside a read-side section leaves its slots set. The library kills threads
//    only in Thread::terminate, which, once the OS thread is gone, clears every slot that thread
//    owned (clearSlotsOfThread); so no later retirer waits for a dead thread. Once the process is
//    ending (its statics are being destroyed; other threads may have been killed by the OS) nobody
//    waits at all.
//
// Records are never freed: a record that its owner gives back is reused by the next owner, so
// their number is bounded by the number of Thread objects alive at once.
//
// Epochs, for walkers that follow many pointers (the queue's nodes). A thread inside a critical
// section has announced the global epoch it read; a node that leaves every structure is retired
// with the epoch read afterwards and may be reused once the global epoch is two further on. The
// global epoch advances only when every announcing record shows the current value, so a reader
// that could still hold a retired node's address keeps it from being reused. Sections nest; a
// park drops the announcement for its duration (the parked thread holds nothing) and the section
// takes a fresh one after it, so code may keep across a park only what cannot be retired under it
// (the caller's own node). Nothing waits for an epoch: a reader that stalls only delays reuse, so
// a thread killed inside a section delays it until terminate clears its records.
#ifndef MW_SYNC_RECLAMATION_H
#define MW_SYNC_RECLAMATION_H

#include <atomic>
#include <cstdint>

namespace mw {
namespace detail {

// The queue nodes that a record's owner keeps for reuse (NodePool), as lists of its own; part of
// the record, so that keeping a node can never fail for lack of memory.
struct NodeCache {
    void* retired = nullptr;
    unsigned retiredCount = 0;
    void* free = nullptr;
    unsigned freeCount = 0;
    // Nodes taken through this record, ever: written by the owner alone, read by anyone.
    std::atomic<unsigned long long> taken{0};
};

class HazardRecord {
public:
    // WAKER: a thread read from a queue node, to be woken. PIN: an object that the caller names
    // (Thread operations called on another thread's object).
    // INSPECT: what a thread dump reads of a thread it has pinned (its name, its synchronizer).
    enum Slot { WAKER = 0, PIN = 1, INSPECT = 2, SLOTS = 3 };

    // A free record for the caller, owned by the OS thread whose id is given (0: not yet known).
    // Throws std::bad_alloc when a new record cannot be made.
    static HazardRecord* acquire(std::uint32_t ownerThreadId);
    // Clears the slots and gives the record back for reuse.
    void release();
    void setOwnerThreadId(std::uint32_t id) { m_ownerThreadId.store(id, std::memory_order_relaxed); }

    // Reads source and publishes what it read until a re-read agrees; the result (null included)
    // stays dereferenceable until clear(slot).
    template <typename T>
    T* protect(Slot slot, const std::atomic<T*>& source) {
        T* value = source.load(std::memory_order_seq_cst);
        for (;;) {
            m_slots[slot].store(value, std::memory_order_seq_cst);  // [H1] pairs with [H2]
            T* again = source.load(std::memory_order_seq_cst);
            if (again == value) return value;
            value = again;
        }
    }
    void set(Slot slot, const void* value) { m_slots[slot].store(value, std::memory_order_seq_cst); }
    void clear(Slot slot) { m_slots[slot].store(nullptr, std::memory_order_release); }

    // The object that this record serves (a Thread), published once it is built and withdrawn
    // first thing in its destruction, with a number that tells it from a later object at the same
    // address. The records' list is thereby the registry of live objects (ThreadRegistry).
    void publishObject(const void* object, unsigned long long serial) {
        m_serial.store(serial, std::memory_order_relaxed);
        m_object.store(object, std::memory_order_seq_cst);  // [H3] pairs with [H4]
    }
    void withdrawObject() { m_object.store(nullptr, std::memory_order_seq_cst); }
    const void* object() const { return m_object.load(std::memory_order_seq_cst); }
    unsigned long long serial() const { return m_serial.load(std::memory_order_relaxed); }

    // Critical sections (owner thread only). [E1] the announcement is a sequentially consistent
    // store, so it precedes every load of a node pointer in the section; pairs with [E2].
    void enterCritical() {
        if (m_depth++ == 0) announce();
    }
    void leaveCritical() {
        if (--m_depth == 0) m_epoch.store(0, std::memory_order_release);
    }
    // Around a park: the parked thread announces nothing.
    void suspendCritical() {
        if (m_depth != 0) m_epoch.store(0, std::memory_order_release);
    }
    void resumeCritical() {
        if (m_depth != 0) announce();
    }
    // Takes a fresh announcement: for a section that holds no node across this point, so that a
    // long wait announces the current epoch and does not hold reuse back.
    void refreshCritical() {
        if (m_depth != 0) announce();
    }
    bool inCritical() const { return m_depth != 0; }
    // The global epoch, read after the retired object became unreachable.
    static std::uint64_t epoch();
    // Moves the global epoch on if every announcing record shows its current value.
    static void tryAdvanceEpoch();

    // The recycled queue nodes that this record's owner keeps (NodePool); owner thread only.
    NodeCache& nodeCache() { return m_nodeCache; }

    // Every record ever made, in no particular order; the list only grows.
    static HazardRecord* first();
    HazardRecord* next() const { return m_next; }

    // Returns once no slot of any record holds address; the caller has made address unreachable.
    static void awaitUnprotected(const void* address);
    // Clears the slots of every record owned by the given OS thread, which must have ended.
    static void clearSlotsOfThread(std::uint32_t osThreadId);
    // From here on awaitUnprotected returns at once: the process is ending.
    static void markProcessEnding();

    HazardRecord(const HazardRecord&) = delete;
    HazardRecord& operator=(const HazardRecord&) = delete;

private:
    HazardRecord();
    void announce();

    std::atomic<const void*> m_slots[SLOTS];
    std::atomic<const void*> m_object;
    std::atomic<unsigned long long> m_serial;
    std::atomic<bool> m_inUse;
    std::atomic<std::uint32_t> m_ownerThreadId;
    // The announced epoch, 0 outside a critical section.
    std::atomic<std::uint64_t> m_epoch;
    // Owner-only: nesting depth of critical sections, and the node cache.
    int m_depth;
    NodeCache m_nodeCache;
    // Set before the record is published on the list and never changed.
    HazardRecord* m_next;
};

}  // namespace detail
}  // namespace mw

#endif
