#include "ThreadSurvey.h"

#include <algorithm>
#include <map>

#include "Park.h"
#include "Parker.h"
#include "Reclamation.h"
#include "SynchronizerDiagnostics.h"
#include "ThreadInfoSlot.h"
#include "ThreadRegistry.h"
#include "concurrent/TimeUtil.h"

namespace mw {
namespace detail {

namespace {

// How often a thread's line is read again when its wait ends between the reads; after that the
// line shows the wait without what only the synchronizer could tell.
const int LINE_ATTEMPTS = 16;

// Waits whose synchronizer's exclusive owner is what the waiter waits for.
bool waitsForOwner(ThreadSnapshot::WaitKind kind) {
    switch (kind) {
        case ThreadSnapshot::LOCK:
        case ThreadSnapshot::MONITOR_ENTER:
        case ThreadSnapshot::READ_LOCK:
        case ThreadSnapshot::WRITE_LOCK:
        case ThreadSnapshot::SYNCHRONIZER:
        case ThreadSnapshot::SYNCHRONIZER_SHARED:
            return true;
        default:
            return false;
    }
}

// Keeps a thread's object alive for the scope when it is still the live object published in
// source (or the caller's own), using the caller's PIN slot. [H1]/[H4] as ThreadRegistry::pin,
// with the record that published the object re-read instead of the whole list.
class RecordPin {
public:
    RecordPin(HazardRecord* own, const Thread* thread, const HazardRecord* source)
        : m_own(own), m_pinned(false), m_held(false) {
        if (thread == currentThreadFast()) {
            m_held = true;
            return;
        }
        own->set(HazardRecord::PIN, thread);  // [H1]
        m_pinned = true;
        m_held = source->object() == thread;  // [H4]
    }
    ~RecordPin() {
        if (m_pinned) m_own->clear(HazardRecord::PIN);
    }
    bool held() const { return m_held; }

    RecordPin(const RecordPin&) = delete;
    RecordPin& operator=(const RecordPin&) = delete;

private:
    HazardRecord* m_own;
    bool m_pinned;
    bool m_held;
};

// Publishes value in the caller's INSPECT slot for the scope.
class Inspected {
public:
    Inspected(HazardRecord* own, const void* value) : m_own(own) {
        own->set(HazardRecord::INSPECT, value);  // [W2] before the re-check of the wait record
    }
    ~Inspected() { m_own->clear(HazardRecord::INSPECT); }

    Inspected(const Inspected&) = delete;
    Inspected& operator=(const Inspected&) = delete;

private:
    HazardRecord* m_own;
};

}  // namespace

// One line of a pinned (or the caller's own) thread. The name is protected like any pointer
// another thread may free (Thread::setName, [N1]).
class ThreadSurvey::Reader {
public:
    explicit Reader(HazardRecord* own) : m_own(own) {}

    void read(const Thread* thread, ThreadSnapshot* line) const {
        line->thread = thread;
        line->serial = thread->m_serial;
        line->id = thread->getId();
        {
            const std::string* name = m_own->protect(HazardRecord::INSPECT, thread->m_name);
            line->name = *name;
            m_own->clear(HazardRecord::INSPECT);
        }
        line->state = thread->pinnedState();
        const WaitRecord& record = Parker::of(thread)->waitRecord();
        for (int attempt = 0; attempt < LINE_ATTEMPTS; ++attempt) {
            if (readWait(record, line)) return;
        }
    }

    // The owner now of the synchronizer of the wait read at sequence; false once that wait is
    // over.
    bool owner(const Thread* thread, unsigned long long sequence,
               unsigned long long* owner) const {
        const WaitRecord& record = Parker::of(thread)->waitRecord();
        WaitRecord::Value wait;
        unsigned long long now = 0;
        if (!record.read(&wait, &now) || now != sequence) return false;
        if (wait.kind == ThreadSnapshot::JOIN) {
            *owner = wait.targetSerial;
            return true;
        }
        if (wait.synchronizer == nullptr || !waitsForOwner(wait.kind)) {
            *owner = 0;
            return true;
        }
        Inspected inspected(m_own, wait.synchronizer);
        if (!record.unchangedSince(sequence)) return false;  // [W2]
        *owner = SynchronizerDiagnostics::ownerSerial(*wait.synchronizer);
        return true;
    }

private:
    // True when the line is complete: the wait did not end before its synchronizer was read.
    bool readWait(const WaitRecord& record, ThreadSnapshot* line) const {
        WaitRecord::Value wait;
        unsigned long long sequence = 0;
        record.read(&wait, &sequence);
        line->waitKind = wait.kind;
        line->waitsOn = wait.object;
        line->waitSequence = sequence;
        line->waitsOnName.clear();
        line->ownerSerial = wait.kind == ThreadSnapshot::JOIN ? wait.targetSerial : 0;
        line->waitedNanos =
            wait.kind == ThreadSnapshot::NOT_WAITING ? 0 : TimeUtil::nanoTime() - wait.since;
        if (line->waitedNanos < 0) line->waitedNanos = 0;
        if (wait.synchronizer == nullptr) return true;
        Inspected inspected(m_own, wait.synchronizer);
        if (!record.unchangedSince(sequence)) return false;  // [W2]
        line->waitsOnName = SynchronizerDiagnostics::name(*wait.synchronizer);
        if (waitsForOwner(wait.kind)) {
            line->ownerSerial = SynchronizerDiagnostics::ownerSerial(*wait.synchronizer);
        }
        return true;
    }

    HazardRecord* m_own;
};

std::vector<ThreadSnapshot> ThreadSurvey::snapshotAll() {
    HazardRecord* own = currentHazards();
    const Reader reader(own);
    std::vector<ThreadSnapshot> lines;
    for (HazardRecord* r = HazardRecord::first(); r != nullptr; r = r->next()) {
        const Thread* thread = static_cast<const Thread*>(r->object());
        if (thread == nullptr) continue;
        RecordPin pin(own, thread, r);
        if (!pin.held()) continue;
        ThreadSnapshot line;
        reader.read(thread, &line);
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end(),
              [](const ThreadSnapshot& a, const ThreadSnapshot& b) { return a.serial < b.serial; });
    std::map<unsigned long long, const std::string*> names;
    for (const ThreadSnapshot& line : lines) names[line.serial] = &line.name;
    for (ThreadSnapshot& line : lines) {
        std::map<unsigned long long, const std::string*>::const_iterator owner =
            names.find(line.ownerSerial);
        if (owner != names.end()) line.ownerName = *owner->second;
        if (line.waitKind == ThreadSnapshot::JOIN && owner != names.end()) {
            line.waitsOnName = *owner->second;
        }
    }
    return lines;
}

bool ThreadSurvey::stillWaiting(unsigned long long serial, unsigned long long sequence) {
    const Thread* thread = ThreadRegistry::find(serial);
    if (thread == nullptr) return false;
    ThreadPin pin(thread);
    if (!pin.held() || thread->m_serial != serial) return false;
    return Parker::of(thread)->waitRecord().unchangedSince(sequence);
}

bool ThreadSurvey::ownerNow(unsigned long long serial, unsigned long long sequence,
                                unsigned long long* owner) {
    const Thread* thread = ThreadRegistry::find(serial);
    if (thread == nullptr) return false;
    ThreadPin pin(thread);
    if (!pin.held() || thread->m_serial != serial) return false;
    return Reader(currentHazards()).owner(thread, sequence, owner);
}

}  // namespace detail
}  // namespace mw
