#include "ThreadInfo.h"

namespace mw {
namespace detail {

// The owning holder is made in one step, so if its allocation fails the thread stays the caller's.
ThreadInfo::ThreadInfo(Thread* thread, bool owns)
    : m_thread(thread), m_ownedThread(owns ? thread : nullptr), m_slots() {}

ThreadInfo::~ThreadInfo() {
    for (int pass = 0; pass < CLEANING_PASSES && cleanPendingSlots(); ++pass) {
    }
}

void ThreadInfo::addSlot(TlsPtrBase* pointer) {
    for (Slot& listed : m_slots) {
        if (listed.pointer->getId() == pointer->getId()) {
            listed.pending = true;
            return;
        }
    }
    m_slots.push_back(Slot{pointer, true});
}

void ThreadInfo::dropSlots() { m_slots.clear(); }

bool ThreadInfo::cleanPendingSlots() {
    for (std::size_t i = 0; i < m_slots.size(); ++i) {
        if (m_slots[i].pending) cleanSlot(i);
    }
    for (const Slot& slot : m_slots) {
        if (slot.pending) return true;
    }
    return false;
}

// A cleaner that sets its own pointer again marks the slot pending, and that value is kept for
// the next pass instead of being overwritten with null. A value whose cleaner threw stays where it
// is and is not cleaned a second time.
void ThreadInfo::cleanSlot(std::size_t index) {
    TlsPtrBase* pointer = m_slots[index].pointer;
    m_slots[index].pending = false;
    try {
        void* value = pointer->get();
        pointer->destroy(value);
        if (!m_slots[index].pending) pointer->set(nullptr);
    } catch (...) {
        // A failing cleaner must not stop the cleaning of the pointers after it.
    }
}

}  // namespace detail
}  // namespace mw
