// s_threadInfo: the thread-local pointer whose value on each thread is that thread's ThreadInfo.
// Its base, ThreadInfoSlot, keeps the platform's fast per-thread cache in step with the OS slot
// on every set, and installs the thread attach/detach routines for the life of the slot.
#ifndef MW_SYNC_THREAD_INFO_SLOT_H
#define MW_SYNC_THREAD_INFO_SLOT_H

#include "ThreadInfo.h"
#include "concurrent/TlsPtr.h"
#include "platform.h"

namespace mw {
namespace detail {

class ThreadInfoSlot : public TlsPtrBase {
public:
    // As TlsPtrBase::set, then the cache follows the slot.
    void* set(void* value);

protected:
    explicit ThreadInfoSlot(Cleaner cleaner);
    virtual ~ThreadInfoSlot() noexcept(false);
};

typedef TlsPtr<ThreadInfo, ThreadInfoDeallocator, ThreadInfoSlot> ThreadInfoPtr;

extern ThreadInfoPtr s_threadInfo;

// The calling thread's record straight from the slot, without adopting; keeps the last-error code.
ThreadInfo* readThreadInfoSlot();

// Thread::currentThread for code inside the library: the cached record when there is one.
inline const Thread* currentThreadFast() {
    void* cached = platform::cachedThreadRecord();
    if (cached != nullptr) return static_cast<ThreadInfo*>(cached)->getThread();
    return Thread::currentThread();
}

}  // namespace detail
}  // namespace mw

#endif
