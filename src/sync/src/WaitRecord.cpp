#include "WaitRecord.h"

#include "Parker.h"
#include "ThreadInfo.h"
#include "ThreadInfoSlot.h"
#include "concurrent/TimeUtil.h"
#include "platform.h"

namespace mw {
namespace detail {

namespace {

// A change takes a few stores; a reader that finds one under way this often has met an owner
// that was killed in the middle of it.
const int READ_ATTEMPTS = 10000;

}  // namespace

void WaitRecord::set(const Value& value) {
    const unsigned long long sequence = m_sequence.load(std::memory_order_relaxed);
    // [W1] The wait that ends here is no longer reachable for an inspector that re-checks after
    // this store: sequentially consistent, so that with [W2] and the inspector's slot store
    // either the re-check sees the change or the synchronizer's destructor sees the slot.
    m_sequence.store(sequence + 1, std::memory_order_seq_cst);
    // [W4] Release stores: a reader whose acquire load sees one of them sees the odd sequence
    // after it. Pairs with the acquire loads in read.
    m_kind.store(value.kind, std::memory_order_release);
    m_synchronizer.store(value.synchronizer, std::memory_order_release);
    m_object.store(value.object, std::memory_order_release);
    m_targetSerial.store(value.targetSerial, std::memory_order_release);
    m_since.store(value.since, std::memory_order_release);
    m_sequence.store(sequence + 2, std::memory_order_release);  // publishes the fields
}

bool WaitRecord::read(Value* value, unsigned long long* sequence) const {
    for (int attempt = 0; attempt < READ_ATTEMPTS; ++attempt) {
        const unsigned long long before = m_sequence.load(std::memory_order_acquire);
        if ((before & 1) != 0) {
            platform::yieldThread();
            continue;
        }
        // [W4] Acquire loads keep the second look at the sequence after them: a field written by
        // a change that began since the first look makes that look see the change.
        Value copy;
        copy.kind = static_cast<ThreadSnapshot::WaitKind>(m_kind.load(std::memory_order_acquire));
        copy.synchronizer = m_synchronizer.load(std::memory_order_acquire);
        copy.object = m_object.load(std::memory_order_acquire);
        copy.targetSerial = m_targetSerial.load(std::memory_order_acquire);
        copy.since = m_since.load(std::memory_order_acquire);
        if (m_sequence.load(std::memory_order_relaxed) == before) {
            *value = copy;
            *sequence = before;
            return true;
        }
    }
    *value = Value();
    *sequence = 0;
    return false;
}

namespace {

WaitRecord* recordOfCurrentThread(bool onlyIfAdopted) {
    if (onlyIfAdopted) {
        void* cached = platform::cachedThreadRecord();
        ThreadInfo* info =
            cached != nullptr ? static_cast<ThreadInfo*>(cached) : readThreadInfoSlot();
        if (info == nullptr) return nullptr;
        return &Parker::of(info->getThread())->waitRecord();
    }
    return &Parker::of(currentThreadFast())->waitRecord();
}

}  // namespace

ShownWait::ShownWait(const WaitRecord::Value& value, bool onlyIfAdopted)
    : m_record(recordOfCurrentThread(onlyIfAdopted)), m_since(0) {
    change(value);
}

ShownWait::~ShownWait() {
    if (m_record != nullptr) m_record->clear();
}

void ShownWait::change(const WaitRecord::Value& value) {
    if (m_record == nullptr) return;
    WaitRecord::Value shown = value;
    shown.since = m_since = TimeUtil::nanoTime();
    m_record->set(shown);
}

}  // namespace detail
}  // namespace mw
