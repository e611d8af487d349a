/// @class mw::UnsupportedOperationException
/// UnsupportedOperationException: An operation that a subclass must provide was called on the base
/// class.
#ifndef MW_CONCURRENT_UNSUPPORTED_OPERATION_EXCEPTION_H
#define MW_CONCURRENT_UNSUPPORTED_OPERATION_EXCEPTION_H

#include "Exception.h"

namespace mw {

MW_DECLARE_EXCEPTION(UnsupportedOperationException, Exception);

}  // namespace mw

#endif
