#ifndef TESSEL_EXPORT_H
#define TESSEL_EXPORT_H

/// @file
/// What makes a name visible outside the library.

/// Marks what the shared library offers; everything else stays hidden in it.
/// A static build defines TESSEL_STATIC for itself and, through the CMake target, for its users.
#if defined(TESSEL_STATIC)
#define TESSEL_EXPORT
#elif defined(_WIN32)
#if defined(TESSEL_BUILDING)
#define TESSEL_EXPORT __declspec(dllexport)
#else
#define TESSEL_EXPORT __declspec(dllimport)
#endif
#else
#define TESSEL_EXPORT __attribute__((visibility("default")))
#endif

#endif
