// The thread detach hook on Linux, which has no loader notifications: the last stage of a
// thread's exit.
//
// glibc ends a thread (after its entry function returns, or at pthread_exit) by running all its
// thread_local destructors and then, in rounds, the destructors of the pthread keys that hold a
// value on it. A key of the backend's, armed with a non-null marker on every thread that stores a
// thread-local value, is that last stage: its destructor runs the installed detach routine after
// every thread_local destructor, so the thread keeps its record and its Thread object for as long
// as any of its own code runs, and then frees the thread's value table.
//
// The detach routine bounds its own work (cleaners that keep storing values are cut off after a
// few passes), so the last stage ends the thread's identity in one go. A later key destructor of
// another library that adopts the thread again arms the key once more, and glibc's next round
// runs the last stage again; glibc makes PTHREAD_DESTRUCTOR_ITERATIONS rounds at most, which
// bounds that too. What is adopted in its last round is not freed.
//
// exit runs no key destructor: the thread that calls it keeps its record through its atexit
// routines and the static destructors, until the destructor of s_threadInfo cleans it.
#include "ThreadExit.h"

#include <atomic>
#include <cerrno>

#include <pthread.h>

#include "../platform.h"

namespace mw {
namespace platform {
namespace {

std::atomic<ThreadHook> s_detachHook{nullptr};

// The key plus one, from installThreadHooks to removeThreadHooks; 0 when there is none. It is
// deleted at unload so that no thread that ends later calls into unloaded code.
std::atomic<unsigned long> s_lastStageKey{0};

bool liveKey(pthread_key_t* key) {
    unsigned long stored = s_lastStageKey.load();
    *key = static_cast<pthread_key_t>(stored - 1);
    return stored != 0;
}

// Whether the key holds its marker on the calling thread: a store of a value then costs one test.
// glibc clears the key's value before it calls the destructor, and the destructor clears this.
__thread bool t_lastStageArmed __attribute__((tls_model("initial-exec"))) = false;

// Any non-null pointer does: glibc only needs the value to be non-null to call the destructor.
void* const ARMED_MARKER = &t_lastStageArmed;

void runLastStage(void*) {
    t_lastStageArmed = false;
    ThreadHook hook = s_detachHook.load();
    if (hook != nullptr) {
        try {
            hook();
        } catch (...) {
            // Nothing may unwind into glibc's exit path; the routine drops cleaners' failures
            // itself.
        }
    }
    // The routine leaves no record behind, so what the table still holds was stored after its
    // last pass and is dropped with the table. A marker set meanwhile would only bring back this
    // destructor for nothing in glibc's next round.
    releaseThreadValues();
    pthread_key_t key;
    if (t_lastStageArmed && liveKey(&key)) pthread_setspecific(key, nullptr);
    t_lastStageArmed = false;
}

}  // namespace

void installThreadHooks(ThreadHook, ThreadHook detach) {
    s_detachHook.store(detach);
    pthread_key_t key;
    if (liveKey(&key)) return;
    if (pthread_key_create(&key, &runLastStage) == 0) s_lastStageKey.store(key + 1UL);
}

void removeThreadHooks() {
    s_detachHook.store(nullptr);
    unsigned long stored = s_lastStageKey.exchange(0);
    if (stored != 0) pthread_key_delete(static_cast<pthread_key_t>(stored - 1));
}

// pthread_setspecific allocates when the key's index needs a block of its own on this thread; a
// failure there leaves errno set and the thread unarmed.
bool armLastStage() {
    if (t_lastStageArmed) return true;
    pthread_key_t key;
    if (!liveKey(&key)) return true;
    int rc = pthread_setspecific(key, ARMED_MARKER);
    if (rc != 0) {
        errno = rc;
        return false;
    }
    t_lastStageArmed = true;
    return true;
}

void armThreadDetach() { armLastStage(); }

}  // namespace platform
}  // namespace mw
