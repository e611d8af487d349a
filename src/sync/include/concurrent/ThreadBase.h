// ThreadBase: the OS identity of a Thread: its handle and its 32-bit id. For an adopted thread the
// handle is the OS constant that means "the calling thread". Both are whole words that other
// threads read while start or terminate may write them, hence atomic cells with plain access.
#ifndef MW_CONCURRENT_THREAD_BASE_H
#define MW_CONCURRENT_THREAD_BASE_H

#include <atomic>
#include <cstdint>

#include "Export.h"

namespace mw {
namespace detail {

class MW_API ThreadBase {
public:
    virtual ~ThreadBase() {}

protected:
    ThreadBase(void* handle, std::uint32_t id) : m_handle(handle), m_id(id) {}

    std::atomic<void*> m_handle;
    std::atomic<std::uint32_t> m_id;
};

}  // namespace detail
}  // namespace mw

#endif
