// IllegalMonitorStateException: The calling thread does not hold the lock or monitor that the
// operation needs.
#ifndef MW_CONCURRENT_ILLEGAL_MONITOR_STATE_EXCEPTION_H
#define MW_CONCURRENT_ILLEGAL_MONITOR_STATE_EXCEPTION_H

#include "IllegalStateException.h"

namespace mw {

MW_DECLARE_EXCEPTION(IllegalMonitorStateException, IllegalStateException);

}  // namespace mw

#endif
