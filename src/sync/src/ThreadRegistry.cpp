#include "ThreadRegistry.h"

#include <atomic>

#include "Parker.h"
#include "ThreadInfoSlot.h"

namespace mw {
namespace detail {
namespace {

std::atomic<unsigned long long> s_nextSerial(1);

}  // namespace

unsigned long long ThreadRegistry::nextSerial() { return s_nextSerial.fetch_add(1); }

// [H4] The slot is published before the walk reads any record's object, and the destructor
// withdraws its object before it scans the slots ([H2]). In the single order of these sequentially
// consistent operations, a walk that still found the object published the slot before the
// destructor's scan, which therefore waits for it; a walk that comes later finds nothing.
bool ThreadRegistry::pin(const Thread* thread, HazardRecord* record) {
    record->set(HazardRecord::PIN, thread);  // [H1]
    for (HazardRecord* r = HazardRecord::first(); r != nullptr; r = r->next()) {
        if (r->object() == thread) return true;  // [H4] pairs with [H3]
    }
    record->clear(HazardRecord::PIN);
    return false;
}

// A record may be given to a new object between the reads; the serial is read on both sides of
// the object, so a match is an object that had the serial while it was published.
const Thread* ThreadRegistry::find(unsigned long long serial) {
    if (serial == 0) return nullptr;
    for (HazardRecord* r = HazardRecord::first(); r != nullptr; r = r->next()) {
        if (r->serial() != serial) continue;
        const void* object = r->object();
        if (object != nullptr && r->serial() == serial) return static_cast<const Thread*>(object);
    }
    return nullptr;
}

ThreadPin::ThreadPin(const Thread* thread) : m_record(nullptr), m_held(false) {
    const Thread* current = currentThreadFast();
    if (thread == current) {
        m_held = true;
        return;
    }
    HazardRecord* record = Parker::of(current)->hazards();
    m_held = ThreadRegistry::pin(thread, record);
    if (m_held) m_record = record;
}

ThreadPin::~ThreadPin() {
    if (m_record != nullptr) m_record->clear(HazardRecord::PIN);
}

}  // namespace detail
}  // namespace mw
