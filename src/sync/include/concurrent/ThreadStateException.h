/// @class mw::ThreadStateException
/// ThreadStateException: A thread object cannot do what was asked in its present state.
#ifndef MW_CONCURRENT_THREAD_STATE_EXCEPTION_H
#define MW_CONCURRENT_THREAD_STATE_EXCEPTION_H

#include "Exception.h"

namespace mw {

MW_DECLARE_EXCEPTION(ThreadStateException, Exception);

}  // namespace mw

#endif
