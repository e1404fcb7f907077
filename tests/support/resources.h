#ifndef TESSEL_TESTS_SUPPORT_RESOURCES_H
#define TESSEL_TESTS_SUPPORT_RESOURCES_H

#include <gtest/gtest.h>

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

/// The same, once so many looks in turn have found no change.
inline int settledDescriptors(int looks = 50) {
  int last = -1;
  int steady = 0;
  eventually([&] {
    const int now = openDescriptors();
    steady = now == last ? steady + 1 : 0;
    last = now;
    return steady > looks;
  });
  return last;
}

/// For who makes and closes more sockets than a process may have at a time, which is 1023. ZeroMQ
/// closes in the background, and falls behind on a busy machine.
class ClosingPace {
 public:
  /// Looks after `each` of them.
  explicit ClosingPace(int each = 100) : each_(each) {}

  /// After each socket: waits, when it is time, until those closed are few again.
  void keep() {
    if (++closed_ % each_ != 0) return;
    EXPECT_TRUE(eventually([&] { return openDescriptors() < before_ + kFew; }))
        << openDescriptors() << " descriptors, " << before_ << " before";
  }

 private:
  static constexpr int kFew = 200;

  const int each_;
  const int before_ = openDescriptors();
  int closed_ = 0;
};

}  // namespace tessel::test

#endif
