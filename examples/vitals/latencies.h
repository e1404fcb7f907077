#ifndef VITALS_LATENCIES_H
#define VITALS_LATENCIES_H

#include <cstddef>
#include <cstdint>
#include <map>

namespace vitals {

/// How long values were under way, to the microsecond, however many there are.
class Latencies {
 public:
  void add(std::int64_t nanoseconds);
  std::size_t count() const { return count_; }
  /// The time within which that share of the values, 0 to 1, arrived; 0 if there are none.
  std::int64_t microseconds(double share) const;

 private:
  std::map<std::int64_t, std::size_t> countByMicrosecond_;
  std::size_t count_ = 0;
};

}  // namespace vitals

#endif
