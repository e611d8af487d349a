// What the thread-local slot table and the last stage of a thread's exit on Linux know of each
// other. The last stage runs from a pthread key destructor, after every thread_local destructor of
// the thread; it runs the installed detach routine and then frees the thread's value table.
#ifndef MW_SYNC_POSIX_THREAD_EXIT_H
#define MW_SYNC_POSIX_THREAD_EXIT_H

namespace mw {
namespace platform {

// Makes sure that the last stage runs on the calling thread's way out, also when it already ran
// there once (a value stored again arms it for glibc's next round). Gives false, with errno set,
// when the thread cannot be armed. Does nothing before the hooks are installed or after they are
// removed.
bool armLastStage();

// Frees the calling thread's value table; every slot reads null on this thread afterwards, and
// the next store makes a new table.
void releaseThreadValues();

}  // namespace platform
}  // namespace mw

#endif
