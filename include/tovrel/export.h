// TOVREL_API marks the library's exported surface.
//
// While the library itself is built (TOVREL_BUILDING) the marked names are
// exported from tovrel.dll / libtovrel.so; programs that use the DLL import
// them. Code linked against the static library (the library's own tests)
// defines TOVREL_STATIC and sees no decoration at all.
#ifndef TOVREL_EXPORT_H
#define TOVREL_EXPORT_H

#if defined(TOVREL_STATIC)
#define TOVREL_API
#elif defined(_WIN32)
#if defined(TOVREL_BUILDING)
#define TOVREL_API __declspec(dllexport)
#else
#define TOVREL_API __declspec(dllimport)
#endif
#else
#define TOVREL_API __attribute__((visibility("default")))
#endif

#endif
