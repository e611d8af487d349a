/// @class mw::Runnable
/// Runnable: a task with one operation, run.
#ifndef MW_CONCURRENT_RUNNABLE_H
#define MW_CONCURRENT_RUNNABLE_H

#include "Export.h"

namespace mw {

class MW_API Runnable {
public:
    virtual ~Runnable() {}
    /// Does the task. A Thread calls it on its own thread.
    virtual void run() = 0;
};

}  // namespace mw

#endif
