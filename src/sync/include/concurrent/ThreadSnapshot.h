// ThreadSnapshot: one thread's line of a thread dump.
#ifndef MW_CONCURRENT_THREAD_SNAPSHOT_H
#define MW_CONCURRENT_THREAD_SNAPSHOT_H

#include <string>

#include "Export.h"
#include "Thread.h"

namespace mw {

/// What one thread was doing when a ThreadDump read it: its identity, its state, and while it
/// was blocked in the library, what it waited on, who held that, and for how long.
///
/// A snapshot is a copy: it stays valid after the thread has ended, and its pointers are
/// identities to print and compare, never to dereference (the objects may be gone). Each
/// snapshot is consistent in itself (read while one and the same wait lasted); two snapshots of
/// one dump may come from slightly different moments.
// The functions are exported one by one, not the type: a type of default visibility would export
// every std:: instantiation over it (the vectors of a dump) from the library.
struct ThreadSnapshot {
    /// What a thread waits on.
    enum WaitKind {
        NOT_WAITING = 0,      ///< Not blocked in the library (it may block elsewhere).
        LOCK,                 ///< Acquiring a ReentrantLock.
        MONITOR_ENTER,        ///< Entering an Object's monitor (a Guard), or re-entering it
                              ///< after a monitor wait was notified.
        MONITOR_WAIT,         ///< In an Object's wait: it holds no part of the monitor.
        CONDITION,            ///< Awaiting a lock's condition: it holds no part of the lock.
        READ_LOCK,            ///< Acquiring the read side of a ReadWriteLock.
        WRITE_LOCK,           ///< Acquiring the write side of a ReadWriteLock.
        SEMAPHORE,            ///< Acquiring permits of a Semaphore.
        LATCH,                ///< Awaiting a CountDownLatch.
        SYNCHRONIZER,         ///< Acquiring a program's own synchronizer exclusively.
        SYNCHRONIZER_SHARED,  ///< Acquiring a program's own synchronizer in shared mode.
        JOIN,                 ///< In Thread::join of another thread.
        SLEEP                 ///< In Thread::sleep.
    };

    /// The word that the text form uses for kind ("lock", "monitor wait", ...).
    MW_API static const char* kindName(WaitKind kind);

    /// The thread's object, as an identity.
    const Thread* thread = nullptr;
    /// Thread::getSerial: unique among all objects of the process's life.
    unsigned long long serial = 0;
    /// Thread::getId: the OS thread id.
    unsigned long id = 0;
    /// Thread::getName.
    std::string name;
    /// Thread::getState. A thread in join or sleep is RUNNING, as getState says.
    Thread::State state = Thread::NEW;

    /// NOT_WAITING unless the thread was blocked in the library.
    WaitKind waitKind = NOT_WAITING;
    /// The object waited on, as the program knows it: the ReentrantLock, the Object, the
    /// Condition, the ReadWriteLock, the Semaphore, the CountDownLatch, the thread joined, or a
    /// program's own synchronizer. Null when not waiting, and for SLEEP.
    const void* waitsOn = nullptr;
    /// The diagnostic name of what is waited on (setDiagnosticName; for a condition, its lock's);
    /// the thread's name for JOIN.
    /// Empty when none was given.
    std::string waitsOnName;
    /// The serial of the thread that held what is waited on exclusively (the lock's or the
    /// monitor's owner, the writer of a read-write lock), or of the thread joined; 0 when there
    /// is none (a free or shared hold, a semaphore, a latch, a condition or monitor wait).
    unsigned long long ownerSerial = 0;
    /// That thread's name, when it was still alive to be read.
    std::string ownerName;
    /// How long the thread had been waiting, in nanoseconds.
    long long waitedNanos = 0;
    /// Tells waits apart: two snapshots of one thread with equal values saw the same wait.
    unsigned long long waitSequence = 0;

    /// True while the snapshot shows a wait.
    bool isWaiting() const { return waitKind != NOT_WAITING; }
    /// The dump's text for this thread: the line of the thread and, when it waits, the line of
    /// the wait, each ending in a newline (the format is documented on ThreadDump).
    MW_API std::string toString() const;
};

}  // namespace mw

#endif
