/// @class mw::IllegalMonitorStateException
/// IllegalMonitorStateException: The calling thread does not hold the lock or monitor that the
/// operation needs. ReadWriteLock also throws it for a hold past its limit and for a write lock
/// asked for by a thread that holds read holds.
#ifndef MW_CONCURRENT_ILLEGAL_MONITOR_STATE_EXCEPTION_H
#define MW_CONCURRENT_ILLEGAL_MONITOR_STATE_EXCEPTION_H

#include "IllegalStateException.h"

namespace mw {

MW_DECLARE_EXCEPTION(IllegalMonitorStateException, IllegalStateException);

}  // namespace mw

#endif
