// Guard: holds the monitor of an Object for the span of a scope. Guards nest on one thread; each
// adds one hold and its destructor, also on unwinding, takes one off. Entry cannot be
// interrupted: an interrupt stays pending for the thread.
#ifndef MW_CONCURRENT_GUARD_H
#define MW_CONCURRENT_GUARD_H

#include <boost/noncopyable.hpp>

#include "Export.h"

namespace mw {

class Object;

class MW_API Guard : private boost::noncopyable {
public:
    // Both throw NullPointerException without an object, before touching any monitor.
    explicit Guard(const Object& object);
    explicit Guard(const Object* object);
    virtual ~Guard();

private:
    const Object* m_object;
};

}  // namespace mw

#endif
