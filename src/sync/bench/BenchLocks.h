// Adapters that give every lock under test the same lock()/unlock() shape, so that one benchmark
// body measures them side by side. A peer outside the standard library is compiled in only when
// the build found it (MW_BENCH_HAVE_*); each adapter takes its lock in the configuration a program
// would ship with, not a debugging one.
#ifndef MW_SYNC_BENCH_LOCKS_H
#define MW_SYNC_BENCH_LOCKS_H

#include <atomic>
#include <mutex>

#include "concurrent/AbstractQueuedSynchronizer.h"
#include "concurrent/FairLockPolicy.h"
#include "concurrent/Guard.h"
#include "concurrent/NonFairLockPolicy.h"
#include "concurrent/Object.h"
#include "concurrent/ReentrantLock.h"

#if defined(MW_BENCH_HAVE_TBB)
#include <tbb/queuing_mutex.h>
#include <tbb/spin_mutex.h>
#endif
#if defined(MW_BENCH_HAVE_BOOST_THREAD)
#include <boost/thread/mutex.hpp>
#endif
#if defined(MW_BENCH_HAVE_ABSL)
#include <absl/synchronization/mutex.h>
#endif
#if defined(MW_BENCH_HAVE_PTHREAD_ADAPTIVE)
#include <pthread.h>
#endif

namespace mwbench {

// The smallest useful subclass of the synchronizer: a non-reentrant mutex with one CAS to take
// and one exchange to give back.
class SimpleMutex : public mw::AbstractQueuedSynchronizer {
public:
    void lock() {
        if (!compareAndSetState(0, 1)) acquire(1);
    }
    void unlock() { release(1); }

protected:
    virtual bool tryAcquire(int) { return compareAndSetState(0, 1); }
    virtual bool tryRelease(int) {
        setState(0);
        return true;
    }
    virtual bool isHeldExclusively() const { return getState() != 0; }
};

struct StdMutex {
    std::mutex m;
    void lock() { m.lock(); }
    void unlock() { m.unlock(); }
};

struct StdRecursiveMutex {
    std::recursive_mutex m;
    void lock() { m.lock(); }
    void unlock() { m.unlock(); }
};

struct StdTimedMutex {
    std::timed_mutex m;
    void lock() { m.lock(); }
    void unlock() { m.unlock(); }
};

template <typename Policy>
struct MwReentrant {
    mw::ReentrantLock<Policy> m;
    void lock() { m.lock(); }
    void unlock() { m.unlock(); }
};

#if defined(MW_BENCH_HAVE_TBB)
struct TbbSpinMutex {
    tbb::spin_mutex m;
    void lock() { m.lock(); }
    void unlock() { m.unlock(); }
};

// A queuing mutex is taken only through a scoped_lock, whose queue node lives on the taker's
// stack, so it has no lock()/unlock() adapter: its benchmarks hold a scoped_lock instead.
struct TbbQueuingMutex {
    tbb::queuing_mutex m;
};
#endif

#if defined(MW_BENCH_HAVE_BOOST_THREAD)
struct BoostMutex {
    boost::mutex m;
    void lock() { m.lock(); }
    void unlock() { m.unlock(); }
};
#endif

#if defined(MW_BENCH_HAVE_ABSL)
// The benchmark's main turns the mutex's deadlock detection off, as a release program has it.
struct AbslMutex {
    absl::Mutex m;
    void lock() { m.Lock(); }
    void unlock() { m.Unlock(); }
};
#endif

#if defined(MW_BENCH_HAVE_PTHREAD_ADAPTIVE)
// glibc's adaptive mutex spins a bounded while on a held lock before it sleeps in the kernel.
class PthreadAdaptiveMutex {
public:
    PthreadAdaptiveMutex() {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ADAPTIVE_NP);
        pthread_mutex_init(&m_mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~PthreadAdaptiveMutex() { pthread_mutex_destroy(&m_mutex); }
    PthreadAdaptiveMutex(const PthreadAdaptiveMutex&) = delete;
    PthreadAdaptiveMutex& operator=(const PthreadAdaptiveMutex&) = delete;

    void lock() { pthread_mutex_lock(&m_mutex); }
    void unlock() { pthread_mutex_unlock(&m_mutex); }

private:
    pthread_mutex_t m_mutex;
};
#endif

// Bumps a counter that a held lock guards. The counter is atomic only so that every shared field
// is one; relaxed load and store compile to the plain read-modify-write a program would do, with no
// locked instruction of their own.
inline void bump(std::atomic<long>& counter) {
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

}  // namespace mwbench

#endif
