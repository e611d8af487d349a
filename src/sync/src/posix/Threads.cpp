// OS threads on pthreads, and the thread detach hook.
//
// A thread handle is a reference-counted record shared by the handle's owner and the running
// thread, so that either may go first. The record keeps the exit code (STILL_ACTIVE_CODE until the
// entry function has returned) and a futex-free completion flag that waitThread polls through a
// condition variable. Linux has no attach notification: threads are adopted at their first
// Thread::currentThread, and armThreadDetach registers the portable detach routine as a C++
// thread-exit callback of the calling thread.
#include "../platform.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <new>

#include <cxxabi.h>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" void* __dso_handle;

namespace mw {
namespace platform {
namespace {

// The pseudo-handle of the calling thread, as on Windows: never a real record.
Handle const CURRENT_THREAD = reinterpret_cast<Handle>(static_cast<std::intptr_t>(-2));

struct ThreadRecord {
    ThreadEntry m_entry;
    void* m_argument;
    std::atomic<int> m_references{2};
    std::atomic<std::uint32_t> m_exitCode{STILL_ACTIVE_CODE};
    std::atomic<int> m_priority{0};
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t m_ended;
    bool m_done = false;  // guarded by m_mutex
};

void release(ThreadRecord* record) {
    if (record->m_references.fetch_sub(1) == 1) {
        pthread_cond_destroy(&record->m_ended);
        pthread_mutex_destroy(&record->m_mutex);
        delete record;
    }
}

ThreadRecord* recordOf(Handle thread) {
    if (thread == nullptr || thread == CURRENT_THREAD) return nullptr;
    return static_cast<ThreadRecord*>(thread);
}

void* trampoline(void* argument) {
    ThreadRecord* record = static_cast<ThreadRecord*>(argument);
    unsigned long code = record->m_entry(record->m_argument);
    record->m_exitCode.store(static_cast<std::uint32_t>(code));
    pthread_mutex_lock(&record->m_mutex);
    record->m_done = true;
    pthread_cond_broadcast(&record->m_ended);
    pthread_mutex_unlock(&record->m_mutex);
    release(record);
    return nullptr;
}

std::atomic<ThreadHook> s_detachHook{nullptr};

// Whether the calling thread has the detach routine pending. Trivially destructible, so it stays
// usable while the thread's exit callbacks run.
thread_local bool t_detachArmed = false;

// Runs from the C++ thread-exit list, the one that thread_local destructors use. glibc runs that
// list before any pthread key destructor, while every slot still holds its value. A key destructor
// would be too late: glibc walks the keys in index order and clears each value before it calls
// that key's destructor, so the record's slot and lower-numbered slots would already read null.
void runDetachHook(void*) {
    t_detachArmed = false;
    ThreadHook hook = s_detachHook.load();
    if (hook != nullptr) hook();
}

}  // namespace

Handle createThread(ThreadEntry entry, void* argument, std::uint32_t* id) {
    ThreadRecord* record = new (std::nothrow) ThreadRecord;
    if (record == nullptr) return nullptr;
    record->m_entry = entry;
    record->m_argument = argument;
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&record->m_ended, &attributes);
    pthread_condattr_destroy(&attributes);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, trampoline, record) != 0) {
        pthread_cond_destroy(&record->m_ended);
        delete record;
        return nullptr;
    }
    pthread_detach(thread);
    // The OS id of the new thread is only known on that thread; callers that need it read it
    // there (Thread::startThread). Here the pthread handle's low bits serve as a non-zero id.
    if (id != nullptr) *id = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(record));
    return record;
}

bool getExitCodeThread(Handle thread, std::uint32_t* code) {
    if (thread == CURRENT_THREAD) {
        *code = STILL_ACTIVE_CODE;
        return true;
    }
    ThreadRecord* record = recordOf(thread);
    if (record == nullptr) return false;
    *code = record->m_exitCode.load();
    return true;
}

std::uint32_t waitThread(Handle thread, std::uint32_t milliseconds) {
    ThreadRecord* record = recordOf(thread);
    if (record == nullptr) return 0xFFFFFFFFu;
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    long long nanos = deadline.tv_nsec + static_cast<long long>(milliseconds % 1000) * 1000000LL;
    deadline.tv_sec += milliseconds / 1000 + nanos / 1000000000LL;
    deadline.tv_nsec = nanos % 1000000000LL;
    std::uint32_t result = WAIT_SIGNALED;
    pthread_mutex_lock(&record->m_mutex);
    while (!record->m_done) {
        if (milliseconds == 0) {
            result = WAIT_TIMEOUT_EXPIRED;
            break;
        }
        if (milliseconds == INFINITE_WAIT) {
            pthread_cond_wait(&record->m_ended, &record->m_mutex);
        } else if (pthread_cond_timedwait(&record->m_ended, &record->m_mutex, &deadline) ==
                   ETIMEDOUT) {
            if (!record->m_done) result = WAIT_TIMEOUT_EXPIRED;
            break;
        }
    }
    pthread_mutex_unlock(&record->m_mutex);
    return result;
}

// Killing a thread wherever it stands has no safe equivalent on Linux (pthread_cancel unwinds at
// cancellation points only), so it is refused.
bool terminateThread(Handle) { return false; }

// Linux's default scheduler ignores static priorities; the number is kept for getThreadPriority.
bool setThreadPriority(Handle thread, int priority) {
    ThreadRecord* record = recordOf(thread);
    if (record == nullptr) return thread == CURRENT_THREAD;
    record->m_priority.store(priority);
    return true;
}

int getThreadPriority(Handle thread) {
    ThreadRecord* record = recordOf(thread);
    return record == nullptr ? 0 : record->m_priority.load();
}

void closeThreadHandle(Handle thread) {
    ThreadRecord* record = recordOf(thread);
    if (record != nullptr) release(record);
}

std::uint32_t currentThreadId() { return static_cast<std::uint32_t>(syscall(SYS_gettid)); }

Handle currentThreadHandle() { return CURRENT_THREAD; }

void installThreadHooks(ThreadHook, ThreadHook detach) { s_detachHook.store(detach); }

void removeThreadHooks() { s_detachHook.store(nullptr); }

// A thread adopted again on its way out (by a cleaner or a thread_local destructor) is armed once
// more; glibc also runs the entries added while it works through the list, so that record is freed
// too.
void armThreadDetach() {
    if (t_detachArmed) return;
    t_detachArmed = true;
    abi::__cxa_thread_atexit(runDetachHook, nullptr, &__dso_handle);
}

}  // namespace platform
}  // namespace mw
