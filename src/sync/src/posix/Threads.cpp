// OS threads on pthreads.
//
// A thread handle is a reference-counted record shared by the handles (the creator's and its
// duplicates) and the running thread, so that either side may go first. The thread is joinable:
// "ended" means reaped by a join, which glibc completes only after the thread's whole exit,
// thread_local destructors and thread-specific data included. One waiter at a time is inside the
// join call (m_joining); the others wait on the record's condition for its outcome, so a waiter
// with a short limit is never held up by one without a limit. When the last handle goes before
// the thread was reaped, the thread is detached.
//
// The kernel thread id serves as the thread's id and as the target of priority calls. The new
// thread reports it before its entry runs, and createThread waits for it. Once the entry has
// returned (m_entryDone) the id is never used again: the kernel may give it to another thread as
// soon as this one has gone.
#include "../platform.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <new>

#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mw {
namespace platform {
namespace {

// The pseudo-handle of the calling thread, as on Windows: never a real record.
Handle const CURRENT_THREAD = reinterpret_cast<Handle>(static_cast<std::intptr_t>(-2));

const int LOWEST_NICE = 19;
const int HIGHEST_NICE = -20;

class Hold {
public:
    explicit Hold(pthread_mutex_t& mutex) : m_mutex(mutex) { pthread_mutex_lock(&m_mutex); }
    ~Hold() { pthread_mutex_unlock(&m_mutex); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

private:
    pthread_mutex_t& m_mutex;
};

struct ThreadRecord {
    ThreadRecord(ThreadEntry entry, void* argument) : m_entry(entry), m_argument(argument) {
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        pthread_cond_init(&m_changed, &attributes);
        pthread_condattr_destroy(&attributes);
    }
    ~ThreadRecord() {
        pthread_cond_destroy(&m_changed);
        pthread_mutex_destroy(&m_mutex);
    }

