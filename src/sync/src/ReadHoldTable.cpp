#include "ReadHoldTable.h"

#include <memory>

namespace mw {
namespace detail {

namespace {

const std::size_t FIRST_CAPACITY = 4;

}  // namespace

// ---- one thread's table -------------------------------------------------------------------------

ReadHoldTable::ReadHoldTable() : m_entries(), m_last(0) {
    s_readHoldTables.m_liveTables.fetch_add(1, std::memory_order_relaxed);
}

// Entries still here belong to locks that the thread read-holds as it ends, or to locks destroyed
// while it held them: the holds are forgotten, the locks are not touched (they may be gone).
ReadHoldTable::~ReadHoldTable() {
    s_readHoldTables.m_liveTables.fetch_sub(1, std::memory_order_relaxed);
}

ReadHoldTable::Entry* ReadHoldTable::scan(unsigned long long lockId) {
    for (std::size_t i = 0; i < m_entries.size(); ++i) {
        if (m_entries[i].lockId == lockId) {
            m_last = i;
            return &m_entries[i];
        }
    }
    return nullptr;
}

// Doubling keeps a thread that read-holds many locks at once from reallocating at every new one.
void ReadHoldTable::grow() {
    std::size_t capacity = m_entries.capacity();
    m_entries.reserve(capacity < FIRST_CAPACITY ? FIRST_CAPACITY : 2 * capacity);
}

ReadHoldTable::Entry* ReadHoldTable::insert(unsigned long long lockId) {
    m_entries.push_back(Entry{lockId, 1});
    m_last = m_entries.size() - 1;
    return &m_entries[m_last];
}

// The last entry takes the removed one's place; the remembered index follows it.
void ReadHoldTable::remove(Entry* entry) {
    std::size_t index = static_cast<std::size_t>(entry - m_entries.data());
    std::size_t lastIndex = m_entries.size() - 1;
    if (index != lastIndex) m_entries[index] = m_entries[lastIndex];
    m_entries.pop_back();
    if (m_last == lastIndex) m_last = index;
}

// ---- the library-wide side ----------------------------------------------------------------------

ReadHoldTables::ReadHoldTables() : m_lastLockId(0), m_liveTables(0), m_slot() {}

ReadHoldTables::~ReadHoldTables() {}

unsigned long long ReadHoldTables::newLockId() {
    return m_lastLockId.fetch_add(1, std::memory_order_relaxed) + 1;
}

// A set that fails may have stored the value before it failed (it enters the slot in the
// thread's record after the store): the slot is emptied again before the table is freed, so that
// it never names freed memory.
ReadHoldTable& ReadHoldTables::make() {
    std::unique_ptr<ReadHoldTable> table(new ReadHoldTable);
    try {
        m_slot.set(table.get());
    } catch (...) {
        if (m_slot.get() == table.get()) m_slot.set(nullptr);
        throw;
    }
    return *table.release();
}

}  // namespace detail
}  // namespace mw
