// ThreadSurvey: how a thread dump and a deadlock search read other threads. Every read takes
// the safe road of Reclamation.h: a thread is pinned through the registry before its object is
// touched, its name is protected while it is copied, and a synchronizer is read only while the
// waiting thread's record shows the same wait after the synchronizer was published in the
// caller's INSPECT slot (WaitRecord.h), with the caller counted as an inspector
// (SynchronizerDiagnostics::Inspector) for the whole time. Nothing here blocks another thread or
// waits for one; a thread that ends or a wait that ends meanwhile just shows less.
#ifndef MW_SYNC_THREAD_SURVEY_H
#define MW_SYNC_THREAD_SURVEY_H

#include <vector>

#include "concurrent/ThreadSnapshot.h"

namespace mw {
namespace detail {

class ThreadSurvey {
public:
    // Every registered thread, by serial, with owner names filled in from the others. The caller
    // holds an Inspector.
    static std::vector<ThreadSnapshot> snapshotAll();
    // Whether the thread with that serial is alive and still in the wait read at sequence.
    static bool stillWaiting(unsigned long long serial, unsigned long long sequence);
    // The exclusive owner, read now, of what that thread waits on in the wait read at sequence
    // (the target for a join); false if the thread or the wait is gone. The caller holds an
    // Inspector.
    static bool ownerNow(unsigned long long serial, unsigned long long sequence,
                         unsigned long long* owner);

private:
    class Reader;
};

}  // namespace detail
}  // namespace mw

#endif
