// ThreadRegistry: every Thread object of the process, from the end of its construction to the
// start of its destruction. It answers two questions that a bare address cannot: "is the object at
// this address still alive?" (so that an operation on another thread's object can pin it before
// touching it) and "which object has this serial?" (lock ownership is recorded by serial, since a
// later object may be given a dead one's address).
//
// The registry is the list of hazard records: each Thread owns one and publishes itself in it
// (HazardRecord::publishObject) once it is built; its destructor withdraws it before it waits for
// the slots. Nothing takes a lock, so a thread killed anywhere cannot block the registry, and
// nothing on the lock, unlock or park paths touches it. A lookup walks every record.
#ifndef MW_SYNC_THREAD_REGISTRY_H
#define MW_SYNC_THREAD_REGISTRY_H

#include "Reclamation.h"

namespace mw {

class Thread;

namespace detail {

class ThreadRegistry {
public:
    // Publishes thread in record's PIN slot and keeps it there if thread is registered; false,
    // with the slot cleared, if it is not.
    static bool pin(const Thread* thread, HazardRecord* record);
    // The live object with that serial, or null; not pinned.
    static const Thread* find(unsigned long long serial);

    static unsigned long long nextSerial();
};

// Keeps another thread's object from being freed for the life of the scope, if it is still alive
// at the start: held() tells. The calling thread's own object needs no pin and is always held.
class ThreadPin {
public:
    explicit ThreadPin(const Thread* thread);
    ~ThreadPin();

    bool held() const { return m_held; }

    ThreadPin(const ThreadPin&) = delete;
    ThreadPin& operator=(const ThreadPin&) = delete;

private:
    HazardRecord* m_record;
    bool m_held;
};

}  // namespace detail
}  // namespace mw

#endif
