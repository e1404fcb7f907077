#ifndef TESSEL_TESTS_SUPPORT_STAND_IN_H
#define TESSEL_TESTS_SUPPORT_STAND_IN_H

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

namespace tessel::test {

/// The function that a function of the test program of the same name stands in for. Where there is
/// none the program ends.
template <typename Function>
Function real(const char* name, Function /*standIn*/) {
  void* const found = dlsym(RTLD_NEXT, name);
  if (found == nullptr) {
    std::fprintf(stderr, "no library has %s\n", name);
    std::abort();
  }
  return reinterpret_cast<Function>(found);
}

}  // namespace tessel::test

#endif
