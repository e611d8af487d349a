// MW_API marks what the library exports: the families of its external interface. Everything else
// is hidden (-fvisibility=hidden on ELF, no dllexport on Windows).
#ifndef MW_CONCURRENT_EXPORT_H
#define MW_CONCURRENT_EXPORT_H

#if defined(_WIN32)
// GCC for Windows marks as exported every typeinfo object that a translation unit makes after its
// first exported polymorphic class, unless std::type_info was defined before that class; the
// export table would then carry the typeinfo of internal classes, of boost and of std.
#include <typeinfo>
#if defined(MW_SYNC_BUILDING)
#define MW_API __declspec(dllexport)
#elif defined(MW_SYNC_STATIC)
#define MW_API
#else
#define MW_API __declspec(dllimport)
#endif
#else
#define MW_API __attribute__((visibility("default")))
#endif

#endif
