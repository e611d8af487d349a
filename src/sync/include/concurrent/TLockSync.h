// TLockSync: the synchronizer behind ReentrantLock. m_state is the hold count (0: free);
// m_owner is the serial number of the holding thread's object (Thread::getSerial), 0 when free.
// A serial, not an address: a thread that ends holding the lock leaves its serial behind, and a
// new object that the allocator puts at the dead one's address has another, so it neither owns
// the lock nor passes for its owner. m_state leaves 0 only by compareAndSet; every
// other change is made by the owner alone, the one that frees the lock by releaseState. The most derived class, the policy,
// decides how lock() and tryAcquire() treat queued threads.
#ifndef MW_CONCURRENT_TLOCK_SYNC_H
#define MW_CONCURRENT_TLOCK_SYNC_H

#include <atomic>

#include "AbstractQueuedSynchronizer.h"
#include "Export.h"
#include "Thread.h"

namespace mw {
namespace detail {

class MW_API TLockSync : public AbstractQueuedSynchronizer {
public:
    // fenceFreeRelease: as for AbstractQueuedSynchronizer. The non-fair policy asks for it; the
    // fair one does not, for its hand-overs make every releaser that comes back queue and park.
    explicit TLockSync(bool fenceFreeRelease);
    TLockSync(const TLockSync& other);
    TLockSync& operator=(const TLockSync& other);
    virtual ~TLockSync();

    // Throws IllegalMonitorStateException, changing nothing, unless the caller owns the lock.
    virtual bool tryRelease(int releases);
    virtual bool isHeldExclusively() const;
    virtual void lock() = 0;

    // Takes a free lock or adds to the caller's own hold, ignoring any queue. Never blocks.
    bool nonfairTryAcquire(int acquires);
    ConditionObject* newCondition() const;
    const Thread* getOwner() const;
    // Thread::getSerial of the holder, 0 when free: a thread dump's reading, which dereferences
    // nothing.
    unsigned long long getOwnerSerial() const { return m_owner.load(std::memory_order_relaxed); }
    unsigned long long getHoldCount() const;
    bool isLocked() const;

protected:
    // Records the winner of the compareAndSet that took the lock.
    void setOwner(const Thread* owner) {
        m_owner.store(owner->getSerial(), std::memory_order_relaxed);
    }
    void clearOwner() { m_owner.store(0, std::memory_order_relaxed); }
    bool isOwner(const Thread* thread) const {
        return m_owner.load(std::memory_order_relaxed) == thread->getSerial();
    }
    // Spins while another thread holds the lock, for about twice the rounds that spins on this lock
    // have needed lately (so a lock held for long soon stops spinning), never more than a few
    // microseconds; true once the lock reads free. Never parks and never allocates: a short wait
    // costs neither a queue node nor a system call.
    bool spinWhileHeld();

private:
    // A whole-word field read by other threads without a lock; m_state's exchanges order it.
    std::atomic<unsigned long long> m_owner;
    // The rounds that a spin on this lock needed lately, as a moving average; a hint, so its
    // updates may be lost.
    std::atomic<int> m_spinRounds;
};

}  // namespace detail
}  // namespace mw

#endif
