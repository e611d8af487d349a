/// @class mw::IllegalStateException
/// IllegalStateException: The object is not in a state that allows the operation. Thrown only
/// through its subclass.
#ifndef MW_CONCURRENT_ILLEGAL_STATE_EXCEPTION_H
#define MW_CONCURRENT_ILLEGAL_STATE_EXCEPTION_H

#include "Exception.h"

namespace mw {

MW_DECLARE_EXCEPTION(IllegalStateException, Exception);

}  // namespace mw

#endif
