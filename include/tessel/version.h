#ifndef TESSEL_VERSION_H
#define TESSEL_VERSION_H

/// The version of the library; the build and the packages read it from here and nowhere else.
#define TESSEL_VERSION_MAJOR 1
#define TESSEL_VERSION_MINOR 0
#define TESSEL_VERSION_PATCH 0
#define TESSEL_VERSION "1.0.0"

#endif
