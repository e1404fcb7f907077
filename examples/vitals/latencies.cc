#include "latencies.h"

#include <cmath>

namespace vitals {

void Latencies::add(std::int64_t nanoseconds) {
  ++countByMicrosecond_[nanoseconds / 1000];
  ++count_;
}

std::int64_t Latencies::microseconds(double share) const {
  const auto wanted = static_cast<std::size_t>(std::ceil(share * static_cast<double>(count_)));
  std::size_t passed = 0;
  for (const auto& [microsecond, count] : countByMicrosecond_) {
    passed += count;
    if (passed >= wanted) return microsecond;
  }
  return 0;
}

}  // namespace vitals
