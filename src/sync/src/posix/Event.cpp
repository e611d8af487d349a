// Auto-reset event on a Linux futex. The word is 1 while the event is set (one permit) and 0
// otherwise; m_waiters counts threads that may sleep on the word, so that setting an event that
// nobody waits on makes no system call.
#include "../platform.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>
#include <new>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mw {
namespace platform {
namespace {

struct FutexEvent {
    std::atomic<int> m_word{0};
    std::atomic<int> m_waiters{0};
};
static_assert(sizeof(std::atomic<int>) == sizeof(int), "a futex word is a plain int");
static_assert(sizeof(Handle) == sizeof(FutexEvent*), "an event travels as a pointer");

int* futexWord(FutexEvent* event) { return reinterpret_cast<int*>(&event->m_word); }

bool tryConsume(FutexEvent* event) {
    int set = 1;
    return event->m_word.compare_exchange_strong(set, 0);
}

// A permit often follows within a few microseconds (a lock handed over to the first waiter), so a
// waiter watches the word for a short while before it sleeps: a hand-over then costs neither the
// waker's futex wake nor the sleeper's wake-up latency. About 1-2 microseconds on current x86.
const int SPIN_ROUNDS = 100;

bool spinForPermit(FutexEvent* event) {
    for (int round = 0; round < SPIN_ROUNDS; ++round) {
        if (event->m_word.load(std::memory_order_relaxed) == 1 && tryConsume(event)) return true;
        cpuRelax();
    }
    return false;
}

timespec monotonicDeadline(std::uint32_t milliseconds) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    long long nanos = now.tv_nsec + static_cast<long long>(milliseconds % 1000) * 1000000LL;
    timespec deadline;
    deadline.tv_sec = now.tv_sec + milliseconds / 1000 + nanos / 1000000000LL;
    deadline.tv_nsec = nanos % 1000000000LL;
    return deadline;
}

// Sleeps while the word is still 0, at most until the absolute monotonic deadline (or without
// limit). Returns false once the deadline has passed. Spurious returns are fine: callers loop.
bool sleepOnWord(FutexEvent* event, const timespec* deadline) {
    long rc = syscall(SYS_futex, futexWord(event), FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, 0,
                      deadline, nullptr, FUTEX_BITSET_MATCH_ANY);
    return !(rc == -1 && errno == ETIMEDOUT);
}

}  // namespace

Handle createEvent() { return new (std::nothrow) FutexEvent; }

bool setEvent(Handle handle) {
    FutexEvent* event = static_cast<FutexEvent*>(handle);
    if (event == nullptr) return false;
    // [E1] The exchange precedes the load of m_waiters, and a waiter's increment precedes its
    // test of the word ([E2]); both are sequentially consistent, so either the waiter sees the
    // permit or this thread sees the waiter and wakes it.
    if (event->m_word.exchange(1) == 0 && event->m_waiters.load() > 0) {
        syscall(SYS_futex, futexWord(event), FUTEX_WAKE | FUTEX_PRIVATE_FLAG, 1, nullptr, nullptr,
                0);
    }
    return true;
}

bool resetEvent(Handle handle) {
    FutexEvent* event = static_cast<FutexEvent*>(handle);
    if (event == nullptr) return false;
    event->m_word.exchange(0);
    return true;
}

std::uint32_t waitEvent(Handle handle, std::uint32_t milliseconds) {
    FutexEvent* event = static_cast<FutexEvent*>(handle);
    if (event == nullptr) return 0xFFFFFFFFu;
    if (tryConsume(event)) return WAIT_SIGNALED;
    if (milliseconds == 0) return WAIT_TIMEOUT_EXPIRED;
    if (spinForPermit(event)) return WAIT_SIGNALED;
    timespec deadline = monotonicDeadline(milliseconds);
    const timespec* limit = milliseconds == INFINITE_WAIT ? nullptr : &deadline;
    event->m_waiters.fetch_add(1);  // [E2] pairs with [E1]
    std::uint32_t result = WAIT_TIMEOUT_EXPIRED;
    for (;;) {
        if (tryConsume(event)) {
            result = WAIT_SIGNALED;
            break;
        }
        if (!sleepOnWord(event, limit)) {
            if (tryConsume(event)) result = WAIT_SIGNALED;
            break;
        }
    }
    event->m_waiters.fetch_sub(1);
    return result;
}

void closeEvent(Handle handle) { delete static_cast<FutexEvent*>(handle); }

}  // namespace platform
}  // namespace mw
