/// @class mw::DefaultThreadFactory
/// DefaultThreadFactory: makes unstarted Thread objects for tasks, named by pool and thread
/// number: "pool-<pool>-thread-<thread>", both decimal without padding. Each factory is one pool;
/// pools are numbered from 1 in the order of their construction across the process, and the
/// threads of a pool from 1 in the order of their creation. The counters are unsigned 32-bit and
/// wrap without a check.
///
/// The factory neither starts, owns nor tracks what it makes: the caller owns the returned Thread,
/// starts it and deletes it after its end, and the task must outlive the thread. createThread and
/// the constructors may run on any number of threads at once; operator= is not safe against a
/// concurrent createThread on the same object.
#ifndef MW_CONCURRENT_DEFAULT_THREAD_FACTORY_H
#define MW_CONCURRENT_DEFAULT_THREAD_FACTORY_H

#include <string>

#include "Atomic.h"
#include "Export.h"

namespace mw {

class Runnable;
class Thread;

class MW_API DefaultThreadFactory {
public:
    /// Takes the next pool number. Throws std::bad_alloc; the number taken is then not given back.
    DefaultThreadFactory();
    /// The copy has the same prefix and counts on from the source's current thread number, on its
    /// own: the two can hand out equal names. No pool number is taken.
    DefaultThreadFactory(const DefaultThreadFactory& other);
    /// Takes the source's prefix and current thread number, as the copy does. Not safe against a
    /// concurrent createThread on this object.
    DefaultThreadFactory& operator=(const DefaultThreadFactory& other);
    ~DefaultThreadFactory();

    /// A new, unstarted Thread that forwards run() to target (not owned, may be null), named with
    /// the prefix and the next thread number. Throws std::bad_alloc, leaving a gap in the numbers.
    Thread* createThread(Runnable* target);

private:
    // The number of the next pool; 1 at load.
    static Atomic<unsigned int> s_poolNumber;

    Atomic<unsigned int> m_threadNumber;
    std::string m_namePrefix;
};

}  // namespace mw

#endif
