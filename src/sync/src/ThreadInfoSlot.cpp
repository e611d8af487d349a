#include "ThreadInfoSlot.h"

#include "Park.h"

namespace mw {
namespace detail {
namespace {

// A thread that the OS announces is adopted before its entry function runs.
void onThreadAttach() { Thread::currentThread(); }

// A thread on its way out loses its record, and with it its thread-local values and, when the
// record owns it, its Thread. A thread without a record (one older than the load) is fine. A
// cleaner may adopt the thread again (Thread::currentThread, or a set of a thread-local pointer),
// and that record is freed here too, up to CLEANING_PASSES records: cleaners that keep setting
// each other's values would otherwise hold the thread (on Windows, inside the loader's
// notification) for ever. A record still there after the last pass is withdrawn and freed with
// its values dropped, not cleaned, so the thread leaves nothing behind.
void onThreadDetach() {
    for (int pass = 0; pass < ThreadInfo::CLEANING_PASSES; ++pass) {
        if (readThreadInfoSlot() == nullptr) return;
        s_threadInfo.reset(nullptr);
    }
    ThreadInfo* left = readThreadInfoSlot();
    if (left == nullptr) return;
    s_threadInfo.set(nullptr);
    left->dropSlots();
    delete left;
}

}  // namespace

ThreadInfoSlot::ThreadInfoSlot(Cleaner cleaner) : TlsPtrBase(cleaner) {
    platform::installThreadHooks(&onThreadAttach, &onThreadDetach);
}

ThreadInfoSlot::~ThreadInfoSlot() noexcept(false) {
    markProcessEnding();
    platform::removeThreadHooks();
    platform::cacheThreadRecord(nullptr);
}

void* ThreadInfoSlot::set(void* value) {
    void* old = TlsPtrBase::set(value);
    platform::cacheThreadRecord(value);
    return old;
}

ThreadInfo* readThreadInfoSlot() {
    std::uint32_t lastError = platform::getLastError();
    void* value = platform::tlsGetValue(static_cast<std::uint32_t>(s_threadInfo.getId()));
    platform::setLastError(lastError);
    return static_cast<ThreadInfo*>(value);
}

}  // namespace detail
}  // namespace mw
