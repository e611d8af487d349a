// ThreadInfo: the per-thread record that ties an OS thread to its Thread object and lists the
// thread-local pointers given a value on that thread. Read and written only by its own thread.
// Its destructor cleans every listed pointer's value in the order of first set, dropping what a
// cleaner throws, and then deletes the Thread if the record owns it.
#ifndef MW_SYNC_THREAD_INFO_H
#define MW_SYNC_THREAD_INFO_H

#include <vector>

#include "concurrent/AutoPtr.h"
#include "concurrent/Thread.h"
#include "concurrent/TlsPtrBase.h"

namespace mw {
namespace detail {

class ThreadInfo {
public:
    ThreadInfo(Thread* thread, bool owns);
    ~ThreadInfo();

    Thread* getThread() const { return m_thread; }
    // Enters pointer unless a pointer with its id is listed already.
    void addSlot(TlsPtrBase* pointer);

private:
    ThreadInfo(const ThreadInfo&) = delete;
    ThreadInfo& operator=(const ThreadInfo&) = delete;

    Thread* m_thread;
    AutoPtr<Thread> m_ownedThread;
    std::vector<TlsPtrBase*> m_slots;
};

// Deallocation policy of s_threadInfo: ignores null, else destroys and frees the record.
struct ThreadInfoDeallocator {
    static void deallocate(ThreadInfo* record) { delete record; }
};

}  // namespace detail
}  // namespace mw

#endif
