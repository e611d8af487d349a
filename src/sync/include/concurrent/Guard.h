/// @class mw::Guard
/// Guard: holds the monitor of an Object for the span of a scope. Guards nest on one thread; each
/// adds one hold and its destructor, also on unwinding, takes one off. Entry cannot be
/// interrupted: an interrupt stays pending for the thread.
//
// Defined here, so that a program built with ThreadSanitizer sees the monitor's entry and exit
// (TsanAnnotations.h) even over a library built without it.
#ifndef MW_CONCURRENT_GUARD_H
#define MW_CONCURRENT_GUARD_H

#include <boost/noncopyable.hpp>

#include "Export.h"
#include "NullPointerException.h"
#include "Object.h"
#include "TsanAnnotations.h"

namespace mw {

namespace detail {
constexpr char NO_GUARD_OBJECT[] = "Can't create synchronization guard without an object";
}

class MW_API Guard : private boost::noncopyable {
public:
    /// Enters object's monitor, or adds a hold if the caller has it; blocks until the monitor is
    /// free. Throws NullPointerException without an object, before touching any monitor.
    // A reference made from a null pointer is undefined behaviour, but the test is kept: the
    // address goes through a volatile so that the compiler cannot assume it non-null and drop it.
    explicit Guard(const Object& object) : m_object(nullptr) {
        const Object* volatile address = &object;
        m_object = address;
        if (m_object == nullptr) MW_THROW(NullPointerException, detail::NO_GUARD_OBJECT);
        enter();
    }
    /// As Guard(const Object&); throws NullPointerException for null, before touching any
    /// monitor.
    explicit Guard(const Object* object) : m_object(object) {
        if (m_object == nullptr) MW_THROW(NullPointerException, detail::NO_GUARD_OBJECT);
        enter();
    }
    /// Takes off the hold that the constructor added, also on unwinding. Never blocks.
    virtual ~Guard() {
        detail::tsanRelease(m_object);
        m_object->release();
    }

private:
    void enter() {
        m_object->lock();
        detail::tsanAcquire(m_object);
    }

    const Object* m_object;
};

}  // namespace mw

#endif
