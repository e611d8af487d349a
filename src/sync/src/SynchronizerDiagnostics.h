// SynchronizerDiagnostics: what a synchronizer shows of itself in a thread dump (its kind, the
// object the program knows it by, a name) and its contention statistics.
//
// A synchronizer keeps one word for all of it (m_diagnostics): 0; or the identity object's
// address with the low bit set; or the address of a Block, made on the first queued wait or the
// first name and freed with the synchronizer. The kind is a byte of its own, set by the library's
// primitives at construction. Nothing here is touched on a fast path: the counters are written
// only by threads that queue, and names and identities at construction or on request.
//
// Inspectors (a thread dump, a deadlock search) read another thread's synchronizer only under the
// wait record's protocol (WaitRecord.h): they count themselves in while they run, and a
// synchronizer that is destroyed while any inspector runs waits until no INSPECT slot holds it
// before its memory (and its Block) goes.
#ifndef MW_SYNC_SYNCHRONIZER_DIAGNOSTICS_H
#define MW_SYNC_SYNCHRONIZER_DIAGNOSTICS_H

#include <cstddef>
#include <string>

#include "WaitRecord.h"
#include "concurrent/AbstractQueuedSynchronizer.h"
#include "concurrent/ContentionStatistics.h"

namespace mw {
namespace detail {

class SynchronizerDiagnostics {
public:
    enum Kind { GENERIC = 0, LOCK, MONITOR, READ_WRITE_LOCK, SEMAPHORE, LATCH };
    // Names are kept up to this many bytes; a longer one is cut.
    static constexpr std::size_t NAME_CAPACITY = 63;

    static void setKind(AbstractQueuedSynchronizer& synchronizer, Kind kind);
    static void setIdentity(AbstractQueuedSynchronizer& synchronizer, const void* object);
    static void setName(AbstractQueuedSynchronizer& synchronizer, const std::string& name);
    static std::string name(const AbstractQueuedSynchronizer& synchronizer);
    // The object shown for the synchronizer: its identity, else itself.
    static const void* identity(const AbstractQueuedSynchronizer& synchronizer);
    // The serial of the exclusive holder (lock, monitor, writer), 0 for none or another kind.
    static unsigned long long ownerSerial(const AbstractQueuedSynchronizer& synchronizer);
    static ContentionStatistics statistics(const AbstractQueuedSynchronizer& synchronizer);
    // What the wait record shows for an acquisition of the synchronizer, by mode, and for a wait
    // on its condition (a monitor wait shows the monitor's object, a condition wait the
    // condition).
    static WaitRecord::Value acquisitionWait(const AbstractQueuedSynchronizer& synchronizer,
                                             bool shared);
    static WaitRecord::Value conditionWait(const AbstractQueuedSynchronizer& synchronizer,
                                           const void* condition);

    // The queued path: a wait joins the queue, and leaves it with or without the synchronizer.
    // queued is false when the wait could not be counted (no memory for the block); dequeued is
    // then not called for it.
    static bool queued(const AbstractQueuedSynchronizer& synchronizer);
    static void dequeued(const AbstractQueuedSynchronizer& synchronizer, long long waitedNanos,
                         bool acquired);

    // The synchronizer's destructor: waits out inspectors that may read it, frees the block.
    static void retire(AbstractQueuedSynchronizer& synchronizer);

    // Counts an inspector in for its life (see above).
    class Inspector {
    public:
        Inspector();
        ~Inspector();
        Inspector(const Inspector&) = delete;
        Inspector& operator=(const Inspector&) = delete;
    };

private:
    struct Block;
    static Block* block(const AbstractQueuedSynchronizer& synchronizer, bool create);
};

// One queued acquisition of the calling thread, shown in its wait record and counted in the
// synchronizer's statistics: from before its node is linked until it has the synchronizer
// (acquired()) or gives up (the destructor without acquired()).
class QueuedAcquisition {
public:
    QueuedAcquisition(const AbstractQueuedSynchronizer& synchronizer, bool shared);
    ~QueuedAcquisition();
    void acquired() { m_acquired = true; }

    QueuedAcquisition(const QueuedAcquisition&) = delete;
    QueuedAcquisition& operator=(const QueuedAcquisition&) = delete;

private:
    const AbstractQueuedSynchronizer& m_synchronizer;
    ShownWait m_wait;
    bool m_acquired;
    const bool m_counted;
};

}  // namespace detail
}  // namespace mw

#endif
