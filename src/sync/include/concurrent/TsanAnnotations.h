// TsanAnnotations: happens-before edges that the library's header-side lock paths tell
// ThreadSanitizer about, so that a program compiled with -fsanitize=thread against a library built
// without it sees its locks synchronize. The blocking itself happens inside the library, where
// ThreadSanitizer sees nothing; the annotations stand in for it.
//
// Each primitive uses its own address: release(address) before it lets go (unlock, a permit given,
// a count-down, a monitor wait giving up the monitor), acquire(address) once it holds (lock, a
// permit taken, a latch passed, a monitor wait that has the monitor back). They only add
// happens-before edges that the primitive really provides, so a library that is itself built with
// ThreadSanitizer, and sees the same edges on its own, is not disturbed by them.
//
// Where a header-side path runs the library's own inline code (a lock's release reads the queue's
// head node, which another thread allocated inside the library), that code's accesses are hidden
// from ThreadSanitizer: they are the library's, ordered by atomics it cannot see, not the
// program's. Not where ThreadSanitizer sees the library itself, whose accesses it should check:
// in the library's own sources, and where MW_SYNC_LIBRARY_TSAN says that the library was built
// with ThreadSanitizer too.
//
// Compiled in only where the including code is built with ThreadSanitizer; elsewhere the
// functions are empty and cost nothing. Defining MW_SYNC_TSAN_ANNOTATIONS to 0 turns them off.
#ifndef MW_CONCURRENT_TSAN_ANNOTATIONS_H
#define MW_CONCURRENT_TSAN_ANNOTATIONS_H

#if !defined(MW_SYNC_TSAN_ANNOTATIONS)
#if defined(__SANITIZE_THREAD__)
#define MW_SYNC_TSAN_ANNOTATIONS 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define MW_SYNC_TSAN_ANNOTATIONS 1
#endif
#endif
#endif
#if !defined(MW_SYNC_TSAN_ANNOTATIONS)
#define MW_SYNC_TSAN_ANNOTATIONS 0
#endif
#if MW_SYNC_TSAN_ANNOTATIONS && !defined(MW_SYNC_BUILDING) && !defined(MW_SYNC_LIBRARY_TSAN)
#define MW_SYNC_TSAN_HIDE_LIBRARY_CODE 1
#else
#define MW_SYNC_TSAN_HIDE_LIBRARY_CODE 0
#endif

#if MW_SYNC_TSAN_ANNOTATIONS
#include <sanitizer/tsan_interface.h>
// In every ThreadSanitizer runtime, not in every version of its header.
extern "C" void __tsan_ignore_thread_begin();
extern "C" void __tsan_ignore_thread_end();
#endif

namespace mw {
namespace detail {

#if MW_SYNC_TSAN_ANNOTATIONS
inline void tsanAcquire(const void* address) { __tsan_acquire(const_cast<void*>(address)); }
inline void tsanRelease(const void* address) { __tsan_release(const_cast<void*>(address)); }
#else
inline void tsanAcquire(const void*) {}
inline void tsanRelease(const void*) {}
#endif
#if MW_SYNC_TSAN_HIDE_LIBRARY_CODE
inline void tsanIgnoreBegin() { __tsan_ignore_thread_begin(); }
inline void tsanIgnoreEnd() { __tsan_ignore_thread_end(); }
#else
inline void tsanIgnoreBegin() {}
inline void tsanIgnoreEnd() {}
#endif

// The span of the library's own inline code inside a header-side path, also when it throws.
class TsanLibraryCode {
public:
    TsanLibraryCode() { tsanIgnoreBegin(); }
    ~TsanLibraryCode() { tsanIgnoreEnd(); }
    TsanLibraryCode(const TsanLibraryCode&) = delete;
    TsanLibraryCode& operator=(const TsanLibraryCode&) = delete;
};

// The span of a monitor wait: the monitor is given up at construction and held again at
// destruction, also when the wait throws.
class TsanMonitorWait {
public:
    explicit TsanMonitorWait(const void* monitor) : m_monitor(monitor) { tsanRelease(monitor); }
    ~TsanMonitorWait() { tsanAcquire(m_monitor); }
    TsanMonitorWait(const TsanMonitorWait&) = delete;
    TsanMonitorWait& operator=(const TsanMonitorWait&) = delete;

private:
    const void* m_monitor;
};

}  // namespace detail
}  // namespace mw

#endif
