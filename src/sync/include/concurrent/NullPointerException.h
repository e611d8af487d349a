/// @class mw::NullPointerException
/// NullPointerException: A required pointer or object was missing.
#ifndef MW_CONCURRENT_NULL_POINTER_EXCEPTION_H
#define MW_CONCURRENT_NULL_POINTER_EXCEPTION_H

#include "Exception.h"

namespace mw {

MW_DECLARE_EXCEPTION(NullPointerException, Exception);

}  // namespace mw

#endif
