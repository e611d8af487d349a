// TestMutex: a reentrant exclusive mutex on AbstractQueuedSynchronizer, for tests only. State 0
// is free; n means held n times by the recorded owner. tryAcquire can be armed to throw once for
// one chosen thread, so that an acquisition fails while that thread is queued. Calls of tryAcquire
// and tryRelease are counted, so a test sees whether a queued thread was woken to try again, or
// whether an operation asked the subclass to release at all.
#ifndef MW_SYNC_TEST_TEST_MUTEX_H
#define MW_SYNC_TEST_TEST_MUTEX_H

#include <atomic>
#include <string>

#include "WorkerThread.h"
#include "concurrent/Concurrent.h"

namespace mwtest {

struct AcquireFailure {};  // what an armed tryAcquire throws

class TestMutex : public mw::AbstractQueuedSynchronizer {
public:
    typedef mw::AbstractQueuedSynchronizer::ConditionObject ConditionObject;

    TestMutex() : m_owner(nullptr), m_failFor(nullptr), m_attempts(0), m_releaseCalls(0) {}

    void lock() { acquire(1); }
    void unlock() { release(1); }
    ConditionObject newCondition() const { return ConditionObject(this); }

    int state() const { return getState(); }
    bool heldByCurrentThread() const { return isHeldExclusively(); }
    long attempts() const { return m_attempts.load(); }
    long releaseCalls() const { return m_releaseCalls.load(); }
    void failNextAcquireOf(const mw::Thread* thread) { m_failFor.store(thread); }

protected:
    bool tryAcquire(int acquires) override {
        m_attempts.fetch_add(1);
        const mw::Thread* self = mw::Thread::currentThread();
        const mw::Thread* armed = self;
        if (m_failFor.compare_exchange_strong(armed, nullptr)) throw AcquireFailure();
        int held = getState();
        if (held == 0) {
            if (!compareAndSetState(0, acquires)) return false;
            m_owner.store(self);
            return true;
        }
        if (m_owner.load() != self) return false;
        setState(held + acquires);
        return true;
    }

    // The owner is cleared before the state reads free, so whoever wins the state next finds no
    // stale owner to overwrite.
    bool tryRelease(int releases) override {
        m_releaseCalls.fetch_add(1);
        if (m_owner.load() != mw::Thread::currentThread()) {
            MW_THROW(mw::IllegalMonitorStateException, "");
        }
        int left = getState() - releases;
        if (left == 0) m_owner.store(nullptr);
        setState(left);
        return left == 0;
    }

    bool isHeldExclusively() const override {
        return m_owner.load() == mw::Thread::currentThread();
    }

private:
    std::atomic<const mw::Thread*> m_owner;
    std::atomic<const mw::Thread*> m_failFor;
    std::atomic<long> m_attempts;
    std::atomic<long> m_releaseCalls;
};

}  // namespace mwtest

#endif
