#ifndef TESSEL_TESTS_SUPPORT_RESOURCES_H
#define TESSEL_TESTS_SUPPORT_RESOURCES_H

#include <filesystem>
#include <iterator>

#include "support/deadline.h"

namespace tessel::test {

/// How many descriptors this process has open. Each ZeroMQ socket has one, until it is really
/// closed, which happens in the background: compare with a deadline.
inline int openDescriptors() {
  const std::filesystem::directory_iterator open("/proc/self/fd");
  return static_cast<int>(std::distance(begin(open), end(open))) - 1;  // less the iterator's own
}

/// The same, once it has not changed for a moment.
inline int settledDescriptors() {
  int last = -1;
  int steady = 0;
  eventually([&] {
    const int now = openDescriptors();
    steady = now == last ? steady + 1 : 0;
    last = now;
    return steady > 50;
  });
  return last;
}

}  // namespace tessel::test

#endif
