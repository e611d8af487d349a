#include "Reclamation.h"

#include "platform.h"

namespace mw {
namespace detail {
namespace {

// The list of every record ever made; records are pushed at the front and never removed.
std::atomic<HazardRecord*> s_records(nullptr);
std::atomic<bool> s_processEnding(false);
// Starts at 1: an announcement of 0 means "outside".
std::atomic<std::uint64_t> s_epoch(1);

}  // namespace

HazardRecord::HazardRecord()
    : m_object(nullptr),
      m_serial(0),
      m_inUse(true),
      m_ownerThreadId(0),
      m_epoch(0),
      m_depth(0),
      m_nodeCache(),
      m_next(nullptr) {
    for (std::atomic<const void*>& slot : m_slots) slot.store(nullptr, std::memory_order_relaxed);
}

HazardRecord* HazardRecord::acquire(std::uint32_t ownerThreadId) {
    for (HazardRecord* r = s_records.load(std::memory_order_acquire); r != nullptr; r = r->m_next) {
        bool free = false;
        if (!r->m_inUse.load(std::memory_order_relaxed) &&
            r->m_inUse.compare_exchange_strong(free, true, std::memory_order_acquire)) {
            r->setOwnerThreadId(ownerThreadId);
            return r;
        }
    }
    HazardRecord* record = new HazardRecord();
    record->setOwnerThreadId(ownerThreadId);
    HazardRecord* head = s_records.load(std::memory_order_relaxed);
    do {
        record->m_next = head;
    } while (!s_records.compare_exchange_weak(head, record, std::memory_order_release,
                                              std::memory_order_relaxed));
    return record;
}

HazardRecord* HazardRecord::first() { return s_records.load(std::memory_order_acquire); }

void HazardRecord::release() {
    m_object.store(nullptr, std::memory_order_relaxed);
    m_serial.store(0, std::memory_order_relaxed);
    for (std::atomic<const void*>& slot : m_slots) slot.store(nullptr, std::memory_order_relaxed);
    m_ownerThreadId.store(0, std::memory_order_relaxed);
    m_epoch.store(0, std::memory_order_relaxed);
    m_depth = 0;
    m_inUse.store(false, std::memory_order_release);
}

void HazardRecord::announce() {
    m_epoch.store(s_epoch.load(std::memory_order_relaxed), std::memory_order_seq_cst);  // [E1]
}

std::uint64_t HazardRecord::epoch() { return s_epoch.load(std::memory_order_seq_cst); }

// [E2] A reader whose announcement precedes these loads in the single order of sequentially
// consistent operations is seen; one whose announcement follows read the global epoch no earlier
// than a value already current, so it holds no address retired two epochs before.
void HazardRecord::tryAdvanceEpoch() {
    std::uint64_t current = s_epoch.load(std::memory_order_seq_cst);
    for (HazardRecord* r = s_records.load(std::memory_order_acquire); r != nullptr; r = r->m_next) {
        std::uint64_t announced = r->m_epoch.load(std::memory_order_seq_cst);  // [E2]
        if (announced != 0 && announced != current) return;
    }
    s_epoch.compare_exchange_strong(current, current + 1, std::memory_order_seq_cst);
}

// [H2] The retirer's store that made address unreachable comes before these loads in the single
// order of sequentially consistent operations. A reader whose re-read in protect() still found the
// address made its slot store [H1] before that store, so a load here sees the slot (or a later
// value of it); a reader whose re-read came later found the address gone and does not use it.
void HazardRecord::awaitUnprotected(const void* address) {
    if (address == nullptr) return;
    for (HazardRecord* r = s_records.load(std::memory_order_acquire); r != nullptr; r = r->m_next) {
        for (std::atomic<const void*>& slot : r->m_slots) {
            while (slot.load(std::memory_order_seq_cst) == address) {  // [H2] pairs with [H1]
                if (s_processEnding.load(std::memory_order_relaxed)) return;
                platform::yieldThread();
            }
        }
    }
}

void HazardRecord::clearSlotsOfThread(std::uint32_t osThreadId) {
    if (osThreadId == 0) return;
    for (HazardRecord* r = s_records.load(std::memory_order_acquire); r != nullptr; r = r->m_next) {
        if (r->m_ownerThreadId.load(std::memory_order_relaxed) != osThreadId) continue;
        for (std::atomic<const void*>& slot : r->m_slots) {
            slot.store(nullptr, std::memory_order_seq_cst);
        }
        r->m_epoch.store(0, std::memory_order_seq_cst);
    }
}

void HazardRecord::markProcessEnding() { s_processEnding.store(true); }

}  // namespace detail
}  // namespace mw
