#include "concurrent/TlsPtrBase.h"

#include <new>
#include <stdexcept>

#include "ThreadInfoSlot.h"
#include "platform.h"

namespace mw {
namespace detail {
namespace {

// The OS has no thread-local slot left: reported as an allocation failure with a fixed text.
class SlotsExhausted : public std::bad_alloc {
public:
    virtual const char* what() const noexcept { return "bad allocation"; }
};

void* readSlot(std::uint32_t slot) {
    std::uint32_t lastError = platform::getLastError();
    void* value = platform::tlsGetValue(slot);
    platform::setLastError(lastError);
    return value;
}

void writeSlot(std::uint32_t slot, void* value) {
    if (!platform::tlsSetValue(slot, value)) {
        throw std::runtime_error("could not set thread specific data");
    }
}

}  // namespace

TlsPtrBase::TlsPtrBase(Cleaner cleaner) : m_tlsIndex(0), m_cleaner(cleaner) {
    m_tlsIndex = platform::tlsAlloc();
    if (m_tlsIndex == platform::TLS_OUT_OF_SLOTS) throw SlotsExhausted();
}

TlsPtrBase::~TlsPtrBase() noexcept(false) {
    void* value = readSlot(m_tlsIndex);
    if (value != nullptr) m_cleaner(value);
    writeSlot(m_tlsIndex, nullptr);
    platform::tlsFree(m_tlsIndex);
}

void* TlsPtrBase::get() const { return readSlot(m_tlsIndex); }

// A non-null value is entered in the calling thread's record, so that the thread's end cleans it.
// A thread that has no record yet (one the OS did not announce: any thread on Linux, a thread
// older than the load on Windows) is adopted here, so its values are cleaned all the same.
// s_threadInfo never enters itself: when it is set to a new record, that record is the value.
void* TlsPtrBase::set(void* value) {
    void* old = readSlot(m_tlsIndex);
    writeSlot(m_tlsIndex, value);
    if (value == nullptr) return old;
    ThreadInfo* record = readThreadInfoSlot();
    if (record == value) return old;
    if (record == nullptr) {
        std::uint32_t lastError = platform::getLastError();
        Thread::currentThread();
        platform::setLastError(lastError);
        record = readThreadInfoSlot();
    }
    if (record != nullptr) record->addSlot(this);
    return old;
}

void TlsPtrBase::destroy(void* value) {
    if (value != nullptr) m_cleaner(value);
}

unsigned long TlsPtrBase::getId() const { return m_tlsIndex; }

}  // namespace detail
}  // namespace mw
