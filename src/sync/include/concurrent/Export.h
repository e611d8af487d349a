// MW_API marks what the library exports: the families of its external interface. Everything else
// is hidden (-fvisibility=hidden on ELF, no dllexport on Windows).
//
// A program that links the static library (or the library's objects directly) defines
// MW_SYNC_STATIC, which the static build's CMake target and pkg-config file pass on: its
// declarations then carry no import or visibility attribute. The library's own objects are
// compiled with MW_SYNC_BUILDING and keep their attribute in every build, so one set of objects
// serves the shared library, the static one and the internal tests.
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
#elif defined(MW_SYNC_STATIC) && !defined(MW_SYNC_BUILDING)
#define MW_API
#else
#define MW_API __attribute__((visibility("default")))
#endif

#endif
