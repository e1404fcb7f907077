#ifndef VITALS_CLOCK_H
#define VITALS_CLOCK_H

#include <chrono>
#include <cstdint>

namespace vitals {

/// Nanoseconds of the steady clock, which all processes of a machine share.
inline std::int64_t now() {
  const auto sinceBoot = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(sinceBoot).count();
}

}  // namespace vitals

#endif
