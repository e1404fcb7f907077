#ifndef TESSEL_TESTS_SUPPORT_STAND_IN_H
#define TESSEL_TESTS_SUPPORT_STAND_IN_H

#include <dlfcn.h>

namespace tessel::test {

/// The function that a function of the test program of the same name stands in for.
template <typename Function>
Function real(const char* name, Function /*standIn*/) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace tessel::test

#endif
