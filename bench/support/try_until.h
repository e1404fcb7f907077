#ifndef TESSEL_BENCH_SUPPORT_TRY_UNTIL_H
#define TESSEL_BENCH_SUPPORT_TRY_UNTIL_H

#include <chrono>
#include <stdexcept>
#include <thread>

namespace tessel::bench {

/// How long the machine may take, however much else it does, for what a benchmark needs first.
constexpr std::chrono::minutes kPatience{1};

/// Attempts every few milliseconds until it succeeds. Throws when it has not within kPatience,
/// which ends the benchmark with the text of `failure`.
template <typename Attempt>
void tryUntil(const Attempt& attempt, const char* failure) {
  const auto begin = std::chrono::steady_clock::now();
  while (!attempt()) {
    if (std::chrono::steady_clock::now() - begin > kPatience) throw std::runtime_error(failure);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace tessel::bench

#endif
