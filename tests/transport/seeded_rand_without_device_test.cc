// Where the system gives no random numbers. In a program of its own, since it stands in for a
// function of the C++ library.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <random>
#include <system_error>
#include <vector>

#include "support/deadline.h"
#include "transport/seeded_rand.h"

// Other C++ libraries have no such function, and so no test here.
#if defined(__GLIBCXX__)

namespace tessel::test {
namespace {
int asked = 0;
}  // namespace
}  // namespace tessel::test

std::random_device::result_type std::random_device::_M_getval() {
  ++tessel::test::asked;
  throw std::system_error(EMFILE, std::generic_category());
}

namespace tessel::test {
namespace {

std::vector<int> seededNumbers() {
  std::vector<int> numbers;
  withSeededRand([&] {
    for (int i = 0; i < 4; ++i) numbers.push_back(std::rand());
  });
  return numbers;
}

TEST(SeededRandWithoutADevice, GivesOthersAsTimePasses) {
  const std::vector<int> first = seededNumbers();
  EXPECT_EQ(asked, 1);
  EXPECT_TRUE(eventually([&] { return seededNumbers() != first; }));
}

}  // namespace
}  // namespace tessel::test

#endif
