#include "ThreadInfo.h"

namespace mw {
namespace detail {

// The owning holder is made in one step, so if its allocation fails the thread stays the caller's.
ThreadInfo::ThreadInfo(Thread* thread, bool owns)
    : m_thread(thread), m_ownedThread(owns ? thread : nullptr), m_slots() {}

ThreadInfo::~ThreadInfo() {
    for (TlsPtrBase* pointer : m_slots) {
        try {
            void* value = pointer->get();
            pointer->destroy(value);
            pointer->set(nullptr);
        } catch (...) {
            // A failing cleaner must not stop the cleaning of the pointers after it.
        }
    }
}

void ThreadInfo::addSlot(TlsPtrBase* pointer) {
    for (TlsPtrBase* listed : m_slots) {
        if (listed->getId() == pointer->getId()) return;
    }
    m_slots.push_back(pointer);
}

}  // namespace detail
}  // namespace mw
