#ifndef TESSEL_VERSION_H
#define TESSEL_VERSION_H

/// @file
/// The version of the library; the build and the packages read it from here and nowhere else.

#define TESSEL_VERSION_MAJOR 1  ///< Changes when programs must be compiled anew.
#define TESSEL_VERSION_MINOR 0  ///< Changes when something is added.
#define TESSEL_VERSION_PATCH 0  ///< Changes when something is mended.
#define TESSEL_VERSION "1.0.0"  ///< All three, as a text.

#endif
