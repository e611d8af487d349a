#include "SynchronizerDiagnostics.h"

#include <algorithm>
#include <atomic>
#include <new>

#include "Reclamation.h"
#include "concurrent/ReadWriteLockSync.h"
#include "concurrent/TLockSync.h"
#include "concurrent/TimeUtil.h"
#include "platform.h"

namespace mw {
namespace detail {

namespace {

std::atomic<long> s_inspectors(0);

// A name is written in a few stores; a reader that finds a write under way this often gives up.
const int READ_ATTEMPTS = 10000;

const std::uintptr_t IDENTITY_TAG = 1;

void raiseTo(std::atomic<long long>& maximum, long long value) {
    long long seen = maximum.load(std::memory_order_relaxed);
    while (value > seen &&
           !maximum.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
    }
}

void raiseTo(std::atomic<unsigned long long>& maximum, unsigned long long value) {
    unsigned long long seen = maximum.load(std::memory_order_relaxed);
    while (value > seen &&
           !maximum.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
    }
}

}  // namespace

// The counters are independent relaxed cells: a snapshot may mix moments, never tear a value.
struct SynchronizerDiagnostics::Block {
    Block() {
        for (std::atomic<char>& c : name) c.store('\0', std::memory_order_relaxed);
    }

    std::atomic<const void*> identity{nullptr};
    // A sequence lock over name; odd while a writer, which took it by compare-exchange, writes.
    std::atomic<unsigned> nameSequence{0};
    std::atomic<char> name[NAME_CAPACITY + 1];
    std::atomic<unsigned long long> contended{0};
    std::atomic<unsigned long long> cancelled{0};
    std::atomic<unsigned long long> waiting{0};
    std::atomic<unsigned long long> maxQueue{0};
    std::atomic<long long> totalWait{0};
    std::atomic<long long> maxWait{0};
};

// The compare-exchange that publishes a block releases its initialised fields to every reader of
// the word (acquire loads).
SynchronizerDiagnostics::Block* SynchronizerDiagnostics::block(
    const AbstractQueuedSynchronizer& synchronizer, bool create) {
    std::uintptr_t word = synchronizer.m_diagnostics.load(std::memory_order_acquire);
    for (;;) {
        if (word != 0 && (word & IDENTITY_TAG) == 0) return reinterpret_cast<Block*>(word);
        if (!create) return nullptr;
        Block* fresh = new (std::nothrow) Block;
        if (fresh == nullptr) return nullptr;
        fresh->identity.store(reinterpret_cast<const void*>(word & ~IDENTITY_TAG),
                              std::memory_order_relaxed);
        if (synchronizer.m_diagnostics.compare_exchange_strong(
                word, reinterpret_cast<std::uintptr_t>(fresh), std::memory_order_acq_rel,
                std::memory_order_acquire)) {
            return fresh;
        }
        delete fresh;
    }
}

void SynchronizerDiagnostics::setKind(AbstractQueuedSynchronizer& synchronizer, Kind kind) {
    synchronizer.m_diagnosticKind.store(static_cast<unsigned char>(kind),
                                        std::memory_order_relaxed);
}

void SynchronizerDiagnostics::setIdentity(AbstractQueuedSynchronizer& synchronizer,
                                          const void* object) {
    std::uintptr_t word = synchronizer.m_diagnostics.load(std::memory_order_acquire);
    for (;;) {
        if (word != 0 && (word & IDENTITY_TAG) == 0) {
            reinterpret_cast<Block*>(word)->identity.store(object, std::memory_order_relaxed);
            return;
        }
        const std::uintptr_t tagged =
            object == nullptr ? 0 : (reinterpret_cast<std::uintptr_t>(object) | IDENTITY_TAG);
        if (synchronizer.m_diagnostics.compare_exchange_weak(word, tagged,
                                                             std::memory_order_acq_rel,
                                                             std::memory_order_acquire)) {
            return;
        }
    }
}

const void* SynchronizerDiagnostics::identity(const AbstractQueuedSynchronizer& synchronizer) {
    const std::uintptr_t word = synchronizer.m_diagnostics.load(std::memory_order_acquire);
    const void* object = nullptr;
    if ((word & IDENTITY_TAG) != 0) {
        object = reinterpret_cast<const void*>(word & ~IDENTITY_TAG);
    } else if (word != 0) {
        object = reinterpret_cast<Block*>(word)->identity.load(std::memory_order_relaxed);
    }
    return object != nullptr ? object : &synchronizer;
}

void SynchronizerDiagnostics::setName(AbstractQueuedSynchronizer& synchronizer,
                                      const std::string& name) {
    Block* b = block(synchronizer, true);
    if (b == nullptr) throw std::bad_alloc();
    unsigned sequence = b->nameSequence.load(std::memory_order_relaxed);
    for (;;) {
        if ((sequence & 1) != 0) {
            platform::yieldThread();
            sequence = b->nameSequence.load(std::memory_order_relaxed);
        } else if (b->nameSequence.compare_exchange_weak(sequence, sequence + 1,
                                                         std::memory_order_acquire)) {
            break;
        }
    }
    // Release stores after the odd sequence, acquire loads before the reader's second look, as
    // in WaitRecord ([W4]).
    const std::size_t capacity = NAME_CAPACITY;
    const std::size_t length = std::min(name.size(), capacity);
    for (std::size_t i = 0; i < length; ++i) b->name[i].store(name[i], std::memory_order_release);
    b->name[length].store('\0', std::memory_order_release);
    b->nameSequence.store(sequence + 2, std::memory_order_release);
}

std::string SynchronizerDiagnostics::name(const AbstractQueuedSynchronizer& synchronizer) {
    Block* b = block(synchronizer, false);
    if (b == nullptr) return std::string();
    for (int attempt = 0; attempt < READ_ATTEMPTS; ++attempt) {
        const unsigned before = b->nameSequence.load(std::memory_order_acquire);
        if ((before & 1) != 0) {
            platform::yieldThread();
            continue;
        }
        char copy[NAME_CAPACITY + 1];
        for (std::size_t i = 0; i <= NAME_CAPACITY; ++i) {
            copy[i] = b->name[i].load(std::memory_order_acquire);
        }
        copy[NAME_CAPACITY] = '\0';
        if (b->nameSequence.load(std::memory_order_relaxed) == before) return std::string(copy);
    }
    return std::string();
}

unsigned long long SynchronizerDiagnostics::ownerSerial(
    const AbstractQueuedSynchronizer& synchronizer) {
    switch (synchronizer.m_diagnosticKind.load(std::memory_order_relaxed)) {
        case LOCK:
        case MONITOR:
            return static_cast<const TLockSync&>(synchronizer).getOwnerSerial();
        case READ_WRITE_LOCK:
            return static_cast<const ReadWriteLockSync&>(synchronizer).getOwnerSerial();
        default:
            return 0;
    }
}

ContentionStatistics SynchronizerDiagnostics::statistics(
    const AbstractQueuedSynchronizer& synchronizer) {
    ContentionStatistics statistics;
    Block* b = block(synchronizer, false);
    if (b == nullptr) return statistics;
    statistics.contendedAcquisitions = b->contended.load(std::memory_order_relaxed);
    statistics.cancelledWaits = b->cancelled.load(std::memory_order_relaxed);
    statistics.totalWaitNanos = b->totalWait.load(std::memory_order_relaxed);
    statistics.maxWaitNanos = b->maxWait.load(std::memory_order_relaxed);
    statistics.maxQueueLength = b->maxQueue.load(std::memory_order_relaxed);
    return statistics;
}

namespace {

ThreadSnapshot::WaitKind waitKind(unsigned char kind, bool shared) {
    switch (kind) {
        case SynchronizerDiagnostics::LOCK:
            return ThreadSnapshot::LOCK;
        case SynchronizerDiagnostics::MONITOR:
            return ThreadSnapshot::MONITOR_ENTER;
        case SynchronizerDiagnostics::READ_WRITE_LOCK:
            return shared ? ThreadSnapshot::READ_LOCK : ThreadSnapshot::WRITE_LOCK;
        case SynchronizerDiagnostics::SEMAPHORE:
            return ThreadSnapshot::SEMAPHORE;
        case SynchronizerDiagnostics::LATCH:
            return ThreadSnapshot::LATCH;
        default:
            return shared ? ThreadSnapshot::SYNCHRONIZER_SHARED : ThreadSnapshot::SYNCHRONIZER;
    }
}

}  // namespace

WaitRecord::Value SynchronizerDiagnostics::acquisitionWait(
    const AbstractQueuedSynchronizer& synchronizer, bool shared) {
    WaitRecord::Value value;
    value.kind = waitKind(synchronizer.m_diagnosticKind.load(std::memory_order_relaxed), shared);
    value.synchronizer = &synchronizer;
    value.object = identity(synchronizer);
    return value;
}

WaitRecord::Value SynchronizerDiagnostics::conditionWait(
    const AbstractQueuedSynchronizer& synchronizer, const void* condition) {
    WaitRecord::Value value;
    const bool monitor = synchronizer.m_diagnosticKind.load(std::memory_order_relaxed) == MONITOR;
    value.kind = monitor ? ThreadSnapshot::MONITOR_WAIT : ThreadSnapshot::CONDITION;
    value.synchronizer = &synchronizer;
    value.object = monitor ? identity(synchronizer) : condition;
    return value;
}

bool SynchronizerDiagnostics::queued(const AbstractQueuedSynchronizer& synchronizer) {
    Block* b = block(synchronizer, true);
    if (b == nullptr) return false;  // no memory: this wait goes uncounted
    raiseTo(b->maxQueue, b->waiting.fetch_add(1, std::memory_order_relaxed) + 1);
    return true;
}

void SynchronizerDiagnostics::dequeued(const AbstractQueuedSynchronizer& synchronizer,
                                       long long waitedNanos, bool acquired) {
    Block* b = block(synchronizer, false);
    b->waiting.fetch_sub(1, std::memory_order_relaxed);
    if (!acquired) {
        b->cancelled.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    b->contended.fetch_add(1, std::memory_order_relaxed);
    b->totalWait.fetch_add(waitedNanos, std::memory_order_relaxed);
    raiseTo(b->maxWait, waitedNanos);
}

// [W3] A sequentially consistent load: an inspector counted in before it published this
// synchronizer in its slot ([W2] comes after both), so either this load sees it counted and the
// wait below covers its slot, or its re-check of the wait record came after the wait had ended.
void SynchronizerDiagnostics::retire(AbstractQueuedSynchronizer& synchronizer) {
    if (s_inspectors.load(std::memory_order_seq_cst) != 0) {
        HazardRecord::awaitUnprotected(&synchronizer);
    }
    const std::uintptr_t word = synchronizer.m_diagnostics.load(std::memory_order_acquire);
    if (word != 0 && (word & IDENTITY_TAG) == 0) delete reinterpret_cast<Block*>(word);
}

SynchronizerDiagnostics::Inspector::Inspector() {
    s_inspectors.fetch_add(1, std::memory_order_seq_cst);  // [W3]
}

SynchronizerDiagnostics::Inspector::~Inspector() {
    s_inspectors.fetch_sub(1, std::memory_order_seq_cst);
}

QueuedAcquisition::QueuedAcquisition(const AbstractQueuedSynchronizer& synchronizer, bool shared)
    : m_synchronizer(synchronizer),
      m_wait(SynchronizerDiagnostics::acquisitionWait(synchronizer, shared)),
      m_acquired(false),
      m_counted(SynchronizerDiagnostics::queued(synchronizer)) {}

QueuedAcquisition::~QueuedAcquisition() {
    if (m_counted) {
        SynchronizerDiagnostics::dequeued(m_synchronizer, TimeUtil::nanoTime() - m_wait.since(),
                                          m_acquired);
    }
}

}  // namespace detail
}  // namespace mw
