/// @class mw::InterruptedException
/// InterruptedException: The calling thread was interrupted while it waited, or on entry to an
/// interruptible wait.
#ifndef MW_CONCURRENT_INTERRUPTED_EXCEPTION_H
#define MW_CONCURRENT_INTERRUPTED_EXCEPTION_H

#include "Exception.h"

namespace mw {

MW_DECLARE_EXCEPTION(InterruptedException, Exception);

}  // namespace mw

#endif
