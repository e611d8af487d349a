#include "concurrent/Guard.h"

#include "concurrent/NullPointerException.h"
#include "concurrent/Object.h"

namespace mw {

// A reference made from a null pointer is undefined behaviour, but the test is kept: the address
// goes through a volatile so that the compiler cannot assume it non-null and drop it.
Guard::Guard(const Object& object) : m_object(nullptr) {
    const Object* volatile address = &object;
    m_object = address;
    if (m_object == nullptr) {
        MW_THROW(NullPointerException, "Can't create synchronization guard without an object");
    }
    m_object->lock();
}

Guard::Guard(const Object* object) : m_object(object) {
    if (m_object == nullptr) {
        MW_THROW(NullPointerException, "Can't create synchronization guard without an object");
    }
    m_object->lock();
}

Guard::~Guard() { m_object->release(); }

}  // namespace mw
