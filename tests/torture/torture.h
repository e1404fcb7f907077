#ifndef TESSEL_TESTS_TORTURE_TORTURE_H
#define TESSEL_TESTS_TORTURE_TORTURE_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace tessel::test {

using Clock = std::chrono::steady_clock;
using Random = std::mt19937_64;

/// What every program here takes: --seed N, --count N, --seconds N. The count is of what the figure
/// counts; when the seconds are over first, the program ends with what it has reached. The seed
/// decides what is tried, not how the threads interleave.
class Torture {
 public:
  static Torture& instance() {
    static Torture torture;
    return torture;
  }

  void begin(int argc, char** argv, std::uint64_t count, std::uint64_t seconds) {
    arguments_.assign(argv + 1, argv + argc);
    seed_ = number("--seed", std::random_device()());
    count_ = number("--count", count);
    length_ = std::chrono::seconds(number("--seconds", seconds));
    begun_ = Clock::now();
    std::printf("seed %llu\n", static_cast<unsigned long long>(seed_));
    std::fflush(stdout);
  }
  std::uint64_t number(const std::string& name, std::uint64_t otherwise) const {
    const auto found = std::find(arguments_.begin(), arguments_.end(), name);
    if (found == arguments_.end() || found + 1 == arguments_.end()) return otherwise;
    return std::strtoull((found + 1)->c_str(), nullptr, 10);
  }

  std::uint64_t seed() const { return seed_; }
  std::uint64_t count() const { return count_; }
  std::chrono::seconds length() const { return length_; }
  bool timeIsUp() const { return Clock::now() - begun_ >= length_; }
  /// For a program of several parts: whether the first `parts` of `of` parts have had their time.
  bool timeIsUp(int parts, int of) const { return Clock::now() - begun_ >= length_ * parts / of; }
  double seconds() const { return std::chrono::duration<double>(Clock::now() - begun_).count(); }

 private:
  Torture() = default;

  std::vector<std::string> arguments_;
  std::uint64_t seed_ = 0;
  std::uint64_t count_ = 0;
  std::chrono::seconds length_{0};
  Clock::time_point begun_;
};

inline Random randomFor(std::uint64_t part, std::uint64_t thread = 0) {
  const std::uint64_t seed = Torture::instance().seed();
  std::seed_seq sequence{seed, seed >> 32, part, thread};
  return Random(sequence);
}
inline std::size_t pick(Random& random, std::size_t below) { return random() % below; }

/// Ends the process with 1, and says why and with which seed.
[[noreturn]] inline void violated(const std::string& what) {
  static std::mutex once;
  once.lock();  // and never unlocked: the first to come is the one to be told of
  std::fprintf(stderr, "violated with seed %llu: %s\n",
               static_cast<unsigned long long>(Torture::instance().seed()), what.c_str());
  std::fflush(nullptr);
  std::_Exit(1);
}
inline void require(bool holds, const char* what) {
  if (!holds) violated(what);
}

/// 1234567 as "1,234,567".
inline std::string grouped(std::uint64_t value) {
  std::string text = std::to_string(value);
  for (std::size_t place = text.size(); place > 3;) {
    place -= 3;
    text.insert(place, 1, ',');
  }
  return text;
}
inline std::string oneDecimal(double value) {
  char text[64];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

/// One row of the table that scripts/torture prints: what was tried, how much of it, what came out.
inline void row(const char* figure, const std::string& what, const std::string& reached,
                const std::string& outcome) {
  std::printf("| %s | %s | %s | %s |\n", figure, what.c_str(), reached.c_str(), outcome.c_str());
  std::fflush(stdout);
}

}  // namespace tessel::test

#endif
