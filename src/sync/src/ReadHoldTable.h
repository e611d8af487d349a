// ReadHoldTable: the read holds of one thread, one entry per read-write lock that the thread holds
// for reading, keyed by the lock's id. Ids come from one 64-bit counter and are never reused, so a
// lock made at a destroyed lock's address starts with no holds in any table. An entry exists from
// the acquisition that takes its count from 0 to the release that takes it back to 0; the table is
// freed, with whatever entries it still has, when its thread ends. So the entries alive at once
// are bounded by the threads times the locks each of them read-holds.
//
// A table is touched by its own thread alone, through s_readHoldTables: no field needs to be
// atomic. The last entry found is remembered, so a thread that keeps going back to one lock finds
// its entry without a scan.
#ifndef MW_SYNC_READ_HOLD_TABLE_H
#define MW_SYNC_READ_HOLD_TABLE_H

#include <atomic>
#include <cstddef>
#include <vector>

#include "concurrent/ObjectDeallocator.h"
#include "concurrent/TlsPtr.h"

namespace mw {
namespace detail {

class ReadHoldTable {
public:
    struct Entry {
        unsigned long long lockId;
        unsigned long count;
    };

    ReadHoldTable();
    ~ReadHoldTable();

    // The entry of lockId, or null. Allocates nothing.
    Entry* find(unsigned long long lockId) {
        if (m_last < m_entries.size() && m_entries[m_last].lockId == lockId) {
            return &m_entries[m_last];
        }
        return scan(lockId);
    }
    // Makes room for one more entry, so that the next insert cannot fail. Throws std::bad_alloc,
    // leaving the table as it was.
    void reserveOne() {
        if (m_entries.size() == m_entries.capacity()) grow();
    }
    // Adds lockId with a count of 1. Requires a reserveOne since the last insert and no entry for
    // lockId. Never throws.
    Entry* insert(unsigned long long lockId);
    // Removes an entry, whatever its count. Never throws.
    void remove(Entry* entry);
    std::size_t size() const { return m_entries.size(); }

private:
    ReadHoldTable(const ReadHoldTable&) = delete;
    ReadHoldTable& operator=(const ReadHoldTable&) = delete;

    Entry* scan(unsigned long long lockId);
    void grow();

    std::vector<Entry> m_entries;
    std::size_t m_last;
};

// The library-wide side of the tables: the thread-local slot through which each thread reaches
// its own table, the source of lock ids, and a count of the tables alive (for inspection).
class ReadHoldTables {
public:
    ReadHoldTables();
    ~ReadHoldTables();

    // A number that no other lock of the process has had or will have. Lock-free.
    unsigned long long newLockId();
    // The calling thread's table, or null if it has none. Allocates nothing.
    ReadHoldTable* find() const { return m_slot.get(); }
    // The calling thread's table, made at the first call on the thread. Throws std::bad_alloc or
    // std::runtime_error (from the slot), leaving the thread without a table.
    ReadHoldTable& get() {
        ReadHoldTable* table = m_slot.get();
        return table != nullptr ? *table : make();
    }
    long long liveTables() const { return m_liveTables.load(std::memory_order_relaxed); }

private:
    friend class ReadHoldTable;

    ReadHoldTable& make();

    // Declared before the slot, so that they outlive the slot's destructor, which may free the
    // calling thread's table.
    std::atomic<unsigned long long> m_lastLockId;
    std::atomic<long long> m_liveTables;
    TlsPtr<ReadHoldTable, ObjectDeallocator> m_slot;
};

// Defined in LibraryStatics.cpp.
extern ReadHoldTables s_readHoldTables;

}  // namespace detail
}  // namespace mw

#endif
