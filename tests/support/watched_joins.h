#ifndef TESSEL_TESTS_SUPPORT_WATCHED_JOINS_H
#define TESSEL_TESTS_SUPPORT_WATCHED_JOINS_H

#include <pthread.h>

#include <atomic>

#include "support/deadline.h"
#include "support/stand_in.h"

// Stands in for the system's function that waits for the end of a thread: for one source of a
// program whose tests need to know how far an orderly end has come. Links with CMAKE_DL_LIBS.

namespace tessel::test {

/// How many joins there have been in this process, those included that still wait.
inline std::atomic<int> joinsBegun{0};

/// Waits until there have been `count` joins since `before`.
inline bool waitForJoins(int before, int count) {
  return eventually([&] { return joinsBegun.load() >= before + count; });
}

}  // namespace tessel::test

extern "C" int pthread_join(pthread_t thread, void** result) {
  static const auto join = tessel::test::real("pthread_join", &pthread_join);
  ++tessel::test::joinsBegun;
  return join(thread, result);
}

#endif
