#include "concurrent/Guard.h"

#include "concurrent/NullPointerException.h"
#include "concurrent/Object.h"

namespace mw {

Guard::Guard(const Object& object) : m_object(&object) {
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
