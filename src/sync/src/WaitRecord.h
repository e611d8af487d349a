// WaitRecord: what one thread is blocked on, kept by that thread for the thread dump. Part of the
// thread's Parker, so it lives as long as the Thread object.
//
// The owner writes it as a sequence lock: the sequence is odd while the fields change and moves
// on by two with every change, so a reader that saw the same even sequence before and after
// reading the fields has a consistent copy. Only the owner writes (begin, change, end), and only
// on paths that block anyway (a queued wait, join, sleep), never on a lock's fast path.
//
// The record is also the source from which an inspector may reach the synchronizer: a thread
// waits on a synchronizer only while it is alive (destroying one that is waited on is the
// program's error), so an inspector that published the synchronizer in its INSPECT slot and then
// found the sequence unchanged may read it until it clears the slot ([W1]/[W2], and the
// synchronizer's destructor waits for such slots: SynchronizerDiagnostics::retire).
#ifndef MW_SYNC_WAIT_RECORD_H
#define MW_SYNC_WAIT_RECORD_H

#include <atomic>

#include "concurrent/ThreadSnapshot.h"

namespace mw {

class AbstractQueuedSynchronizer;

namespace detail {

class WaitRecord {
public:
    struct Value {
        ThreadSnapshot::WaitKind kind = ThreadSnapshot::NOT_WAITING;
        // The synchronizer behind the wait, the only pointer here that an inspector may follow
        // (under the protocol above); null for join and sleep.
        const AbstractQueuedSynchronizer* synchronizer = nullptr;
        // The object shown, never dereferenced.
        const void* object = nullptr;
        // The joined thread's serial.
        unsigned long long targetSerial = 0;
        // TimeUtil::nanoTime at the start of the wait.
        long long since = 0;
    };

    // Owner thread only.
    void set(const Value& value);
    void clear() { set(Value()); }

    // Any thread, while the record's thread object is pinned. A consistent copy and the sequence
    // at which it was read; false if the owner seemed stuck in the middle of a change (a thread
    // killed there), in which case the copy shows no wait.
    bool read(Value* value, unsigned long long* sequence) const;
    // True if no change has begun since read returned sequence. [W2] a sequentially consistent
    // load, after the caller's INSPECT slot store; pairs with [W1].
    bool unchangedSince(unsigned long long sequence) const {
        return m_sequence.load(std::memory_order_seq_cst) == sequence;
    }

private:
    std::atomic<unsigned long long> m_sequence{0};
    std::atomic<int> m_kind{ThreadSnapshot::NOT_WAITING};
    std::atomic<const AbstractQueuedSynchronizer*> m_synchronizer{nullptr};
    std::atomic<const void*> m_object{nullptr};
    std::atomic<unsigned long long> m_targetSerial{0};
    std::atomic<long long> m_since{0};
};

// Shows a wait of the calling thread in its record for the life of the object.
class ShownWait {
public:
    // onlyIfAdopted: a thread that has no Thread object yet (and so is in no dump) shows nothing
    // and is not adopted, for waits that never adopted their thread (sleep).
    explicit ShownWait(const WaitRecord::Value& value, bool onlyIfAdopted = false);
    ~ShownWait();
    // The same scope goes on as another wait (a condition waiter that now re-acquires).
    void change(const WaitRecord::Value& value);
    long long since() const { return m_since; }

    ShownWait(const ShownWait&) = delete;
    ShownWait& operator=(const ShownWait&) = delete;

private:
    // Null when nothing is shown.
    WaitRecord* m_record;
    long long m_since;
};

}  // namespace detail
}  // namespace mw

#endif
