// ThreadInfo: the per-thread record that ties an OS thread to its Thread object and lists the
// thread-local pointers given a value on that thread. Read and written only by its own thread.
//
// Its destructor cleans every listed pointer's value in the order of first set, dropping what a
// cleaner throws, and then deletes the Thread if the record owns it. While the record is being
// destroyed it may still be the thread's record (the thread that unloads the library cleans it in
// place), so cleaners can list pointers in it and give listed pointers new values: those values
// are cleaned in further passes, CLEANING_PASSES passes in all. What is set after the last pass is
// left where it is, not cleaned.
#ifndef MW_SYNC_THREAD_INFO_H
#define MW_SYNC_THREAD_INFO_H

#include <cstddef>
#include <vector>

#include "concurrent/AutoPtr.h"
#include "concurrent/Thread.h"
#include "concurrent/TlsPtrBase.h"

namespace mw {
namespace detail {

class ThreadInfo {
public:
    // How often the end of a thread goes over values that cleaners keep setting again: the passes
    // of the destructor, and the records that the detach routine frees one after another.
    static constexpr int CLEANING_PASSES = 4;

    ThreadInfo(Thread* thread, bool owns);
    ~ThreadInfo();

    Thread* getThread() const { return m_thread; }
    // Enters pointer unless a pointer with its id is listed already; either way its value is
    // cleaned by the next pass that reaches it.
    void addSlot(TlsPtrBase* pointer);
    // Forgets every listed pointer: the destructor then cleans nothing, and the values are dropped.
    void dropSlots();

private:
    ThreadInfo(const ThreadInfo&) = delete;
    ThreadInfo& operator=(const ThreadInfo&) = delete;

    struct Slot {
        TlsPtrBase* pointer;
        // Set since the pointer's value was last cleaned by this record.
        bool pending;
    };

    // Cleans every pending slot, in list order, by index: a cleaner may append to the list.
    // Returns whether cleaners left a slot pending.
    bool cleanPendingSlots();
    void cleanSlot(std::size_t index);

    Thread* m_thread;
    AutoPtr<Thread> m_ownedThread;
    std::vector<Slot> m_slots;
};

// Deallocation policy of s_threadInfo: ignores null, else destroys and frees the record.
struct ThreadInfoDeallocator {
    static void deallocate(ThreadInfo* record) { delete record; }
};

}  // namespace detail
}  // namespace mw

#endif
