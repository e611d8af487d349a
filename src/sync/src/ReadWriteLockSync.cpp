#include "concurrent/ReadWriteLockSync.h"

#include "ReadHoldTable.h"
#include "SynchronizerDiagnostics.h"
#include "ThreadInfoSlot.h"
#include "ThreadRegistry.h"
#include "concurrent/IllegalMonitorStateException.h"

// The counts are unsigned arithmetic on the bits of the int state: 65535 readers put the top bit
// of the int, which a signed sum would overflow into.
//
//  [W1] the writer clears m_owner before the store that takes the write count to 0, so the next
//       writer's store into m_owner, which follows its compareAndSet on m_state, is never
//       overwritten by this one.
//  [W2] a thread's read-hold entry changes only after its compareAndSet on m_state has won, and
//       room for a new entry is made before it: a failure, or a lost race, leaves the table and
//       the state as they were.

namespace mw {
namespace detail {

namespace {

const unsigned SHARED_SHIFT = 16;
const unsigned SHARED_UNIT = 1u << SHARED_SHIFT;
const unsigned EXCLUSIVE_MASK = SHARED_UNIT - 1;

const char* const UPGRADE_REFUSED =
    "read lock held by the calling thread: it cannot take the write lock without releasing its "
    "read holds first";
const char* const WRITE_NOT_HELD = "write lock not held by the calling thread";
const char* const READ_NOT_HELD = "read lock not held by the calling thread";
const char* const MAXIMUM_EXCEEDED = "Maximum lock count exceeded";

unsigned bits(int state) { return static_cast<unsigned>(state); }

int stateOf(unsigned bits) { return static_cast<int>(bits); }

unsigned readCount(unsigned c) { return c >> SHARED_SHIFT; }

unsigned writeCount(unsigned c) { return c & EXCLUSIVE_MASK; }

}  // namespace

ReadWriteLockSync::ReadWriteLockSync(bool fair)
    : AbstractQueuedSynchronizer(), m_id(s_readHoldTables.newLockId()), m_fair(fair), m_owner(0) {
    SynchronizerDiagnostics::setKind(*this, SynchronizerDiagnostics::READ_WRITE_LOCK);
}

ReadWriteLockSync::~ReadWriteLockSync() {
    ReadHoldTable* table = s_readHoldTables.find();
    if (table == nullptr) return;
    ReadHoldTable::Entry* holds = table->find(m_id);
    if (holds != nullptr) table->remove(holds);
}

// ---- policies -----------------------------------------------------------------------------------

// A new reader must not keep a queued writer waiting for ever behind a stream of readers.
bool ReadWriteLockSync::readerShouldWait() const {
    return m_fair ? hasQueuedPredecessors() : firstQueuedIsExclusive();
}

bool ReadWriteLockSync::writerShouldWait() const { return m_fair && hasQueuedPredecessors(); }

bool ReadWriteLockSync::isOwner(const Thread* thread) const {
    return m_owner.load(std::memory_order_relaxed) == thread->getSerial();
}

// A caller that holds read holds keeps the read count above 0, and then no other thread writes:
// the table is looked at only when the state shows readers and no writer.
bool ReadWriteLockSync::wouldUpgrade() const {
    unsigned c = bits(getState());
    if (readCount(c) == 0 || writeCount(c) != 0) return false;
    return getReadHoldCount() != 0;
}

// ---- the write side -----------------------------------------------------------------------------

// acquires is 1, or the whole state given up by a condition wait (the write holds with the
// writer's own read holds); a wait takes it back only from a free state.
bool ReadWriteLockSync::tryAcquire(int acquires) {
    const Thread* current = currentThreadFast();
    unsigned c = bits(getState());
    if (c != 0) {
        if (writeCount(c) == 0 || !isOwner(current)) return false;
        if (writeCount(c) + writeCount(bits(acquires)) > MAX_COUNT) {
            MW_THROW(IllegalMonitorStateException, MAXIMUM_EXCEEDED);
        }
        setState(stateOf(c + bits(acquires)));
        return true;
    }
    if (writerShouldWait() || !compareAndSetState(0, acquires)) return false;
    m_owner.store(current->getSerial(), std::memory_order_relaxed);
    return true;
}

// releases is 1, or the whole state when a condition wait gives up every hold of the writer,
// its read holds included. True once no write hold is left, so that the queue is woken also by
// a writer that keeps read holds (a downgrade).
bool ReadWriteLockSync::tryRelease(int releases) {
    if (!isHeldExclusively()) MW_THROW(IllegalMonitorStateException, WRITE_NOT_HELD);
    unsigned next = bits(getState()) - bits(releases);
    bool free = writeCount(next) == 0;
    if (free) m_owner.store(0, std::memory_order_relaxed);  // [W1]
    setState(stateOf(next));
    return free;
}

bool ReadWriteLockSync::isHeldExclusively() const {
    if (writeCount(bits(getState())) == 0) return false;
    return isOwner(currentThreadFast());
}

void ReadWriteLockSync::lockWrite() {
    if (wouldUpgrade()) MW_THROW(IllegalMonitorStateException, UPGRADE_REFUSED);
    acquire(1);
}

void ReadWriteLockSync::lockWriteInterruptibly() {
    if (wouldUpgrade()) MW_THROW(IllegalMonitorStateException, UPGRADE_REFUSED);
    acquireInterruptibly(1);
}

bool ReadWriteLockSync::tryLockWriteNanos(long long nanosTimeout) {
    if (wouldUpgrade()) MW_THROW(IllegalMonitorStateException, UPGRADE_REFUSED);
    return tryAcquireNanos(1, nanosTimeout);
}

bool ReadWriteLockSync::tryLockWrite() {
    const Thread* current = currentThreadFast();
    unsigned c = bits(getState());
    if (c != 0) {
        if (writeCount(c) == 0) {
            if (getReadHoldCount() != 0) MW_THROW(IllegalMonitorStateException, UPGRADE_REFUSED);
            return false;
        }
        if (!isOwner(current)) return false;
        if (writeCount(c) == MAX_COUNT) MW_THROW(IllegalMonitorStateException, MAXIMUM_EXCEEDED);
        setState(stateOf(c + 1));
        return true;
    }
    if (!compareAndSetState(0, 1)) return false;
    m_owner.store(current->getSerial(), std::memory_order_relaxed);
    return true;
}

AbstractQueuedSynchronizer::ConditionObject* ReadWriteLockSync::newCondition() const {
    return new ConditionObject(this);
}

namespace {

// After the compareAndSet that took the hold: counts it in the caller's table, where room was made
// before ([W2]), so this cannot fail.
void addReadHold(ReadHoldTable& table, ReadHoldTable::Entry* holds, unsigned long long id) {
    if (holds == nullptr) {
        table.insert(id);
    } else {
        ++holds->count;
    }
}

}  // namespace

// ---- the read side ------------------------------------------------------------------------------

// Fails while another thread writes, and for a new reader that gives way to the queue; a reader
// that holds already and the writer go on. Always 1 on success: the next queued reader may
// succeed too. [W2]
int ReadWriteLockSync::tryAcquireShared(int) {
    ReadHoldTable& table = s_readHoldTables.get();
    ReadHoldTable::Entry* holds = table.find(m_id);
    if (holds == nullptr) table.reserveOne();
    for (;;) {
        unsigned c = bits(getState());
        if (writeCount(c) != 0) {
            if (!isOwner(currentThreadFast())) return -1;
        } else if (holds == nullptr && readerShouldWait()) {
            return -1;
        }
        if (readCount(c) == MAX_COUNT) MW_THROW(IllegalMonitorStateException, MAXIMUM_EXCEEDED);
        if (compareAndSetState(stateOf(c), stateOf(c + SHARED_UNIT))) break;
    }
    addReadHold(table, holds, m_id);
    return 1;
}

// True once the state is free: only then can a queued thread get further.
bool ReadWriteLockSync::tryReleaseShared(int) {
    ReadHoldTable* table = s_readHoldTables.find();
    ReadHoldTable::Entry* holds = table == nullptr ? nullptr : table->find(m_id);
    if (holds == nullptr) MW_THROW(IllegalMonitorStateException, READ_NOT_HELD);
    unsigned next;
    for (;;) {
        unsigned c = bits(getState());
        next = c - SHARED_UNIT;
        if (compareAndSetState(stateOf(c), stateOf(next))) break;
    }
    if (--holds->count == 0) table->remove(holds);  // [W2]
    return next == 0;
}

// The untimed try ignores the queue, as the write side's does.
bool ReadWriteLockSync::tryLockRead() {
    ReadHoldTable& table = s_readHoldTables.get();
    ReadHoldTable::Entry* holds = table.find(m_id);
    if (holds == nullptr) table.reserveOne();
    for (;;) {
        unsigned c = bits(getState());
        if (writeCount(c) != 0 && !isOwner(currentThreadFast())) return false;
        if (readCount(c) == MAX_COUNT) MW_THROW(IllegalMonitorStateException, MAXIMUM_EXCEEDED);
        if (compareAndSetState(stateOf(c), stateOf(c + SHARED_UNIT))) break;
    }
    addReadHold(table, holds, m_id);
    return true;
}

// ---- inspection ---------------------------------------------------------------------------------

unsigned long long ReadWriteLockSync::getReadLockCount() const {
    return readCount(bits(getState()));
}

unsigned long long ReadWriteLockSync::getReadHoldCount() const {
    ReadHoldTable* table = s_readHoldTables.find();
    ReadHoldTable::Entry* holds = table == nullptr ? nullptr : table->find(m_id);
    return holds == nullptr ? 0 : holds->count;
}

unsigned long long ReadWriteLockSync::getWriteHoldCount() const {
    return isHeldExclusively() ? writeCount(bits(getState())) : 0;
}

bool ReadWriteLockSync::isWriteLocked() const { return writeCount(bits(getState())) != 0; }

const Thread* ReadWriteLockSync::getOwner() const {
    if (!isWriteLocked()) return nullptr;
    unsigned long long serial = m_owner.load(std::memory_order_relaxed);
    return serial == 0 ? nullptr : ThreadRegistry::find(serial);
}

unsigned long long ReadWriteLockSync::readHoldEntriesOfCurrentThread() {
    ReadHoldTable* table = s_readHoldTables.find();
    return table == nullptr ? 0 : table->size();
}

long long ReadWriteLockSync::liveReadHoldTables() { return s_readHoldTables.liveTables(); }

}  // namespace detail
}  // namespace mw
