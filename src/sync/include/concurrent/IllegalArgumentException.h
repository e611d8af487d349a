/// @class mw::IllegalArgumentException
/// IllegalArgumentException: An argument lies outside what the operation accepts.
#ifndef MW_CONCURRENT_ILLEGAL_ARGUMENT_EXCEPTION_H
#define MW_CONCURRENT_ILLEGAL_ARGUMENT_EXCEPTION_H

#include "Exception.h"

namespace mw {

MW_DECLARE_EXCEPTION(IllegalArgumentException, Exception);

}  // namespace mw

#endif