    const ThreadEntry m_entry;
    void* const m_argument;
    pthread_t m_thread{};
    // The handles plus the running thread.
    std::atomic<int> m_references{2};
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t m_changed;
    // Guarded by m_mutex.
    int m_handles = 1;
    pid_t m_tid = 0;
    std::uint32_t m_exitCode = STILL_ACTIVE_CODE;
    bool m_entryDone = false;
    bool m_joining = false;
    bool m_reaped = false;
};

void release(ThreadRecord* record) {
    if (record->m_references.fetch_sub(1) == 1) delete record;
}

ThreadRecord* recordOf(Handle thread) {
    if (thread == nullptr || thread == CURRENT_THREAD) return nullptr;
    return static_cast<ThreadRecord*>(thread);
}

pid_t currentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

void* trampoline(void* argument) {
    ThreadRecord* record = static_cast<ThreadRecord*>(argument);
    {
        Hold hold(record->m_mutex);
        record->m_tid = currentTid();
        pthread_cond_broadcast(&record->m_changed);
    }
    unsigned long code = record->m_entry(record->m_argument);
    {
        Hold hold(record->m_mutex);
        record->m_exitCode = static_cast<std::uint32_t>(code);
        record->m_entryDone = true;
    }
    release(record);
    return nullptr;
}

timespec deadlineAfter(std::uint32_t milliseconds) {
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    long long nanos = deadline.tv_nsec + static_cast<long long>(milliseconds % 1000) * 1000000LL;
    deadline.tv_sec += milliseconds / 1000 + nanos / 1000000000LL;
    deadline.tv_nsec = nanos % 1000000000LL;
    return deadline;
}

bool reached(const timespec& deadline) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec > deadline.tv_sec ||
           (now.tv_sec == deadline.tv_sec && now.tv_nsec >= deadline.tv_nsec);
}

// The join call for one waiter, outside the record's lock. The timed join measures its limit on
// the wall clock, so it is repeated until the monotonic deadline has really passed.
int joinOnce(pthread_t thread, std::uint32_t milliseconds, const timespec& deadline) {
    if (milliseconds == INFINITE_WAIT) return pthread_join(thread, nullptr);
    if (milliseconds == 0) return pthread_tryjoin_np(thread, nullptr);
    for (;;) {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        timespec wall;
        clock_gettime(CLOCK_REALTIME, &wall);
        long long left = (deadline.tv_sec - now.tv_sec) * 1000000000LL +
                         (deadline.tv_nsec - now.tv_nsec);
        if (left <= 0) return pthread_tryjoin_np(thread, nullptr);
        long long nanos = wall.tv_nsec + left % 1000000000LL;
        wall.tv_sec += left / 1000000000LL + nanos / 1000000000LL;
        wall.tv_nsec = nanos % 1000000000LL;
        int rc = pthread_timedjoin_np(thread, nullptr, &wall);
        if (rc != ETIMEDOUT || reached(deadline)) return rc;
    }
}

// With the record's lock held: one step of a wait. Either this waiter joins (dropping the lock
// around the call) or it waits for the joiner's outcome. False once the wait is over.
bool waitStep(ThreadRecord* record, std::uint32_t milliseconds, const timespec& deadline,
              std::uint32_t* result) {
    if (record->m_reaped) {
        *result = WAIT_SIGNALED;
        return false;
    }
    if (!record->m_joining) {
        record->m_joining = true;
        pthread_mutex_unlock(&record->m_mutex);
        int rc = joinOnce(record->m_thread, milliseconds, deadline);
        pthread_mutex_lock(&record->m_mutex);
        record->m_joining = false;
        if (rc == 0) record->m_reaped = true;
        pthread_cond_broadcast(&record->m_changed);
        *result = rc == 0 ? WAIT_SIGNALED : WAIT_TIMEOUT_EXPIRED;
        return false;
    }
    if (milliseconds == 0) {
        *result = WAIT_TIMEOUT_EXPIRED;
        return false;
    }
    if (milliseconds == INFINITE_WAIT) {
        pthread_cond_wait(&record->m_changed, &record->m_mutex);
    } else if (pthread_cond_timedwait(&record->m_changed, &record->m_mutex, &deadline) ==
               ETIMEDOUT) {
        *result = record->m_reaped ? WAIT_SIGNALED : WAIT_TIMEOUT_EXPIRED;
        return false;
    }
    return true;
}

// getpriority may return -1 as a value, so only errno tells a failure.
int readNice(pid_t tid) {
    errno = 0;
    int value = getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
    return value == -1 && errno != 0 ? PRIORITY_ERROR : value;
}

}  // namespace

Handle createThread(ThreadEntry entry, void* argument, std::uint32_t* id) {
    ThreadRecord* record = new (std::nothrow) ThreadRecord(entry, argument);
    if (record == nullptr) return nullptr;
    if (pthread_create(&record->m_thread, nullptr, trampoline, record) != 0) {
        delete record;
        return nullptr;
    }
    Hold hold(record->m_mutex);
    while (record->m_tid == 0) pthread_cond_wait(&record->m_changed, &record->m_mutex);
    if (id != nullptr) *id = static_cast<std::uint32_t>(record->m_tid);
    return record;
}

// A thread whose entry has returned is asked, without waiting, whether its exit is over.
bool getExitCodeThread(Handle thread, std::uint32_t* code) {
    if (thread == CURRENT_THREAD) {
        *code = STILL_ACTIVE_CODE;
        return true;
    }
    ThreadRecord* record = recordOf(thread);
    if (record == nullptr) return false;
    Hold hold(record->m_mutex);
    if (record->m_entryDone && !record->m_reaped && !record->m_joining &&
        pthread_tryjoin_np(record->m_thread, nullptr) == 0) {
        record->m_reaped = true;
        pthread_cond_broadcast(&record->m_changed);
    }
    *code = record->m_reaped ? record->m_exitCode : STILL_ACTIVE_CODE;
    return true;
}

std::uint32_t waitThread(Handle thread, std::uint32_t milliseconds) {
    if (thread == CURRENT_THREAD) {
        sleepMilliseconds(milliseconds);
        return WAIT_TIMEOUT_EXPIRED;
    }
    ThreadRecord* record = recordOf(thread);
    if (record == nullptr) return 0xFFFFFFFFu;
    timespec deadline = deadlineAfter(milliseconds == INFINITE_WAIT ? 0 : milliseconds);
    std::uint32_t result = WAIT_TIMEOUT_EXPIRED;
    Hold hold(record->m_mutex);
    while (waitStep(record, milliseconds, deadline, &result)) {
    }
    return result;
}

Handle duplicateThreadHandle(Handle thread) {
    ThreadRecord* record = recordOf(thread);
    if (record == nullptr) return thread;
    Hold hold(record->m_mutex);
    ++record->m_handles;
    record->m_references.fetch_add(1);
    return record;
}

// pthread_cancel unwinds only at cancellation points, so Linux has no way to kill a thread
// wherever it stands.
bool threadsCanBeTerminated() { return false; }

bool terminateThread(Handle) { return false; }

// setpriority would clamp a value outside the nice range silently, so such a value is refused.
bool setThreadPriority(Handle thread, int priority) {
    if (priority < HIGHEST_NICE || priority > LOWEST_NICE) return false;
    if (thread == CURRENT_THREAD) return setpriority(PRIO_PROCESS, currentTid(), priority) == 0;
    ThreadRecord* record = recordOf(thread);
    if (record == nullptr) return false;
    Hold hold(record->m_mutex);
    if (record->m_entryDone || record->m_reaped) return false;
    return setpriority(PRIO_PROCESS, static_cast<id_t>(record->m_tid), priority) == 0;
}

int getThreadPriority(Handle thread) {
    if (thread == CURRENT_THREAD) return readNice(currentTid());
    ThreadRecord* record = recordOf(thread);
    if (record == nullptr) return PRIORITY_ERROR;
    Hold hold(record->m_mutex);
    if (record->m_entryDone || record->m_reaped) return PRIORITY_ERROR;
    return readNice(record->m_tid);
}

void closeThreadHandle(Handle thread) {
    ThreadRecord* record = recordOf(thread);
    if (record == nullptr) return;
    {
        Hold hold(record->m_mutex);
        if (--record->m_handles == 0 && !record->m_reaped) pthread_detach(record->m_thread);
    }
    release(record);
}

std::uint32_t currentThreadId() { return static_cast<std::uint32_t>(currentTid()); }

Handle currentThreadHandle() { return CURRENT_THREAD; }

}  // namespace platform
}  // namespace mw
