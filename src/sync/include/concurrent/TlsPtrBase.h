// TlsPtrBase: one process-wide object whose value differs from thread to thread, with a cleaner
// that destroys a value. Every non-null value set on a thread that has a thread record is cleaned
// when that thread ends, in the order in which the pointers were first set on it. A pointer must
// outlive every thread that has given it a non-null value and still lives.
//
// get() and set() leave the thread's last-error code as they found it. set() does not destroy the
// value that it replaces (see TlsPtr::reset). Any thread may use a constructed pointer.
#ifndef MW_CONCURRENT_TLS_PTR_BASE_H
#define MW_CONCURRENT_TLS_PTR_BASE_H

#include <boost/noncopyable.hpp>
#include <cstdint>

#include "Export.h"

namespace mw {
namespace detail {

class MW_API TlsPtrBase : private boost::noncopyable {
public:
    typedef void (*Cleaner)(void* value);

    void* get() const;
    // Returns the value before. Throws std::runtime_error("could not set thread specific data")
    // when the OS refuses, leaving the old value in place.
    void* set(void* value);
    // Calls the cleaner unless value is null.
    void destroy(void* value);
    unsigned long getId() const;

protected:
    // Throws std::bad_alloc when the OS has no slot left.
    explicit TlsPtrBase(Cleaner cleaner);
    // Cleans the calling thread's value, then frees the slot. Other threads' values stay.
    virtual ~TlsPtrBase() noexcept(false);

private:
    std::uint32_t m_tlsIndex;
    Cleaner m_cleaner;
};

}  // namespace detail
}  // namespace mw

#endif
